// `corvane orgs`: the logins the Salesforce CLI knows, one line each, and
// `corvane orgs show LOGIN`: one login in full, its connection checked alone.
//
// Commands throw typed errors (CLIError, CommandError); the caller turns them
// into a sentence on standard error and a non-zero exit status.
#pragma once

#include <chrono>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "connections/org.hpp"
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
};

namespace OrgsCommand {

// Adds "orgs" and its "show" subcommand to app. When the command line chooses
// one of them, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

void list(CommandContext& context, bool skipConnectionStatus);
void show(CommandContext& context, const std::string& login);

// Logins whose state is in doubt (OrgConnection::checking) checked each on its
// own, at the same time; their records then say checkedAlone.
std::vector<Org> checkDoubtfulAlone(SalesforceCLI& cli, std::vector<Org> orgs,
                                    std::chrono::milliseconds timeout);
// The login with this username (any case), else this alias (exact, then any
// case). Throws CommandError when none or several match.
const Org& findLogin(const std::vector<Org>& orgs, const std::string& login);

// The screen texts.
std::string table(const std::vector<Org>& orgs);
std::string details(const Org& org, SystemTime now);

}  // namespace OrgsCommand

}  // namespace corvane
