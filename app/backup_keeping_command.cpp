#include "app/backup_keeping_command.hpp"

#include <memory>

#include <CLI/CLI.hpp>

#include "backup/backup_lock.hpp"
#include "backup/backup_store.hpp"
#include "backup/backup_volumes.hpp"
#include "backup/folder_access.hpp"
#include "platform/user_facing_error.hpp"

namespace corvane::BackupKeepingCommand {

namespace {

struct Arguments {
  std::string login;
  std::string root;
  std::string object;
  std::string since;
};

std::filesystem::path rootOf(const std::string& root) {
  return root.empty() ? BackupLocation::defaultRoot() : std::filesystem::path(root);
}

BackupLocation locationFor(CommandContext& context, const Arguments& arguments) {
  auto orgs = context.cli.listOrgs(true, context.listTimeout);
  const Org& org = OrgsCommand::findLogin(orgs, arguments.login);
  return {rootOf(arguments.root), org.orgId.value_or("unknown-org"), org.username};
}

void listDeleted(CommandContext& context, const Arguments& arguments) {
  const BackupLocation location = locationFor(context, arguments);
  std::error_code error;
  if (!std::filesystem::exists(location.databaseURL(), error))
    throw UserFacingError("There is no backup of " + location.username + " in " +
                          location.root.string() + " yet, so nothing has been found deleted.");
  BackupStore store(location);
  std::string sql = "SELECT object, id, deleted_at, how FROM known_ids WHERE deleted = 1";
  if (!arguments.object.empty()) sql += " AND object = ?1";
  if (!arguments.since.empty()) sql += " AND deleted_at >= ?2";
  sql += " ORDER BY deleted_at, object, id";
  auto statement = store.db().prepare(sql);
  if (!arguments.object.empty()) statement.bindText(1, arguments.object);
  if (!arguments.since.empty()) statement.bindText(2, arguments.since);
  std::size_t found = 0;
  while (statement.step()) {
    context.out << statement.columnText(2) << '\t' << statement.columnText(0) << '\t'
                << statement.columnText(1) << '\t' << statement.columnText(3) << '\n';
    ++found;
  }
  if (found == 0) context.out << "No deleted records found.\n";
  context.out.flush();
}

void eject(CommandContext& context, const Arguments& arguments) {
  const BackupLocation location = locationFor(context, arguments);
  const BackupVolumes volumes = BackupVolumes::system();
  const auto volume = volumes.ejectableVolume(location.folder());
  if (!volume) {
    if (auto name = volumes.volumeName(location.folder());
        name && volumes.reach(location.folder()).kind == BackupFolderState::Kind::driveNotConnected)
      throw UserFacingError(BackupEjectText::notConnected(*name));
    throw UserFacingError("The backups of " + location.username +
                          " are not kept on a disk that can be ejected. Nothing was changed.");
  }
  if (BackupLock::isHeld(location.lockURL()))
    throw UserFacingError(BackupEjectText::refusedWhileRunning(volume->name));
  const auto outcome = ejectVolume(*volume);
  if (outcome.kind == EjectOutcome::Kind::refused)
    throw UserFacingError(BackupEjectText::refused(volume->name, outcome.because));
  context.out << BackupEjectText::ejected(volume->name) << '\n';
  context.out.flush();
}

}  // namespace

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
  deleted->callback([&context, &chosen, deletedArguments] {
    chosen = [&context, deletedArguments] { listDeleted(context, *deletedArguments); };
  });

  CLI::App* ejectCommand =
      backup->add_subcommand("eject", "Eject the disk that holds a login's backups");
  auto ejectArguments = std::make_shared<Arguments>();
  ejectCommand->add_option("LOGIN", ejectArguments->login, "A username or alias")->required();
  ejectCommand->add_option("--root", ejectArguments->root, rootHelp);
  ejectCommand->callback([&context, &chosen, ejectArguments] {
    chosen = [&context, ejectArguments] { eject(context, *ejectArguments); };
  });
}

}  // namespace corvane::BackupKeepingCommand
