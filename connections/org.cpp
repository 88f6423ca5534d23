#include "connections/org.hpp"

#include <array>
#include <functional>
#include <stdexcept>
#include <string_view>

#include "connections/ascii.hpp"

namespace corvane {

namespace {

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

bool isTrue(const std::optional<bool>& flag) { return flag.has_value() && *flag; }

bool hasText(const std::optional<std::string>& text) { return text.has_value() && !text->empty(); }

bool isSchemeCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '+' ||
         c == '-' || c == '.';
}

// The host of an absolute URL ("scheme://[user@]host[:port]/..."), or none when
// the text is not such a URL or names no host.
std::optional<std::string> urlHost(std::string_view url) {
  for (char c : url) {
    if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7F) return std::nullopt;
  }
  const auto colon = url.find(':');
  if (colon == std::string_view::npos || colon == 0) return std::nullopt;
  const char first = url.front();
  if (!((first >= 'a' && first <= 'z') || (first >= 'A' && first <= 'Z'))) return std::nullopt;
  for (char c : url.substr(0, colon)) {
    if (!isSchemeCharacter(c)) return std::nullopt;
  }
  std::string_view rest = url.substr(colon + 1);
  if (rest.substr(0, 2) != "//") return std::nullopt;
  rest.remove_prefix(2);
  std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
  if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
    authority.remove_prefix(at + 1);
  }
  std::string_view host;
  if (!authority.empty() && authority.front() == '[') {
    const auto close = authority.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    host = authority.substr(1, close - 1);
  } else {
    host = authority.substr(0, authority.find(':'));
  }
  if (host.empty()) return std::nullopt;
  return std::string(host);
}

std::optional<std::string> textField(const nlohmann::json& json, const char* key) {
  const auto found = json.find(key);
  if (found == json.end() || !found->is_string()) return std::nullopt;
  return found->get<std::string>();
}

std::optional<bool> boolField(const nlohmann::json& json, const char* key) {
  const auto found = json.find(key);
  if (found == json.end() || !found->is_boolean()) return std::nullopt;
  return found->get<bool>();
}

std::optional<SystemTime> dateField(const nlohmann::json& json, const char* key) {
  const auto text = textField(json, key);
  if (!text) return std::nullopt;
  if (auto time = IsoTime::parseFractional(*text)) return time;
  if (auto time = IsoTime::parsePlain(*text)) return time;
  return IsoTime::parseDay(*text);
}

long long daysSinceEpoch(SystemTime time) {
  return std::chrono::floor<std::chrono::days>(time).time_since_epoch().count();
}

}  // namespace

OrgType Org::type() const {
  const std::string instance = Ascii::lowered(instanceUrl.value_or(""));
  const std::string login = Ascii::lowered(loginUrl.value_or(""));
  if (isTrue(isScratch)) return OrgType::scratch;
  if (isDevHub) return OrgType::devHub;
  if (isTrue(isSandbox)) return OrgType::sandbox;
  if (contains(instance, ".sandbox.")) return OrgType::sandbox;
  if (contains(login, kSandboxLoginHost)) return OrgType::sandbox;
  if (contains(instance, ".scratch.")) return OrgType::scratch;
  if (contains(instance, kDeveloperDomainSuffix) || contains(instance, "-dev-ed.")) {
    return OrgType::developer;
  }
  if (!isSandbox.has_value() && !edition.has_value()) return OrgType::other;
  return hasText(instanceUrl) ? OrgType::production : OrgType::other;
}

