#include "app/schedule_command.hpp"

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <iostream>

#include "platform/desktop_notification.hpp"

namespace corvane::ScheduleCommand {

namespace {

std::string lowered(std::string_view text) {
  std::string out(text);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

// "HH:MM" into hour and minute.
std::pair<int, int> clockTime(const std::string& text) {
  int hour = -1, minute = -1;
  char colon = 0;
  char rest = 0;
  if (std::sscanf(text.c_str(), "%d%c%d%c", &hour, &colon, &minute, &rest) != 3 || colon != ':' ||
      hour < 0 || hour > 23 || minute < 0 || minute > 59)
    throw BackupSetError::badTime(text);
  return {hour, minute};
}

int weekday(const std::string& text) {
  static const char* names[] = {"sunday",   "monday", "tuesday", "wednesday",
                                "thursday", "friday", "saturday"};
  const auto word = lowered(text);
  for (int i = 0; i < 7; ++i) {
    const std::string name = names[i];
    if (word == name || word == name.substr(0, 3) || word == std::to_string(i + 1)) return i + 1;
  }
  throw BackupSetError::badDay(text);
}

template <typename T>
nlohmann::ordered_json orNull(const std::optional<T>& value) {
  return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

std::string lastSuccess(const BackupSet& set) {
  return set.lastSuccessAt ? IsoTime::formatPlain(*set.lastSuccessAt) : "never";
}

std::optional<int> keepLastFulls(const BackupSet& set) {
  return set.retention.value_or(Retention::Policy::standard()).keepLastFulls;
}

std::string keepText(const BackupSet& set) {
  const auto keep = keepLastFulls(set);
  return keep ? fmt::format("last {} full", *keep) : "everything";
}

std::string setsJSON(const std::vector<BackupSet>& sets, const Setup& setup) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const auto& set : sets) {
    list.push_back({{"username", set.username},
                    {"orgKey", set.orgKey},
                    {"orgName", orNull(set.orgName)},
                    {"schedule", set.effectiveSchedule().text()},
                    {"fullCopy", toText(set.effectiveFullEvery())},
                    {"keepLastFulls", orNull(keepLastFulls(set))},
                    {"lastSuccessAt",
                     set.lastSuccessAt ? nlohmann::ordered_json(IsoTime::formatPlain(*set.lastSuccessAt))
                                       : nlohmann::ordered_json(nullptr)},
                    {"folder", set.location(setup.backupRoot).folder().string()},
                    {"includeFiles", set.includeFiles.value_or(false)},
                    {"onlyObjects", orNull(set.onlyObjects)}});
  }
  return nlohmann::ordered_json{{"sets", std::move(list)}}.dump(2) + "\n";
}

std::string statusJSON(const ScheduleTask::Status& status) {
  const std::string mismatch = status.mismatch();
  nlohmann::ordered_json out{
      {"installed", status.installed},
      {"scheduler", status.schedulerKind},
      {"schedulerFile",
       status.installed ? nlohmann::ordered_json(status.schedulerFile.string()) : nullptr},
      {"executable", status.installed ? orNull(status.executable) : nullptr},
      {"minute", status.installed ? orNull(status.minute) : nullptr},
      {"loaded", status.installed && status.loaded},
      {"tickMinute", orNull(status.tickMinute)},
      {"setsUnreadable", status.setsUnreadable.empty()
                             ? nlohmann::ordered_json(nullptr)
                             : nlohmann::ordered_json(status.setsUnreadable)},
      {"mismatch", mismatch.empty() ? nlohmann::ordered_json(nullptr)
                                    : nlohmann::ordered_json(mismatch)},
      {"filesWaitForPower", status.filesWaitForPower},
      {"lastTick", nullptr},
      {"notifications", nlohmann::ordered_json::array()}};
  if (const auto& tick = status.lastTick)
    out["lastTick"] = {{"startedAt", tick->startedAt}, {"result", tick->result}};
  for (const auto& notice : status.unseenNotices)
    out["notifications"].push_back({{"since", notice.since}, {"text", notice.text}});
  return out.dump(2) + "\n";
}

}  // namespace

BackupSchedule parseSchedule(const std::vector<std::string>& words) {
  const auto kind = words.empty() ? std::string() : lowered(words[0]);
  if (kind == "manual" && words.size() == 1) return BackupSchedule::manual();
  if (kind == "hourly" && words.size() == 1) return BackupSchedule::hourly();
  if (kind == "daily" && words.size() == 2) {
    const auto [hour, minute] = clockTime(words[1]);
    return BackupSchedule::daily(hour, minute);
  }
  if (kind == "weekly" && words.size() == 3) {
    const int day = weekday(words[1]);
    const auto [hour, minute] = clockTime(words[2]);
    return BackupSchedule::weekly(day, hour, minute);
  }
  throw BackupSetError::badSchedule();
}

void listSets(CommandContext& context, const Setup& setup, bool json) {
  const auto sets = ScheduleTask::sets(setup);
  if (json) {
    context.out << setsJSON(sets, setup);
    return;
  }
  if (sets.empty()) {
    context.out << "There are no backup sets. Add one with: corvane backup sets add LOGIN "
                   "--schedule daily 02:30\n";
    return;
  }
  context.out << fmt::format("{:<32} {:<18} {:<12} {:<14} {:<21} {}\n", "USERNAME", "SCHEDULE",
                             "FULL COPY", "KEEP", "LAST SUCCESS", "FOLDER");
  for (const auto& set : sets) {
    context.out << fmt::format(
        "{:<32} {:<18} {:<12} {:<14} {:<21} {}\n", set.username, set.effectiveSchedule().text(),
        toText(set.effectiveFullEvery()), keepText(set), lastSuccess(set),
        set.location(setup.backupRoot).folder().string());
  }
}

void addSet(CommandContext& context, const Setup& setup, const SetArguments& arguments) {
  if (arguments.keep && arguments.keepEverything) throw BackupSetError::keepBoth();
  if (arguments.keep && *arguments.keep < 1) throw BackupSetError::keepTooFew();
  BackupSet set;
  if (!arguments.schedule.empty()) set.schedule = parseSchedule(arguments.schedule);
  if (!arguments.fullEvery.empty()) {
    set.fullEvery = fullEveryFromText(arguments.fullEvery);
    if (!set.fullEvery) throw BackupSetError::badFullEvery();
  }
  const Org org = context.login(arguments.login);
  set.username = org.username;
  set.orgKey = org.orgId.value_or(org.username);
  set.orgName = org.name;
  if (!arguments.root.empty())
    set.rootPath = std::filesystem::absolute(arguments.root).lexically_normal().string();
  if (arguments.files) set.includeFiles = true;
  if (arguments.allVersions) set.allFileVersions = true;
  if (arguments.historyAndFeed) set.includeHistoryAndFeed = true;
  if (arguments.formulaFields) set.includeFormulaFields = true;
  if (!arguments.extra.empty()) set.extraObjects = arguments.extra;
  if (!arguments.exclude.empty()) set.excludedObjects = arguments.exclude;
  if (!arguments.only.empty()) set.onlyObjects = arguments.only;
  if (arguments.keep) set.retention = Retention::Policy{*arguments.keep};
  if (arguments.keepEverything) set.retention = Retention::Policy::keepEverything();

  const auto saved = ScheduleTask::saveSet(setup, std::move(set), context.now());
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
  // Shown notices are marked seen; a failure to mark them shows them again
  // next time, which is better than losing them.
  auto markSeen = [&] {
    if (status.unseenNotices.empty()) return;
    try {
      NoticeLedger::markSeen(setup.backupRoot);
    } catch (const std::exception&) {
    }
  };
  if (json) {
    context.out << statusJSON(status);
    markSeen();
    return;
  }
  if (status.installed) {
    context.out << fmt::format("Installed: the {} {}\n", status.schedulerKind,
                               status.schedulerFile.string());
    context.out << fmt::format("Runs: {} --backup-tick at minute {} of every hour\n",
                               status.executable.value_or("(unreadable)"),
                               status.minute ? std::to_string(*status.minute) : "(unreadable)");
    context.out << "Loaded: " << (status.loaded ? "yes" : "no") << "\n";
  } else {
    context.out << "Installed: nothing; no scheduled backup runs by itself.\n";
  }
  if (status.tickMinute) context.out << "Tick minute: " << *status.tickMinute << "\n";
  if (status.wish == ScheduleWish::unknown) context.out << status.setsUnreadable << "\n";
  if (const auto mismatch = status.mismatch(); !mismatch.empty()) context.out << mismatch << "\n";
  context.out << "Files wait for mains power: " << (status.filesWaitForPower ? "yes" : "no")
              << "\n";
  if (status.lastTick) {
    context.out << "Last tick: " << status.lastTick->startedAt << ": " << status.lastTick->result
                << "\n";
  } else {
    context.out << "Last tick: none yet\n";
  }
  if (!status.unseenNotices.empty()) {
    context.out << "Notifications not yet seen:\n";
    for (const auto& notice : status.unseenNotices)
      context.out << "  " << notice.since << ": " << notice.text << "\n";
    markSeen();
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
  addCommand->callback([&context, &chosen, arguments] {
    chosen = [&context, arguments] { addSet(context, Setup::standard(), *arguments); };
  });

  CLI::App* removeCommand = sets->add_subcommand("remove", "Remove the backup set of one login");
  auto login = std::make_shared<std::string>();
  removeCommand->add_option("LOGIN", *login, "A username")->required();
  removeCommand->callback([&context, &chosen, login] {
    chosen = [&context, login] { removeSet(context, Setup::standard(), *login); };
  });

  CLI::App* schedule = app.add_subcommand("schedule", "The hourly check for scheduled backups");
  schedule->require_subcommand(1);
  CLI::App* statusCommand = schedule->add_subcommand(
      "status", "What is installed, the tick minute and the last tick's outcome");
  auto statusJSON = std::make_shared<bool>(false);
  statusCommand->add_flag("--json", *statusJSON, "Print the status as one JSON object");
  statusCommand->callback([&context, &chosen, statusJSON] {
    chosen = [&context, statusJSON] { status(context, Setup::standard(), *statusJSON); };
  });
  CLI::App* powerWait = schedule->add_subcommand(
      "power-wait", "Whether scheduled file downloads wait for mains power (on or off)");
  auto powerWord = std::make_shared<std::string>();
  powerWait->add_option("STATE", *powerWord, "on or off")
      ->required()
      ->check(CLI::IsMember({"on", "off"}));
  powerWait->callback([&context, &chosen, powerWord] {
    chosen = [&context, powerWord] { setPowerWait(context, *powerWord == "on"); };
  });
}

}  // namespace corvane::ScheduleCommand
