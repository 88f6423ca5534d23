// `corvane backup sets [--json]` (list, add, remove), `corvane schedule status
// [--json]`, `schedule power-wait` and the headless backup tick started by
// `corvane --backup-tick`. The work is ScheduleTask's, the wording
// ScheduleReport's; this file turns the command line into their calls.
#pragma once

#include <functional>
#include <iosfwd>
#include <string>

#include "app/command_context.hpp"
#include "scheduling/schedule_task.hpp"

namespace corvane::ScheduleCommand {

using Setup = ScheduleTask::Setup;
using SetArgumentError = BackupSetError;
using SetArguments = ScheduleTask::SetRequest;
using ScheduleTask::parseSchedule;

// Adds the commands to app (under "backup" where they belong there); when one
// is chosen, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

void listSets(CommandContext& context, const Setup& setup, bool json = false);
void addSet(CommandContext& context, const Setup& setup, const SetArguments& arguments);
void removeSet(CommandContext& context, const Setup& setup, const std::string& login);
void status(CommandContext& context, const Setup& setup, bool json = false);

// The headless tick with the real machine; notices go to standard error.
// Returns the exit status.
int runBackupTick(SalesforceCLI& cli, const Setup& setup);

// ScheduleTask::reconcileAtLaunch, telling what it did on `err`.
void reconcileAtLaunch(const Setup& setup, std::ostream& err);

// `corvane schedule power-wait on|off`.
void setPowerWait(CommandContext& context, bool on);

}  // namespace corvane::ScheduleCommand