OrgConnection Org::connection() const {
  if (!connectedStatusRaw) {
    if (isTrue(isScratch) && !isTrue(isExpiredFlag)) {
      return Ascii::equalsIgnoringCase(scratchStatus.value_or(""), "Active")
                 ? OrgConnection::connected
                 : OrgConnection::unknown;
    }
    return OrgConnection::unknown;
  }
  const std::string& raw = *connectedStatusRaw;
  if (raw == "Connected") return OrgConnection::connected;
  const std::string lower = Ascii::lowered(raw);
  static constexpr std::array<std::string_view, 8> kUnreachable = {
      "maintenance",  "bad response", "enotfound",      "eai_again",
      "econnrefused", "etimedout",    "domainnotfound", "could not resolve"};
  for (auto word : kUnreachable) {
    if (contains(lower, word)) return OrgConnection::unreachable;
  }
  // The list of all logins reports this error for logins that work when
  // checked alone; only a check of this login by itself is believed.
  if (Ascii::equalsIgnoringCase(Ascii::trimmed(raw), "RefreshTokenAuthError")) {
    return isTrue(checkedAlone) ? OrgConnection::needsLogin : OrgConnection::checking;
  }
  static constexpr std::array<std::string_view, 5> kNeedsLogin = {
      "refresh", "expired", "session", "authentication", "inactive user"};
  for (auto word : kNeedsLogin) {
    if (contains(lower, word)) return OrgConnection::needsLogin;
  }
  return OrgConnection::unknown;
}

std::string Org::host() const {
  if (!instanceUrl) return {};
  return urlHost(*instanceUrl).value_or(*instanceUrl);
}

std::optional<std::string> Org::instanceDisplay() const {
  if (hasText(instanceName)) return instanceName;
  if (hasText(createdOrgInstance)) return createdOrgInstance;
  return std::nullopt;
}

std::string Org::displayName() const { return hasText(alias) ? *alias : username; }

std::string Org::statusDetail() const {
  const std::string raw(Ascii::trimmed(connectedStatusRaw.value_or("")));
  switch (connection()) {
    case OrgConnection::connected:
      return "Connected.";
    case OrgConnection::needsLogin: {
      std::string command = "sf org login web";
      if (hasText(alias)) command += " --alias " + *alias;
      if (hasText(loginUrl)) command += " --instance-url " + *loginUrl;
      return "This login needs to be renewed (the Salesforce CLI says \"" + raw +
             "\"). Log in again with: " + command;
    }
    case OrgConnection::unreachable:
      return "Salesforce could not be reached (the Salesforce CLI says \"" + raw +
             "\"). Check the network connection; the org may also be down for maintenance.";
    case OrgConnection::checking:
      return "The list of all logins reports \"" + raw +
             "\"; this login is being checked on its own before it is marked as needing a "
             "new login.";
    case OrgConnection::unknown:
      break;
  }
  if (isTrue(isExpiredFlag)) return "This org has expired.";
  if (!raw.empty()) return "The Salesforce CLI reports \"" + raw + "\".";
  return "The connection has not been checked.";
}

std::string Org::expiryLabel(SystemTime now) const {
  if (!expirationDate) return isTrue(isExpiredFlag) ? "Expired" : "";
  const std::string day = IsoTime::formatDay(*expirationDate);
  const long long daysLeft = daysSinceEpoch(*expirationDate) - daysSinceEpoch(now);
  if (isTrue(isExpiredFlag) || daysLeft < 0) return "Expired on " + day;
  if (daysLeft == 0) return "Expires today (" + day + ")";
  if (daysLeft == 1) return "Expires tomorrow (" + day + ")";
  return "Expires in " + std::to_string(daysLeft) + " days (" + day + ")";
}

nlohmann::json Org::toJSON() const {
  nlohmann::json json = nlohmann::json::object();
  const auto put = [&json](const char* key, const auto& value) {
    if (value) json[key] = *value;
  };
  const auto putDate = [&json](const char* key, const std::optional<SystemTime>& value) {
    if (value) json[key] = IsoTime::formatFractional(*value);
  };
  json["username"] = username;
  put("alias", alias);
  put("orgId", orgId);
  put("instanceUrl", instanceUrl);
  put("loginUrl", loginUrl);
  put("name", name);
  put("edition", edition);
  put("instanceName", instanceName);
  put("createdOrgInstance", createdOrgInstance);
  put("connectedStatusRaw", connectedStatusRaw);
  put("checkedAlone", checkedAlone);
  put("scratchStatus", scratchStatus);
  put("isExpiredFlag", isExpiredFlag);
  json["isDevHub"] = isDevHub;
  json["isDefaultUsername"] = isDefaultUsername;
  put("isSandbox", isSandbox);
  put("isScratch", isScratch);
  putDate("lastUsed", lastUsed);
  putDate("expirationDate", expirationDate);
  return json;
}

