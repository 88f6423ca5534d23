// The one place that finds and runs the Salesforce CLI (`sf`).
//
// Corvane keeps no credentials of its own: every login, session and sign-in
// address comes from `sf`, run as a child process with a time limit and asked
// for JSON. This class turns those replies into Org records, sessions and
// plain values. Its parsing functions are static and pure, so they work
// without `sf` being present; none of them throws or crashes on a reply of
// the wrong shape.
//
// Thread-safety: calls may run at once from several threads, each with its own
// child. The resolved executable path is the only shared state; it sits behind
// a mutex and is replaced whole. Every call blocks until the child ends or its
// time limit passes, so callers run them off the interface thread.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "connections/cli_error.hpp"
#include "connections/org.hpp"
#include "connections/session.hpp"
#include "platform/child_process.hpp"
#include "platform/iso_time.hpp"

namespace corvane {

class SalesforceCLI {
 public:
  // The time limit of each command line. Tests shorten them; the app keeps these.
  struct TimeLimits {
    std::chrono::milliseconds session{45'000};
    std::chrono::milliseconds accessToken{45'000};
    std::chrono::milliseconds frontDoor{30'000};
    std::chrono::milliseconds logout{60'000};
    std::chrono::milliseconds aliases{30'000};
    std::chrono::milliseconds limits{60'000};
    std::chrono::milliseconds auditTrail{90'000};
    std::chrono::milliseconds metadataTypes{90'000};
    std::chrono::milliseconds listMetadata{120'000};
    std::chrono::milliseconds retrieve{600'000};
    std::chrono::milliseconds loginShell{12'000};
  };

  struct Options {
    // The path the user chose; empty for none. Asked on every locateCLI, so a
    // change takes effect on the next call. Unset: $CORVANE_SF_PATH, else the
    // settings key "cliPath".
    std::function<std::string()> configuredPath;
    // Searched in order after the configured path. Unset: candidatePaths(home).
    std::optional<std::vector<std::string>> candidates;
    // The shell asked "command -v sf" as a login shell. Unset: "/bin/zsh", and on
    // Linux "/bin/bash" when there is no zsh.
    std::optional<std::string> loginShell;
    // The CLI's folder of per-login authorisation files. Unset: ~/.sfdx.
    std::optional<std::filesystem::path> authFolder;
    TimeLimits limits;
  };

  SalesforceCLI();
  explicit SalesforceCLI(Options options);
  SalesforceCLI(const SalesforceCLI&) = delete;
  SalesforceCLI& operator=(const SalesforceCLI&) = delete;

  // ---- Locating and running ----

  // The path of an executable sf, or none. Search order, first executable wins:
  // the path resolved by an earlier call (while the configured path is
  // unchanged), the configured path, the candidate list, then a login shell's
  // "command -v sf". A hit is kept for later calls.
  std::optional<std::string> locateCLI();
  // The candidate list for a home folder: /usr/local/bin/sf, /opt/homebrew/bin/sf,
  // /usr/local/lib/sf/bin/sf, home/.npm-global/bin/sf, home/.local/bin/sf.
  static std::vector<std::string> candidatePaths(const std::string& home);
  // Runs the login shell probe; the path it prints, when that is executable.
  std::optional<std::string> resolveViaLoginShell();
  // The first trimmed line that begins with "/" and ends with "/sf" (login
  // shells may print greetings first).
  static std::optional<std::string> pathFromShellOutput(std::string_view output);

  // Runs executable with args in the environment of childEnvironment() plus
  // extraEnv, both pipes drained while it runs. Throws CLIError: timedOut (the
  // child is stopped after 3 s of grace; nothing partial is returned), or failed
  // when it cannot be launched.
  ProcessResult runRaw(const std::string& executable, const std::vector<std::string>& args,
                       std::optional<std::chrono::milliseconds> timeout,
                       const std::optional<std::filesystem::path>& cwd = std::nullopt,
                       const std::map<std::string, std::string>& extraEnv = {});
  // The current environment with the tool folders added to PATH, HOME set when
  // missing, and colours, telemetry, auto-update and DNS checks switched off.
  static std::map<std::string, std::string> childEnvironment();
  // childEnvironment()'s pure part, for a given environment and home folder.
  static std::map<std::string, std::string> childEnvironment(
      std::map<std::string, std::string> environment, const std::string& home);

  // ---- Logins and sessions ----

  // Every login the CLI knows, merged and sorted by lower-cased username.
  std::vector<Org> listOrgs(bool skipConnectionStatus, std::chrono::milliseconds timeout);
  // The CLI's connection status of this login checked alone; none on any failure.
  // Never throws.
  std::optional<std::string> connectionStatus(const std::string& username,
                                              std::chrono::milliseconds timeout) noexcept;
  // A fresh REST session for the login. Refuses a reply for another user, a
  // masked token and an insecure instance address. No error text holds a token.
  SalesforceAPI::Session session(const std::string& username);
  // The token of `org auth show-access-token`, when it is usable.
  std::optional<std::string> accessToken(const std::string& target);
  // A one-time browser sign-in address (it carries a session: open it, never log
  // it). The Org form also refuses an address for a user other than org.username.
  std::string frontDoorURL(const Org& org, const std::optional<std::string>& path = std::nullopt);
  std::string frontDoorURL(const std::string& orgTarget, const std::optional<std::string>& path,
                           const std::optional<std::string>& expectedUsername);
  // Logs the login out. With an alias map, refuses when an alias named like the
  // username points elsewhere. Throws failed when the CLI also logged out
  // another login (this one is gone all the same).
  void logout(const Org& org, const std::optional<std::map<std::string, std::string>>& aliases);
  // Alias -> the username it points at. Throws rather than guess.
  std::map<std::string, std::string> aliasOwners();
  // Starts `sf org login web` and returns at once; the caller compares
  // loginUsernames() with a baseline to see the new login.
  RunningProcess startLoginWeb(const std::optional<std::string>& alias,
                               const std::optional<std::string>& instanceURL);

  // ---- Org health ----

  nlohmann::json limits(const std::string& target);
  nlohmann::json auditTrail(const std::string& target, const std::optional<std::string>& predicate);
  std::vector<std::string> metadataTypeNames(const std::string& orgTarget);
  // Never throws: an empty list on any failure.
  std::vector<nlohmann::json> listMetadata(const std::string& orgTarget,
                                           const std::string& type) noexcept;
  // Retrieves the components into projectRoot, writing sfdx-project.json there
  // when there is none. An existing one is never overwritten: the package
  // folder force-app is added to it when missing and the rest left alone; one
  // that cannot be read as a project refuses the retrieval.
  nlohmann::json retrieve(const std::string& orgTarget, const std::vector<std::string>& components,
                          const std::filesystem::path& projectRoot);

  // The name to pass to --target-org: the alias when there is one, else the
  // username; none when the org has neither.
  static std::optional<std::string> target(const Org& org);

  // ---- Pure parsing ----

  static std::vector<Org> mergeOrgArrays(const nlohmann::json& reply);
  static std::optional<Org> parseOrg(const nlohmann::json& dict);
  // The richer of two records for one login; the first on a tie.
  static const Org& preferRicher(const Org& a, const Org& b);
  static int richness(const Org& org);
  // Completes merged records with facts the CLI implies but does not state.
  static std::vector<Org> fillOrgFacts(std::vector<Org> orgs);
  static std::optional<SystemTime> parseDate(const nlohmann::json& value);
  static bool payloadIsFor(const nlohmann::json& dict, const std::string& username);
  static bool isUsableToken(std::string_view text);
  // The CLI's own sentence without decoration (help hints, stack frames, flag
  // prefixes), with anything shaped like an access token hidden.
  static std::string cleanError(std::string_view text);
  static std::optional<std::map<std::string, std::string>> parseAliasOwners(
      const nlohmann::json& reply);
  static std::optional<std::vector<std::string>> loggedOutUsernames(const nlohmann::json& reply);
  static std::optional<std::string> logoutCollateral(
      const std::string& username, const std::map<std::string, std::string>& aliases);
  // Username -> modification date of its authorisation file in the CLI's folder.
  static std::map<std::string, SystemTime> loginUsernames(const std::filesystem::path& folder);
  std::map<std::string, SystemTime> loginUsernames() const;
  static std::optional<std::string> newLogin(const std::map<std::string, SystemTime>& now,
                                             const std::map<std::string, SystemTime>& baseline);
  static bool wasRewritten(const std::string& username,
                           const std::map<std::string, SystemTime>& now,
                           const std::map<std::string, SystemTime>& baseline);
  // Decodes a reply: one JSON object, possibly after lines of other output.
  static std::optional<nlohmann::json> decodeReply(std::string_view standardOutput);

 private:
  // Runs sf with args (which must include "--json") and returns the decoded
  // reply when its status is 0; throws CLIError otherwise, with fallback as the
  // message of a failure reply that has none.
  nlohmann::json runJSON(const std::vector<std::string>& args, std::chrono::milliseconds timeout,
                         const std::string& fallback,
                         const std::optional<std::filesystem::path>& cwd = std::nullopt);
  std::string configuredPath() const;

  Options options_;
  struct Resolution {
    std::string path;
    std::string configuredPath;  // the configured path it was found under
  };
  mutable std::mutex mutex_;  // guards resolved_
  std::optional<Resolution> resolved_;
};

}  // namespace corvane
