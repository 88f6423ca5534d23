// The calls of a Bulk API 2.0 ingest job, shared by every engine that writes
// many records: create a job, upload CSV, close it with UploadComplete, poll
// until it has finished, and fetch the files of rows that succeeded and failed.
// Each call blocks and throws like the transport; a reply about a job that
// cannot be read throws std::runtime_error with a sentence for the user.
#pragma once

#include <string>
#include <utility>

#include "connections/dedupe_transport.hpp"

namespace corvane::BulkIngestJob {

struct State {
  std::string id;
  std::string state;  // Open, UploadComplete, InProgress, JobComplete, Failed, Aborted
  std::string errorMessage;

  bool finished() const {
    return state == "JobComplete" || state == "Failed" || state == "Aborted";
  }
};

// POST jobs/ingest for operation ("insert", "update", "upsert", "delete") of
// object, CSV with LF line endings and commas; returns the new job, Open.
State create(DedupeTransport& transport, const std::string& object, const std::string& operation,
             const std::string& externalIdField = {});
// PUT jobs/ingest/ID/batches.
void upload(DedupeTransport& transport, const std::string& id, const std::string& csv);
// PATCH jobs/ingest/ID to UploadComplete or Aborted.
State setState(DedupeTransport& transport, const std::string& id, const std::string& state);
// GET jobs/ingest/ID.
State status(DedupeTransport& transport, const std::string& id);
// GET jobs/ingest/ID/successfulResults and failedResults, as CSV text.
std::pair<std::string, std::string> resultFiles(DedupeTransport& transport, const std::string& id);

// Appends text as one CSV cell: quoted (quotes doubled) when it holds a
// comma, a quote or a line break.
void appendCell(std::string& out, const std::string& text);

}  // namespace corvane::BulkIngestJob
