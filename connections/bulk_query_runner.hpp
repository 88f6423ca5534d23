// One Bulk API 2.0 query job: create it, wait until Salesforce has prepared
// the results, read them page by page as CSV, and remove the job.
//
// Independent of where the pages go: the snapshot download stores them in a
// snapshot, the backup run appends them to CSV files. Each page comes with the
// locator of the next one, so that a caller that commits both together can
// resume after any stop. Errors are DownloadError; a call blocks its thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "connections/download_error.hpp"
#include "connections/dedupe_transport.hpp"

namespace corvane {

class BulkQueryRunner {
 public:
  enum class Operation { query, queryAll };  // queryAll includes deleted and archived rows

  struct Job {
    std::string id;
    std::string createdDate;
  };

  struct Options {
    // Free space that must remain after what is still to come.
    std::int64_t freeSpaceFloor = 200'000'000;
    // Free bytes of the folder the results go to; none when unknown (no check).
    std::function<std::optional<std::int64_t>()> freeSpace;
    // Bytes stored per byte of CSV received, for the estimate of what remains.
    double storageFactor = 2.0;
    std::chrono::milliseconds firstPollDelay{500};
    std::chrono::milliseconds maxPollDelay{10'000};
  };

  struct Page {
    std::string csv;          // the page as received, header row included
    std::string nextLocator;  // empty when this was the last page (Salesforce's "null")
    std::int64_t records = -1;  // from Sforce-NumberOfRecords; -1 when not sent
  };

  using ShouldCancel = std::function<bool()>;

  BulkQueryRunner(DedupeTransport& transport, Options options)
      : transport_(transport), options_(std::move(options)) {}

  Job create(const std::string& soql, Operation operation = Operation::query);

  // Polls until the job is complete, with pauses growing from firstPollDelay to
  // maxPollDelay; returns the number of records it found. Returns none when
  // shouldCancel said so first.
  std::optional<std::int64_t> waitForJob(const Job& job, const ShouldCancel& shouldCancel);

  // One page of results from locator (none for the first). remainingRecords is
  // what is still to come, for the free-space check made before asking. Only
  // the locator text "null" ends the results: a page without the Sforce-Locator
  // header is asked for once more, then it is DownloadError::pageWithoutLocator.
  Page fetchPage(const Job& job, const std::optional<std::string>& locator, int maxRecords,
                 std::int64_t remainingRecords);

  // Removes the job (finished or abandoned). Failures are ignored: a job left
  // behind expires on its own.
  void remove(const Job& job) noexcept;

  // Bytes of CSV received so far, and the records in them.
  std::int64_t bytesReceived() const { return bytesReceived_; }

 private:
  [[noreturn]] void rethrow(const std::exception& error, bool creating) const;
  void checkSpace(std::int64_t remainingRecords) const;

  DedupeTransport& transport_;
  Options options_;
  std::int64_t bytesReceived_ = 0;
  std::int64_t recordsReceived_ = 0;
};

}  // namespace corvane
