#include "dedupe/plan_report.hpp"

#include <functional>
#include <map>
#include <optional>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace corvane::PlanReport {

namespace {

std::string recordText(const SnapshotRecord& record) {
  return record.name.empty() ? record.sfid : record.sfid + " (" + record.name + ")";
}

// `Field = "value"`, each followed by the record it comes from when known.
std::string valuesText(const std::map<std::string, std::string>& values,
                       const std::map<std::string, std::string>& sources = {},
                       const std::function<std::string(const std::string&)>& named = {}) {
  std::string out;
  for (const auto& [field, value] : values) {
    out += (out.empty() ? "" : ", ") + field + " = \"" + value + "\"";
    if (auto from = sources.find(field); from != sources.end()) {
      out += " (from " + (named ? named(from->second) : from->second) + ")";
    }
  }
  return out;
}

std::string actionText(const ResolutionAction& action) {
  switch (action.kind) {
    case ResolutionAction::Kind::merge:
      return "merge the other records into the kept one";
    case ResolutionAction::Kind::deleteLosers:
      return "delete the other records";
    case ResolutionAction::Kind::fillGaps:
      return "fill the kept record's empty fields from the others";
    case ResolutionAction::Kind::tagLosers:
      return "write the kept record's Id into " + action.fieldName + " of the others";
    case ResolutionAction::Kind::exportOnly:
      return "change nothing";
  }
  return "";
}

std::string joined(const std::vector<std::string>& ids) {
  std::string out;
  for (const std::string& id : ids) out += (out.empty() ? "" : ", ") + id;
  return out;
}

}  // namespace

std::string text(const ResolutionTask::Resolution& resolution) {
  const ResolutionPlan& plan = resolution.plan;
  const KeeperRule rule = resolution.keeper;
  std::map<std::int64_t, std::string> skipped(plan.skipped.begin(), plan.skipped.end());
  std::map<std::int64_t, int> heldBack(plan.heldBack.begin(), plan.heldBack.end());
  std::map<std::string, const SnapshotRecord*> bySfid;
  for (const ResolvedGroup& group : resolution.groups) {
    for (const SnapshotRecord& record : group.records) bySfid[record.sfid] = &record;
  }
  if (resolution.decisions) {
    for (const auto& decided : resolution.decisions->decided) {
      for (const auto& row : decided.records) bySfid.emplace(row.record.sfid, &row.record);
    }
  }
  const std::function<std::string(const std::string&)> named = [&bySfid](const std::string& sfid) {
    auto found = bySfid.find(sfid);
    return found == bySfid.end() ? sfid : recordText(*found->second);
  };

  std::string out = fmt::format("Plan for {} {} records: {}. {}{}\n", resolution.info.recordCount,
                                resolution.info.objectLabel, actionText(plan.action),
                                resolution.decisions ? "Where no record is marked Keep: " : "",
                                KeeperRules::label(rule));
  for (const ResolvedGroup& group : resolution.groups) {
    const std::int64_t id = group.group.id;
    if (auto found = skipped.find(id); found != skipped.end()) {
      out += fmt::format("Group {} ({} records) skipped: {}\n", id, group.records.size(),
                         found->second);
      continue;
    }
    const SnapshotRecord* keeper = group.keeper();
    out += fmt::format(
        "Group {} ({} records): keep {}. {}.\n", id, group.records.size(), recordText(*keeper),
        group.keeperReason.empty() ? KeeperRules::why(*keeper, rule, group.records.size())
                                   : group.keeperReason);
    if (auto found = heldBack.find(id); found != heldBack.end()) {
      out += fmt::format(
          "  Held back: {} of its records differ from all the others. {}\n", found->second,
          plan.heldBackIncluded ? "Included, as you asked."
                                : "Look at it, then add --include-held-back to resolve it too.");
      if (!plan.heldBackIncluded) continue;
    }
    for (const PlannedMerge& merge : plan.merges) {
      if (merge.groupId != id) continue;
      out += "  merge " + named(merge.loser) + " into it";
      if (!merge.fieldValues.empty()) {
        out += ", setting " + valuesText(merge.fieldValues, merge.fieldSources, named);
      }
      out += '\n';
    }
    for (const PlannedChange& change : plan.deletes) {
      if (change.groupId == id) out += "  delete " + named(change.sfid) + '\n';
    }
    for (const PlannedChange& change : plan.updates) {
      if (change.groupId == id) {
        out += "  update " + named(change.sfid) + ": " + valuesText(change.fields) + '\n';
      }
    }
  }
  if (resolution.decisions && !plan.already.empty()) {
    const std::string& other = resolution.decisions->otherLabel;
    out += fmt::format("Already there as {}, marked Delete:\n",
                       other.empty() ? std::string("another object's record") : other);
    const bool tagging = plan.action.kind == ResolutionAction::Kind::tagLosers;
    for (const DecisionPlan::AlreadyRecord& row : resolution.decisions->already) {
      out += "  " + std::string(tagging ? "tag " : "delete ") + recordText(row.record);
      out += tagging ? ", setting " + plan.action.fieldName + " = \"" + row.otherId + "\". " : ". ";
      out += DecisionPlan::alreadyAs(other, row) + '\n';
    }
  }
  if (resolution.decisions) {
    std::size_t undecided = 0;
    std::int64_t untouched = 0;
    for (const auto& decided : resolution.decisions->decided) {
      bool removes = false;
      for (const auto& row : decided.records) {
        removes = removes || row.decision == DecisionPlan::Decision::remove;
        if (row.decision == DecisionPlan::Decision::none) ++untouched;
      }
      if (!removes) ++undecided;
    }
    const std::size_t groups = resolution.decisions->decided.size();
    out += fmt::format(
        "From {}: {} group{}, {} with no record marked Delete; {} row{} left blank {} not "
        "touched.\n",
        resolution.workbook->filename().string(), groups, groups == 1 ? "" : "s", undecided,
        untouched, untouched == 1 ? "" : "s", untouched == 1 ? "is" : "are");
    const auto& notDuplicates = resolution.decisions->notDuplicates;
    if (!notDuplicates.empty()) {
      std::string ids;
      for (const auto& [rid, sfid] : notDuplicates) ids += (ids.empty() ? "" : ", ") + named(sfid);
      out += fmt::format("Not a duplicate, remembered in the snapshot when applied: {}\n", ids);
    }
  }
  out += fmt::format(
      "{} groups: {} to resolve ({} merges, {} deletes, {} updates), {} skipped, {} held back.\n",
      resolution.groups.size(), plan.groupCount, plan.merges.size(), plan.deletes.size(),
      plan.updates.size(), plan.skipped.size(), plan.heldBack.size());
  if (!plan.already.empty()) {
    out += fmt::format("{} record{} already there to {}.\n", plan.already.size(),
                       plan.already.size() == 1 ? "" : "s",
                       plan.action.kind == ResolutionAction::Kind::tagLosers ? "tag" : "delete");
  }
  return out;
}

