#include "app/dedupe_workbook_command.hpp"

#include <map>
#include <set>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/dedupe_command.hpp"
#include "dedupe/matcher.hpp"
#include "dedupe/record_store.hpp"

namespace corvane {

DedupeWorkbookError DedupeWorkbookError::noGroups() {
  return {Kind::noGroups,
          "No duplicate groups were found in this snapshot, so no workbook was written. Try "
          "--strictness loose, or download again with other match fields."};
}

DedupeWorkbookError DedupeWorkbookError::problems(std::size_t count,
                                                  const std::filesystem::path& workbook) {
  return {Kind::problems,
          fmt::format("The workbook {} has {} problem{}, listed above; nothing was changed. "
                      "Correct {} in the workbook, save it and read it again.",
                      workbook.filename().string(), count, count == 1 ? "" : "s",
                      count == 1 ? "it" : "them")};
}

namespace DedupeWorkbookCommand {

namespace {

// The snapshot's memory of the groups its last decision workbook holds.
constexpr const char* exportedGroupsKey = "decisionWorkbookGroups";

std::shared_ptr<RecordStore> openSnapshot(const std::filesystem::path& snapshot) {
  try {
    return RecordStore::open(snapshot);
  } catch (const SQLiteError&) {
    throw DedupeCommandError::notASnapshot(snapshot);
  }
}

MatchOutcome matchGroups(RecordStore& store, const MatchSettings& settings,
                         const Matcher::Progress& progress) {
  std::set<Rid> excluded;
  for (const auto& [rid, sfid] : store.exclusions()) excluded.insert(rid);
  return Matcher::findDuplicates(store, settings, excluded, progress, {});
}

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

std::string joined(const std::vector<std::string>& ids) {
  std::string out;
  for (const std::string& id : ids) out += (out.empty() ? "" : ", ") + id;
  return out;
}

}  // namespace

std::vector<DecisionWorkbook::DecidedGroup> exportWorkbook(CommandContext& context,
                                                           const std::filesystem::path& snapshot,
                                                           const std::filesystem::path& workbook,
                                                           const ExportOptions& options) {
  auto store = openSnapshot(snapshot);
  const MatchOutcome outcome = matchGroups(
      *store, options.settings, [&context](const std::string& text) { context.out << text << '\n'; });
  if (outcome.groups.empty()) throw DedupeWorkbookError::noGroups();

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

  std::vector<DecisionWorkbook::ExportGroup> exported;
  std::vector<DecisionWorkbook::DecidedGroup> decided;
  std::size_t recordCount = 0;
  for (const DuplicateGroup& group : outcome.groups) {
    DecisionWorkbook::ExportGroup entry{group, {}, std::nullopt};
    DecisionWorkbook::DecidedGroup ids{group.id, {}};
    for (const Rid rid : group.members) {
      auto found = records.find(rid);
      if (found == records.end()) continue;  // gone from the snapshot meanwhile
      ids.recordIds.push_back(found->second.sfid);
      entry.records.push_back(found->second);
    }
    entry.suggested = KeeperRules::keeperIndex(entry.records, options.keeper);
    recordCount += entry.records.size();
    exported.push_back(std::move(entry));
    decided.push_back(std::move(ids));
  }

  DecisionWorkbook::write(workbook, layout, exported);
  store->setMeta(exportedGroupsKey, groupsJSON(decided));

  context.out << fmt::format("Wrote {} group{} holding {} records to {}.\n", decided.size(),
                             decided.size() == 1 ? "" : "s", recordCount, workbook.string())
              << "Suggested keepers: " << KeeperRules::label(options.keeper) << '\n'
              << "Type Keep, Delete or Not a duplicate in the Action column, save, then check it "
                 "with:\n"
              << fmt::format("  corvane dedupe decisions \"{}\" \"{}\"\n", snapshot.string(),
                             workbook.string());
  return decided;
}

std::vector<DecisionWorkbook::DecidedGroup> exportedGroups(const std::filesystem::path& snapshot,
                                                           const MatchSettings& settings) {
  auto store = openSnapshot(snapshot);
  if (auto stored = storedGroups(*store)) return *stored;

  const MatchOutcome outcome = matchGroups(*store, settings, {});
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
                                          const MatchSettings& settings) {
  return DecisionWorkbook::read(workbook, exportedGroups(snapshot, settings));
}

DecisionWorkbook::Decisions showDecisions(CommandContext& context,
                                          const std::filesystem::path& snapshot,
                                          const std::filesystem::path& workbook,
                                          const MatchSettings& settings, bool json) {
  DecisionWorkbook::Decisions decisions = readDecisions(snapshot, workbook, settings);
  if (json) {
    context.out << nlohmann::json{{"keeps", decisions.keeps},
                                  {"deletes", decisions.deletes},
                                  {"notDuplicates", decisions.notDuplicates},
                                  {"untouched", decisions.untouched},
                                  {"problems", decisions.problems}}
                       .dump(2)
                << '\n';
  } else {
    context.out << fmt::format("Keep: {}   Delete: {}   Not a duplicate: {}   Left blank: {}\n",
                               decisions.keeps.size(), decisions.deletes.size(),
                               decisions.notDuplicates.size(), decisions.untouched);
    if (!decisions.keeps.empty()) context.out << "Keep: " << joined(decisions.keeps) << '\n';
    if (!decisions.deletes.empty()) context.out << "Delete: " << joined(decisions.deletes) << '\n';
    if (!decisions.notDuplicates.empty())
      context.out << "Not a duplicate: " << joined(decisions.notDuplicates) << '\n';
    if (!decisions.problems.empty()) {
      context.out << "Problems:\n";
      for (const std::string& problem : decisions.problems) context.out << "  " << problem << '\n';
    }
  }
  if (!decisions.problems.empty())
    throw DedupeWorkbookError::problems(decisions.problems.size(), workbook);
  return decisions;
}

namespace {

struct MatchArguments {
  std::string strictness = "normal";
  int window = defaultWindow;
  bool noSplit = false;

