// `corvane backup plan LOGIN [--json]`: what a backup of the login's org would
// take, without copying anything. `corvane backup run LOGIN`: takes the backup
// (Ctrl-C stops it cleanly; the next run carries on). `corvane backup status
// LOGIN [--json]`: the last run and the recent ones. The work is BackupTask's,
// the wording BackupReport's; this file turns arguments into their calls.
#pragma once

#include <functional>

#include "app/command_context.hpp"

namespace corvane::BackupCommand {

// Adds "backup" and its subcommands to app; when chosen, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

}  // namespace corvane::BackupCommand
