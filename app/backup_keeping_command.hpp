// `corvane backup deleted`, `backup recycle-bin` and `backup eject`: what a backup
// found deleted, the Recycle Bin, and the disk that holds the backups.
#pragma once

#include <functional>

#include "app/orgs_command.hpp"

namespace CLI {
class App;
}

namespace corvane::BackupKeepingCommand {

// Adds the commands to app (under "backup" where they belong there); when one
// is chosen, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

}  // namespace corvane::BackupKeepingCommand