std::string json(const ResolutionTask::Resolution& resolution) {
  const ResolutionPlan& plan = resolution.plan;
  std::map<std::int64_t, std::string> skipped(plan.skipped.begin(), plan.skipped.end());
  std::map<std::int64_t, int> heldBack(plan.heldBack.begin(), plan.heldBack.end());
  nlohmann::json groups = nlohmann::json::array();
  for (const ResolvedGroup& group : resolution.groups) {
    nlohmann::json entry{{"id", group.group.id}, {"members", nlohmann::json::array()}};
    for (const SnapshotRecord& record : group.records) {
      entry["members"].push_back({{"id", record.sfid}, {"name", record.name}});
    }
    if (const SnapshotRecord* keeper = group.keeper()) {
      entry["keeper"] = keeper->sfid;
      entry["why"] = group.keeperReason.empty()
                         ? KeeperRules::why(*keeper, resolution.keeper, group.records.size())
                         : group.keeperReason;
    }
    if (auto found = skipped.find(group.group.id); found != skipped.end()) {
      entry["skipped"] = found->second;
    }
    if (auto found = heldBack.find(group.group.id); found != heldBack.end()) {
      entry["heldBack"] = found->second;
    }
    groups.push_back(std::move(entry));
  }
  auto changes = [](const std::vector<PlannedChange>& list) {
    nlohmann::json out = nlohmann::json::array();
    for (const PlannedChange& change : list) {
      out.push_back({{"id", change.sfid},
                     {"modified", change.modified},
                     {"groupId", change.groupId},
                     {"fields", change.fields},
                     {"object", change.object}});
    }
    return out;
  };
  nlohmann::json merges = nlohmann::json::array();
  for (const PlannedMerge& merge : plan.merges) {
    merges.push_back({{"primary", merge.primary},
                      {"primaryModified", merge.primaryModified},
                      {"loser", merge.loser},
                      {"loserModified", merge.loserModified},
                      {"groupId", merge.groupId},
                      {"fieldValues", merge.fieldValues},
                      {"fieldSources", merge.fieldSources},
                      {"object", merge.object}});
  }
  nlohmann::json skippedJSON = nlohmann::json::array();
  for (const auto& [id, reason] : plan.skipped) {
    skippedJSON.push_back({{"groupId", id}, {"reason", reason}});
  }
  nlohmann::json heldJSON = nlohmann::json::array();
  for (const auto& [id, count] : plan.heldBack) {
    heldJSON.push_back({{"groupId", id}, {"distinctCount", count}});
  }
  nlohmann::json decisions;  // null without a decision workbook
  if (resolution.decisions) {
    nlohmann::json notDuplicates = nlohmann::json::array();
    for (const auto& [rid, sfid] : resolution.decisions->notDuplicates) {
      notDuplicates.push_back(sfid);
    }
    std::int64_t untouched = 0;
    for (const auto& decided : resolution.decisions->decided) {
      for (const auto& row : decided.records) {
        if (row.decision == DecisionPlan::Decision::none) ++untouched;
      }
    }
    nlohmann::json already = nlohmann::json::array();
    for (const DecisionPlan::AlreadyRecord& row : resolution.decisions->already) {
      already.push_back({{"id", row.record.sfid},
                         {"name", row.record.name},
                         {"otherId", row.otherId},
                         {"otherName", row.otherName}});
    }
    decisions = {{"workbook", resolution.workbook->string()},
                 {"otherObject", resolution.decisions->otherLabel},
                 {"already", already},
                 {"groups", resolution.decisions->decided.size()},
                 {"notDuplicates", notDuplicates},
                 {"untouched", untouched}};
  }
  return nlohmann::json{{"action", plan.action.text()},
                        {"keeper", std::string(rawValue(resolution.keeper))},
                        {"decisions", decisions},
                        {"groupCount", plan.groupCount},
                        {"groups", groups},
                        {"merges", merges},
                        {"deletes", changes(plan.deletes)},
                        {"updates", changes(plan.updates)},
                        {"already", changes(plan.already)},
                        {"skipped", skippedJSON},
                        {"heldBack", heldJSON},
                        {"heldBackIncluded", plan.heldBackIncluded}}
             .dump(2) +
         '\n';
}