std::optional<Org> Org::fromJSON(const nlohmann::json& json) {
  if (!json.is_object()) return std::nullopt;
  auto username = textField(json, "username");
  if (!username) return std::nullopt;
  Org org;
  org.username = std::move(*username);
  org.alias = textField(json, "alias");
  org.orgId = textField(json, "orgId");
  org.instanceUrl = textField(json, "instanceUrl");
  org.loginUrl = textField(json, "loginUrl");
  org.name = textField(json, "name");
  org.edition = textField(json, "edition");
  org.instanceName = textField(json, "instanceName");
  org.createdOrgInstance = textField(json, "createdOrgInstance");
  org.connectedStatusRaw = textField(json, "connectedStatusRaw");
  org.checkedAlone = boolField(json, "checkedAlone");
  org.scratchStatus = textField(json, "scratchStatus");
  org.isExpiredFlag = boolField(json, "isExpiredFlag");
  org.isDevHub = boolField(json, "isDevHub").value_or(false);
  org.isDefaultUsername = boolField(json, "isDefaultUsername").value_or(false);
  org.isSandbox = boolField(json, "isSandbox");
  org.isScratch = boolField(json, "isScratch");
  org.lastUsed = dateField(json, "lastUsed");
  org.expirationDate = dateField(json, "expirationDate");
  return org;
}

std::string label(OrgType type) {
  switch (type) {
    case OrgType::production:
      return "production";
    case OrgType::sandbox:
      return "sandbox";
    case OrgType::scratch:
      return "scratch";
    case OrgType::devHub:
      return "Dev Hub";
    case OrgType::developer:
      return "developer";
    case OrgType::other:
      break;
  }
  return "other";
}

std::string label(OrgConnection connection) {
  switch (connection) {
    case OrgConnection::connected:
      return "connected";
    case OrgConnection::needsLogin:
      return "needs login";
    case OrgConnection::unreachable:
      return "unreachable";
    case OrgConnection::checking:
      return "checking";
    case OrgConnection::unknown:
      break;
  }
  return "unknown";
}

void to_json(nlohmann::json& json, const Org& org) { json = org.toJSON(); }

void from_json(const nlohmann::json& json, Org& org) {
  auto decoded = Org::fromJSON(json);
  if (!decoded) throw std::invalid_argument("An org record needs a text \"username\".");
  org = std::move(*decoded);
}

}  // namespace corvane

namespace {

template <typename T>
void combine(std::size_t& seed, const T& value) {
  seed ^= std::hash<T>{}(value) + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
}

void combineTime(std::size_t& seed, const std::optional<corvane::SystemTime>& time) {
  combine(seed, time.has_value());
  if (time) combine(seed, time->time_since_epoch().count());
}

}  // namespace

std::size_t std::hash<corvane::Org>::operator()(const corvane::Org& org) const noexcept {
  std::size_t seed = 0;
  combine(seed, org.username);
  combine(seed, org.alias);
  combine(seed, org.orgId);
  combine(seed, org.instanceUrl);
  combine(seed, org.loginUrl);
  combine(seed, org.name);
  combine(seed, org.edition);
  combine(seed, org.instanceName);
  combine(seed, org.createdOrgInstance);
  combine(seed, org.connectedStatusRaw);
  combine(seed, org.checkedAlone);
  combine(seed, org.scratchStatus);
  combine(seed, org.isExpiredFlag);
  combine(seed, org.isDevHub);
  combine(seed, org.isDefaultUsername);
  combine(seed, org.isSandbox);
  combine(seed, org.isScratch);
  combineTime(seed, org.lastUsed);
  combineTime(seed, org.expirationDate);
  return seed;
}
