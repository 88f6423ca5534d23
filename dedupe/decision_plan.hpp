// Turns the decisions read back from a decision workbook into the groups to
// resolve: in each exported group, the records marked Delete leave through
// the kept record (merged into it, or deleted), the record marked Keep stays
// (else the one the keeper rule picks among the rows left blank), records
// marked "Not a duplicate" leave the group to be remembered as such, and rows
// left blank are not touched at all.
//
// Nothing here reads files or talks to Salesforce.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "dedupe/decision_workbook.hpp"
#include "dedupe/keeper_rules.hpp"
#include "dedupe/resolution_planner.hpp"

namespace corvane::DecisionPlan {

enum class Decision { none, keep, remove, notDuplicate };

struct DecidedRecord {
  SnapshotRecord record;
  Decision decision = Decision::none;
};

// One exported group with every record's decision, in the order exported.
struct DecidedGroup {
  std::int64_t id = 0;
  std::vector<DecidedRecord> records;
};

// A record already there as another object's record (a Lead that is a
// Contact), marked Delete: it is in no group, and leaves on its own.
struct AlreadyRecord {
  SnapshotRecord record;
  std::string otherId;
  std::string otherName;
};

struct Outcome {
  // Each group with records marked Delete: its kept record, then those
  // records, never held back (the user looked at every one).
  std::vector<ResolvedGroup> groups;
  std::vector<DecidedGroup> decided;                       // every exported group
  std::vector<std::pair<Rid, std::string>> notDuplicates;  // to remember as such
  std::vector<AlreadyRecord> already;                      // in the order of the workbook's rows
  std::string otherLabel;                                  // "Contact"; may be empty
  // The workbook's problems, then those that only this action has.
  std::vector<std::string> problems;
};

// records: the snapshot's records of the exported groups and of the records
// already there marked Delete (any order); an Id that is no longer among them
// is left out. A group with records marked Delete and nothing left to keep
// is left out too: decide() reports it. alreadyMarked: what the export
// marked as already there.
Outcome resolve(const DecisionWorkbook::Decisions& decisions,
                const std::vector<DecisionWorkbook::DecidedGroup>& groups,
                const std::vector<SnapshotRecord>& records, KeeperRule rule,
                const ResolutionAction& action,
                const std::vector<DecisionWorkbook::MarkedAlready>& alreadyMarked = {});

// The problems and reasons, word for word.
std::string severalKeeps(std::int64_t groupId, std::size_t keeps);
std::string markedKeep();
// "Already there as Contact 003… (Ada Byron)."; "another object's record"
// when the other object's label is not known.
std::string alreadyAs(const std::string& otherLabel, const AlreadyRecord& already);
std::string keptByRuleAmongBlanks(const SnapshotRecord& keeper, KeeperRule rule,
                                  std::size_t groupSize);

}  // namespace corvane::DecisionPlan
