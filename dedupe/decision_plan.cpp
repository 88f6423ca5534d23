#include "dedupe/decision_plan.hpp"

#include <map>
#include <set>

namespace corvane::DecisionPlan {

std::string severalKeeps(std::int64_t groupId, std::size_t keeps) {
  return "Group " + std::to_string(groupId) + " has " + std::to_string(keeps) +
         " records marked Keep, so the records marked Delete have no single record to be merged "
         "into. Mark one record Keep and leave the others blank.";
}

std::string markedKeep() { return "Marked Keep in the workbook"; }

std::string alreadyAs(const std::string& otherLabel, const AlreadyRecord& already) {
  std::string out = "Already there as " +
                    (otherLabel.empty() ? std::string("another object's record") : otherLabel) +
                    " " + already.otherId;
  if (!already.otherName.empty()) out += " (" + already.otherName + ")";
  return out + ".";
}

std::string keptByRuleAmongBlanks(const SnapshotRecord& keeper, KeeperRule rule,
                                  std::size_t groupSize) {
  return KeeperRules::why(keeper, rule, groupSize) + "; no record was marked Keep";
}

Outcome resolve(const DecisionWorkbook::Decisions& decisions,
                const std::vector<DecisionWorkbook::DecidedGroup>& groups,
                const std::vector<SnapshotRecord>& records, KeeperRule rule,
                const ResolutionAction& action,
                const std::vector<DecisionWorkbook::MarkedAlready>& alreadyMarked) {
  Outcome out;
  out.problems = decisions.problems;
  std::map<std::string, Decision> decisionOf;
  for (const std::string& id : decisions.keeps) decisionOf[id] = Decision::keep;
  for (const std::string& id : decisions.deletes) decisionOf[id] = Decision::remove;
  for (const std::string& id : decisions.notDuplicates) decisionOf[id] = Decision::notDuplicate;
  std::map<std::string, const SnapshotRecord*> bySfid;
  for (const SnapshotRecord& record : records) bySfid.emplace(record.sfid, &record);

  std::map<std::string, const DecisionWorkbook::MarkedAlready*> markedOf;
  for (const DecisionWorkbook::MarkedAlready& entry : alreadyMarked)
    markedOf.emplace(entry.id, &entry);
  for (const std::string& id : decisions.alreadyDeletes) {
    const auto found = bySfid.find(id);
    const auto there = markedOf.find(id);
    if (found == bySfid.end() || there == markedOf.end()) continue;  // gone from the snapshot
    out.already.push_back({*found->second, there->second->otherId, there->second->otherName});
  }

  std::set<std::string> remembered;
  for (const DecisionWorkbook::DecidedGroup& exported : groups) {
    DecidedGroup decided{exported.id, {}};
    std::vector<SnapshotRecord> keeps, removes, blanks;
    for (const std::string& id : exported.recordIds) {
      const auto found = bySfid.find(id);
      if (found == bySfid.end()) continue;
      const auto marked = decisionOf.find(id);
      const Decision decision = marked == decisionOf.end() ? Decision::none : marked->second;
      decided.records.push_back({*found->second, decision});
      switch (decision) {
        case Decision::keep:
          keeps.push_back(*found->second);
          break;
        case Decision::remove:
          removes.push_back(*found->second);
          break;
        case Decision::none:
          blanks.push_back(*found->second);
          break;
        case Decision::notDuplicate:
          if (remembered.insert(id).second) out.notDuplicates.emplace_back(found->second->rid, id);
          break;
      }
    }
    out.decided.push_back(decided);
    if (removes.empty()) continue;

    if (keeps.size() > 1 && action.kind == ResolutionAction::Kind::merge) {
      out.problems.push_back(severalKeeps(exported.id, keeps.size()));
      continue;
    }
    const std::vector<SnapshotRecord>& candidates = keeps.empty() ? blanks : keeps;
    const SnapshotRecord* keeper = KeeperRules::keeper(candidates, rule);
    if (!keeper) continue;  // nothing left to keep: a problem decide() reports
    ResolvedGroup resolved;
    resolved.group.id = exported.id;
    resolved.group.weakestLink = 1.0;
    resolved.records.push_back(*keeper);
    resolved.records.insert(resolved.records.end(), removes.begin(), removes.end());
    for (const SnapshotRecord& record : resolved.records)
      resolved.group.members.push_back(record.rid);
    resolved.keeperRid = keeper->rid;
    resolved.keeperReason =
        keeps.empty() ? keptByRuleAmongBlanks(*keeper, rule, decided.records.size()) : markedKeep();
    out.groups.push_back(std::move(resolved));
  }
  return out;
}

}  // namespace corvane::DecisionPlan
