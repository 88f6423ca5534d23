// `corvane dedupe`: duplicate snapshots.
//
//   dedupe download LOGIN OBJECT --match FIELD[:kind[:mode]],... [--extra FIELD,...]
//                   [--scope "SOQL condition"]
//   dedupe resume SNAPSHOT [--login LOGIN]
//   dedupe snapshots LOGIN
//   dedupe delete SNAPSHOT
//   dedupe match SNAPSHOT [--strictness strict|normal|loose] [--window N] [--no-split] [--json]
//   dedupe exclude SNAPSHOT ID...
//   dedupe plan SNAPSHOT --keeper oldest|newest|mostComplete|recentlyUpdated
//               --action merge|deleteLosers|fillGaps|tag:FIELD|exportOnly [--json]
//   dedupe apply SNAPSHOT ...the same options... [--dry-run]
//
// A download runs through a Bulk API query job into a new snapshot file under
// the application-support folder, with a progress line; Ctrl-C pauses it, and
// `resume` continues from the first page not stored.
#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "app/orgs_command.hpp"
#include "connections/salesforce_api.hpp"
#include "dedupe/match_kind.hpp"
#include "dedupe/match_settings.hpp"
#include "dedupe/merge_runner.hpp"
#include "dedupe/resolution_planner.hpp"
#include "dedupe/snapshot_downloader.hpp"
#include "platform/user_facing_error.hpp"

namespace CLI {
class App;
}

namespace corvane {

class DedupeCommandError : public UserFacingError {
 public:
  enum class Kind {
    badMatchChoice,
    unknownField,
    noMatchFields,
    notASnapshot,
    otherLogin,
    noLogin,
    unknownRecord,
    badKeeperRule,
    badAction,
    signedOutPartWay,
    notApplied
  };
  static DedupeCommandError badMatchChoice(const std::string& choice);
  static DedupeCommandError unknownField(const std::string& object, const std::string& field);
  static DedupeCommandError noMatchFields();
  static DedupeCommandError notASnapshot(const std::filesystem::path& path);
  static DedupeCommandError otherLogin(const std::string& downloadedBy, const std::string& login);
  static DedupeCommandError noLogin();
  static DedupeCommandError unknownRecord(const std::string& id);
  static DedupeCommandError badKeeperRule(const std::string& text);
  static DedupeCommandError badAction(const std::string& text);
  // done: changes made before the sign-out; notDone: changes not attempted.
  static DedupeCommandError signedOutPartWay(std::size_t done, std::size_t notDone);
  // Some changes failed or have an unknown outcome (listed above it).
  static DedupeCommandError notApplied(std::size_t failed, std::size_t unknown);
  Kind kind() const { return kind_; }

 private:
  DedupeCommandError(Kind kind, const std::string& sentence)
      : UserFacingError(sentence), kind_(kind) {}
  Kind kind_;
};

namespace DedupeCommand {

// One --match entry: the field, and the kind and mode when given.
struct MatchChoice {
  std::string field;
  std::optional<MatchKind> kind;
  std::optional<MatchMode> mode;
  bool operator==(const MatchChoice&) const = default;
};
// "Email", "Name:personName", "Name:personName:close". Throws badMatchChoice.
MatchChoice parseMatchChoice(const std::string& text);

struct DownloadOptions {
  std::vector<MatchChoice> match;
  std::vector<std::string> extra;
  std::optional<std::string> scope;
  int pageSize = 50'000;
  BulkQueryRunner::Options runner;
  std::function<bool()> shouldCancel;  // none: never
};

// Each returns the snapshot file it worked on.
std::filesystem::path download(CommandContext& context, SalesforceAPI::Client& api,
                               const std::string& login, const std::string& object,
                               const DownloadOptions& options);
// login: the login to continue with; empty means the one that started it.
std::filesystem::path resume(CommandContext& context, SalesforceAPI::Client& api,
                             const std::filesystem::path& snapshot, const std::string& login,
                             const DownloadOptions& options);
void listSnapshots(CommandContext& context, SalesforceAPI::Client& api, const std::string& login);
void remove(CommandContext& context, const std::filesystem::path& snapshot);

struct MatchOptions {
  MatchSettings settings;
  bool json = false;
};
// Finds the duplicate groups of a snapshot, leaving out the records marked
// "not a duplicate", and prints them with the statistics (progress texts
// first, unless json).
MatchOutcome match(CommandContext& context, const std::filesystem::path& snapshot,
                   const MatchOptions& options);
// Marks records (by Salesforce Id) "not a duplicate"; throws unknownRecord,
// marking nothing, when an Id is not in the snapshot.
void exclude(CommandContext& context, const std::filesystem::path& snapshot,
             const std::vector<std::string>& ids);

struct ResolveOptions {
  MatchSettings settings;  // the groups are found again, leaving out "not a duplicate" records
  KeeperRule keeper = KeeperRule::oldest;
  ResolutionAction action = ResolutionAction::merge();
  bool includeHeldBack = false;
  bool json = false;
  bool dryRun = false;  // apply: preflight only
  std::string login;    // empty: the login that made the snapshot
  // The pause before retrying a locked row, and how often.
  std::chrono::milliseconds lockPause{1000};
  int lockAttempts = 4;
  // apply: after each merge call or batch of deletes or updates.
  std::function<void(std::size_t done, std::size_t total)> progress;
};

// Matches the snapshot, picks keepers and prints the plan with the groups
// skipped and held back, and why. Field details (what can be written) are
// read from the org for the actions that write values.
ResolutionPlan plan(CommandContext& context, SalesforceAPI::Client& api,
                    const std::filesystem::path& snapshot, const ResolveOptions& options);

// plan, then the preflight (records changed in the org since the snapshot
// stop everything), then the merges, deletes or updates, one line per result. Throws
// signedOutPartWay or notApplied after printing when not everything was done.
void apply(CommandContext& context, SalesforceAPI::Client& api,
           const std::filesystem::path& snapshot, const ResolveOptions& options);

// Adds the command to app; when chosen, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

}  // namespace DedupeCommand

}  // namespace corvane
