// The entry points for resolving a snapshot's duplicate groups: planning
// which record of each group stays and what happens to the others, and
// applying that plan in the org.
//
// A face calls plan, shows it (and asks, when the org is a production one),
// then calls apply with the same Resolution. apply checks every record again
// in the org first: one changed since the snapshot stops everything before
// any change. Each call blocks and prints nothing.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "connections/salesforce_api.hpp"
#include "dedupe/change_runner.hpp"
#include "dedupe/dedupe_error.hpp"
#include "dedupe/dedupe_task.hpp"
#include "dedupe/keeper_rules.hpp"
#include "dedupe/merge_runner.hpp"
#include "dedupe/resolution_planner.hpp"
#include "dedupe/resolution_preflight.hpp"

namespace corvane::ResolutionTask {

struct Request {
  MatchSettings settings;  // the groups are found again, leaving out "not a duplicate" records
  KeeperRule keeper = KeeperRule::oldest;
  ResolutionAction action = ResolutionAction::merge();
  bool includeHeldBack = false;
  std::string login;  // empty: the login that made the snapshot
  bool forApply = false;  // find the org whatever the action: apply needs it
};

struct Resolution {
  std::filesystem::path snapshot;
  SnapshotInfo info;
  KeeperRule keeper = KeeperRule::oldest;
  std::optional<Org> org;  // found for the actions that write values, and for apply
  std::vector<ResolvedGroup> groups;
  ResolutionPlan plan;
};

// Matches the snapshot (reporting the matching steps) and picks the keepers;
// the field details (what can be written) are read from the org for the
// actions that write values. A stop request ends it with
// DedupeError::stopped. Throws notASnapshot, noLogin and the errors of
// findLogin and the transport.
Resolution plan(SalesforceAPI::Client& api, const FindLogin& findLogin,
                const std::filesystem::path& snapshot, const Request& request,
                std::stop_token stop, const DedupeProgressHandler& onProgress = {});

struct ApplyOptions {
  bool dryRun = false;  // check the records, change nothing
  // The pause before retrying a locked row, and how often.
  std::chrono::milliseconds lockPause{1000};
  int lockAttempts = 4;
};

struct ApplyOutcome {
  bool checked = false;  // the records were checked in the org (there was something to change)
  ResolutionPreflight::Outcome preflight;
  bool changing = false;  // the changes were run (checked, all fresh and not a dry run)
  std::vector<MergeRunner::MergeResult> merges;     // merge: one per planned merge
  std::vector<ChangeRunner::ChangeResult> changes;  // otherwise: one per delete or update
  std::size_t done = 0;
  std::size_t failed = 0;
  std::size_t unknown = 0;  // may or may not have gone through
  std::size_t notDone = 0;  // skipped or not attempted
  bool signedOut = false;   // Salesforce ended the session part-way
  bool stopped = false;     // a stop request ended the run part-way

  // The outcome as a failure, if it is one: PreflightError::recordsChanged,
  // DedupeError signedOutPartWay, stoppedPartWay or notApplied.
  void throwIfIncomplete() const;
};

// Checks the plan's records in the org, then makes the merges, deletes or
// updates (none for exportOnly or an empty plan). Reports checking (total:
// records) and changing (done, total: calls). A stop request is honoured
// before each call; what was not attempted is reported as such.
ApplyOutcome apply(SalesforceAPI::Client& api, const Resolution& resolution,
                   const ApplyOptions& options, std::stop_token stop,
                   const DedupeProgressHandler& onProgress = {});

}  // namespace corvane::ResolutionTask
