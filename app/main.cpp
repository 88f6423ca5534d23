// corvane: the command-line entry point. Each command lives in its own file
// beside this one; this file only wires them up.
#include <functional>
#include <iostream>

#include <CLI/CLI.hpp>

#include "app/command_error.hpp"
#include "app/orgs_command.hpp"
#include "app/query_command.hpp"
#include "connections/salesforce_cli.hpp"

int main(int argc, char** argv) {
  CLI::App app{"Corvane: backups, duplicates and health checks for Salesforce orgs"};
  app.set_version_flag("--version", std::string("corvane ") + CORVANE_VERSION);
  app.require_subcommand(1);

  corvane::SalesforceCLI cli;
  corvane::CommandContext context{cli, std::cout};
  std::function<void()> chosen;
  corvane::OrgsCommand::add(app, context, chosen);
  corvane::QueryCommand::add(app, context, chosen);

  CLI11_PARSE(app, argc, argv);
  if (!chosen) return 0;
  return corvane::runReportingFailures(chosen, std::cerr);
}
