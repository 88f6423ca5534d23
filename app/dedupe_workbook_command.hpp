// `corvane dedupe export` and `corvane dedupe decisions`: the decision
// workbook of a snapshot's duplicate groups, written and read back.
//
//   dedupe export SNAPSHOT -o FILE.xlsx [--keeper RULE] [--strictness S] [--window N] [--no-split]
//   dedupe decisions SNAPSHOT FILE.xlsx [--json] [--strictness S] [--window N] [--no-split]
//
// The export remembers its groups in the snapshot, so the decisions are read
// against exactly the groups the workbook was made from, even after records
// were marked "not a duplicate". A snapshot exported by an older version is
// matched again with the options given.
#pragma once

#include <filesystem>
#include <functional>
#include <vector>

#include "app/orgs_command.hpp"
#include "dedupe/decision_workbook.hpp"
#include "dedupe/keeper_rules.hpp"
#include "dedupe/match_settings.hpp"
#include "platform/user_facing_error.hpp"

namespace CLI {
class App;
}

namespace corvane {

class DedupeWorkbookError : public UserFacingError {
 public:
  enum class Kind { noGroups, problems };
  static DedupeWorkbookError noGroups();
  static DedupeWorkbookError problems(std::size_t count, const std::filesystem::path& workbook);
  Kind kind() const { return kind_; }

 private:
  DedupeWorkbookError(Kind kind, const std::string& sentence)
      : UserFacingError(sentence), kind_(kind) {}
  Kind kind_;
};

namespace DedupeWorkbookCommand {

struct ExportOptions {
  MatchSettings settings;
  KeeperRule keeper = KeeperRule::oldest;
};

// Matches the snapshot, writes the decision workbook with each group's
// suggested keeper, and remembers the groups in the snapshot. Throws
// noGroups, writing nothing, when no group is found. Returns the groups.
std::vector<DecisionWorkbook::DecidedGroup> exportWorkbook(CommandContext& context,
                                                           const std::filesystem::path& snapshot,
                                                           const std::filesystem::path& workbook,
                                                           const ExportOptions& options);

// The groups the last export of this snapshot wrote; when it has none, the
// groups a match with settings finds now.
std::vector<DecisionWorkbook::DecidedGroup> exportedGroups(const std::filesystem::path& snapshot,
                                                           const MatchSettings& settings);

// Reads a workbook back against the snapshot's exported groups. For
// `dedupe apply --decisions FILE`: go on only when problems is empty.
DecisionWorkbook::Decisions readDecisions(const std::filesystem::path& snapshot,
                                          const std::filesystem::path& workbook,
                                          const MatchSettings& settings);

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
