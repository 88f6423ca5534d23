// One login: one user authorised in the Salesforce CLI against one org.
//
// Records come from the CLI's org list (SalesforceCLI::mergeOrgArrays). Besides
// its stored fields a record derives the kind of org, the state of its
// connection and the texts that identify it to the user; every screen and run
// relies on those derivations, so they live here and nowhere else.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/iso_time.hpp"

namespace corvane {

enum class OrgType { production, sandbox, scratch, devHub, developer, other };

enum class OrgConnection { connected, needsLogin, unreachable, unknown, checking };

// Salesforce's sandbox login server, and the My Domain suffix of Developer
// Edition orgs.
inline constexpr const char* kSandboxLoginHost = "test.salesforce.com";
inline constexpr const char* kDeveloperDomainSuffix = ".develop.my.salesforce.com";

struct Org {
  std::string username;  // the key of the record
  std::optional<std::string> alias;
  std::optional<std::string> orgId;
  std::optional<std::string> instanceUrl;
  std::optional<std::string> loginUrl;
  std::optional<std::string> name;
  std::optional<std::string> edition;
  std::optional<std::string> instanceName;
  std::optional<std::string> createdOrgInstance;
  std::optional<std::string> connectedStatusRaw;  // the CLI's status text, as it came
  // True when the status came from a check of this login alone, not from the
  // list of all logins.
  std::optional<bool> checkedAlone;
  std::optional<std::string> scratchStatus;
  std::optional<bool> isExpiredFlag;
  bool isDevHub = false;
  bool isDefaultUsername = false;
  std::optional<bool> isSandbox;  // none: unknown
  std::optional<bool> isScratch;  // none: unknown
  std::optional<SystemTime> lastUsed;
  std::optional<SystemTime> expirationDate;

  const std::string& id() const { return username; }

  // The kind of org. Production only when something positive says so: a known
  // sandbox flag or a known edition, and an instance URL.
  OrgType type() const;
  // A production org, or a Dev Hub (which is one): the kinds whose data is
  // real, so that a command asks before writing to them. Sandboxes, scratch
  // and Developer Edition orgs are not; neither is an org of unknown kind.
  bool isProduction() const {
    const auto kind = type();
    return kind == OrgType::production || kind == OrgType::devHub;
  }
  OrgConnection connection() const;
  // The host of instanceUrl; the instanceUrl text itself when it is not a URL
  // with a host; empty without one.
  std::string host() const;
  // instanceName, else createdOrgInstance (non-empty only), else none.
  std::optional<std::string> instanceDisplay() const;

  // Screen texts.
  // The name a user knows the login by: its alias, else its username.
  std::string displayName() const;
  // One sentence on the connection state, with what to do when it needs action.
  std::string statusDetail() const;
  // When the org expires, if it is time-limited.
  std::optional<SystemTime> expiry() const { return expirationDate; }
  // "Expired", "Expires today", "Expires in 5 days (2024-05-01)", ..., or empty
  // for an org that does not expire.
  std::string expiryLabel(SystemTime now = std::chrono::system_clock::now()) const;

  bool operator==(const Org&) const = default;

  // Keys equal to the field names; absent optionals are left out; dates are
  // ISO 8601 with milliseconds.
  nlohmann::json toJSON() const;
  // Lenient: a field of the wrong type counts as absent. None when the value is
  // not an object or has no text username.
  static std::optional<Org> fromJSON(const nlohmann::json& json);
};

// The short words of the command-line screens: "production", "Dev Hub", ...
std::string label(OrgType type);
std::string label(OrgConnection connection);

// nlohmann::json conversions; from_json throws std::invalid_argument when
// Org::fromJSON gives none.
void to_json(nlohmann::json& json, const Org& org);
void from_json(const nlohmann::json& json, Org& org);

}  // namespace corvane

template <>
struct std::hash<corvane::Org> {
  std::size_t operator()(const corvane::Org& org) const noexcept;
};
