#include "app/backup_keeping_command.hpp"

#include <memory>

#include <CLI/CLI.hpp>

#include "app/production_guard.hpp"
#include "backup/backup_lock.hpp"
#include "backup/backup_store.hpp"
#include "backup/backup_volumes.hpp"
#include "backup/folder_access.hpp"
#include "backup/recycle_bin.hpp"
#include "connections/api_transport.hpp"
#include "platform/user_facing_error.hpp"

namespace corvane::BackupKeepingCommand {

namespace {

std::filesystem::path rootOf(const std::string& root) {
  return root.empty() ? BackupLocation::defaultRoot() : std::filesystem::path(root);
}

BackupLocation locationFor(CommandContext& context, const Arguments& arguments) {
  auto orgs = context.cli.listOrgs(true, context.listTimeout);
  const Org& org = OrgsCommand::findLogin(orgs, arguments.login);
  return {rootOf(arguments.root), org.orgId.value_or("unknown-org"), org.username};
}

// The login's backup database; refused when there is no backup yet.
std::unique_ptr<BackupStore> openExisting(const BackupLocation& location) {
  std::error_code error;
  if (!std::filesystem::exists(location.databaseURL(), error))
    throw UserFacingError("There is no backup of " + location.username + " in " +
                          location.root.string() + " yet, so nothing has been found deleted.");
  return std::make_unique<BackupStore>(location);
}

}  // namespace

void listDeleted(CommandContext& context, const Arguments& arguments) {
  const BackupLocation location = locationFor(context, arguments);
  auto opened = openExisting(location);
  auto& store = *opened;
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

void recycleBin(CommandContext& context, SalesforceAPI::Client& api, const Arguments& arguments) {
  auto orgs = context.cli.listOrgs(true, context.listTimeout);
  const Org& org = OrgsCommand::findLogin(orgs, arguments.login);
  std::vector<std::string> ids = arguments.ids;
  if (ids.empty()) {
    // What the backup found deleted of this object, oldest first.
    const BackupLocation location{rootOf(arguments.root), org.orgId.value_or("unknown-org"),
                                  org.username};
    auto store = openExisting(location);
    auto statement = store->db().prepare(
        "SELECT id FROM known_ids WHERE deleted = 1 AND object = ? ORDER BY deleted_at, id");
    statement.bindText(1, arguments.object);
    while (statement.step()) ids.push_back(statement.columnText(0));
    if (ids.empty()) {
      context.out << "The backups of " << org.username << " found no " << arguments.object
                  << " records deleted, so there is nothing to look for in the Recycle Bin.\n";
      context.out.flush();
      return;
    }
  }
  if (arguments.putBack)
    ProductionGuard::confirm(org, "put back up to " + std::to_string(ids.size()) + " " +
                                      arguments.object + " records from the Recycle Bin",
                             context.out);
  DedupeAPITransport transport(api, org);
  RecycleBin bin(transport);
  const auto outcomes =
      arguments.putBack ? bin.putBack(arguments.object, ids) : bin.check(arguments.object, ids);
  std::size_t inBin = 0;
  for (const auto& outcome : outcomes) {
    using Kind = RecycleBin::Outcome::Kind;
    inBin += outcome.kind == Kind::putBack;
    // Before a put-back, "putBack" means only that it could be.
    const std::string text = !arguments.putBack && outcome.kind == Kind::putBack
                                 ? std::string("inTheBin")
                                 : RecycleBin::toText(outcome);
    context.out << outcome.id << '\t' << text << '\n';
  }
  if (arguments.putBack)
    context.out << inBin << " of " << outcomes.size() << " put back.\n";
  else
    context.out << inBin << " of " << outcomes.size()
                << " are still in the Recycle Bin. Add --put-back to put them back.\n";
  context.out.flush();
}

void eject(CommandContext& context, const Arguments& arguments, const BackupVolumes& volumes,
           const CommandRunner& run) {
  const BackupLocation location = locationFor(context, arguments);
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
  const auto outcome = ejectVolume(*volume, run);
  if (outcome.kind == EjectOutcome::Kind::refused)
    throw UserFacingError(BackupEjectText::refused(volume->name, outcome.because));
  context.out << BackupEjectText::ejected(volume->name) << '\n';
  context.out.flush();
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
  deleted->callback([&context, &chosen, deletedArguments] {
    chosen = [&context, deletedArguments] { listDeleted(context, *deletedArguments); };
  });

  CLI::App* ejectCommand =
      backup->add_subcommand("eject", "Eject the disk that holds a login's backups");
  auto ejectArguments = std::make_shared<Arguments>();
  ejectCommand->add_option("LOGIN", ejectArguments->login, "A username or alias")->required();
  ejectCommand->add_option("--root", ejectArguments->root, rootHelp);
  ejectCommand->callback([&context, &chosen, ejectArguments] {
    chosen = [&context, ejectArguments] {
      eject(context, *ejectArguments,
            BackupVolumes::fromEnvironment(ChildProcess::currentEnvironment()),
            ChildProcess::run);
    };
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
  bin->callback([&context, &chosen, binArguments] {
    chosen = [&context, binArguments] {
      SalesforceAPI::Client api(
          [&context](const std::string& username) { return context.cli.session(username); });
      recycleBin(context, api, *binArguments);
    };
  });
}

}  // namespace corvane::BackupKeepingCommand
