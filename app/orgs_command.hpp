// `corvane orgs [--json]`: the logins the Salesforce CLI knows, one line each,
// and `corvane orgs show LOGIN [--json]`: one login in full, its connection
// checked alone. The work is OrgListing's; this file turns it into text.
#pragma once

#include <chrono>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "connections/org_listing.hpp"
#include "connections/salesforce_cli.hpp"

namespace CLI {
class App;
}

namespace corvane {

// What every command is handed: the bridge, where to write, and the clock.
struct CommandContext {
  SalesforceCLI& cli;
  std::ostream& out;
  std::function<SystemTime()> now = [] { return std::chrono::system_clock::now(); };
  // The CLI checks every login when it lists them, which takes a while.
  std::chrono::milliseconds listTimeout{120'000};
  std::chrono::milliseconds checkTimeout{60'000};

  // The login a command names (OrgListing::resolve).
  Org login(const std::string& name) { return OrgListing::resolve(cli, name, listTimeout); }
};

namespace OrgsCommand {

// Adds "orgs" and its "show" subcommand to app. When the command line chooses
// one of them, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

void list(CommandContext& context, bool skipConnectionStatus, bool json = false);
void show(CommandContext& context, const std::string& login, bool json = false);

inline const Org& findLogin(const std::vector<Org>& orgs, const std::string& login) {
  return OrgListing::findLogin(orgs, login);
}

// The screen texts.
std::string table(const std::vector<Org>& orgs);
std::string details(const Org& org, SystemTime now);

}  // namespace OrgsCommand

}  // namespace corvane
