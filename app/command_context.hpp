// What every command is handed, and the steps every command shares: finding
// the login it names, a client for the org's APIs, writing its output, and
// choosing the work the command line asked for.
#pragma once

#include <chrono>
#include <functional>
#include <ostream>
#include <string>

#include "connections/org_listing.hpp"
#include "connections/salesforce_api.hpp"
#include "connections/salesforce_cli.hpp"

namespace CLI {
class App;
}

namespace corvane {

// The bridge, where to write, and the clock.
struct CommandContext {
  SalesforceCLI& cli;
  std::ostream& out;
  std::function<SystemTime()> now = [] { return std::chrono::system_clock::now(); };
  // The CLI checks every login when it lists them, which takes a while.
  std::chrono::milliseconds listTimeout{120'000};
  std::chrono::milliseconds checkTimeout{60'000};

  // The login a command names (OrgListing::resolve).
  Org login(const std::string& name) { return OrgListing::resolve(cli, name, listTimeout); }
  // The same, for an engine that finds the login itself.
  std::function<Org(const std::string&)> logins();
  // A client that takes each login's session from the CLI.
  SalesforceAPI::Client api();
  // Writes text to out and flushes it, so that a pipe sees it at once.
  void print(const std::string& text);
};

// Makes choosing command on the command line set `chosen` to work, which
// runs once the whole line is parsed.
void whenChosen(CLI::App* command, std::function<void()>& chosen, std::function<void()> work);

}  // namespace corvane
