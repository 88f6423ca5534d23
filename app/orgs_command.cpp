#include "app/orgs_command.hpp"

#include <algorithm>
#include <array>
#include <future>
#include <optional>

#include <CLI/CLI.hpp>

#include "app/command_error.hpp"
#include "connections/ascii.hpp"

namespace corvane::OrgsCommand {

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

}  // namespace

void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen) {
  CLI::App* orgs = app.add_subcommand("orgs", "List the logins of the Salesforce CLI");
  auto skipStatus = std::make_shared<bool>(false);
  orgs->add_flag("--no-status", *skipStatus,
                 "Do not check the connections (faster; every state shows as unknown)");
  orgs->callback([&context, &chosen, orgs, skipStatus] {
    if (orgs->get_subcommands().empty()) {
      chosen = [&context, skipStatus] { list(context, *skipStatus); };
    }
  });

  CLI::App* showCommand = orgs->add_subcommand("show", "Show one login and check its connection");
  auto login = std::make_shared<std::string>();
  showCommand->add_option("LOGIN", *login, "A username or alias")->required();
  showCommand->callback(
      [&context, &chosen, login] { chosen = [&context, login] { show(context, *login); }; });
}

void list(CommandContext& context, bool skipConnectionStatus) {
  auto orgs = context.cli.listOrgs(skipConnectionStatus, context.listTimeout);
  if (orgs.empty()) {
    context.out << "The Salesforce CLI has no logins. Add one with: sf org login web --alias "
                   "NAME\n";
    return;
  }
  if (!skipConnectionStatus) {
    orgs = checkDoubtfulAlone(context.cli, std::move(orgs), context.checkTimeout);
  }
  context.out << table(orgs);
}

void show(CommandContext& context, const std::string& login) {
  // The list without its connection checks: this login is checked on its own below.
  const auto orgs = context.cli.listOrgs(true, context.listTimeout);
  Org org = findLogin(orgs, login);
  org.connectedStatusRaw = context.cli.connectionStatus(org.username, context.checkTimeout);
  org.checkedAlone = true;
  context.out << details(org, context.now());
}

std::vector<Org> checkDoubtfulAlone(SalesforceCLI& cli, std::vector<Org> orgs,
                                    std::chrono::milliseconds timeout) {
  std::vector<std::pair<std::size_t, std::future<std::optional<std::string>>>> checks;
  for (std::size_t i = 0; i < orgs.size(); ++i) {
    if (orgs[i].connection() != OrgConnection::checking) continue;
    checks.emplace_back(
        i, std::async(std::launch::async, [&cli, username = orgs[i].username, timeout] {
          return cli.connectionStatus(username, timeout);
        }));
  }
  for (auto& [index, status] : checks) {
    orgs[index].connectedStatusRaw = status.get();
    orgs[index].checkedAlone = true;
  }
  return orgs;
}

const Org& findLogin(const std::vector<Org>& orgs, const std::string& login) {
  for (const auto& org : orgs) {
    if (Ascii::equalsIgnoringCase(org.username, login)) return org;
  }
  for (const auto& org : orgs) {
    if (org.alias == login) return org;
  }
  std::vector<const Org*> similar;
  for (const auto& org : orgs) {
    if (org.alias && Ascii::equalsIgnoringCase(*org.alias, login)) similar.push_back(&org);
  }
  if (similar.size() == 1) return *similar.front();
  if (similar.empty()) throw CommandError::loginNotFound(login);
  std::vector<std::string> usernames;
  for (const Org* org : similar) usernames.push_back(org->username);
  throw CommandError::ambiguousLogin(login, usernames);
}

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

}  // namespace corvane::OrgsCommand