std::string whatItWrites(const ResolutionTask::Resolution& resolution) {
  const ResolutionPlan& plan = resolution.plan;
  std::string out =
      fmt::format("make {} merges, {} deletes and {} updates of {} records", plan.merges.size(),
                  plan.deletes.size(), plan.updates.size(), resolution.info.objectName);
  if (!plan.already.empty()) {
    out += fmt::format(", and {} {} record{} already there",
                       plan.action.kind == ResolutionAction::Kind::tagLosers ? "tag" : "delete",
                       plan.already.size(), plan.already.size() == 1 ? "" : "s");
  }
  return out;
}

std::string problemsText(const std::vector<std::string>& problems, bool json) {
  if (problems.empty()) return "";
  if (json) return nlohmann::json{{"problems", problems}}.dump(2) + '\n';
  std::string out = "Problems in the workbook:\n";
  for (const std::string& problem : problems) out += "  " + problem + '\n';
  return out;
}

std::string staleText(const ResolutionPreflight::Outcome& checked) {
  std::string out;
  for (const PlannedChange& change : checked.changed) {
    out += "  " + change.sfid + " was changed in Salesforce after the snapshot.\n";
  }
  for (const PlannedChange& change : checked.missing) {
    out += "  " + change.sfid + " is no longer in Salesforce.\n";
  }
  return out;
}

