#include "dedupe/decision_workbook_task.hpp"

#include <map>
#include <optional>

#include <nlohmann/json.hpp>

#include "dedupe/cross_match_task.hpp"
#include "dedupe/match_task.hpp"
#include "dedupe/record_store.hpp"
#include "dedupe/snapshot_task.hpp"

namespace corvane::DecisionWorkbookTask {

namespace {

// The snapshot's memory of the groups its last decision workbook holds, and
// of the records it marked as already there as another object's.
constexpr const char* exportedGroupsKey = "decisionWorkbookGroups";
constexpr const char* exportedAlreadyKey = "decisionWorkbookAlready";
constexpr const char* exportedOtherLabelKey = "decisionWorkbookAlreadyLabel";

std::string groupsJSON(const std::vector<DecisionWorkbook::DecidedGroup>& groups) {
  nlohmann::json json = nlohmann::json::array();
  for (const auto& group : groups) json.push_back({{"id", group.id}, {"ids", group.recordIds}});
  return json.dump();
}

std::optional<std::vector<DecisionWorkbook::DecidedGroup>> storedGroups(RecordStore& store) {
  const std::optional<std::string> text = store.meta(exportedGroupsKey);
  if (!text) return std::nullopt;
  try {
    std::vector<DecisionWorkbook::DecidedGroup> groups;
    for (const auto& group : nlohmann::json::parse(*text)) {
      groups.push_back({group.at("id").get<std::int64_t>(),
                        group.at("ids").get<std::vector<std::string>>()});
    }
    return groups;
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;  // unreadable: match again instead
  }
}

}  // namespace

ExportOutcome exportWorkbook(const std::filesystem::path& snapshot,
                             const std::filesystem::path& workbook, const ExportRequest& request,
                             std::stop_token stop, const DedupeProgressHandler& onProgress) {
  auto store = SnapshotTask::open(snapshot);
  const MatchOutcome outcome = MatchTask::groups(*store, request.settings, stop, onProgress);
  ExportOutcome result;
  if (request.against) {
    const CrossMatchTask::Outcome cross =
        CrossMatchTask::run(snapshot, *request.against, request.settings, stop, onProgress);
    result.otherLabel =
        cross.against.objectLabel.empty() ? cross.against.objectName : cross.against.objectLabel;
    for (const CrossMatchTask::Pair& pair : cross.pairs) {
      // The best match of each record only: the pairs come best first.
      if (!result.already.empty() && result.already.back().record.sfid == pair.record.sfid)
        continue;
      result.already.push_back({pair.record, pair.match.sfid, pair.match.name, pair.why});
    }
  }
  if (outcome.groups.empty() && result.already.empty()) throw DedupeError::noGroups();

  std::vector<Rid> grouped;
  for (const DuplicateGroup& group : outcome.groups)
    grouped.insert(grouped.end(), group.members.begin(), group.members.end());
  std::map<Rid, SnapshotRecord> records;
  for (SnapshotRecord& record : store->records(grouped)) records.emplace(record.rid, std::move(record));

  const SnapshotInfo info = store->info();
  DecisionWorkbook::Layout layout;
  layout.objectName = info.objectName;
  layout.objectLabel = info.objectLabel.empty() ? info.objectName : info.objectLabel;
  if (!info.nameFieldLabel.empty()) layout.nameLabel = info.nameFieldLabel;
  layout.matchFields = store->matchFields();
  layout.extraFields = store->extraFields();
  layout.otherLabel = result.otherLabel;

  std::vector<DecisionWorkbook::ExportGroup> exported;
  for (const DuplicateGroup& group : outcome.groups) {
    DecisionWorkbook::ExportGroup entry{group, {}, std::nullopt};
    DecisionWorkbook::DecidedGroup ids{group.id, {}};
    for (const Rid rid : group.members) {
      auto found = records.find(rid);
      if (found == records.end()) continue;  // gone from the snapshot meanwhile
      ids.recordIds.push_back(found->second.sfid);
      entry.records.push_back(found->second);
    }
    entry.suggested = KeeperRules::keeperIndex(entry.records, request.keeper);
    result.recordCount += entry.records.size();
    exported.push_back(std::move(entry));
    result.groups.push_back(std::move(ids));
  }

  if (stop.stop_requested()) throw DedupeError::stopped();
  if (onProgress) onProgress({DedupeProgress::Phase::writing, 0, 0, 0, workbook.string(), {}});
  DecisionWorkbook::write(workbook, layout, exported, result.already);
  store->setMeta(exportedGroupsKey, groupsJSON(result.groups));
  nlohmann::json already = nlohmann::json::array();
  for (const DecisionWorkbook::AlreadyThere& entry : result.already) {
    already.push_back(
        {{"id", entry.record.sfid}, {"other", entry.otherId}, {"otherName", entry.otherName}});
  }
  store->setMeta(exportedAlreadyKey, already.dump());
  store->setMeta(exportedOtherLabelKey, result.otherLabel);
  return result;
}

ExportedAlready exportedAlreadyThere(const std::filesystem::path& snapshot) {
  auto store = SnapshotTask::open(snapshot);
  ExportedAlready out;
  const std::optional<std::string> text = store->meta(exportedAlreadyKey);
  if (!text) return out;
  out.otherLabel = store->meta(exportedOtherLabelKey).value_or("");
  try {
    for (const auto& entry : nlohmann::json::parse(*text)) {
      out.records.push_back({entry.at("id").get<std::string>(),
                             entry.at("other").get<std::string>(),
                             entry.value("otherName", std::string())});
    }
  } catch (const nlohmann::json::exception&) {
    return {};  // unreadable: such rows read as foreign, and are reported so
  }
  return out;
}

std::vector<std::string> exportedAlready(const std::filesystem::path& snapshot) {
  std::vector<std::string> ids;
  for (const DecisionWorkbook::MarkedAlready& entry : exportedAlreadyThere(snapshot).records)
    ids.push_back(entry.id);
  return ids;
}

std::vector<DecisionWorkbook::DecidedGroup> exportedGroups(const std::filesystem::path& snapshot,
                                                           const MatchSettings& settings,
                                                           std::stop_token stop) {
  auto store = SnapshotTask::open(snapshot);
  if (auto stored = storedGroups(*store)) return *stored;

  const MatchOutcome outcome = MatchTask::groups(*store, settings, stop);
  std::vector<Rid> grouped;
  for (const DuplicateGroup& group : outcome.groups)
    grouped.insert(grouped.end(), group.members.begin(), group.members.end());
  std::map<Rid, std::string> sfids;
  for (auto& [rid, sfid] : store->sfids(grouped)) sfids.emplace(rid, std::move(sfid));
  std::vector<DecisionWorkbook::DecidedGroup> groups;
  for (const DuplicateGroup& group : outcome.groups) {
    DecisionWorkbook::DecidedGroup ids{group.id, {}};
    for (const Rid rid : group.members) {
      auto found = sfids.find(rid);
      if (found != sfids.end()) ids.recordIds.push_back(found->second);
    }
    groups.push_back(std::move(ids));
  }
  return groups;
}

DecisionWorkbook::Decisions readDecisions(const std::filesystem::path& snapshot,
                                          const std::filesystem::path& workbook,
                                          const MatchSettings& settings, std::stop_token stop) {
  return DecisionWorkbook::read(workbook, exportedGroups(snapshot, settings, stop),
                                exportedAlready(snapshot));
}

}  // namespace corvane::DecisionWorkbookTask
