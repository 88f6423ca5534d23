#include "connections/org_report.hpp"

#include <algorithm>
#include <array>
#include <optional>

#include <nlohmann/json.hpp>

#include "platform/iso_time.hpp"

namespace corvane::OrgReport {

namespace {

// Columns line up by characters, not bytes: aliases and org names may be UTF-8.
std::size_t displayWidth(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

std::string padded(const std::string& text, std::size_t width) {
  const std::size_t used = displayWidth(text);
  return used >= width ? text : text + std::string(width - used, ' ');
}

std::string orDash(const std::optional<std::string>& text) {
  return text && !text->empty() ? *text : "-";
}

std::string yesNo(const std::optional<bool>& flag) {
  if (!flag) return "unknown";
  return *flag ? "yes" : "no";
}

std::string instanceColumn(const Org& org) {
  if (auto instance = org.instanceDisplay()) return *instance;
  const std::string host = org.host();
  return host.empty() ? "-" : host;
}

// One login as JSON: what the list shows, and with `full` every fact of the
// CLI's record as well. Absent facts are null, so the keys never vary.
nlohmann::ordered_json loginJSON(const Org& org, SystemTime now, bool full) {
  using Ordered = nlohmann::ordered_json;
  auto text = [](const std::optional<std::string>& value) {
    return value ? Ordered(*value) : Ordered(nullptr);
  };
  auto flag = [](const std::optional<bool>& value) {
    return value ? Ordered(*value) : Ordered(nullptr);
  };
  auto date = [](const std::optional<SystemTime>& time) {
    return time ? Ordered(IsoTime::formatFractional(*time)) : Ordered(nullptr);
  };
  const std::string host = org.host();
  Ordered out{{"username", org.username},
              {"alias", text(org.alias)},
              {"kind", label(org.type())},
              {"connection", label(org.connection())},
              {"connectionDetail", org.statusDetail()},
              {"instance", text(org.instanceDisplay())},
              {"host", host.empty() ? Ordered(nullptr) : Ordered(host)},
              {"isDefault", org.isDefaultUsername},
              {"checkedAlone", org.checkedAlone.value_or(false)}};
  if (!full) return out;
  const std::string expiry = org.expiryLabel(now);
  out["orgId"] = text(org.orgId);
  out["instanceUrl"] = text(org.instanceUrl);
  out["loginUrl"] = text(org.loginUrl);
  out["name"] = text(org.name);
  out["edition"] = text(org.edition);
  out["instanceName"] = text(org.instanceName);
  out["createdOrgInstance"] = text(org.createdOrgInstance);
  out["cliStatus"] = text(org.connectedStatusRaw);
  out["scratchStatus"] = text(org.scratchStatus);
  out["expired"] = flag(org.isExpiredFlag);
  out["devHub"] = org.isDevHub;
  out["sandbox"] = flag(org.isSandbox);
  out["scratch"] = flag(org.isScratch);
  out["lastUsed"] = date(org.lastUsed);
  out["expires"] = date(org.expirationDate);
  out["expiry"] = expiry.empty() ? Ordered(nullptr) : Ordered(expiry);
  return out;
}

}  // namespace

std::string table(const std::vector<Org>& orgs) {
  using Row = std::array<std::string, 5>;
  std::vector<Row> rows = {{"USERNAME", "ALIAS", "KIND", "CONNECTION", "INSTANCE"}};
  for (const auto& org : orgs) {
    std::string username = org.username;
    if (org.isDefaultUsername) username += " (default)";
    rows.push_back({username, orDash(org.alias), label(org.type()), label(org.connection()),
                    instanceColumn(org)});
  }
  std::array<std::size_t, 5> widths{};
  for (const auto& row : rows) {
    for (std::size_t column = 0; column < row.size(); ++column) {
      widths[column] = std::max(widths[column], displayWidth(row[column]));
    }
  }
  std::string text;
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t column = 0; column < row.size(); ++column) {
      line += column + 1 == row.size() ? row[column] : padded(row[column], widths[column] + 2);
    }
    text += line + "\n";
  }
  return text;
}

std::string details(const Org& org, SystemTime now) {
  const auto date = [](const std::optional<SystemTime>& time) {
    return time ? IsoTime::formatFractional(*time) : std::string("-");
  };
  std::string status = orDash(org.connectedStatusRaw);
  if (org.checkedAlone && *org.checkedAlone) status += " (this login checked on its own)";
  const std::string expiry = org.expiryLabel(now);
  const std::vector<std::pair<std::string, std::string>> lines = {
      {"Username", org.username},
      {"Alias", orDash(org.alias)},
      {"Org ID", orDash(org.orgId)},
      {"Instance URL", orDash(org.instanceUrl)},
      {"Login URL", orDash(org.loginUrl)},
      {"Name", orDash(org.name)},
      {"Edition", orDash(org.edition)},
      {"Instance name", orDash(org.instanceName)},
      {"Created on instance", orDash(org.createdOrgInstance)},
      {"CLI status", status},
      {"Scratch status", orDash(org.scratchStatus)},
      {"Expired (CLI)", yesNo(org.isExpiredFlag)},
      {"Dev Hub", org.isDevHub ? "yes" : "no"},
      {"Default login", org.isDefaultUsername ? "yes" : "no"},
      {"Sandbox", yesNo(org.isSandbox)},
      {"Scratch", yesNo(org.isScratch)},
      {"Last used", date(org.lastUsed)},
      {"Expires", date(org.expirationDate)},
      {"", ""},
      {"Kind", label(org.type())},
      {"Connection", label(org.connection()) + ": " + org.statusDetail()},
      {"Host", org.host().empty() ? "-" : org.host()},
      {"Instance", orDash(org.instanceDisplay())},
      {"Expiry", expiry.empty() ? "does not expire" : expiry},
  };
  std::size_t width = 0;
  for (const auto& [name, value] : lines) width = std::max(width, name.size());
  std::string text;
  for (const auto& [name, value] : lines) {
    text += name.empty() ? "\n" : padded(name + ":", width + 2) + value + "\n";
  }
  return text;
}

std::string json(const std::vector<Org>& orgs, SystemTime now) {
  nlohmann::ordered_json logins = nlohmann::ordered_json::array();
  for (const auto& org : orgs) logins.push_back(loginJSON(org, now, false));
  return nlohmann::ordered_json{{"logins", std::move(logins)}}.dump(2) + "\n";
}

std::string json(const Org& org, SystemTime now) {
  return loginJSON(org, now, true).dump(2) + "\n";
}

}  // namespace corvane::OrgReport
