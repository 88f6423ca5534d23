#include "app/schedule_command.hpp"

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <iostream>

#include "platform/desktop_notification.hpp"
#include "scheduling/schedule_report.hpp"

namespace corvane::ScheduleCommand {

void listSets(CommandContext& context, const Setup& setup, bool json) {
  const auto sets = ScheduleTask::sets(setup);
  if (json) {
    context.out << ScheduleReport::setsJSON(sets, setup);
  } else if (sets.empty()) {
    context.out << "There are no backup sets. Add one with: corvane backup sets add LOGIN "
                   "--schedule daily 02:30\n";
  } else {
    context.out << ScheduleReport::setsTable(sets, setup);
  }
}

void addSet(CommandContext& context, const Setup& setup, const SetArguments& arguments) {
  const auto saved = ScheduleTask::saveSet(setup, ScheduleTask::newSet(arguments, context.logins()),
                                           context.now());
  context.out << fmt::format("Backup set for {} saved: {}, backups in {}.\n", saved.set.username,
                             saved.set.effectiveSchedule().text(),
                             saved.set.location(setup.backupRoot).folder().string())
              << saved.notice;
}

void removeSet(CommandContext& context, const Setup& setup, const std::string& login) {
  const auto removed = ScheduleTask::removeSet(setup, login);
  context.out << "Backup set for " << removed.username
              << " removed. Its backups stay where they are.\n"
              << removed.notice;
}

void status(CommandContext& context, const Setup& setup, bool json) {
  const auto status = ScheduleTask::status(setup);
  context.out << (json ? ScheduleReport::statusJSON(status) : ScheduleReport::statusText(status));
  // Shown notices are marked seen; a failure to mark them shows them again
  // next time, which is better than losing them.
  if (status.unseenNotices.empty()) return;
  try {
    NoticeLedger::markSeen(setup.backupRoot);
  } catch (const std::exception&) {
  }
}

int runBackupTick(SalesforceCLI& cli, const Setup& setup) {
  // On the desktop when a session bus is there; the ledger keeps every notice
  // for `corvane schedule status` either way.
  return ScheduleTask::runBackupTick(cli, setup, [](const std::string& text) {
    std::cerr << text << "\n";
    DesktopNotification::post("Corvane scheduled backup", text);
  });
}

void reconcileAtLaunch(const Setup& setup, std::ostream& err) {
  err << ScheduleTask::reconcileAtLaunch(setup);
}

void setPowerWait(CommandContext& context, bool on) {
  PowerWait::set(on);
  context.out << (on ? "On battery, scheduled backups leave file downloads for a run on mains "
                       "power; a first download of files waits for mains power.\n"
                     : "Scheduled backups download files also on battery.\n");
}

void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen) {
  CLI::App* backup = app.get_subcommand("backup");
  CLI::App* sets = backup->add_subcommand("sets", "List, add and remove the backup sets");
  auto setsJSON = std::make_shared<bool>(false);
  sets->add_flag("--json", *setsJSON, "Print the sets as one JSON object");
  sets->callback([&context, &chosen, sets, setsJSON] {
    if (sets->get_subcommands().empty())
      chosen = [&context, setsJSON] { listSets(context, Setup::standard(), *setsJSON); };
  });

  CLI::App* addCommand =
      sets->add_subcommand("add", "Add or replace the backup set of one login");
  auto arguments = std::make_shared<SetArguments>();
  addCommand->add_option("LOGIN", arguments->login, "A username or alias")->required();
  addCommand->add_option("--root", arguments->root,
                         "The folder that holds the backups (default: Backups in the app's folder)");
  addCommand->add_option("--schedule", arguments->schedule,
                         "manual, hourly, daily HH:MM or weekly DAY HH:MM")
      ->expected(1, 3);
  addCommand->add_option("--full-every", arguments->fullEvery,
                         "How often a full copy is made: weekly, every4Weeks or never");
  addCommand->add_option("--keep", arguments->keep, "Keep the last N full copies (standard 3)");
  addCommand->add_flag("--keep-everything", arguments->keepEverything, "Never remove old copies");
  addCommand->add_flag("--files", arguments->files, "Also download file and attachment bodies");
  addCommand->add_flag("--all-versions", arguments->allVersions,
                       "All versions of files, not only the latest");
  addCommand->add_flag("--history-and-feed", arguments->historyAndFeed,
                       "Also back up field-history and feed objects");
  addCommand->add_flag("--formula-fields", arguments->formulaFields,
                       "Also write formula field values");
  addCommand->add_option("--extra", arguments->extra, "Objects to add")->delimiter(',');
  addCommand->add_option("--exclude", arguments->exclude, "Objects to leave out")->delimiter(',');
  addCommand->add_option("--only", arguments->only, "Back up only these objects")->delimiter(',');
  whenChosen(addCommand, chosen,
             [&context, arguments] { addSet(context, Setup::standard(), *arguments); });

  CLI::App* removeCommand = sets->add_subcommand("remove", "Remove the backup set of one login");
  auto login = std::make_shared<std::string>();
  removeCommand->add_option("LOGIN", *login, "A username")->required();
  whenChosen(removeCommand, chosen,
             [&context, login] { removeSet(context, Setup::standard(), *login); });

  CLI::App* schedule = app.add_subcommand("schedule", "The hourly check for scheduled backups");
  schedule->require_subcommand(1);
  CLI::App* statusCommand = schedule->add_subcommand(
      "status", "What is installed, the tick minute and the last tick's outcome");
  auto statusJSON = std::make_shared<bool>(false);
  statusCommand->add_flag("--json", *statusJSON, "Print the status as one JSON object");
  whenChosen(statusCommand, chosen,
             [&context, statusJSON] { status(context, Setup::standard(), *statusJSON); });
  CLI::App* powerWait = schedule->add_subcommand(
      "power-wait", "Whether scheduled file downloads wait for mains power (on or off)");
  auto powerWord = std::make_shared<std::string>();
  powerWait->add_option("STATE", *powerWord, "on or off")
      ->required()
      ->check(CLI::IsMember({"on", "off"}));
  whenChosen(powerWait, chosen,
             [&context, powerWord] { setPowerWait(context, *powerWord == "on"); });
}

}  // namespace corvane::ScheduleCommand
