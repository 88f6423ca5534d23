// The entry points for resolving a snapshot's duplicate groups: planning
// which record of each group stays and what happens to the others, and
// applying that plan in the org.
//
// A face calls plan and shows it, then check, which looks at every record
// again in the org (one changed since the snapshot stops everything before
// any change), asks for confirmation when the org is a production one, then
// calls apply with the same Resolution. Each call blocks and prints nothing.
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
#include "dedupe/decision_plan.hpp"
#include "dedupe/dedupe_error.hpp"
#include "dedupe/dedupe_task.hpp"
#include "dedupe/keeper_rules.hpp"
#include "dedupe/merge_runner.hpp"
#include "dedupe/resolution_planner.hpp"
#include "dedupe/resolution_preflight.hpp"
#include "dedupe/resolution_results_workbook.hpp"
#include "dedupe/value_rules.hpp"

namespace corvane::ResolutionTask {

struct Request {
  MatchSettings settings;  // the groups are found again, leaving out "not a duplicate" records
  KeeperRule keeper = KeeperRule::oldest;
  ResolutionAction action = ResolutionAction::merge();
  bool includeHeldBack = false;
  std::string login;  // empty: the login that made the snapshot
  bool forApply = false;  // find the org whatever the action: apply needs it
  // A decision workbook exported from this snapshot: its rows decide the
  // groups, keepers and records instead of a new match (see DecisionPlan).
  std::optional<std::filesystem::path> decisions;
  KeepValues keepValues;  // merge: which record each field's value comes from
};

struct Resolution {
  std::filesystem::path snapshot;
  SnapshotInfo info;
  KeeperRule keeper = KeeperRule::oldest;
  std::optional<Org> org;  // found for the actions that write values, and for apply
  std::vector<ResolvedGroup> groups;
  ResolutionPlan plan;
  // With Request::decisions: the workbook and every exported group with
  // each record's decision, and the records to remember as not duplicates.
  std::optional<std::filesystem::path> workbook;
  std::optional<DecisionPlan::Outcome> decisions;
};

// Matches the snapshot (reporting the matching steps), or reads the decision
// workbook, and picks the keepers; the field details (what can be written)
// are read from the org for the actions that write values. A workbook with
// problems throws DedupeError::problems carrying them (details()), changing
// nothing. A stop request ends it with DedupeError::stopped. Throws
// notASnapshot, noLogin, unknownValueField, decisionsNeedRemoval (a workbook
// goes with merge, deleteLosers or tagLosers), the workbook reader's errors and
// the errors of findLogin and the transport.
Resolution plan(SalesforceAPI::Client& api, const FindLogin& findLogin,
                const std::filesystem::path& snapshot, const Request& request,
                std::stop_token stop, const DedupeProgressHandler& onProgress = {});

// The plan sends nothing to Salesforce (an apply may still remember the
// records marked "not a duplicate").
bool changesNothing(const ResolutionPlan& plan);

// Checks every record the plan touches in the org: one changed or gone
// since the snapshot must stop the run before any change. Reports checking
// (total: records). Throws PreflightError::unreadableReply and the
// transport's errors.
ResolutionPreflight::Outcome check(SalesforceAPI::Client& api, const Resolution& resolution,
                                   std::stop_token stop,
                                   const DedupeProgressHandler& onProgress = {});

struct ApplyOptions {
  // The pause before retrying a locked row, and how often.
  std::chrono::milliseconds lockPause{1000};
  int lockAttempts = 4;
  // The results workbook; empty: ResolutionResultsWorkbook::defaultPath.
  std::filesystem::path results;
};

struct ApplyOutcome {
  std::vector<MergeRunner::MergeResult> merges;     // merge: one per planned merge
  std::vector<ChangeRunner::ChangeResult> changes;  // otherwise: one per delete or update
  std::vector<ChangeRunner::ChangeResult> already;  // one per ResolutionPlan::already
  std::size_t done = 0;
  std::size_t failed = 0;
  std::size_t unknown = 0;  // may or may not have gone through
  std::size_t notDone = 0;  // skipped or not attempted
  bool signedOut = false;   // Salesforce ended the session part-way
  bool stopped = false;     // a stop request ended the run part-way
  std::size_t remembered = 0;  // records saved as "not a duplicate" in the snapshot
  // The results workbook written, if any; when writing it failed, why.
  std::optional<std::filesystem::path> results;
  std::optional<std::string> resultsFailure;

  // The outcome as a failure, if it is one: DedupeError signedOutPartWay,
  // stoppedPartWay or notApplied.
  void throwIfIncomplete() const;
};

// Saves the decision workbook's "Not a duplicate" records in the snapshot,
// then makes the merges, deletes or updates of a checked plan (none for
// exportOnly or an empty plan), then deletes (tagLosers: updates) the records
// already there as another object's. Before a group's merges or deletes leave,
// what they will change is read from the org and journaled in the snapshot
// (UndoJournal), so that UndoTask can put them back; a group whose records
// cannot be read is not attempted. Reports changing (done, total: calls). A
// stop request is honoured before each call; what was not attempted is
// reported as such. Then writes the results workbook (results), unless the
// run did nothing. Throws PreflightError::recordsChanged, changing nothing,
// unless checked found every record as it was in the snapshot. The face asks
// for confirmation, when the org needs it, between check and apply.
ApplyOutcome apply(SalesforceAPI::Client& api, const Resolution& resolution,
                   const ResolutionPreflight::Outcome& checked, const ApplyOptions& options,
                   std::stop_token stop, const DedupeProgressHandler& onProgress = {});

// One row per record of every group the run looked at (every exported group
// with a decision workbook), in group order: what was to be done, what
// happened and Salesforce's words.
std::vector<ResolutionResultsWorkbook::Entry> resultEntries(const Resolution& resolution,
                                                            const ApplyOutcome& outcome);

}  // namespace corvane::ResolutionTask
