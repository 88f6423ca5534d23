// `corvane dedupe export` and `corvane dedupe decisions`: the decision
// workbook of a snapshot's duplicate groups, written and read back through
// dedupe/decision_workbook_task.hpp.
//
//   dedupe export SNAPSHOT -o FILE.xlsx [--keeper RULE] [--strictness S] [--window N] [--no-split]
//                 [--against SNAPSHOT2]
//   dedupe decisions SNAPSHOT FILE.xlsx [--json] [--strictness S] [--window N] [--no-split]
#pragma once

#include <filesystem>
#include <functional>
#include <vector>

#include "app/command_context.hpp"
#include "app/dedupe_command.hpp"
#include "dedupe/decision_workbook_task.hpp"

namespace corvane {

using DedupeWorkbookError = DedupeError;

namespace DedupeWorkbookCommand {

using ExportOptions = DecisionWorkbookTask::ExportRequest;

// Writes the workbook, printing the matching steps and where it went. Returns the groups.
std::vector<DecisionWorkbook::DecidedGroup> exportWorkbook(CommandContext& context,
                                                           const std::filesystem::path& snapshot,
                                                           const std::filesystem::path& workbook,
                                                           const ExportOptions& options);

// Prints the decisions and every problem (as JSON when json); throws
// problems when there are any.
DecisionWorkbook::Decisions showDecisions(CommandContext& context,
                                          const std::filesystem::path& snapshot,
                                          const std::filesystem::path& workbook,
                                          const MatchSettings& settings, bool json);

// Adds export and decisions under the existing "dedupe" subcommand of app.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

}  // namespace DedupeWorkbookCommand

}  // namespace corvane
