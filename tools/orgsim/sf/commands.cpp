#include "tools/orgsim/sf/commands.hpp"

#include <time.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "platform/iso_time.hpp"
#include "tools/orgsim/sf/auth_store.hpp"
#include "tools/orgsim/sf/cli_failure.hpp"
#include "tools/orgsim/sf/metadata_commands.hpp"
#include "tools/orgsim/sf/org_http.hpp"

namespace corvane::sfstandin {

namespace {

using Json = nlohmann::ordered_json;

// The real CLI's own warnings, word for word.
constexpr const char* kRedacted = "[REDACTED] Use 'sf org auth show-access-token' to view";
constexpr const char* kSensitiveToken =
    "This command exposes a sensitive Access Token that allows for subsequent activity using "
    "your current authenticated session. Sharing this information is equivalent to logging "
    "someone in under the current credential, resulting in unintended access and escalation of "
    "privilege. For additional information about org authorization, review "
    "https://developer.salesforce.com/docs/atlas.en-us.sfdx_dev.meta/sfdx_dev/sfdx_dev_auth.htm.";
constexpr const char* kSensitiveSession =
    "This command will expose sensitive information that allows for subsequent activity using "
    "your current authenticated session.\nSharing this information is equivalent to logging "
    "someone in under the current credential, resulting in unintended access and escalation of "
    "privilege.\nFor additional information, please review the authorization section of the "
    "https://developer.salesforce.com/docs/atlas.en-us.sfdx_dev.meta/sfdx_dev/"
    "sfdx_dev_auth_web_flow.htm.";
constexpr const char* kStaleToken = "Unable to refresh auth for org. Access token may be stale.";
constexpr const char* kRefreshFailed = "unable to refresh auth for org";
constexpr const char* kDefaultApiVersion = "62.0";

std::string secretsHidden(const std::string& command) {
  return "Secrets are now hidden from 'sf " + command +
         "' command output. Use the 'sf org auth' commands instead. As a temporary workaround, "
         "you can set SF_TEMP_SHOW_SECRETS=true to render these secrets. This workaround will be "
         "removed in an upcoming release.";
}

// ---------------------------------------------------------------------------------------------
// Command-line parsing

struct CommandSpec {
  std::vector<std::string> words;
  std::string className;              // the CLI's "context" and "commandName"
  std::set<std::string> valueFlags;   // long names of flags that take a value
  std::set<std::string> switchFlags;  // long names of flags without a value
  bool positionals = false;
};

const std::vector<CommandSpec>& commandSpecs() {
  static const std::vector<CommandSpec> specs = {
      {{"org", "list", "limits"}, "LimitsApiDisplayCommand", {"target-org", "api-version"}, {}},
      {{"org", "auth", "show-access-token"}, "OrgAuthShowAccessToken", {"target-org"}, {}},
      {{"org", "login", "access-token"},
       "LoginAccessToken",
       {"instance-url", "alias"},
       {"no-prompt", "set-default", "set-default-dev-hub"}},
      {{"org", "list"}, "OrgListCommand", {}, {"all", "skip-connection-status", "clean"}},
      {{"org", "display"}, "OrgDisplayCommand", {"target-org", "api-version"}, {"verbose"}},
      {{"org", "open"},
       "OrgOpenCommand",
       {"target-org", "path", "browser"},
       {"url-only", "private"}},
      {{"org", "logout"}, "Logout", {"target-org"}, {"no-prompt"}},
      {{"data", "query"},
       "DataSoqlQueryCommand",
       {"target-org", "query", "api-version", "result-format"},
       {"all-rows"}},
      {{"org", "list", "metadata-types"},
       "ListMetadataTypes",
       {"target-org", "api-version", "output-file"},
       {}},
      {{"org", "list", "metadata"},
       "ListMetadata",
       {"metadata-type", "target-org", "api-version", "folder", "output-file"},
       {}},
      {{"project", "retrieve", "start"},
       "RetrieveStart",
       {"target-org", "metadata", "api-version", "wait"},
       {"ignore-conflicts"}},
      {{"alias", "list"}, "AliasList", {}, {}},
      {{"alias", "set"}, "AliasSet", {}, {}, true},
  };
  return specs;
}

const std::map<std::string, std::string>& shortFlags() {
  static const std::map<std::string, std::string> flags = {{"-o", "target-org"},
                                                           {"-q", "query"},
                                                           {"-a", "alias"},
                                                           {"-r", "instance-url"},
                                                           {"-p", "path"},
                                                           {"-m", "metadata"}};
  return flags;
}

struct CommandLine {
  const CommandSpec* shape = nullptr;
  bool json = false;
  std::map<std::string, std::string> values;                // the last value of each flag
  std::map<std::string, std::vector<std::string>> repeated;  // every value, in order
  std::set<std::string> switches;
  std::vector<std::string> positionals;

