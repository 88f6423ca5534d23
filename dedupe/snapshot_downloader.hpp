// Downloads the records of one object (or several, into one multi-object
// snapshot) through Bulk API 2.0 query jobs into a RecordStore, page by page.
//
// Everything needed to go on after a stop lives in the snapshot itself (the
// job id, the locator of the next page, how many objects are done), so a
// paused or interrupted download resumes from the first page not stored and
// ends with exactly the rows of an uninterrupted one. Blocks its thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "connections/bulk_query_runner.hpp"
#include "connections/download_error.hpp"
#include "dedupe/record_store.hpp"

namespace corvane {

class SnapshotDownloader {
 public:
  struct Request {
    std::string objectName;
    std::string nameField = "Name";
    // One per match-field slot; empty where this object has no field for it
    // (multi-object snapshots).
    std::vector<std::string> matchFieldNames;
    std::vector<std::string> extraFieldNames;  // likewise, per extra slot
    std::optional<std::string> scope;          // a SOQL condition
    int pageSize = 50'000;
  };

  using PhaseCallback = std::function<void(const DownloadPhase&)>;
  using ShouldCancel = std::function<bool()>;

  SnapshotDownloader(DedupeTransport& transport, BulkQueryRunner::Options options)
      : transport_(transport), options_(std::move(options)) {}

  // The columns asked for, each once: Id, the name field, CreatedDate,
  // LastModifiedDate, then the match and extra fields.
  static std::vector<std::string> columns(const Request& request);
  // SELECT <columns> FROM <object> [WHERE <scope>].
  static std::string soql(const Request& request);

  // Downloads (or continues) into store: one request for a single-object
  // snapshot, one per object (in the store's object order) for a multi-object
  // one. Returns finished, or paused when shouldCancel said so. On an error
  // reports paused with the error's sentence, then throws it (DownloadError,
  // CsvError, SQLiteError); what was stored stays.
  DownloadPhase download(const std::vector<Request>& requests, RecordStore& store,
                         const PhaseCallback& phase, const ShouldCancel& shouldCancel);

  // The requests a snapshot was made with, for resuming it.
  static std::vector<Request> requestsFor(RecordStore& store);

 private:
  // Returns false when paused.
  bool downloadObject(const Request& request, RecordStore& store, std::string_view object,
                      const PhaseCallback& phase, const ShouldCancel& shouldCancel);

  DedupeTransport& transport_;
  BulkQueryRunner::Options options_;
};

}  // namespace corvane
