// `corvane backup deleted [--json]`, `backup recycle-bin` and `backup eject`:
// what a backup found deleted, the Recycle Bin, and the disk that holds the
// backups. The work is BackupKeepingTask's, the wording BackupReport's.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "app/command_context.hpp"
#include "backup/backup_volumes.hpp"
#include "connections/salesforce_api.hpp"

namespace corvane::BackupKeepingCommand {

struct Arguments {
  std::string login;
  std::string root;  // empty: the standard backup folder
  std::string object;
  std::string since;             // deleted: a day, "YYYY-MM-DD"
  std::vector<std::string> ids;  // recycle-bin: none means what the backup found deleted
  bool putBack = false;
  bool json = false;  // deleted
};

// Adds the commands to app (under "backup" where they belong there); when one
// is chosen, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

// One line per deletion: when, object, id, how; or one JSON object.
void listDeleted(CommandContext& context, const Arguments& arguments);

// Asks which records of arguments.object are still in the Recycle Bin, and with
// putBack puts them back; one line per record, then a count.
void recycleBin(CommandContext& context, SalesforceAPI::Client& api, const Arguments& arguments);

// Ejects the disk that holds the login's backups, unless a run is writing to it.
void eject(CommandContext& context, const Arguments& arguments, const BackupVolumes& volumes,
           const CommandRunner& run);

}  // namespace corvane::BackupKeepingCommand
