#include "app/backup_keeping_command.hpp"

#include <memory>

#include <CLI/CLI.hpp>

#include "app/production_guard.hpp"
#include "backup/backup_keeping_task.hpp"
#include "backup/backup_report.hpp"
#include "backup/folder_access.hpp"
#include "connections/api_transport.hpp"

namespace corvane::BackupKeepingCommand {

void listDeleted(CommandContext& context, const Arguments& arguments) {
  const auto location = BackupLocation::of(context.login(arguments.login), arguments.root);
  const auto found = BackupKeepingTask::deleted(location, arguments.object, arguments.since);
  context.print(arguments.json ? BackupReport::deletedJSON(location.username, found)
                               : BackupReport::deletedText(found));
}

void recycleBin(CommandContext& context, SalesforceAPI::Client& api, const Arguments& arguments) {
  const Org org = context.login(arguments.login);
  const auto location = BackupLocation::of(org, arguments.root);
  if (arguments.putBack) {
    // Asked before anything is written, with the number of records at stake.
    const std::size_t count = arguments.ids.empty()
                                  ? BackupKeepingTask::deleted(location, arguments.object, "").size()
                                  : arguments.ids.size();
    if (count > 0)
      ProductionGuard::confirm(org, "put back up to " + std::to_string(count) + " " +
                                        arguments.object + " records from the Recycle Bin",
                               context.out);
  }
  DedupeAPITransport transport(api, org);
  const auto result = BackupKeepingTask::recycleBin(
      transport, location,
      {arguments.object, arguments.ids, arguments.putBack}, {});
  if (result.asked == 0) {
    context.print("The backups of " + org.username + " found no " + arguments.object +
                  " records deleted, so there is nothing to look for in the Recycle Bin.\n");
    return;
  }
  context.print(BackupReport::recycleBinText(result, arguments.putBack));
}

void eject(CommandContext& context, const Arguments& arguments, const BackupVolumes& volumes,
           const CommandRunner& run) {
  const auto location = BackupLocation::of(context.login(arguments.login), arguments.root);
  context.print(BackupEjectText::ejected(BackupKeepingTask::eject(location, volumes, run)) + '\n');
}

void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen) {
  CLI::App* backup = app.get_subcommand("backup");
  const std::string rootHelp =
      "The folder that holds the backups (default: Backups in the app's folder)";

  CLI::App* deleted =
      backup->add_subcommand("deleted", "List the records a backup found deleted, and when");
  auto deletedArguments = std::make_shared<Arguments>();
  deleted->add_option("LOGIN", deletedArguments->login, "A username or alias")->required();
  deleted->add_option("--object", deletedArguments->object, "Only this object");
  deleted->add_option("--since", deletedArguments->since,
                      "Only deletions on or after this date (YYYY-MM-DD)");
  deleted->add_option("--root", deletedArguments->root, rootHelp);
  deleted->add_flag("--json", deletedArguments->json, "Print the deletions as one JSON object");
  whenChosen(deleted, chosen, [&context, deletedArguments] { listDeleted(context, *deletedArguments); });

  CLI::App* ejectCommand =
      backup->add_subcommand("eject", "Eject the disk that holds a login's backups");
  auto ejectArguments = std::make_shared<Arguments>();
  ejectCommand->add_option("LOGIN", ejectArguments->login, "A username or alias")->required();
  ejectCommand->add_option("--root", ejectArguments->root, rootHelp);
  whenChosen(ejectCommand, chosen, [&context, ejectArguments] {
    eject(context, *ejectArguments,
          BackupVolumes::fromEnvironment(ChildProcess::currentEnvironment()), ChildProcess::run);
  });

  CLI::App* bin = backup->add_subcommand(
      "recycle-bin", "Ask which deleted records are still in the Recycle Bin, and put them back");
  auto binArguments = std::make_shared<Arguments>();
  bin->add_option("LOGIN", binArguments->login, "A username or alias")->required();
  bin->add_option("ID", binArguments->ids,
                  "Record ids (default: those the backups found deleted)");
  bin->add_option("--object", binArguments->object, "The kind of record, such as Account")
      ->required();
  bin->add_flag("--put-back", binArguments->putBack, "Put the records back from the Recycle Bin");
  bin->add_option("--root", binArguments->root, rootHelp);
  whenChosen(bin, chosen, [&context, binArguments] {
    auto api = context.api();
    recycleBin(context, api, *binArguments);
  });
}

}  // namespace corvane::BackupKeepingCommand
