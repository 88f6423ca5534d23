// Bulk API 2.0 query jobs.
//
// A job moves UploadComplete -> InProgress -> JobComplete, or to Failed (objects
// and queries bulk refuses, or an injected failure), or Aborted. Its result is
// written once, in the background, to DIR/bulk/<id>.csv (the CSV exactly as served)
// with DIR/bulk/<id>.idx (the byte offset of every row), so any page is a byte range
// of the file: pages stream straight from disk and a locator stays valid for as long
// as the job exists. Locators are the base64 text of the first row's number.
//
// The delay before a job completes is the setting "bulkDelayMs" (default 500),
// measured on the real clock. Jobs and their files survive a restart; an unfinished
// result is written again. Thread-safe.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/orgsim/org_store.hpp"

namespace corvane::orgsim {

struct BulkJobInfo {
  std::string id;
  std::string operation;  // query, queryAll
  std::string object;
  std::string query;
  std::string apiVersion;  // "62.0"
  std::string state;       // UploadComplete, InProgress, JobComplete, Failed, Aborted
  std::string createdById;
  std::string createdDate;  // stored form
  std::string systemModstamp;
  std::string errorMessage;
  std::int64_t numberRecordsProcessed = 0;
  std::int64_t createdAtMs = 0;  // real clock
  std::int64_t readyAtMs = 0;    // real clock: not complete before
  bool resultWritten = false;
  std::string failure;  // decided at creation: the job will go Failed with this

  // Salesforce's job info JSON.
  nlohmann::json toJson() const;
  nlohmann::json toStoredJson() const;
  static BulkJobInfo fromStoredJson(const nlohmann::json& json);
};

// A failure answered over HTTP: status and Salesforce's error body fields.
struct BulkError {
  int status = 400;
  std::string errorCode;
  std::string message;
};

struct BulkPage {
  std::filesystem::path file;
  std::uint64_t headerBytes = 0;     // the header line: bytes [0, headerBytes)
  std::uint64_t begin = 0, end = 0;  // the rows: bytes [begin, end)
  std::int64_t rows = 0;
  std::string nextLocator;  // "null" on the last page
};

class BulkJobs {
 public:
  explicit BulkJobs(OrgStore& store);
  ~BulkJobs();
  BulkJobs(const BulkJobs&) = delete;
  BulkJobs& operator=(const BulkJobs&) = delete;

  // Creates a job. Throws SoqlError for a query that cannot be read at all;
  // what bulk refuses makes a job that goes Failed. `injectedFailure` makes it fail
  // with that message whatever the query.
  BulkJobInfo create(const std::string& operation, const std::string& soql,
                     const std::string& apiVersion, const std::string& userId,
                     const std::optional<std::string>& injectedFailure);

  // The job's current state; none when unknown.
  std::optional<BulkJobInfo> get(const std::string& id);
  std::vector<BulkJobInfo> list();
  // Aborts a job that has not finished. Errors: unknown job, already finished.
  std::variant<BulkJobInfo, BulkError> abort(const std::string& id);
  // Removes the job and its files. False when unknown.
  bool remove(const std::string& id);

  // One page of results.
  std::variant<BulkPage, BulkError> page(const std::string& id, const std::string& apiVersion,
                                         const std::optional<std::string>& locator,
                                         std::optional<std::int64_t> maxRecords);

  // Waits until no result is being written (tests).
  void waitIdle();

 private:
  void worker();
  void writeResult(const std::string& id);
  void save(const BulkJobInfo& job);
  std::optional<BulkJobInfo> load(const std::string& id);
  std::filesystem::path folder() const;

  OrgStore& store_;
  // Held across every read-change-write of a job's stored state, so that the
  // worker finishing a result and a poll moving the state never undo each other.
  std::mutex stateMutex_;
  std::mutex mutex_;  // guards queue_, busy_, stopping_
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<std::string> queue_;
  bool busy_ = false;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace corvane::orgsim
