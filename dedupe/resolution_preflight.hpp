// The last look before anything is changed: the planned records' current
// last-modified times are read from the org and compared with the snapshot's.
// A record changed or gone since the snapshot stops the whole run, so that a
// plan made from old data never overwrites or deletes newer work.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "dedupe/resolution_planner.hpp"
#include "connections/dedupe_transport.hpp"
#include "platform/user_facing_error.hpp"

namespace corvane {

class PreflightError : public UserFacingError {
 public:
  enum class Kind {
    recordsChanged,   // records changed or missing in the org since the snapshot
    unreadableReply,  // the re-check's reply could not be read
  };
  static PreflightError recordsChanged();
  static PreflightError unreadableReply();
  Kind kind() const { return kind_; }

 private:
  PreflightError(Kind kind, const std::string& sentence)
      : UserFacingError(sentence), kind_(kind) {}
  Kind kind_;
};

class ResolutionPreflight {
 public:
  struct Outcome {
    std::vector<PlannedChange> fresh;    // the same LastModifiedDate as in the snapshot
    std::vector<PlannedChange> changed;  // another (later) one
    std::vector<PlannedChange> missing;  // not returned: deleted or merged away
    bool allFresh() const { return changed.empty() && missing.empty(); }
  };

  // Ids per query: keeps the query's URL well under the platform's limits.
  static constexpr std::size_t idsPerQuery = 200;

  explicit ResolutionPreflight(DedupeTransport& transport) : transport_(transport) {}

  // Every record the plan touches, once: updates, deletes, records already
  // there as another object's, and both sides of each merge (a primary with
  // the last-modified time it had in the snapshot).
  static std::vector<PlannedChange> recordsOf(const ResolutionPlan& plan);

  // Sorts the changes by their records' state in the org, object by object,
  // with queries that begin "SELECT Id, LastModifiedDate FROM ". Throws
  // PreflightError::unreadableReply when a reply cannot be read; transport
  // failures pass through.
  Outcome check(const std::vector<PlannedChange>& changes);

  // check, then PreflightError::recordsChanged unless everything is fresh.
  Outcome require(const std::vector<PlannedChange>& changes);

 private:
  DedupeTransport& transport_;
};

}  // namespace corvane
