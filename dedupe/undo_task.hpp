// The entry point for undoing the merges, deletes and updates an apply made
// from a snapshot, from what the apply journaled (UndoJournal) before each call.
//
// For each group: the merged or deleted records come back from the Recycle
// Bin with their Ids, the child records the merge moved go back to the
// record they belonged to, and the kept record takes back the values it had
// before the merge (only those that differ now); the fields an update wrote
// (a tag, gaps filled in) take back their values from before. Before
// anything changes, every chosen group is checked in the org: a kept record
// changed since the merge, or a field an update wrote that was changed since,
// is refused unless forced, and a record no longer in the Recycle Bin cannot
// come back; any refusal stops the run with nothing changed.
//
// Every step asks the org what is already done before sending, so a run
// stopped anywhere (a stop request, a lost reply, a sign-out) and started
// again does nothing twice; a group finished before is reported as such.
// A face calls prepare, asks for confirmation when the org is a production
// one, then run. Each call blocks and prints nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <stop_token>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "connections/salesforce_api.hpp"
#include "dedupe/dedupe_task.hpp"
#include "dedupe/undo_error.hpp"
#include "dedupe/undo_journal.hpp"

namespace corvane::UndoTask {

struct Request {
  // Empty: every group the applies changed. A number chooses that group of
  // every apply that holds it.
  std::vector<std::int64_t> groups;
  bool force = false;  // put kept records back even if changed since
  std::string login;   // empty: the login that made the snapshot
};

struct Prepared {
  std::filesystem::path snapshot;
  Org org;
  std::string objectLabel;
  // The chosen groups the applies changed, the newest apply's first.
  std::vector<UndoGroup> groups;
};

// Reads the journal of the snapshot and finds the org. Throws
// DedupeError::notASnapshot, noLogin, UndoError::nothingJournaled,
// unknownGroup and findLogin's errors.
Prepared prepare(const FindLogin& findLogin, const std::filesystem::path& snapshot,
                 const Request& request);

struct GroupResult {
  enum class Status { undone, alreadyUndone, failed, notAttempted };
  std::int64_t groupId = 0;
  std::int64_t apply = 0;  // the apply that journaled it (UndoGroup::apply)
  std::string appliedAt;   // when that apply began, ISO 8601, UTC
  std::string object;
  std::string action;  // "merge" or "delete"
  std::string keeper;
  Status status = Status::notAttempted;
  std::size_t restored = 0;           // records brought back from the Recycle Bin
  std::size_t moved = 0;              // children set back to their record
  std::size_t relinked = 0;           // children made again on their record (links, members, notes)
  std::size_t fieldsReset = 0;        // the kept record's fields set back
  bool forced = false;                // the kept record had changed since the merge
  // An update (a tag, gaps filled in): the fields it wrote, the records set
  // back, and how many of those had been changed since the apply (forced).
  std::vector<std::string> updatedFields;
  std::size_t recordsReset = 0;
  std::size_t forcedRecords = 0;
  std::vector<std::string> notes;     // what could not be put back, and why not a failure
  std::vector<std::string> failures;  // Salesforce's refusals
  bool operator==(const GroupResult&) const = default;
};

struct Outcome {
  std::vector<GroupResult> groups;
  bool stopped = false;  // a stop request ended the run part-way

  std::size_t count(GroupResult::Status status) const;
  // Throws UndoError notUndone or stoppedPartWay when the run did not finish.
  void throwIfIncomplete() const;
};

// Checks, then undoes the prepared groups, reporting checking (total:
// groups) then changing (done, total: groups; item: "Group N"). A stop
// request is honoured between groups and between batches. Throws
// UndoError::refused (nothing changed), outcomeUnknown, signedOut,
// unreadableReply and the transport's errors.
Outcome run(SalesforceAPI::Client& api, const Prepared& prepared, const Request& request,
            std::stop_token stop, const DedupeProgressHandler& onProgress = {});

// What undoing the prepared groups writes, in the words of the question asked
// before writing to a production org ("undo 2 groups of Accounts: ...").
std::string whatItWrites(const Prepared& prepared);
// The sentences of UndoError::refused, one a line, or as {"refused": [...]}.
std::string refusalsText(const std::vector<std::string>& refusals, bool json);
// The outcome in words, a line per group and a last line of totals. A group
// whose number several applies hold is named with the time of its apply:
// "Group 3 of the apply of 2026-11-26 04:10:07" (local time).
std::string text(const Outcome& outcome);
// The outcome as JSON: {"groups": [{"group", "apply", "appliedAt", "object", "keeper",
// "status", ...}], "undone", ...}.
nlohmann::json json(const Outcome& outcome);

}  // namespace corvane::UndoTask
