// Deletes the losers of a resolution plan through the REST composite API,
// up to 200 records per call, with per-record results (allOrNone=false).
//
// Deleted records go to the org's Recycle Bin. The rules follow the merge
// runner's: a sign-out stops the run (the rest are not attempted), a row lock
// is tried again after a pause, and a call with no readable reply has an
// unknown outcome that the message says to check.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dedupe/resolution_planner.hpp"
#include "dedupe/transport.hpp"

namespace corvane {

class DeleteRunner {
 public:
  struct DeleteResult {
    enum class Status { deleted, failed, unknown, notAttempted };
    std::string sfid;
    std::int64_t groupId = 0;
    bool success = false;
    std::optional<std::string> message;
    Status status = Status::notAttempted;
    bool operator==(const DeleteResult&) const = default;
  };

  struct Options {
    std::size_t batchSize = 200;  // the composite API's limit
    int lockAttempts = 4;
    std::chrono::milliseconds lockPause{1000};
    std::function<void(std::chrono::milliseconds)> sleep;  // default: sleep_for
    std::function<bool()> shouldCancel;                    // polled before each call
  };

  using Progress = std::function<void(std::size_t done, std::size_t total)>;

  explicit DeleteRunner(DedupeTransport& transport);
  DeleteRunner(DedupeTransport& transport, Options options);

  // One result per delete, in order; onProgress after each call.
  std::vector<DeleteResult> run(const std::vector<PlannedChange>& deletes,
                                const Progress& onProgress);

  bool signedOut() const { return signedOut_; }
  bool cancelled() const { return cancelled_; }

  static std::string unknownOutcome(std::string_view reason);
  static std::string notAttemptedSignedOut();
  static std::string notAttemptedCancelled();

 private:
  DedupeTransport& transport_;
  Options options_;
  bool signedOut_ = false;
  bool cancelled_ = false;
};

}  // namespace corvane