  std::optional<std::string> value(const std::string& flag) const {
    auto found = values.find(flag);
    if (found == values.end()) return std::nullopt;
    return found->second;
  }
  bool has(const std::string& flag) const { return switches.count(flag) != 0; }
};

// Throws CliFailure. `className` is set as soon as the command is known, so that a
// failure while reading its flags is reported in that command's name.
CommandLine parseCommandLine(const std::vector<std::string>& arguments, std::string& className) {
  CommandLine line;
  for (const auto& shape : commandSpecs()) {
    // "org list metadata-types" is not "org list": after the words comes a flag or nothing.
    bool followedByWord = arguments.size() > shape.words.size() &&
                          !arguments[shape.words.size()].starts_with("-") && !shape.positionals;
    if (arguments.size() >= shape.words.size() && !followedByWord &&
        std::equal(shape.words.begin(), shape.words.end(), arguments.begin())) {
      line.shape = &shape;
      break;
    }
  }
  line.json = std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();
  if (!line.shape) {
    std::string words;
    for (const auto& argument : arguments) {
      if (argument.starts_with("-")) break;
      words += (words.empty() ? "" : " ") + argument;
    }
    throw CliFailure::unsupportedCommand(words);
  }
  className = line.shape->className;

  for (std::size_t i = line.shape->words.size(); i < arguments.size(); ++i) {
    std::string argument = arguments[i];
    if (argument == "--json") continue;
    if (!argument.starts_with("-")) {
      if (!line.shape->positionals)
        throw CliFailure::badArgument("Unexpected argument: " + argument);
      line.positionals.push_back(argument);
      continue;
    }
    std::string name;
    std::optional<std::string> inlineValue;
    if (argument.starts_with("--")) {
      name = argument.substr(2);
      if (auto equals = name.find('='); equals != std::string::npos) {
        inlineValue = name.substr(equals + 1);
        name = name.substr(0, equals);
      }
    } else if (auto found = shortFlags().find(argument); found != shortFlags().end()) {
      name = found->second;
    } else {
      throw CliFailure::badArgument("Nonexistent flag: " + argument);
    }
    if (line.shape->switchFlags.count(name)) {
      line.switches.insert(name);
    } else if (line.shape->valueFlags.count(name)) {
      if (!inlineValue) {
        if (i + 1 >= arguments.size()) {
          throw CliFailure::badArgument("Flag --" + name + " expects a value");
        }
        inlineValue = arguments[++i];
      }
      line.values[name] = *inlineValue;
      line.repeated[name].push_back(*inlineValue);
    } else {
      throw CliFailure::badArgument("Nonexistent flag: " + argument);
    }
  }
  return line;
}

// ---------------------------------------------------------------------------------------------
// Helpers shared by the commands

Json success(Json result, const std::vector<std::string>& warnings) {
  Json reply;
  reply["status"] = 0;
  reply["result"] = std::move(result);
  reply["warnings"] = warnings;
  return reply;
}

std::string text(const Json& object, const char* key) {
  auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

std::string apiVersionOf(const Login& login) {
  std::string version = text(login.fields, "instanceApiVersion");
  return version.empty() ? kDefaultApiVersion : version;
}

Login targetLogin(const AuthStore& store, const CommandLine& line) {
  std::optional<std::string> target = line.value("target-org");
  if (!target) target = store.defaultTarget();
  if (!target) throw CliFailure::noDefaultTarget();
  auto username = store.resolve(*target);
  auto login = username ? store.login(*username) : std::nullopt;
  if (!login) throw CliFailure::namedOrgNotFound(*target, store.nearestName(*target));
  return *login;
}

// Turns a non-2xx answer into the failure the real CLI reports for it.
CliFailure failureOf(const HttpReply& reply) {
  if (auto error = parseOrgError(reply.body)) {
    return CliFailure::orgError(
        error->errorCode.empty() ? "ERROR_HTTP_" + std::to_string(reply.status) : error->errorCode,
        error->message);
  }
  return CliFailure::orgError("ERROR_HTTP_" + std::to_string(reply.status), reply.body);
}

bool isSuccess(const HttpReply& reply) { return reply.status >= 200 && reply.status < 300; }

Json parseObject(const HttpReply& reply) {
  auto parsed = Json::parse(reply.body, nullptr, false);
  if (parsed.is_discarded() || !parsed.is_object()) {
    throw CliFailure::unexpectedReply("Value is not a JsonMap");
  }
  return parsed;
}

// The real CLI refreshes a login by asking for the API version resource: the answer says
// whether the org still takes the token. Throws nothing; a failure comes back as a failure.
std::optional<CliFailure> refreshFailure(const OrgHttp& http, const std::string& apiVersion) {
  try {
    HttpReply reply = http.get("/services/data/v" + apiVersion);
    if (isSuccess(reply)) return std::nullopt;
    return failureOf(reply);
  } catch (const CliFailure& failure) {
    return failure;
  }
}

// "Connected", or the org's own words for why not, or "fetch failed".
std::string connectedStatus(const AuthStore& store, const Login& login,
                            const Environment& environment) {
  try {
    OrgHttp http(text(login.fields, "instanceUrl"), store.accessToken(login),
                 environment.connectionCheckTimeout);
    auto failure = refreshFailure(http, apiVersionOf(login));
    return failure ? failure->description() : "Connected";
  } catch (const CliFailure& failure) {
    return failure.description();
  }
}

bool flag(const Json& object, const char* key) {
  auto found = object.find(key);
  return found != object.end() && found->is_boolean() && found->get<bool>();
}

// "11/23/2026, 10:11:05 AM": the CLI records when it last read the org's API version in
// the en-US form of the local time.
std::string localeStamp(SystemTime time) {
  std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm local{};
  localtime_r(&seconds, &local);
  int hour12 = local.tm_hour % 12 == 0 ? 12 : local.tm_hour % 12;
  std::array<char, 64> buffer{};
  std::snprintf(buffer.data(), buffer.size(), "%d/%d/%d, %d:%02d:%02d %s", local.tm_mon + 1,
                local.tm_mday, local.tm_year + 1900, hour12, local.tm_min, local.tm_sec,
                local.tm_hour < 12 ? "AM" : "PM");
  return buffer.data();
}

bool isPlainId(const std::string& id) {
  return !id.empty() && id.size() <= 18 &&
         std::all_of(id.begin(), id.end(), [](unsigned char c) { return std::isalnum(c); });
}

// "63.0" > "9.0": versions compare by their number, not their text.
double versionNumber(const std::string& version) {
  try {
    return std::stod(version);
  } catch (const std::exception&) {
    return 0;
  }
}

// ---------------------------------------------------------------------------------------------
// The commands

Json orgList(const CommandLine& line, const Environment& environment) {
  AuthStore store(environment.home);
  std::optional<std::string> defaultUsername;
  if (auto target = store.defaultTarget()) defaultUsername = store.resolve(*target);

  Json nonScratch = Json::array(), devHubs = Json::array(), sandboxes = Json::array(),
       scratch = Json::array();
  for (const auto& login : store.logins()) {
    SystemTime lastUsed = store.lastUsed(login);
    Json entry;
    entry["username"] = login.username;
    entry["orgId"] = login.fields.value("orgId", Json());
    entry["accessToken"] = kRedacted;
    for (const auto& [key, value] : login.fields.items()) {
      if (key == "username" || key == "orgId" || key == "accessToken" || key == "refreshToken" ||
          key == "clientSecret") {
        continue;
      }
      entry[key] = value;
    }
    if (auto alias = store.aliasFor(login.username)) entry["alias"] = *alias;
    entry["isDefaultDevHubUsername"] = false;
    entry["isDefaultUsername"] = defaultUsername == login.username;
    entry["lastUsed"] = IsoTime::formatFractional(lastUsed);
    if (!line.has("skip-connection-status")) {
      entry["connectedStatus"] = connectedStatus(store, login, environment);
    }

    if (flag(login.fields, "isScratch")) {
      scratch.push_back(entry);
    } else if (flag(login.fields, "isSandbox")) {
      sandboxes.push_back(entry);
    } else {
      nonScratch.push_back(entry);
    }
    if (flag(login.fields, "isDevHub")) devHubs.push_back(entry);
  }

  Json result;
  result["other"] = Json::array();
  result["sandboxes"] = sandboxes;
  result["nonScratchOrgs"] = nonScratch;
  result["devHubs"] = devHubs;
  result["scratchOrgs"] = scratch;
  return success(result, {secretsHidden("org list")});
}

Json orgDisplay(const CommandLine& line, const Environment& environment) {
  AuthStore store(environment.home);
  Login login = targetLogin(store, line);
  std::string status = connectedStatus(store, login, environment);

  Json result;
  result["id"] = login.fields.value("orgId", Json());
  result["apiVersion"] = apiVersionOf(login);
  result["accessToken"] = kRedacted;
  result["instanceUrl"] = text(login.fields, "instanceUrl");
  result["username"] = login.username;
  result["connectedStatus"] = status;
  if (auto alias = store.aliasFor(login.username)) result["alias"] = *alias;

  std::vector<std::string> warnings;
  if (status != "Connected") warnings.push_back(kRefreshFailed);
  warnings.push_back(secretsHidden("org display"));
  return success(result, warnings);
}

Json showAccessToken(const CommandLine& line, const Environment& environment) {
  AuthStore store(environment.home);
  Login login = targetLogin(store, line);
  std::string token = store.accessToken(login);
  OrgHttp http(text(login.fields, "instanceUrl"), token, environment.connectionCheckTimeout);

  std::vector<std::string> warnings;
  if (refreshFailure(http, apiVersionOf(login))) warnings.push_back(kStaleToken);
  warnings.push_back(kSensitiveToken);
  return success(Json{{"accessToken", token}}, warnings);
}

Json orgOpen(const CommandLine& line, const Environment& environment) {
  AuthStore store(environment.home);
  Login login = targetLogin(store, line);
  OrgHttp http(text(login.fields, "instanceUrl"), store.accessToken(login),
               environment.requestTimeout);
  if (auto failure = refreshFailure(http, apiVersionOf(login))) throw *failure;

  std::string request = "/services/oauth2/singleaccess";
  if (auto path = line.value("path")) request += "?redirect_uri=" + OrgHttp::escape(*path);
  HttpReply reply = http.get(request);
  if (!isSuccess(reply)) throw failureOf(reply);
  std::string url = text(parseObject(reply), "frontdoor_uri");
  if (url.empty()) throw CliFailure::unexpectedReply("The org's front-door answer has no address.");

  Json result;
  result["orgId"] = login.fields.value("orgId", Json());
  result["url"] = url;
  result["username"] = login.username;
  return success(result, {kSensitiveSession});
}

Json orgLogout(const CommandLine& line, const Environment& environment) {
  AuthStore store(environment.home);
  std::optional<std::string> target = line.value("target-org");
  if (!target) target = store.defaultTarget();
  if (!target) throw CliFailure::noDefaultTarget();
  auto username = store.resolve(*target);
  if (!username) throw CliFailure::noAuthForLogout(*target);
  store.remove(*username);
  return success(Json::array({*username}), {});
}

Json loginAccessToken(const CommandLine& line, const Environment& environment) {
  auto instanceUrl = line.value("instance-url");
  if (!instanceUrl) throw CliFailure::badArgument("Missing required flag instance-url");
  std::string token = environment.accessToken.value_or("");
  if (token.find('!') == std::string::npos ||
      std::any_of(token.begin(), token.end(), [](unsigned char c) { return std::isspace(c); })) {
    throw CliFailure::badTokenFormat();
  }
  bool plainHttp = instanceUrl->starts_with("http://");
  if (!plainHttp && !instanceUrl->starts_with("https://")) {
    throw CliFailure::badArgument("The instance URL " + *instanceUrl +
                                  " must begin with https:// (or http:// on this machine)");
  }
  if (plainHttp && !isLoopbackUrl(*instanceUrl)) {
    throw CliFailure::insecureInstanceUrl(*instanceUrl);
  }
  std::string storedUrl = withoutTrailingSlash(*instanceUrl) + "/";
  OrgHttp http(storedUrl, token, environment.requestTimeout);

  // Who the token belongs to. Without this nothing can be saved.
  Json userInfo;
  try {
    HttpReply reply = http.get("/services/oauth2/userinfo");
    if (!isSuccess(reply)) throw CliFailure::usernameRetrieval(failureOf(reply).description());
    userInfo = parseObject(reply);
  } catch (const CliFailure& failure) {
    if (failure.kind() == CliFailure::Kind::usernameRetrieval) throw;
    throw CliFailure::usernameRetrieval(failure.description());
  }
  std::string userId = text(userInfo, "user_id");
  std::string username = text(userInfo, "preferred_username");
  std::string orgId = text(userInfo, "organization_id");
  if (isPlainId(userId)) {
    HttpReply user = http.get("/services/data/v51.0/sobjects/User/" + userId);
    if (isSuccess(user)) {
      if (std::string name = text(parseObject(user), "Username"); !name.empty()) username = name;
    }
  }
  if (username.empty()) {
    throw CliFailure::usernameRetrieval("the org named no user for this access token");
  }

  // A Dev Hub is an org that lets its users read ScratchOrgInfo.
  bool isDevHub = isSuccess(http.get("/services/data/v51.0/query?q=" +
                                     OrgHttp::escape("SELECT Id FROM ScratchOrgInfo limit 1")));

  std::string apiVersion = kDefaultApiVersion;
  SystemTime versionRead = std::chrono::system_clock::now();
  if (HttpReply versions = http.get("/services/data"); isSuccess(versions)) {
    auto list = Json::parse(versions.body, nullptr, false);
    if (list.is_array()) {
      for (const auto& entry : list) {
        if (!entry.is_object()) continue;
        std::string version = text(entry, "version");
        if (versionNumber(version) > versionNumber(apiVersion)) apiVersion = version;
      }
    }
  }

  Json organization;
  HttpReply orgReply =
      http.get("/services/data/v" + apiVersion + "/query?q=" +
               OrgHttp::escape("SELECT Name, InstanceName, IsSandbox, TrialExpirationDate, "
                               "NamespacePrefix, OrganizationType FROM Organization"));
  if (isSuccess(orgReply)) {
    Json page = parseObject(orgReply);
    if (page.contains("records") && page["records"].is_array() && !page["records"].empty()) {
      organization = page["records"].front();
    }
  }
  auto organizationField = [&](const char* key) {
    return organization.is_object() && organization.contains(key) ? organization[key] : Json();
  };

  Json fields;
  fields["accessToken"] = "";
  fields["instanceUrl"] = storedUrl;
  fields["loginUrl"] = storedUrl;
  fields["username"] = username;
  fields["orgId"] = orgId;
  fields["isDevHub"] = isDevHub;
  fields["instanceApiVersion"] = apiVersion;
  fields["instanceApiVersionLastRetrieved"] = localeStamp(versionRead);
  if (organization.is_object()) {
    fields["name"] = organizationField("Name");
    fields["instanceName"] = organizationField("InstanceName");
    fields["namespacePrefix"] = organizationField("NamespacePrefix");
    fields["isSandbox"] =
        organizationField("IsSandbox").is_boolean() ? organizationField("IsSandbox") : Json(false);
    fields["isScratch"] = false;
    fields["trailExpirationDate"] = organizationField("TrialExpirationDate");
    fields["orgEdition"] = organizationField("OrganizationType");
  }

  AuthStore store(environment.home);
  store.save(fields, token);
  if (auto alias = line.value("alias")) store.setAlias(*alias, username);

  fields["accessToken"] = kRedacted;
  std::vector<std::string> warnings{secretsHidden("org login access-token")};
  if (plainHttp) {
    warnings.push_back("Using insecure protocol: http: on url: " +
                       withoutTrailingSlash(*instanceUrl));
  }
  return success(fields, warnings);
}

Json orgListLimits(const CommandLine& line, const Environment& environment) {
  AuthStore store(environment.home);
  Login login = targetLogin(store, line);
  OrgHttp http(text(login.fields, "instanceUrl"), store.accessToken(login),
               environment.requestTimeout);
  std::string version = line.value("api-version").value_or(apiVersionOf(login));
  HttpReply reply = http.get("/services/data/v" + version + "/limits");
  if (!isSuccess(reply)) {
    CliFailure failure = failureOf(reply);
    throw CliFailure::limitsError(failure.name(), failure.description());
  }
  Json result = Json::array();
  Json limits = parseObject(reply);
  for (const auto& [name, limit] : limits.items()) {
    if (!limit.is_object()) continue;
    Json entry;
    entry["name"] = name;
    entry["max"] = limit.value("Max", Json());
    entry["remaining"] = limit.value("Remaining", Json());
    result.push_back(entry);
  }
  return success(result, {});
}

// The metadata commands: the login's connection, then the Metadata API.
Json metadataCommand(const CommandLine& line, const Environment& environment) {
  AuthStore store(environment.home);
  Login login = targetLogin(store, line);
  const std::string token = store.accessToken(login);
  OrgHttp http(text(login.fields, "instanceUrl"), token, environment.requestTimeout);
  MetadataCommands::Connection connection{
      http, token, line.value("api-version").value_or(apiVersionOf(login))};
  const std::string& name = line.shape->className;
  if (name == "ListMetadataTypes") return success(MetadataCommands::listTypes(connection), {});
  if (name == "ListMetadata") {
    auto type = line.value("metadata-type");
    if (!type) throw CliFailure::badArgument("Missing required flag metadata-type");
    return success(MetadataCommands::listComponents(connection, *type), {});
  }
  auto found = line.repeated.find("metadata");
  std::vector<std::string> components =
      found == line.repeated.end() ? std::vector<std::string>{} : found->second;
  Json result = MetadataCommands::retrieve(connection, components, std::filesystem::current_path());
  std::vector<std::string> warnings;
  for (const auto& message : result["messages"]) warnings.push_back(message.value("problem", ""));
  return success(result, warnings);
}

Json dataQuery(const CommandLine& line, const Environment& environment) {
  auto soql = line.value("query");
  if (!soql) throw CliFailure::badArgument("Missing required flag query");
  AuthStore store(environment.home);
  Login login = targetLogin(store, line);
  OrgHttp http(text(login.fields, "instanceUrl"), store.accessToken(login),
               environment.requestTimeout);
  std::string version = line.value("api-version").value_or(apiVersionOf(login));

  // Every page is fetched, as the real CLI does: the result is the whole answer.
  std::string next = "/services/data/v" + version +
                     (line.has("all-rows") ? "/queryAll" : "/query") +
                     "?q=" + OrgHttp::escape(*soql);
  Json records = Json::array();
  Json totalSize;
  for (int page = 0; !next.empty(); ++page) {
    HttpReply reply = http.get(next);
    if (!isSuccess(reply)) throw failureOf(reply);
    Json body = parseObject(reply);
    if (!body.contains("records") || !body["records"].is_array()) {
      throw CliFailure::unexpectedReply("Value is not a JsonArray");
    }
    if (page == 0) totalSize = body.value("totalSize", Json(0));
    for (auto& record : body["records"]) records.push_back(std::move(record));
    bool done = body.value("done", true);
    next = done ? "" : text(body, "nextRecordsUrl");
    if (!next.empty() && !next.starts_with("/")) {
      throw CliFailure::unexpectedReply("The org's next page address does not begin with \"/\".");
    }
  }

  Json result;
  result["records"] = std::move(records);
  result["totalSize"] = totalSize;
  result["done"] = true;
  return success(result, {});
}

Json aliasList(const Environment& environment) {
  Json result = Json::array();
  for (const auto& [alias, value] : AuthStore(environment.home).aliases()) {
    result.push_back(Json{{"alias", alias}, {"value", value}});
  }
  return success(result, {});
}

Json aliasSet(const CommandLine& line, const Environment& environment) {
  if (line.positionals.empty()) {
    throw CliFailure::badArgument("Provide required name and value for alias set.");
  }
  std::vector<std::pair<std::string, std::string>> pairs;
  for (const auto& argument : line.positionals) {
    auto equals = argument.find('=');
    if (equals == std::string::npos || equals == 0) throw CliFailure::badAliasArgument(argument);
    pairs.emplace_back(argument.substr(0, equals), argument.substr(equals + 1));
  }
  AuthStore store(environment.home);
  Json result = Json::array();
  for (const auto& [alias, value] : pairs) {
    store.setAlias(alias, value);
    Json entry;
    entry["alias"] = alias;
    entry["success"] = true;
    entry["value"] = value;
    result.push_back(entry);
  }
  return success(result, {});
}

// What a person sees without --json: short sentences rather than the JSON frame.
std::string humanText(const CommandSpec& shape, const Json& reply) {
  const Json& result = reply["result"];
  if (shape.className == "AliasSet") {
    std::string out = "Alias Set\n";
    for (const auto& entry : result) {
      out += "  " + entry["alias"].get<std::string>() + " = " + entry["value"].get<std::string>() +
             "  (success)\n";
    }
    return out;
  }
  if (shape.className == "LoginAccessToken") {
    return "Successfully authorized " + text(result, "username") + " with org ID " +
           text(result, "orgId") + "\n";
  }
  if (shape.className == "Logout") {
    std::string out;
    for (const auto& username : result) {
      out += "Successfully logged out of " + username.get<std::string>() + "\n";
    }
    return out;
  }
  return result.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace

Outcome runCommand(const std::vector<std::string>& arguments, const Environment& environment) {
  std::string className = "sf";
  bool json = std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();
  try {
    CommandLine line = parseCommandLine(arguments, className);
    const std::string& name = line.shape->className;
    Json reply;
    if (name == "OrgListCommand") {
      reply = orgList(line, environment);
    } else if (name == "OrgDisplayCommand") {
      reply = orgDisplay(line, environment);
    } else if (name == "OrgAuthShowAccessToken") {
      reply = showAccessToken(line, environment);
    } else if (name == "OrgOpenCommand") {
      reply = orgOpen(line, environment);
    } else if (name == "Logout") {
      reply = orgLogout(line, environment);
    } else if (name == "LoginAccessToken") {
      reply = loginAccessToken(line, environment);
    } else if (name == "LimitsApiDisplayCommand") {
      reply = orgListLimits(line, environment);
    } else if (name == "DataSoqlQueryCommand") {
      reply = dataQuery(line, environment);
    } else if (name == "ListMetadataTypes" || name == "ListMetadata" || name == "RetrieveStart") {
      reply = metadataCommand(line, environment);
    } else if (name == "AliasList") {
      reply = aliasList(environment);
    } else {
      reply = aliasSet(line, environment);
    }
    std::string out = json ? reply.dump(2, ' ', false, Json::error_handler_t::replace) + "\n"
                           : humanText(*line.shape, reply);
    return {0, out, ""};
  } catch (const CliFailure& failure) {
    if (json) {
      return {failure.exitCode(),
              failure.toJson(className).dump(2, ' ', false, Json::error_handler_t::replace) + "\n",
              ""};
    }
    return {failure.exitCode(), "",
            "Error (" + failure.name() + "): " + failure.description() + "\n"};
  } catch (const std::exception& error) {
    // Anything unforeseen still ends in the CLI's failure frame, never in a crash.
    CliFailure failure = CliFailure::unexpectedReply(error.what());
    return {
        failure.exitCode(),
        json ? failure.toJson(className).dump(2, ' ', false, Json::error_handler_t::replace) + "\n"
             : "",
        json ? "" : "Error: " + failure.description() + "\n"};
  }
}

}  // namespace corvane::sfstandin
