#include "connections/salesforce_cli.hpp"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <system_error>
#include <unordered_map>
#include <utility>

#include "connections/ascii.hpp"
#include "platform/app_support.hpp"
#include "platform/durable_file.hpp"

namespace corvane {

namespace {

using nlohmann::json;

constexpr const char* kGeneralFallback = "The Salesforce CLI reported an error.";
constexpr const char* kNoTarget = "This org has no alias or username.";
constexpr const char* kNoTargetToOpen = "This org has no alias or username to open.";
constexpr const char* kAliasesUnreadable =
    "The Salesforce CLI's list of aliases could not be read, so it is not safe to remove a login "
    "right now. Try again in a moment.";
// Longest CLI message passed on to the user; the rest is stack trace or data.
constexpr std::size_t kLongestMessage = 2000;

// Folders where Node.js and the CLI are usually installed; a program started
// from a desktop session often has a PATH without them.
std::vector<std::string> toolFolders(const std::string& home) {
  std::vector<std::string> folders = {
      "/opt/homebrew/bin",    "/usr/local/bin", "/usr/bin", "/bin", "/usr/sbin", "/sbin",
      "/usr/local/lib/sf/bin"};
  if (!home.empty()) {
    folders.push_back(home + "/.npm-global/bin");
    folders.push_back(home + "/.local/bin");
  }
  return folders;
}

const json* member(const json& object, const char* key) {
  if (!object.is_object()) return nullptr;
  const auto found = object.find(key);
  return found == object.end() ? nullptr : &*found;
}

// A text member; empty text counts as absent.
std::optional<std::string> text(const json& object, const char* key) {
  const json* value = member(object, key);
  if (value == nullptr || !value->is_string()) return std::nullopt;
  const auto& string = value->get_ref<const std::string&>();
  if (string.empty()) return std::nullopt;
  return string;
}

std::optional<bool> flag(const json& object, const char* key) {
  const json* value = member(object, key);
  if (value == nullptr || !value->is_boolean()) return std::nullopt;
  return value->get<bool>();
}

const json& resultOf(const json& reply) {
  static const json kNull;
  const json* result = member(reply, "result");
  return result == nullptr ? kNull : *result;
}

bool endsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

bool isAlphanumeric(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// Replaces anything shaped like an access token (an org id, "!", the session
// part) so that no message from the CLI can carry one to the screen or a log.
std::string hideTokens(std::string text) {
  std::size_t bang = text.find('!');
  while (bang != std::string::npos) {
    std::size_t start = bang;
    while (start > 0 && isAlphanumeric(text[start - 1])) --start;
    std::size_t end = bang + 1;
    while (end < text.size() && !Ascii::isSpace(text[end]) && text[end] != '"' &&
           text[end] != '\'') {
      ++end;
    }
    const bool orgIdBefore = bang - start >= 15 && text.compare(start, 3, "00D") == 0;
    if (orgIdBefore && end - bang > 8) {
      static constexpr std::string_view kHidden = "[token hidden]";
      text.replace(start, end - start, kHidden);
      bang = text.find('!', start + kHidden.size());
    } else {
      bang = text.find('!', bang + 1);
    }
  }
  return text;
}

std::string withoutEscapes(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\x1b' && i + 1 < text.size() && text[i + 1] == '[') {
      i += 2;
      while (i < text.size() && !((text[i] >= '@' && text[i] <= '~'))) ++i;
      continue;
    }
    result.push_back(text[i]);
  }
  return result;
}

// Decoration the CLI wraps around its sentence.
bool isDecoration(std::string_view line) {
  if (startsWith(line, "at ")) return true;  // a stack frame
  if (startsWith(line, "See more help with")) return true;
  if (startsWith(line, "Parsing --")) {  // "Parsing --target-org" before the real reason
    return line.find(' ', 10) == std::string_view::npos;
  }
  return false;
}

// A message that is itself a JSON error list ([{"message": ..., "errorCode": ...}]).
std::optional<std::string> messagesInJSON(std::string_view message) {
  if (message.empty() || (message.front() != '[' && message.front() != '{')) return std::nullopt;
  const json parsed = json::parse(message, nullptr, false);
  if (parsed.is_discarded()) return std::nullopt;
  std::string joined;
  const auto add = [&joined](const json& item) {
    if (auto found = text(item, "message")) {
      if (!joined.empty()) joined += "\n";
      joined += *found;
    }
  };
  if (parsed.is_array()) {
    for (const auto& item : parsed) add(item);
  } else {
    add(parsed);
  }
  if (joined.empty()) return std::nullopt;
  return joined;
}

std::string shortened(std::string text) {
  if (text.size() <= kLongestMessage) return text;
  std::size_t cut = kLongestMessage;
  // Never cut inside a UTF-8 sequence.
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  text.resize(cut);
  return text + "…";
}

bool isLoopbackHost(std::string_view host) {
  return host == "localhost" || host == "::1" || startsWith(host, "127.");
}

// https, or http to this machine (a local stand-in org).
bool isSecureInstance(const std::string& url) {
  const std::string lower = Ascii::lowered(url);
  if (startsWith(lower, "https://")) return true;
  if (!startsWith(lower, "http://")) return false;
  Org probe;
  probe.instanceUrl = url;
  return isLoopbackHost(Ascii::lowered(probe.host()));
}

// A reply whose "status" is not 0; without a numeric status, the exit status decides.
bool isFailure(const json& reply, int exitStatus) {
  const json* status = member(reply, "status");
  if (status == nullptr || !status->is_number()) return exitStatus != 0;
  if (status->is_number_float()) return status->get<double>() != 0.0;
  return status->is_number_unsigned() ? status->get<std::uint64_t>() != 0
                                      : status->get<std::int64_t>() != 0;
}

std::string expandHome(const std::string& path) {
  if (path == "~") return AppSupport::homeFolder().string();
  if (startsWith(path, "~/")) return (AppSupport::homeFolder() / path.substr(2)).string();
  return path;
}

bool isExecutable(const std::string& path) {
  return !path.empty() && path.front() == '/' && ChildProcess::isExecutableFile(path);
}

std::string defaultLoginShell() {
#ifdef __linux__
  if (ChildProcess::isExecutableFile("/bin/zsh")) return "/bin/zsh";
  return "/bin/bash";
#else
  return "/bin/zsh";
#endif
}

SystemTime toSystemTime(std::filesystem::file_time_type time) {
  return std::chrono::time_point_cast<SystemTime::duration>(std::chrono::file_clock::to_sys(time));
}

}  // namespace

SalesforceCLI::SalesforceCLI() : SalesforceCLI(Options{}) {}

SalesforceCLI::SalesforceCLI(Options options) : options_(std::move(options)) {}

// ---- Locating and running ----

std::string SalesforceCLI::configuredPath() const {
  if (options_.configuredPath) return expandHome(options_.configuredPath());
  if (const char* override = std::getenv("CORVANE_SF_PATH"); override && *override) {
    return expandHome(override);
  }
  try {
    return expandHome(Settings::string("cliPath").value_or(""));
  } catch (const std::exception&) {
    return {};  // unreadable settings: search as if nothing were configured
  }
}

std::vector<std::string> SalesforceCLI::candidatePaths(const std::string& home) {
  return {"/usr/local/bin/sf", "/opt/homebrew/bin/sf", "/usr/local/lib/sf/bin/sf",
          home + "/.npm-global/bin/sf", home + "/.local/bin/sf"};
}

std::optional<std::string> SalesforceCLI::locateCLI() {
  const std::string configured = configuredPath();
  {
    std::lock_guard lock(mutex_);
    if (resolved_ && resolved_->configuredPath == configured && isExecutable(resolved_->path)) {
      return resolved_->path;
    }
  }
  const auto remember = [&](const std::string& path) {
    std::lock_guard lock(mutex_);
    resolved_ = Resolution{path, configured};
    return path;
  };
  if (isExecutable(configured)) return remember(configured);
  const auto candidates =
      options_.candidates ? *options_.candidates : candidatePaths(AppSupport::homeFolder());
  for (const auto& candidate : candidates) {
    if (isExecutable(candidate)) return remember(candidate);
  }
  if (auto found = resolveViaLoginShell()) return remember(*found);
  std::lock_guard lock(mutex_);
  resolved_.reset();
  return std::nullopt;
}

std::optional<std::string> SalesforceCLI::resolveViaLoginShell() {
  const std::string shell = options_.loginShell ? *options_.loginShell : defaultLoginShell();
  if (!isExecutable(shell)) return std::nullopt;
  try {
    const auto result = runRaw(shell, {"-lc", "command -v sf"}, options_.limits.loginShell);
    auto path = pathFromShellOutput(result.standardOutput);
    if (path && isExecutable(*path)) return path;
  } catch (const CLIError&) {
    // A shell that hangs or cannot start simply finds nothing.
  }
  return std::nullopt;
}

std::optional<std::string> SalesforceCLI::pathFromShellOutput(std::string_view output) {
  while (!output.empty()) {
    const auto newline = output.find('\n');
    const std::string_view line = Ascii::trimmed(output.substr(0, newline));
    if (startsWith(line, "/") && endsWith(line, "/sf")) return std::string(line);
    if (newline == std::string_view::npos) break;
    output.remove_prefix(newline + 1);
  }
  return std::nullopt;
}

ProcessResult SalesforceCLI::runRaw(const std::string& executable,
                                    const std::vector<std::string>& args,
                                    std::optional<std::chrono::milliseconds> timeout,
                                    const std::optional<std::filesystem::path>& cwd,
                                    const std::map<std::string, std::string>& extraEnv) {
  ProcessRequest request;
  request.executable = executable;
  request.arguments = args;
  request.workingDirectory = cwd;
  request.environment = childEnvironment();
  for (const auto& [name, value] : extraEnv) request.environment[name] = value;
  request.timeout = timeout;
  try {
    return ChildProcess::run(request);
  } catch (const ProcessLaunchError& error) {
    // The platform's reason only: "Could not start <path>" would say the same twice.
    throw CLIError::failed("Could not launch the Salesforce CLI: " + error.reason());
  } catch (const ProcessTimedOut&) {
    throw CLIError::timedOut();
  }
}

std::map<std::string, std::string> SalesforceCLI::childEnvironment() {
  return childEnvironment(ChildProcess::currentEnvironment(), AppSupport::homeFolder().string());
}

std::map<std::string, std::string> SalesforceCLI::childEnvironment(
    std::map<std::string, std::string> environment, const std::string& home) {
  std::vector<std::string> folders;
  std::string_view path = environment["PATH"];
  while (!path.empty()) {
    const auto colon = path.find(':');
    // Empty entries mean "the current folder": never search there.
    if (const auto folder = path.substr(0, colon); !folder.empty()) folders.emplace_back(folder);
    if (colon == std::string_view::npos) break;
    path.remove_prefix(colon + 1);
  }
  for (const auto& folder : toolFolders(home)) {
    if (std::find(folders.begin(), folders.end(), folder) == folders.end()) {
      folders.push_back(folder);
    }
  }
  std::string joined;
  for (const auto& folder : folders) {
    if (!joined.empty()) joined += ':';
    joined += folder;
  }
  environment["PATH"] = joined;
  if (environment["HOME"].empty()) environment["HOME"] = home;
  environment["FORCE_COLOR"] = "0";
  environment["SF_DISABLE_TELEMETRY"] = "true";
  environment["SF_DISABLE_AUTOUPDATE"] = "true";
  environment["SFDX_DISABLE_DNS_CHECK"] = "true";
  return environment;
}

std::optional<json> SalesforceCLI::decodeReply(std::string_view standardOutput) {
  json parsed = json::parse(standardOutput, nullptr, false);
  if (!parsed.is_discarded() && parsed.is_object()) return parsed;
  // Node or a plug-in may print a warning line before the reply: read from
  // the first line that opens an object to the last closing brace.
  std::size_t start = standardOutput.starts_with('{') ? 0 : standardOutput.find("\n{");
  if (start == std::string_view::npos) return std::nullopt;
  if (standardOutput[start] == '\n') ++start;
  const std::size_t end = standardOutput.rfind('}');
  if (end == std::string_view::npos || end < start) return std::nullopt;
  parsed = json::parse(standardOutput.substr(start, end - start + 1), nullptr, false);
  if (parsed.is_discarded() || !parsed.is_object()) return std::nullopt;
  return parsed;
}

json SalesforceCLI::runJSON(const std::vector<std::string>& args, std::chrono::milliseconds timeout,
                            const std::string& fallback,
                            const std::optional<std::filesystem::path>& cwd) {
  const auto path = locateCLI();
  if (!path) throw CLIError::notFound();
  const ProcessResult result = runRaw(*path, args, timeout, cwd);
  auto reply = decodeReply(result.standardOutput);
  if (!reply && result.exitStatus != 0) {
    // Older CLIs wrote the JSON of a failure to standard error; only a failure
    // reply is taken from there.
    reply = decodeReply(result.standardError);
    if (reply && !isFailure(*reply, result.exitStatus)) reply.reset();
  }
  if (!reply) throw CLIError::badOutput();
  if (isFailure(*reply, result.exitStatus)) {
    std::string message;
    if (auto raw = text(*reply, "message")) message = cleanError(*raw);
    throw CLIError::failed(message.empty() ? fallback : message);
  }
  return std::move(*reply);
}

// ---- Logins and sessions ----

std::optional<std::string> SalesforceCLI::target(const Org& org) {
  if (org.alias && !org.alias->empty()) return org.alias;
  if (!org.username.empty()) return org.username;
  return std::nullopt;
}

std::vector<Org> SalesforceCLI::listOrgs(bool skipConnectionStatus,
                                         std::chrono::milliseconds timeout) {
  std::vector<std::string> args = {"org", "list", "--all", "--json"};
  if (skipConnectionStatus) args.emplace_back("--skip-connection-status");
  const json reply = runJSON(args, timeout, kGeneralFallback);
  // A reply without the lists is not "no logins": saying so would mislead.
  if (!resultOf(reply).is_object()) throw CLIError::badOutput();
  return mergeOrgArrays(reply);
}

std::optional<std::string> SalesforceCLI::connectionStatus(
    const std::string& username, std::chrono::milliseconds timeout) noexcept {
  try {
    if (username.empty()) return std::nullopt;
    const json reply =
        runJSON({"org", "display", "--target-org", username, "--json"}, timeout, kGeneralFallback);
    const json& result = resultOf(reply);
    if (!payloadIsFor(result, username)) return std::nullopt;
    return text(result, "connectedStatus");
  } catch (...) {
    return std::nullopt;
  }
}

SalesforceAPI::Session SalesforceCLI::session(const std::string& username) {
  if (username.empty()) throw CLIError::failed("This login has no username.");
  const json reply = runJSON({"org", "display", "--target-org", username, "--verbose", "--json"},
                             options_.limits.session, kGeneralFallback);
  const json& result = resultOf(reply);
  if (!payloadIsFor(result, username)) {
    throw CLIError::failed("The Salesforce CLI answered for a different user than " + username +
                           ".\n\nRemove this login and add it again to repair it.");
  }
  auto instanceUrl = text(result, "instanceUrl");
  if (!instanceUrl) {
    throw CLIError::failed("This org has no active session. Reconnect it and try again.");
  }
  if (!isSecureInstance(*instanceUrl)) {
    throw CLIError::failed("The Salesforce CLI gave this login an address that is not secure (" +
                           *instanceUrl +
                           "), and this app sends a login token only over https. Remove this "
                           "login and add it again with its https address.");
  }

  std::optional<std::string> token = text(result, "accessToken");
  if (!token || !isUsableToken(*token)) {
    // Newer CLIs mask the token in `org display`; it has its own command.
    token.reset();
    try {
      token = accessToken(username);
    } catch (const CLIError& error) {
      if (error.kind() == CLIError::Kind::timedOut || error.kind() == CLIError::Kind::notFound) {
        throw;
      }
    }
  }
  if (!token) {
    throw CLIError::failed("The Salesforce CLI did not give this app a login token for " +
                           username +
                           ".\n\nReconnect the org and try again:\n    sf org login web "
                           "--target-org " +
                           username +
                           "\n\nIf it keeps happening, updating the Salesforce CLI usually "
                           "fixes it.");
  }

  SalesforceAPI::Session session;
  session.accessToken = std::move(*token);
  session.instanceUrl = std::move(*instanceUrl);
  session.apiVersion = text(result, "apiVersion").value_or("62.0");
  session.fetchedAt = std::chrono::system_clock::now();
  return session;
}

std::optional<std::string> SalesforceCLI::accessToken(const std::string& target) {
  if (target.empty()) throw CLIError::failed(kNoTarget);
  const json reply = runJSON({"org", "auth", "show-access-token", "--target-org", target, "--json"},
                             options_.limits.accessToken, kGeneralFallback);
  auto token = text(resultOf(reply), "accessToken");
  if (!token || !isUsableToken(*token)) return std::nullopt;
  return token;
}

std::string SalesforceCLI::frontDoorURL(const Org& org, const std::optional<std::string>& path) {
  const auto orgTarget = target(org);
  if (!orgTarget) throw CLIError::failed(kNoTargetToOpen);
  // Through an alias the CLI could open another user's session: check who it is.
  std::optional<std::string> expected;
  if (!org.username.empty()) expected = org.username;
  return frontDoorURL(*orgTarget, path, expected);
}

std::string SalesforceCLI::frontDoorURL(const std::string& orgTarget,
                                        const std::optional<std::string>& path,
                                        const std::optional<std::string>& expectedUsername) {
  if (orgTarget.empty()) throw CLIError::failed(kNoTargetToOpen);
  std::vector<std::string> args = {"org",     "open",       "--target-org",
                                   orgTarget, "--url-only", "--json"};
  if (path) {
    args.emplace_back("--path");
    args.push_back(*path);
  }
  const json reply = runJSON(args, options_.limits.frontDoor, kGeneralFallback);
  const json& result = resultOf(reply);
  if (expectedUsername && !payloadIsFor(result, *expectedUsername)) {
    throw CLIError::failed("The Salesforce CLI opened this org as a different user than " +
                           *expectedUsername +
                           ". Remove this login and add it again to repair it.");
  }
  auto url = text(result, "url");
  if (!url) {
    throw CLIError::failed(
        "The Salesforce CLI gave no address to open this org. Try again, or reconnect the org.");
  }
  return *url;
}

void SalesforceCLI::logout(const Org& org,
                           const std::optional<std::map<std::string, std::string>>& aliases) {
  const std::string& username = org.username;
  if (username.empty()) throw CLIError::failed("This login has no username.");
  if (aliases) {
    if (auto other = logoutCollateral(username, *aliases)) {
      throw CLIError::failed("Not removed. An alias named " + username +
                             " points at a different login, " + *other +
                             ", and the Salesforce CLI would log out both. Rename that alias "
                             "first.");
    }
  }
  // The username, never the alias: it is the one name that cannot have been
  // pointed at another login since the list was read.
  const json reply = runJSON({"org", "logout", "--target-org", username, "--no-prompt", "--json"},
                             options_.limits.logout, kGeneralFallback);
  std::vector<std::string> others;
  for (const auto& name : loggedOutUsernames(reply).value_or(std::vector<std::string>{})) {
    if (!Ascii::equalsIgnoringCase(name, username)) others.push_back(name);
  }
  if (others.size() == 1) {
    throw CLIError::failed("The Salesforce CLI also logged out " + others.front() +
                           ". Add that login again to restore it.");
  }
  if (others.size() > 1) {
    std::string list;
    for (std::size_t i = 0; i < others.size(); ++i) {
      if (i > 0) list += (i + 1 == others.size()) ? " and " : ", ";
      list += others[i];
    }
    throw CLIError::failed("The Salesforce CLI also logged out " + list +
                           ". Add those logins again to restore them.");
  }
}

std::map<std::string, std::string> SalesforceCLI::aliasOwners() {
  std::optional<std::map<std::string, std::string>> owners;
  try {
    owners = parseAliasOwners(
        runJSON({"alias", "list", "--json"}, options_.limits.aliases, kAliasesUnreadable));
  } catch (const CLIError& error) {
    if (error.kind() == CLIError::Kind::notFound || error.kind() == CLIError::Kind::timedOut) {
      throw;
    }
  }
  if (!owners) throw CLIError::failed(kAliasesUnreadable);
  return *owners;
}

RunningProcess SalesforceCLI::startLoginWeb(const std::optional<std::string>& alias,
                                            const std::optional<std::string>& instanceURL) {
  const auto path = locateCLI();
  if (!path) throw CLIError::notFound();
  ProcessRequest request;
  request.executable = *path;
  request.arguments = {"org", "login", "web"};
  if (alias && !alias->empty()) {
    request.arguments.emplace_back("--alias");
    request.arguments.push_back(*alias);
  }
  if (instanceURL && !instanceURL->empty()) {
    request.arguments.emplace_back("--instance-url");
    request.arguments.push_back(*instanceURL);
  }
  request.environment = childEnvironment();
  try {
    return RunningProcess::start(request);
  } catch (const ProcessLaunchError& error) {
    throw CLIError::failed("Could not start the login flow: " + error.reason());
  }
}

// ---- Org health ----

json SalesforceCLI::limits(const std::string& target) {
  if (target.empty()) throw CLIError::failed(kNoTarget);
  const json reply = runJSON({"org", "list", "limits", "--target-org", target, "--json"},
                             options_.limits.limits, "Could not read limits.");
  return resultOf(reply);
}

json SalesforceCLI::auditTrail(const std::string& target,
                               const std::optional<std::string>& predicate) {
  if (target.empty()) throw CLIError::failed(kNoTarget);
  std::string soql =
      "SELECT Action, Section, CreatedDate, CreatedBy.Name, Display FROM SetupAuditTrail";
  if (predicate && !predicate->empty()) soql += " WHERE " + *predicate;
  soql += " ORDER BY CreatedDate DESC LIMIT 2000";
  const json reply = runJSON({"data", "query", "--target-org", target, "-q", soql, "--json"},
                             options_.limits.auditTrail, "Could not read the audit trail.");
  const json* records = member(resultOf(reply), "records");
  return records != nullptr && records->is_array() ? *records : json::array();
}

std::vector<std::string> SalesforceCLI::metadataTypeNames(const std::string& orgTarget) {
  if (orgTarget.empty()) throw CLIError::failed(kNoTarget);
  const json reply = runJSON({"org", "list", "metadata-types", "--target-org", orgTarget, "--json"},
                             options_.limits.metadataTypes, "Could not read metadata types.");
  std::vector<std::string> names;
  const json* objects = member(resultOf(reply), "metadataObjects");
  if (objects == nullptr || !objects->is_array()) return names;
  for (const auto& object : *objects) {
    if (auto name = text(object, "xmlName")) names.push_back(std::move(*name));
  }
  return names;
}

std::vector<json> SalesforceCLI::listMetadata(const std::string& orgTarget,
                                              const std::string& type) noexcept {
  try {
    if (orgTarget.empty() || type.empty()) return {};
    const json reply = runJSON(
        {"org", "list", "metadata", "--metadata-type", type, "--target-org", orgTarget, "--json"},
        options_.limits.listMetadata, kGeneralFallback);
    const json& result = resultOf(reply);
    std::vector<json> items;
    if (result.is_array()) {
      for (const auto& item : result) {
        if (item.is_object()) items.push_back(item);
      }
    } else if (result.is_object()) {
      items.push_back(result);  // one component comes back as an object, not a list
    }
    return items;
  } catch (...) {
    return {};
  }
}

namespace {

// The project file the CLI needs in the folder it retrieves into. A project
// that is already there is the user's: it is never written over. Only the
// package folder "force-app" is added to its packageDirectories when missing
// (as the default only when it names no default), keeping every other key and
// the order of keys as they were.
void prepareProject(const std::filesystem::path& projectRoot) {
  const auto path = projectRoot / "sfdx-project.json";
  const auto cannotPrepare = [&] {
    return CLIError::failed("Could not prepare the folder " + projectRoot.string() +
                            " for the retrieval. Check that it can be written to and try again.");
  };
  std::error_code error;
  std::filesystem::create_directories(projectRoot / "force-app", error);
  std::optional<std::string> existing;
  try {
    existing = Durable::readWhole(path);
  } catch (const std::exception&) {
    throw cannotPrepare();
  }
  nlohmann::ordered_json project;
  if (!existing) {
    project = {
        {"packageDirectories",
         nlohmann::ordered_json::array({{{"path", "force-app"}, {"default", true}}})},
        {"sourceApiVersion", "62.0"},
        {"namespace", ""},
    };
  } else {
    project = nlohmann::ordered_json::parse(*existing, nullptr, false);
    if (project.is_discarded() || !project.is_object() ||
        (project.contains("packageDirectories") && !project["packageDirectories"].is_array())) {
      throw CLIError::failed("The folder " + projectRoot.string() +
                             " already holds an sfdx-project.json that is not a project file "
                             "Corvane can read, so nothing was retrieved and the file was left as "
                             "it is. Choose another folder, or repair the file.");
    }
    auto& folders = project["packageDirectories"];
    if (folders.is_null()) folders = nlohmann::ordered_json::array();
    bool hasFolder = false;
    bool hasDefault = false;
    for (const auto& folder : folders) {
      if (!folder.is_object()) continue;
      const auto folderPath = folder.value("path", std::string());
      hasFolder |= folderPath == "force-app" || folderPath == "force-app/" ||
                   folderPath == "./force-app";
      hasDefault |= folder.value("default", false);
    }
    if (hasFolder) return;
    nlohmann::ordered_json added = {{"path", "force-app"}};
    if (!hasDefault) added["default"] = true;
    folders.push_back(std::move(added));
  }
  try {
    Durable::replace(path, project.dump(2) + "\n", 0644);
  } catch (const std::exception&) {
    throw cannotPrepare();
  }
}

}  // namespace

json SalesforceCLI::retrieve(const std::string& orgTarget,
                             const std::vector<std::string>& components,
                             const std::filesystem::path& projectRoot) {
  if (components.empty()) throw CLIError::failed("No components selected.");
  if (orgTarget.empty()) throw CLIError::failed(kNoTarget);
  prepareProject(projectRoot);
  std::vector<std::string> args = {"project",      "retrieve", "start",
                                   "--target-org", orgTarget,  "--json"};
  for (const auto& component : components) {
    args.emplace_back("--metadata");
    args.push_back(component);
  }
  const json reply =
      runJSON(args, options_.limits.retrieve,
              "The Salesforce CLI could not retrieve the selected components.", projectRoot);
  return resultOf(reply);
}

// ---- Pure parsing ----

std::vector<Org> SalesforceCLI::mergeOrgArrays(const json& reply) {
  static constexpr std::array<const char*, 5> kArrays = {"nonScratchOrgs", "scratchOrgs",
                                                         "sandboxes", "devHubs", "other"};
  enum Origin : unsigned { kScratch = 1, kSandbox = 2, kDevHub = 4 };
  std::vector<Org> merged;
  std::vector<unsigned> origins;
  std::unordered_map<std::string, std::size_t> position;
  const json& result = resultOf(reply);
  for (const char* key : kArrays) {
    const json* array = member(result, key);
    if (array == nullptr || !array->is_array()) continue;
    const std::string_view name = key;
    const unsigned origin = name == "scratchOrgs" ? kScratch
                            : name == "sandboxes" ? kSandbox
                            : name == "devHubs"   ? kDevHub
                                                  : 0u;
    for (const auto& element : *array) {
      auto org = parseOrg(element);
      if (!org) continue;
      const auto [found, inserted] = position.try_emplace(org->username, merged.size());
      if (inserted) {
        merged.push_back(std::move(*org));
        origins.push_back(origin);
      } else {
        Org& kept = merged[found->second];
        if (&preferRicher(kept, *org) != &kept) kept = std::move(*org);
        origins[found->second] |= origin;
      }
    }
  }
  // Which list a login stood in is a fact the record itself may not state.
  for (std::size_t i = 0; i < merged.size(); ++i) {
    if ((origins[i] & kScratch) && !merged[i].isScratch) merged[i].isScratch = true;
    if ((origins[i] & kSandbox) && !merged[i].isSandbox) merged[i].isSandbox = true;
    if (origins[i] & kDevHub) merged[i].isDevHub = true;
  }
  merged = fillOrgFacts(std::move(merged));
  std::stable_sort(merged.begin(), merged.end(), [](const Org& a, const Org& b) {
    return Ascii::lowered(a.username) < Ascii::lowered(b.username);
  });
  return merged;
}

std::optional<Org> SalesforceCLI::parseOrg(const json& dict) {
  auto username = text(dict, "username");
  if (!username) return std::nullopt;
  Org org;
  org.username = std::move(*username);
  org.alias = text(dict, "alias");
  org.orgId = text(dict, "orgId");
  org.instanceUrl = text(dict, "instanceUrl");
  org.loginUrl = text(dict, "loginUrl");
  org.name = text(dict, "name");
  org.edition = text(dict, "orgEdition");
  org.instanceName = text(dict, "instanceName");
  org.createdOrgInstance = text(dict, "createdOrgInstance");
  org.connectedStatusRaw = text(dict, "connectedStatus");
  org.scratchStatus = text(dict, "status");
  org.isExpiredFlag = flag(dict, "isExpired");
  org.isDevHub = flag(dict, "isDevHub").value_or(false);
  org.isDefaultUsername = flag(dict, "isDefaultUsername").value_or(false);
  org.isSandbox = flag(dict, "isSandbox");
  org.isScratch = flag(dict, "isScratch");
  if (const json* value = member(dict, "lastUsed")) org.lastUsed = parseDate(*value);
  if (const json* value = member(dict, "expirationDate")) org.expirationDate = parseDate(*value);
  if (!org.expirationDate) {
    if (const json* value = member(dict, "trailExpirationDate")) {
      org.expirationDate = parseDate(*value);
    }
  }
  return org;
}

int SalesforceCLI::richness(const Org& org) {
  const auto filled = [](const std::optional<std::string>& value) {
    return value.has_value() && !value->empty();
  };
  int score = 0;
  if (org.connection() == OrgConnection::connected) score += 4;
  if (filled(org.alias)) score += 2;
  if (filled(org.name)) score += 1;
  if (org.instanceDisplay()) score += 1;
  if (org.connectedStatusRaw) score += 1;
  if (org.isSandbox || org.isScratch) score += 1;
  return score;
}

const Org& SalesforceCLI::preferRicher(const Org& a, const Org& b) {
  return richness(b) > richness(a) ? b : a;
}

std::vector<Org> SalesforceCLI::fillOrgFacts(std::vector<Org> orgs) {
  for (Org& org : orgs) {
    // Only scratch org records carry a scratch status or a creation instance.
    if (!org.isScratch && (org.scratchStatus || org.createdOrgInstance)) org.isScratch = true;
  }
  // Several logins to one org share the org's own facts; fill the gaps of one
  // from another. Org ids compare on their 15 case-sensitive characters.
  const auto sameOrg = [](const Org& a, const Org& b) {
    return a.orgId && b.orgId && a.orgId->size() >= 15 && b.orgId->size() >= 15 &&
           a.orgId->compare(0, 15, *b.orgId, 0, 15) == 0;
  };
  for (std::size_t i = 0; i < orgs.size(); ++i) {
    for (std::size_t j = 0; j < orgs.size(); ++j) {
      if (i == j || !sameOrg(orgs[i], orgs[j])) continue;
      Org& org = orgs[i];
      const Org& other = orgs[j];
      if (!org.name) org.name = other.name;
      if (!org.edition) org.edition = other.edition;
      if (!org.instanceName) org.instanceName = other.instanceName;
      if (!org.isSandbox) org.isSandbox = other.isSandbox;
      if (!org.isScratch) org.isScratch = other.isScratch;
    }
  }
  return orgs;
}

std::optional<SystemTime> SalesforceCLI::parseDate(const json& value) {
  if (!value.is_string()) return std::nullopt;
  const auto& string = value.get_ref<const std::string&>();
  if (auto time = IsoTime::parseFractional(string)) return time;
  if (auto time = IsoTime::parsePlain(string)) return time;
  return IsoTime::parseDay(string);
}

bool SalesforceCLI::payloadIsFor(const json& dict, const std::string& username) {
  const auto named = text(dict, "username");
  return !named || Ascii::equalsIgnoringCase(*named, username);
}

bool SalesforceCLI::isUsableToken(std::string_view token) {
  if (token.empty()) return false;
  if (token.find("REDACTED") != std::string_view::npos) return false;
  if (token.find('!') == std::string_view::npos) return false;
  for (std::size_t i = 0; i < token.size(); ++i) {
    if (Ascii::isSpace(token[i])) return false;
    // No-break space (U+00A0), in case a placeholder was typed in a word processor.
    if (token[i] == '\xC2' && i + 1 < token.size() && token[i + 1] == '\xA0') return false;
  }
  return true;
}

std::string SalesforceCLI::cleanError(std::string_view raw) {
  const std::string plain = withoutEscapes(raw);
  std::string_view body = Ascii::trimmed(plain);
  std::string fromJSON;
  if (auto messages = messagesInJSON(body)) {
    fromJSON = std::move(*messages);
    body = fromJSON;
  }
  std::string kept;
  while (!body.empty()) {
    const auto newline = body.find('\n');
    const std::string_view line = Ascii::trimmed(body.substr(0, newline));
    if (!line.empty() && !isDecoration(line)) {
      if (!kept.empty()) kept += '\n';
      kept += line;
    }
    if (newline == std::string_view::npos) break;
    body.remove_prefix(newline + 1);
  }
  return shortened(hideTokens(std::move(kept)));
}

std::optional<std::map<std::string, std::string>> SalesforceCLI::parseAliasOwners(
    const json& reply) {
  const json& result = resultOf(reply);
  if (!result.is_array()) return std::nullopt;
  std::map<std::string, std::string> owners;
  for (const auto& entry : result) {
    auto alias = text(entry, "alias");
    auto value = text(entry, "value");
    if (alias && value) owners[std::move(*alias)] = std::move(*value);
  }
  return owners;
}

std::optional<std::vector<std::string>> SalesforceCLI::loggedOutUsernames(const json& reply) {
  const json& result = resultOf(reply);
  if (!result.is_array()) return std::nullopt;
  std::vector<std::string> usernames;
  for (const auto& entry : result) {
    if (entry.is_string() && !entry.get_ref<const std::string&>().empty()) {
      usernames.push_back(entry.get<std::string>());
    } else if (auto username = text(entry, "username")) {
      usernames.push_back(std::move(*username));
    }
  }
  return usernames;
}

std::optional<std::string> SalesforceCLI::logoutCollateral(
    const std::string& username, const std::map<std::string, std::string>& aliases) {
  for (const auto& [alias, owner] : aliases) {
    if (Ascii::equalsIgnoringCase(alias, username) && !Ascii::equalsIgnoringCase(owner, username)) {
      return owner;
    }
  }
  return std::nullopt;
}

std::map<std::string, SystemTime> SalesforceCLI::loginUsernames(
    const std::filesystem::path& folder) {
  std::map<std::string, SystemTime> logins;
  std::error_code error;
  std::filesystem::directory_iterator entries(folder, error);
  if (error) return logins;
  for (const auto& entry : entries) {
    const std::string name = entry.path().filename().string();
    if (!endsWith(name, ".json") || endsWith(name, ".sandbox.json")) continue;
    if (name.find('@') == std::string::npos) continue;
    std::error_code statError;
    if (!entry.is_regular_file(statError)) continue;
    const auto modified = entry.last_write_time(statError);
    if (statError) continue;
    logins[name.substr(0, name.size() - 5)] = toSystemTime(modified);
  }
  return logins;
}

std::map<std::string, SystemTime> SalesforceCLI::loginUsernames() const {
  return loginUsernames(options_.authFolder ? *options_.authFolder
                                            : AppSupport::homeFolder() / ".sfdx");
}

std::optional<std::string> SalesforceCLI::newLogin(
    const std::map<std::string, SystemTime>& now,
    const std::map<std::string, SystemTime>& baseline) {
  for (const auto& [username, modified] : now) {
    if (!baseline.contains(username)) return username;
  }
  return std::nullopt;
}

bool SalesforceCLI::wasRewritten(const std::string& username,
                                 const std::map<std::string, SystemTime>& now,
                                 const std::map<std::string, SystemTime>& baseline) {
  const auto after = now.find(username);
  const auto before = baseline.find(username);
  return after != now.end() && before != baseline.end() && after->second > before->second;
}

}  // namespace corvane
