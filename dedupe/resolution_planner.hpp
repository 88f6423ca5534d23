// Turns duplicate groups with their keepers into the changes that resolve
// them: merges, deletes or updates, and the groups left alone with the reason.
//
// Nothing here talks to Salesforce. The plan names each record with the
// last-modified time it had in the snapshot, so that ResolutionPreflight can
// refuse to change a record that moved on since.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "dedupe/keeper_rules.hpp"
#include "dedupe/match_settings.hpp"
#include "dedupe/record_store.hpp"
#include "dedupe/value_rules.hpp"

namespace corvane {

// A group with its records and the record chosen to stay.
struct ResolvedGroup {
  DuplicateGroup group;
  std::vector<SnapshotRecord> records;
  Rid keeperRid = 0;
  // Values the user chose for the kept record, by field API name. A merge
  // carries them; filling gaps writes them.
  std::map<std::string, std::string> chosenValues;
  // Why the keeper stays when it was not the keeper rule's choice (the
  // user marked it Keep, say); empty when the rule chose it.
  std::string keeperReason;

  // The record whose rid is keeperRid; nullptr when it is no longer among
  // the records.
  const SnapshotRecord* keeper() const;
  std::vector<const SnapshotRecord*> losers() const;
  // The records come from more than one object.
  bool isMixed() const;
};

// What is done with each group's losers. Texts: "merge", "deleteLosers",
// "fillGaps", "tag:FIELD", "exportOnly".
struct ResolutionAction {
  enum class Kind { merge, deleteLosers, fillGaps, tagLosers, exportOnly };
  Kind kind = Kind::exportOnly;
  std::string fieldName;  // tagLosers: the text field that receives the keeper's Id

  static ResolutionAction merge() { return {Kind::merge, {}}; }
  static ResolutionAction deleteLosers() { return {Kind::deleteLosers, {}}; }
  static ResolutionAction fillGaps() { return {Kind::fillGaps, {}}; }
  static ResolutionAction tagLosers(std::string field) { return {Kind::tagLosers, std::move(field)}; }
  static ResolutionAction exportOnly() { return {Kind::exportOnly, {}}; }

  std::string text() const;
  // None for a text that names no action (or "tag:" without a field).
  static std::optional<ResolutionAction> fromText(std::string_view text);
  bool operator==(const ResolutionAction&) const = default;
};

// One record update or delete.
struct PlannedChange {
  std::string sfid;
  std::string modified;  // the record's last-modified time in the snapshot
  std::int64_t groupId = 0;
  std::map<std::string, std::string> fields;  // field API name -> new value (updates only)
  std::string object;
  bool operator==(const PlannedChange&) const = default;
};

// One platform merge call: one loser into the primary. The first merge of a
// group carries the values the kept record is to take; the others carry none.
struct PlannedMerge {
  std::string primary;
  std::string primaryModified;
  std::string loser;
  std::string loserModified;
  std::int64_t groupId = 0;
  std::map<std::string, std::string> fieldValues;
  std::string object;
  // For each field of fieldValues taken from a record of the group: that
  // record's Id (values the user chose have none).
  std::map<std::string, std::string> fieldSources;
  bool operator==(const PlannedMerge&) const = default;
};

struct ResolutionPlan {
  ResolutionAction action;
  std::vector<PlannedChange> updates;
  std::vector<PlannedChange> deletes;
  std::vector<PlannedMerge> merges;
  // Records already there as another object's record and marked Delete in a
  // decision workbook (in no group: groupId 0): each deleted, or with
  // tagLosers updated with the other record's Id in the field.
  std::vector<PlannedChange> already;
  std::int64_t groupCount = 0;  // groups the plan resolves
  std::vector<std::pair<std::int64_t, std::string>> skipped;  // group id, reason
  std::vector<std::pair<std::int64_t, int>> heldBack;          // group id, distinctCount
  bool heldBackIncluded = false;
};

namespace ResolutionPlanner {

// A field the planner may write, as the object's describe gives it.
struct WritableField {
  std::string name;
  bool isText = false;  // string or textarea: may receive a record Id
  bool operator==(const WritableField&) const = default;
};

// What the planner knows beyond the groups: the snapshot's layout and, when
// loaded, the fields of each object that can be written.
struct Context {
  std::string objectName;  // the snapshot's object (the first one of several)
  std::string objectLabel;
  std::vector<MatchField> matchFields;
  std::vector<std::string> extraFields;
  std::vector<RecordStore::SnapshotObject> objects;  // more than one: a multi-object snapshot
  std::set<MatchKind> shiftedKinds;                  // RecordStore::shiftedKinds
  // By object API name; none when the field details have not loaded.
  std::optional<std::map<std::string, std::vector<WritableField>>> writableFields;
  bool includeHeldBack = false;
  // A merge's kept record takes each field's value by these rules; the
  // records are tried in the order keeperRule ranks them.
  KeeperRule keeperRule = KeeperRule::oldest;
  KeepValues keepValues;
};

// The snapshot's layout; writableFields and includeHeldBack left for the caller.
Context contextFor(RecordStore& store);

// A group is held back when three or more of its members differ from every
// other member: it rests on several different values (a chain of close
// matches) rather than on copies of one record, and is worth a look first.
inline constexpr int heldBackDistinctCount = 3;

// The groups' records read from the snapshot (in member order), with the
// keeper the rule picks.
std::vector<ResolvedGroup> resolve(RecordStore& store, const std::vector<DuplicateGroup>& groups,
                                   KeeperRule rule);

// The skip reasons, word for word.
std::string keeperGoneWithChosenValues();
std::string noKeeperAndOthers();
std::string mixedMerge();
std::string notMergeable(std::string_view objectLabel);
std::string fieldDetailsMissing();
std::string nothingToFill();
std::string noTaggableField(std::string_view objectLabel, std::string_view field);
std::string fieldsMayBeShifted(const std::set<MatchKind>& kinds);

// Goes through the groups in order: each adds its changes to the plan or a
// (group id, reason) to skipped.
ResolutionPlan plan(const std::vector<ResolvedGroup>& groups, const ResolutionAction& action,
                    const Context& context);

// A record already there as another object's record (otherId), marked
// Delete: adds to plan.already its delete or, for tagLosers, the update that
// writes otherId into the field. Returns noTaggableField, adding nothing,
// when the field cannot take it.
std::optional<std::string> planAlready(ResolutionPlan& plan, const SnapshotRecord& record,
                                       const std::string& otherId, const Context& context);

}  // namespace ResolutionPlanner
}  // namespace corvane