  void addTo(CLI::App& command) {
    command.add_option("--strictness", strictness, "strict, normal or loose")
        ->check(CLI::IsMember({"strict", "normal", "loose"}));
    command
        .add_option("--window", window,
                    "Neighbours each record is compared with in every sorted pass")
        ->check(CLI::Range(1, 1000));
    command.add_flag("--no-split", noSplit, "Keep large groups whole");
  }

  MatchSettings settings() const {
    MatchSettings settings;
    settings.strictness = strictnessFromRaw(strictness).value_or(Strictness::normal);
    settings.window = window;
    settings.split.enabled = !noSplit;
    return settings;
  }
};

}  // namespace

void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen) {
  CLI::App* dedupe = app.get_subcommand("dedupe");

  struct ExportArguments {
    std::string snapshot;
    std::string output;
    std::string keeper = "oldest";
    MatchArguments match;
  };
  auto exportArgs = std::make_shared<ExportArguments>();
  CLI::App* exportCommand = dedupe->add_subcommand(
      "export", "Write the duplicate groups to an .xlsx workbook to decide in a spreadsheet");
  exportCommand->add_option("SNAPSHOT", exportArgs->snapshot, "The snapshot file")->required();
  exportCommand->add_option("-o,--output", exportArgs->output, "The workbook to write (.xlsx)")
      ->required();
  std::vector<std::string> rules;
  for (KeeperRule rule : allKeeperRules) rules.emplace_back(rawValue(rule));
  exportCommand
      ->add_option("--keeper", exportArgs->keeper,
                   "The rule that suggests the record to keep: oldest, newest, mostComplete or "
                   "recentlyUpdated")
      ->check(CLI::IsMember(rules));
  exportArgs->match.addTo(*exportCommand);
  exportCommand->callback([&context, &chosen, exportArgs] {
    chosen = [&context, exportArgs] {
      ExportOptions options;
      options.settings = exportArgs->match.settings();
      options.keeper = keeperRuleFromRaw(exportArgs->keeper).value_or(KeeperRule::oldest);
      exportWorkbook(context, exportArgs->snapshot, exportArgs->output, options);
    };
  });

  struct DecisionsArguments {
    std::string snapshot;
    std::string workbook;
    bool json = false;
    MatchArguments match;
  };
  auto decisionsArgs = std::make_shared<DecisionsArguments>();
  CLI::App* decisionsCommand = dedupe->add_subcommand(
      "decisions", "Read a decision workbook back and list its decisions and problems");
  decisionsCommand->add_option("SNAPSHOT", decisionsArgs->snapshot, "The snapshot file")
      ->required();
  decisionsCommand->add_option("WORKBOOK", decisionsArgs->workbook, "The edited workbook (.xlsx)")
      ->required();
  decisionsCommand->add_flag("--json", decisionsArgs->json, "Print the decisions as JSON");
  decisionsArgs->match.addTo(*decisionsCommand);
  decisionsCommand->callback([&context, &chosen, decisionsArgs] {
    chosen = [&context, decisionsArgs] {
      showDecisions(context, decisionsArgs->snapshot, decisionsArgs->workbook,
                    decisionsArgs->match.settings(), decisionsArgs->json);
    };
  });
}

}  // namespace DedupeWorkbookCommand

}  // namespace corvane
