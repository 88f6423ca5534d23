// Bulk API 2.0 ingest jobs, for imports too large for sObject collections:
// create a job, upload the rows as CSV, close it with UploadComplete, poll
// until it has finished, and read which rows succeeded and which failed.
//
// Result files list the rows as they were uploaded, not necessarily in that
// order, so a result is matched to its grid row by the cells sent; equal rows
// take their results in turn.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "connections/bulk_ingest_job.hpp"
#include "connections/dedupe_transport.hpp"
#include "import/import_journal.hpp"
#include "import/import_plan.hpp"

namespace corvane::BulkIngestClient {

using JobState = BulkIngestJob::State;

// The CSV of these rows: a header of the plan's fields (only Id for a
// delete), values as coerced, empty cells where no value is sent.
std::string csv(const ImportPlan& plan, const std::vector<std::size_t>& rows);

// POST jobs/ingest; returns the new job, Open.
JobState create(DedupeTransport& transport, const std::string& object,
                const ImportOperation& operation);
// PUT jobs/ingest/ID/batches.
void upload(DedupeTransport& transport, const std::string& id, const std::string& csv);
// PATCH jobs/ingest/ID to UploadComplete or Aborted.
JobState setState(DedupeTransport& transport, const std::string& id, const std::string& state);
// GET jobs/ingest/ID.
JobState status(DedupeTransport& transport, const std::string& id);

// The outcome of every row the result files name, by matching cells.
// created comes from sf__Created; the message from sf__Error.
std::vector<RowOutcome> outcomes(const ImportPlan& plan, const std::vector<std::size_t>& rows,
                                 const std::string& successfulCsv, const std::string& failedCsv);

// GET jobs/ingest/ID/successfulResults and failedResults, read into outcomes.
std::vector<RowOutcome> results(DedupeTransport& transport, const std::string& id,
                                const ImportPlan& plan, const std::vector<std::size_t>& rows);

}  // namespace corvane::BulkIngestClient