std::string outcomeText(const ResolutionTask::Resolution& resolution,
                        const ResolutionTask::ApplyOutcome& outcome) {
  const ResolutionPlan& plan = resolution.plan;
  std::string out;
  const auto line = [&out](const std::string& verb, const std::string& what,
                           const std::optional<std::string>& message) {
    out += verb + what;
    if (message) out += ": " + *message;
    out += '\n';
  };
  for (const MergeRunner::MergeResult& result : outcome.merges) {
    using Status = MergeRunner::MergeResult::Status;
    const PlannedMerge& merge = plan.merges[result.index];
    const std::string what =
        merge.loser + " into " + merge.primary + " (group " + std::to_string(merge.groupId) + ")";
    const std::string message = result.message.value_or("");
    switch (result.status) {
      case Status::merged:
        line("Merged ", what, std::nullopt);
        break;
      case Status::failed:
        line("Failed ", what, message);
        break;
      case Status::unknown:
        line("Unknown ", what, message);
        break;
      case Status::skipped:
      case Status::notAttempted:
        line("Not merged ", what, message);
        break;
    }
  }
  // A delete, update or tag: what became of it, in the verbs of its kind.
  const auto changeLine = [&line](const ChangeRunner::ChangeResult& result, const std::string& what,
                                  const char* doneVerb, const char* notDoneVerb) {
    using Status = ChangeRunner::ChangeResult::Status;
    const std::string message = result.message.value_or("");
    switch (result.status) {
      case Status::done:
        line(doneVerb, what, std::nullopt);
        break;
      case Status::failed:
        line("Failed ", what, message);
        break;
      case Status::unknown:
        line("Unknown ", what, message);
        break;
      case Status::notAttempted:
        line(notDoneVerb, what, message);
        break;
    }
  };
  const bool deleting = plan.action.kind == ResolutionAction::Kind::deleteLosers;
  for (const ChangeRunner::ChangeResult& result : outcome.changes) {
    changeLine(result, result.sfid + " (group " + std::to_string(result.groupId) + ")",
               deleting ? "Deleted " : "Updated ", deleting ? "Not deleted " : "Not updated ");
  }
  const bool tagging = plan.action.kind == ResolutionAction::Kind::tagLosers;
  for (const ChangeRunner::ChangeResult& result : outcome.already) {
    changeLine(result, result.sfid + " (already there)", tagging ? "Tagged " : "Deleted ",
               tagging ? "Not tagged " : "Not deleted ");
  }
  return out + fmt::format("{} done, {} failed, {} to check in Salesforce, {} not done.\n",
                           outcome.done, outcome.failed, outcome.unknown, outcome.notDone);
}

std::string afterwardsText(const ResolutionTask::ApplyOutcome& outcome) {
  std::string out;
  if (outcome.remembered > 0) {
    out += fmt::format("Remembered {} record{} as not a duplicate: later matches leave {} out.\n",
                       outcome.remembered, outcome.remembered == 1 ? "" : "s",
                       outcome.remembered == 1 ? "it" : "them");
  }
  if (outcome.results) out += "Results: " + outcome.results->string() + '\n';
  if (outcome.resultsFailure) {
    out += "The results workbook was not written: " + *outcome.resultsFailure + '\n';
  }
  return out;
}

std::string decisionsText(const DecisionWorkbook::Decisions& decisions) {
  std::string out = fmt::format("Keep: {}   Delete: {}   Not a duplicate: {}   Left blank: {}\n",
                                decisions.keeps.size(), decisions.deletes.size(),
                                decisions.notDuplicates.size(), decisions.untouched);
  if (!decisions.keeps.empty()) out += "Keep: " + joined(decisions.keeps) + '\n';
  if (!decisions.deletes.empty()) out += "Delete: " + joined(decisions.deletes) + '\n';
  if (!decisions.notDuplicates.empty()) {
    out += "Not a duplicate: " + joined(decisions.notDuplicates) + '\n';
  }
  if (!decisions.alreadyDeletes.empty()) {
    out += "Delete (already there as another object's record): " +
           joined(decisions.alreadyDeletes) + '\n';
  }
  if (!decisions.problems.empty()) {
    out += "Problems:\n";
    for (const std::string& problem : decisions.problems) out += "  " + problem + '\n';
  }
  return out;
}

std::string decisionsJSON(const DecisionWorkbook::Decisions& decisions) {
  return nlohmann::json{{"keeps", decisions.keeps},
                        {"deletes", decisions.deletes},
                        {"notDuplicates", decisions.notDuplicates},
                        {"untouched", decisions.untouched},
                        {"alreadyDeletes", decisions.alreadyDeletes},
                        {"problems", decisions.problems}}
             .dump(2) +
         '\n';
}

}  // namespace corvane::PlanReport
