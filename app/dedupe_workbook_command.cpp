#include "app/dedupe_workbook_command.hpp"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace corvane::DedupeWorkbookCommand {

namespace {

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
  std::string lastText;  // a step reported again with its count is printed once
  const auto progress = [&context, &lastText](const DedupeProgress& step) {
    if (step.phase != DedupeProgress::Phase::matching || step.text == lastText) return;
    lastText = step.text;
    context.out << step.text << '\n';
  };
  const DecisionWorkbookTask::ExportOutcome outcome =
      DecisionWorkbookTask::exportWorkbook(snapshot, workbook, options, {}, progress);
  const std::size_t count = outcome.groups.size();
  context.out << fmt::format("Wrote {} group{} holding {} records to {}.\n", count,
                             count == 1 ? "" : "s", outcome.recordCount, workbook.string());
  if (options.against) {
    context.out << fmt::format("Marked {} record{} already there as {}s in the \"{}\" column: "
                               "Delete removes such a record, blank keeps it.\n",
                               outcome.already.size(), outcome.already.size() == 1 ? "" : "s",
                               outcome.otherLabel,
                               DecisionWorkbook::alreadyHeader(outcome.otherLabel));
  }
  context.out
              << "Suggested keepers: " << KeeperRules::label(options.keeper) << '\n'
              << "Type Keep, Delete or Not a duplicate in the Action column, save, then check it "
                 "with:\n"
              << fmt::format("  corvane dedupe decisions \"{}\" \"{}\"\n", snapshot.string(),
                             workbook.string());
  return outcome.groups;
}

DecisionWorkbook::Decisions showDecisions(CommandContext& context,
                                          const std::filesystem::path& snapshot,
                                          const std::filesystem::path& workbook,
                                          const MatchSettings& settings, bool json) {
  DecisionWorkbook::Decisions decisions =
      DecisionWorkbookTask::readDecisions(snapshot, workbook, settings);
  if (json) {
    context.out << nlohmann::json{{"keeps", decisions.keeps},
                                  {"deletes", decisions.deletes},
                                  {"notDuplicates", decisions.notDuplicates},
                                  {"untouched", decisions.untouched},
                                  {"alreadyDeletes", decisions.alreadyDeletes},
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
    if (!decisions.alreadyDeletes.empty())
      context.out << "Delete (already there as another object's record): "
                  << joined(decisions.alreadyDeletes) << '\n';
    if (!decisions.problems.empty()) {
      context.out << "Problems:\n";
      for (const std::string& problem : decisions.problems) context.out << "  " << problem << '\n';
    }
  }
  if (!decisions.problems.empty())
    throw DedupeError::problems(decisions.problems.size(), workbook);
  return decisions;
}

namespace {

struct MatchArguments {
  std::string strictness = "normal";
  int window = defaultWindow;
  bool noSplit = false;

  void addTo(CLI::App& command) {
    command.add_option("--strictness", strictness, "strict, normal, loose or auto")
        ->check(CLI::IsMember({"strict", "normal", "loose", "auto"}));
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
    std::string against;
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
  exportCommand->add_option("--against", exportArgs->against,
                            "A snapshot of another object of the same org (Contacts for Leads): "
                            "mark the records already there");
  exportCommand->callback([&context, &chosen, exportArgs] {
    chosen = [&context, exportArgs] {
      ExportOptions options;
      options.settings = exportArgs->match.settings();
      options.keeper = keeperRuleFromRaw(exportArgs->keeper).value_or(KeeperRule::oldest);
      if (!exportArgs->against.empty()) options.against = exportArgs->against;
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

}  // namespace corvane::DedupeWorkbookCommand
