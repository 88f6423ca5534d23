// Carries out the merges of a resolution plan in the org: one SOAP partner
// `merge` call per PlannedMerge (one loser into its primary), in list order,
// through the engine's transport.
//
// The rules, in the order they apply to one call:
//   - a reply or fault whose code says the session is gone (or a transport
//     that reports a sign-out) stops the run: that merge and every one after
//     it are reported as not attempted, and signedOut() holds;
//   - UNABLE_TO_LOCK_ROW is tried again after a pause that doubles each time;
//   - a call with no readable reply has an unknown outcome: it may have gone
//     through, and the message says to check before retrying;
//   - when the merge carrying the kept record's values fails (or its outcome
//     is unknown), the rest of its group is skipped.
// One run at a time per runner.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "dedupe/resolution_planner.hpp"
#include "connections/dedupe_transport.hpp"

namespace corvane {

// What a transport throws from postSOAP when it cannot make SOAP calls at all.
class SOAPNotSupported : public std::logic_error {
 public:
  SOAPNotSupported() : std::logic_error("SOAP calls are not supported") {}
};

class MergeRunner {
 public:
  struct MergeResult {
    enum class Status {
      merged,
      failed,        // Salesforce refused it; message says why
      unknown,       // no readable reply: it may have gone through
      skipped,       // left alone because its group's first merge failed
      notAttempted,  // the run stopped (sign-out or cancel) before it
    };
    std::size_t index = 0;  // position in the list of merges
    std::string primary;
    std::string loser;
    bool success = false;
    std::optional<std::string> message;
    Status status = Status::notAttempted;
    bool operator==(const MergeResult&) const = default;
  };

  struct Options {
    // Tries in all for a row lock, and the pause before the first retry.
    int lockAttempts = 4;
    std::chrono::milliseconds lockPause{1000};
    std::function<void(std::chrono::milliseconds)> sleep;  // default: sleep_for
    std::function<bool()> shouldCancel;                    // polled before each call
  };

  using Progress = std::function<void(std::size_t done, std::size_t total)>;

  MergeRunner(DedupeTransport& transport, std::string objectName);
  MergeRunner(DedupeTransport& transport, std::string objectName, Options options);

  // Account, Contact and Lead: every other object's duplicates can only be deleted.
  static const std::set<std::string, std::less<>>& mergeableObjects();

  // The text the engine writes where the session id belongs; the transport
  // puts the login's access token in its place.
  static constexpr std::string_view sessionPlaceholder = "SESSION_ID_HERE";

  // The whole envelope of one merge call. Values have &, < and > escaped.
  static std::string soapBody(const PlannedMerge& merge, std::string_view objectName);

  // Runs the merges one after another; onProgress after each. Returns one
  // result per merge, in order.
  std::vector<MergeResult> run(const std::vector<PlannedMerge>& merges, const Progress& onProgress);

  // After run: Salesforce signed the user out part-way.
  bool signedOut() const { return signedOut_; }
  // After run: the run was stopped by shouldCancel.
  bool cancelled() const { return cancelled_; }

  // The sentences of the results.
  static std::string noDetails();
  static std::string notSupported();
  static std::string unknownOutcome(std::string_view reason);
  static std::string skippedAfterChosenValuesFailed();
  static std::string notAttemptedSignedOut();
  static std::string notAttemptedCancelled();

 private:
  struct Reply {
    bool success = false;
    std::string statusCode;
    std::string message;
  };
  // Reads a merge reply or SOAP fault; none when it cannot be read.
  static std::optional<Reply> readReply(std::string_view xml);

  DedupeTransport& transport_;
  std::string objectName_;
  Options options_;
  bool signedOut_ = false;
  bool cancelled_ = false;
};

}  // namespace corvane
