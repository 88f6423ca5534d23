// Bulk API 2.0 ingest jobs: insert, update, upsert and delete of CSV rows.
//
// A job is created Open, takes one or more CSV uploads, and is closed with
// UploadComplete; its rows are then written one by one, as Salesforce does,
// each succeeding or failing on its own, and the job reads InProgress until
// the setting "bulkDelayMs" (real time) has passed, then JobComplete. A job
// aborted before UploadComplete processes nothing: all its rows are
// unprocessed. A header naming a field the object lacks makes the job Failed
// with InvalidBatch.
//
// Row validation follows Salesforce: required fields, text over the field's
// length, values a restricted picklist does not hold, an external id given
// twice in one upsert job (DUPLICATE_EXTERNAL_ID for the later rows), and
// row locks on demand (a fault rule of kind UNABLE_TO_LOCK_ROW on the job's
// path fails that many rows). Results are CSV with Salesforce's columns:
// successful "sf__Id","sf__Created" then the row's own columns; failed
// "sf__Id","sf__Error" then the row's columns; unprocessed the row's columns.
//
// Jobs live under DIR/ingest/<id>/ (job.json, data.csv, and the three result
// files once processed) and survive a restart. Thread-safe.
#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/orgsim/bulk_jobs.hpp"
#include "tools/orgsim/org_store.hpp"

namespace corvane::orgsim {

struct IngestJobInfo {
  std::string id;
  std::string object;
  std::string operation;  // insert, update, upsert, delete
  std::string externalIdFieldName;
  std::string state;  // Open, UploadComplete, InProgress, JobComplete, Failed, Aborted
  std::string apiVersion;
  std::string createdById;
  std::string createdDate;  // REST form
  std::string errorMessage;
  std::int64_t numberRecordsProcessed = 0;
  std::int64_t numberRecordsFailed = 0;
  std::int64_t readyAtMs = 0;  // real clock: JobComplete not before

  // Salesforce's job info JSON.
  nlohmann::json toJson() const;
  nlohmann::json toStoredJson() const;
  static IngestJobInfo fromStoredJson(const nlohmann::json& json);
};

class BulkIngest {
 public:
  BulkIngest(OrgStore& store, std::filesystem::path folder);

  // POST jobs/ingest: {"object", "operation", "externalIdFieldName"?,
  // "contentType"?: "CSV", "lineEnding"?: "LF"|"CRLF", "columnDelimiter"?: "COMMA"}.
  std::variant<IngestJobInfo, BulkError> create(const nlohmann::json& request,
                                                const std::string& apiVersion,
                                                const std::string& userId);
  // GET jobs/ingest/{id}; moves InProgress on to JobComplete once ready.
  std::optional<IngestJobInfo> get(const std::string& id);
  std::vector<IngestJobInfo> list();
  // PUT jobs/ingest/{id}/batches: appends CSV (its header must match an
  // earlier upload's). Only while Open.
  std::variant<IngestJobInfo, BulkError> upload(const std::string& id, const std::string& csv);
  // PATCH jobs/ingest/{id} {"state": "UploadComplete" | "Aborted"}. The
  // rows are written before this returns; `path` is the request's, for faults.
  std::variant<IngestJobInfo, BulkError> setState(const std::string& id, const std::string& state,
                                                  const std::string& userId,
                                                  const std::string& path);
  // GET jobs/ingest/{id}/successfulResults | failedResults | unprocessedrecords.
  std::variant<std::string, BulkError> results(const std::string& id, const std::string& kind);
  // DELETE jobs/ingest/{id}: only finished or aborted jobs.
  std::variant<bool, BulkError> remove(const std::string& id);

 private:
  void process(IngestJobInfo& job, const std::string& userId, const std::string& path);
  void save(const IngestJobInfo& job);
  std::optional<IngestJobInfo> load(const std::string& id);
  std::filesystem::path jobFolder(const std::string& id) const;

  OrgStore& store_;
  std::filesystem::path folder_;
  std::mutex mutex_;  // held across every read-change-write of a job
};

// RFC 4180 CSV as Bulk API reads it: rows of fields, quotes doubled inside
// quoted fields, LF or CRLF line ends; a trailing empty line is no row.
std::vector<std::vector<std::string>> parseBulkCsv(std::string_view text);

}  // namespace corvane::orgsim
