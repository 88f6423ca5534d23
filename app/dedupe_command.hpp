// `corvane dedupe`: duplicate snapshots.
//
//   dedupe download LOGIN OBJECT --match FIELD[:kind[:mode]],... [--extra FIELD,...]
//                   [--scope "SOQL condition"]
//   dedupe resume SNAPSHOT [--login LOGIN]
//   dedupe snapshots LOGIN [--json]
//   dedupe delete SNAPSHOT
//   dedupe match SNAPSHOT [--strictness strict|normal|loose] [--window N] [--no-split] [--json]
//                [--against SNAPSHOT2]
//   dedupe exclude SNAPSHOT ID...
//   dedupe plan SNAPSHOT --keeper oldest|newest|mostComplete|recentlyUpdated
//               --action merge|deleteLosers|fillGaps|tag:FIELD|exportOnly
//               [--decisions FILE.xlsx] [--keep-values RULE|FIELD=RULE,...] [--json]
//   dedupe apply SNAPSHOT ...the same options... [--results FILE.xlsx] [--dry-run]
//
// The work is done by the engine's tasks (dedupe/*_task.hpp) and worded by its
// reports (dedupe/*_report.hpp); these turn the arguments into requests. A
// download shows a progress line; Ctrl-C pauses it, and `resume` continues
// from the first page not stored.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "app/command_context.hpp"
#include "connections/salesforce_api.hpp"
#include "dedupe/cross_match_task.hpp"
#include "dedupe/dedupe_error.hpp"
#include "dedupe/match_settings.hpp"
#include "dedupe/resolution_task.hpp"
#include "dedupe/snapshot_task.hpp"

namespace corvane {

using DedupeCommandError = DedupeError;

namespace DedupeCommand {

using MatchChoice = SnapshotTask::MatchChoice;
using SnapshotTask::parseMatchChoice;
using DownloadOptions = SnapshotTask::DownloadRequest;

// Each returns the snapshot file it worked on; a stop request pauses.
std::filesystem::path download(CommandContext& context, SalesforceAPI::Client& api,
                               const std::string& login, const std::string& object,
                               const DownloadOptions& options, std::stop_token stop = {});
// login: the login to continue with; empty means the one that started it.
std::filesystem::path resume(CommandContext& context, SalesforceAPI::Client& api,
                             const std::filesystem::path& snapshot, const std::string& login,
                             const DownloadOptions& options, std::stop_token stop = {});
void listSnapshots(CommandContext& context, SalesforceAPI::Client& api, const std::string& login,
                   bool json = false);
void remove(CommandContext& context, const std::filesystem::path& snapshot);

// --strictness, --window and --no-split, as every command that matches takes them.
struct MatchArguments {
  std::string strictness = "normal";
  int window = defaultWindow;
  bool noSplit = false;

  void addTo(CLI::App& command);
  MatchSettings settings() const;
};

struct MatchOptions {
  MatchSettings settings;
  bool json = false;
};
// Prints the groups with the statistics (the matching steps first, unless json).
MatchOutcome match(CommandContext& context, const std::filesystem::path& snapshot,
                   const MatchOptions& options);
// Prints the records of snapshot that already exist in against, another
// object's snapshot of the same org (Leads that are already Contacts): the
// matching steps first (unless json), then a line per pair and a summary.
CrossMatchTask::Outcome crossMatch(CommandContext& context, const std::filesystem::path& snapshot,
                                   const std::filesystem::path& against,
                                   const MatchSettings& settings, bool json);
void exclude(CommandContext& context, const std::filesystem::path& snapshot,
             const std::vector<std::string>& ids);

struct ResolveOptions {
  MatchSettings settings;
  KeeperRule keeper = KeeperRule::oldest;
  ResolutionAction action = ResolutionAction::merge();
  bool includeHeldBack = false;
  bool json = false;
  bool dryRun = false;  // apply: check only
  std::string login;    // empty: the login that made the snapshot
  // A decision workbook exported from the snapshot: its rows decide instead
  // of a new match.
  std::optional<std::filesystem::path> decisions;
  KeepValues keepValues;          // merge: where each field's kept value comes from
  std::filesystem::path results;  // apply: the results workbook; empty: beside the snapshot
  std::chrono::milliseconds lockPause{1000};
  int lockAttempts = 4;
  // apply: after each merge call or batch of deletes or updates.
  std::function<void(std::size_t done, std::size_t total)> progress;
};
// Prints the plan with the groups skipped and held back, and why.
ResolutionPlan plan(CommandContext& context, SalesforceAPI::Client& api,
                    const std::filesystem::path& snapshot, const ResolveOptions& options);
// Prints the plan, the check of the records in the org, then one line per
// change; throws the outcome's failure after printing it.
void apply(CommandContext& context, SalesforceAPI::Client& api,
           const std::filesystem::path& snapshot, const ResolveOptions& options);

// Adds the command to app; when chosen, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

}  // namespace DedupeCommand

}  // namespace corvane
