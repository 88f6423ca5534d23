// Writes the deletes or the updates of a resolution plan through the REST
// composite API, up to 200 records per call, with per-record results
// (allOrNone=false).
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
#include "connections/dedupe_transport.hpp"

namespace corvane {

class ChangeRunner {
 public:
  struct ChangeResult {
    enum class Status { done, failed, unknown, notAttempted };
    std::string sfid;
    std::int64_t groupId = 0;
    bool success = false;
    std::optional<std::string> message;
    Status status = Status::notAttempted;
    bool operator==(const ChangeResult&) const = default;
  };

  struct Options {
    std::size_t batchSize = 200;  // the composite API's limit
    int lockAttempts = 4;
    std::chrono::milliseconds lockPause{1000};
    std::function<void(std::chrono::milliseconds)> sleep;  // default: sleep_for
    std::function<bool()> shouldCancel;                    // polled before each call
  };

  using Progress = std::function<void(std::size_t done, std::size_t total)>;

  explicit ChangeRunner(DedupeTransport& transport);
  ChangeRunner(DedupeTransport& transport, Options options);

  // DELETE composite/sobjects?ids=...: one result per change, in order;
  // onProgress after each call.
  std::vector<ChangeResult> deleteRecords(const std::vector<PlannedChange>& deletes,
                                          const Progress& onProgress);
  // PATCH composite/sobjects with each change's fields.
  std::vector<ChangeResult> updateRecords(const std::vector<PlannedChange>& updates,
                                          const Progress& onProgress);

  bool signedOut() const { return signedOut_; }
  bool cancelled() const { return cancelled_; }

  static std::string unknownOutcome(std::string_view reason);
  static std::string notAttemptedSignedOut();
  static std::string notAttemptedCancelled();

 private:
  using Send = std::function<std::string(const std::vector<const PlannedChange*>&)>;
  std::vector<ChangeResult> run(const std::vector<PlannedChange>& changes, const Send& send,
                                const Progress& onProgress);

  DedupeTransport& transport_;
  Options options_;
  bool signedOut_ = false;
  bool cancelled_ = false;
};

}  // namespace corvane
