// corvane: the command-line entry point. Each command lives in its own file
// beside this one; this file only wires them up.
#include <functional>
#include <iostream>
#include <string_view>

#include <CLI/CLI.hpp>

#include "app/backup_command.hpp"
#include "app/backup_keeping_command.hpp"
#include "app/command_error.hpp"
#include "app/complete_command.hpp"
#include "app/dedupe_command.hpp"
#include "app/dedupe_workbook_command.hpp"
#include "app/health_command.hpp"
#include "app/import_command.hpp"
#include "app/orgs_command.hpp"
#include "app/production_guard.hpp"
#include "app/query_command.hpp"
#include "app/restore_command.hpp"
#include "app/schedule_command.hpp"
#include "connections/salesforce_cli.hpp"

int main(int argc, char** argv) {
  CLI::App app{"Corvane: backups, duplicates and health checks for Salesforce orgs"};
  app.set_version_flag("--version", std::string("corvane ") + CORVANE_VERSION);
  app.require_subcommand(1);
  corvane::ProductionGuard::addYesFlag(app);

  corvane::SalesforceCLI cli;
  // The hourly scheduled check runs headless, outside the command tree.
  for (int i = 1; i < argc; ++i) {
    if (std::string_view(argv[i]) == "--backup-tick")
      return corvane::ScheduleCommand::runBackupTick(cli,
                                                     corvane::ScheduleCommand::Setup::standard());
  }
  corvane::CommandContext context{cli, std::cout};
  std::function<void()> chosen;
  corvane::OrgsCommand::add(app, context, chosen);
  corvane::QueryCommand::add(app, context, chosen);
  corvane::CompleteCommand::add(app, context, chosen);
  corvane::BackupCommand::add(app, context, chosen);
  corvane::BackupKeepingCommand::add(app, context, chosen);
  corvane::RestoreCommand::add(app, context, chosen);
  corvane::ScheduleCommand::add(app, context, chosen);
  corvane::DedupeCommand::add(app, context, chosen);
  corvane::DedupeWorkbookCommand::add(app, context, chosen);
  corvane::ImportCommand::add(app, context, chosen);
  corvane::HealthCommand::add(app, context, chosen);

  CLI11_PARSE(app, argc, argv);
  if (!chosen) return 0;
  // Keeps the hourly scheduled-backup check in step with the backup sets.
  corvane::ScheduleCommand::reconcileAtLaunch(corvane::ScheduleCommand::Setup::standard(),
                                              std::cerr);
  return corvane::runReportingFailures(chosen, std::cerr);
}
