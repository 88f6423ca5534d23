#include "app/dedupe_workbook_command.hpp"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "dedupe/plan_report.hpp"

namespace corvane::DedupeWorkbookCommand {

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
  context.out << (json ? PlanReport::decisionsJSON(decisions)
                       : PlanReport::decisionsText(decisions));
  if (!decisions.problems.empty())
    throw DedupeError::problems(decisions.problems.size(), workbook);
  return decisions;
}

void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen) {
  CLI::App* dedupe = app.get_subcommand("dedupe");

  struct ExportArguments {
    std::string snapshot;
    std::string output;
    std::string keeper = "oldest";
    std::string against;
    DedupeCommand::MatchArguments match;
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
  whenChosen(exportCommand, chosen, [&context, exportArgs] {
    ExportOptions options;
    options.settings = exportArgs->match.settings();
    options.keeper = keeperRuleFromRaw(exportArgs->keeper).value_or(KeeperRule::oldest);
    if (!exportArgs->against.empty()) options.against = exportArgs->against;
    exportWorkbook(context, exportArgs->snapshot, exportArgs->output, options);
  });

  struct DecisionsArguments {
    std::string snapshot;
    std::string workbook;
    bool json = false;
    DedupeCommand::MatchArguments match;
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
  whenChosen(decisionsCommand, chosen, [&context, decisionsArgs] {
    showDecisions(context, decisionsArgs->snapshot, decisionsArgs->workbook,
                  decisionsArgs->match.settings(), decisionsArgs->json);
  });
}

}  // namespace corvane::DedupeWorkbookCommand
