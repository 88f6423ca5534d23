// `corvane backup plan LOGIN [--json]`: what a backup of the login's org would
// take, without copying anything. `corvane backup run LOGIN`: takes the backup
// (Ctrl-C stops it cleanly; the next run carries on). `corvane backup status
// LOGIN [--json]`: the last run and the recent ones. The work is BackupTask's;
// this file turns arguments into its calls and its results into text.
#pragma once

#include <functional>
#include <string>

#include "app/orgs_command.hpp"
#include "backup/backup_task.hpp"

namespace CLI {
class App;
}

namespace corvane::BackupCommand {

// Adds "backup" and its subcommands to app; when chosen, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

// The plan's screen text, and the same as one JSON object.
std::string text(const BackupTask::Survey& survey);
std::string json(const BackupTask::Survey& survey);

// The last run of the backup at location and its recent runs, for a person,
// and all its runs (newest first) as one JSON object.
std::string statusText(const BackupLocation& location);
std::string statusJSON(const BackupLocation& location);

}  // namespace corvane::BackupCommand
