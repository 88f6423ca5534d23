#include "app/schedule_command.hpp"

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <cstdlib>
#include <iostream>

#include "app/backup_command.hpp"
#include "app/command_error.hpp"
#include "backup/backup_location.hpp"
#include "connections/api_transport.hpp"
#include "connections/ascii.hpp"
#include "platform/app_support.hpp"
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
    throw SetArgumentError("\"" + text +
                           "\" is not a time of day. Give it as HH:MM in 24-hour form, such as "
                           "02:30.");
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
  throw SetArgumentError("\"" + text +
                         "\" is not a day of the week. Give a day such as Sun, Monday or 1 "
                         "(Sunday) to 7 (Saturday).");
}

std::string lastSuccess(const BackupSet& set) {
  return set.lastSuccessAt ? IsoTime::formatPlain(*set.lastSuccessAt) : "never";
}

std::string keepText(const BackupSet& set) {
  const auto policy = set.retention.value_or(Retention::Policy::standard());
  return policy.keepLastFulls ? fmt::format("last {} full", *policy.keepLastFulls) : "everything";
}

BackupRegistry registryOf(const Setup& setup) { return BackupRegistry(setup.registryDirectory); }

// What a reconciliation changed, for a person; empty when nothing did.
std::string changeText(const BackupScheduleSetup::Result& result, const BackupScheduler& scheduler) {
  switch (result.kind) {
    case BackupScheduleSetup::Result::Kind::installed:
      return fmt::format("Scheduled backups are on: the {} starts a check every hour at minute "
                         "{}.\n",
                         scheduler.kindName(), result.minute);
    case BackupScheduleSetup::Result::Kind::removed:
      return fmt::format("No backup set has a schedule any more: the {} was removed.\n",
                         scheduler.kindName());
    case BackupScheduleSetup::Result::Kind::setsUnreadable:
      return result.message + "\n";
    case BackupScheduleSetup::Result::Kind::unchanged:
      break;
  }
  return {};
}

bool isDemo() {
  const char* demo = std::getenv("CORVANE_DEMO");
  return demo != nullptr && std::string_view(demo) == "1";
}

// Brings the wake-up in line with the sets and says what changed.
void reconcile(CommandContext& context, const Setup& setup) {
  const auto scheduler = setup.scheduler();
  const auto result = BackupScheduleSetup::reconcileAtLaunch(
      registryOf(setup), *scheduler, setup.defaults, isDemo(), setup.executable);
  context.out << changeText(result, *scheduler);
}

// The login of a set: its username, in any case. Aliases are not used here: a
// set names one login for good.
const Org* loginOf(const std::vector<Org>& orgs, const std::string& username) {
  for (const auto& org : orgs)
    if (Ascii::equalsIgnoringCase(org.username, username)) return &org;
  return nullptr;
}

}  // namespace

Setup Setup::standard() {
  Setup setup;
  setup.registryDirectory = BackupRegistry::standardDirectory();
  setup.backupRoot = BackupLocation::defaultRoot();
  setup.scheduler = [] { return BackupScheduler::forThisMachine(); };
  setup.defaults = BackupScheduleSetup::Defaults::settings();
  setup.executable = BackupScheduleSetup::currentExecutablePath();
  return setup;
}

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
  throw SetArgumentError(
      "The schedule is one of: manual, hourly, daily HH:MM, or weekly DAY HH:MM (for example: "
      "--schedule weekly Sun 02:30).");
}

void listSets(CommandContext& context, const Setup& setup) {
  const auto registry = registryOf(setup);
  const auto loaded = registry.load();
  if (loaded.isUnreadable()) throw UserFacingError(registry.unreadableMessage());
  if (loaded.sets.empty()) {
    context.out << "There are no backup sets. Add one with: corvane backup sets add LOGIN "
                   "--schedule daily 02:30\n";
    return;
  }
  context.out << fmt::format("{:<32} {:<18} {:<12} {:<14} {:<21} {}\n", "USERNAME", "SCHEDULE",
                             "FULL COPY", "KEEP", "LAST SUCCESS", "FOLDER");
  for (const auto& set : loaded.sets) {
    context.out << fmt::format(
        "{:<32} {:<18} {:<12} {:<14} {:<21} {}\n", set.username, set.effectiveSchedule().text(),
        toText(set.effectiveFullEvery()), keepText(set), lastSuccess(set),
        set.location(setup.backupRoot).folder().string());
  }
}

void addSet(CommandContext& context, const Setup& setup, const SetArguments& arguments) {
  if (arguments.keep && arguments.keepEverything)
    throw SetArgumentError("Give either --keep N or --keep-everything, not both.");
  if (arguments.keep && *arguments.keep < 1)
    throw SetArgumentError("--keep needs at least 1: the newest full copy is always kept.");
  BackupSet set;
  if (!arguments.schedule.empty()) set.schedule = parseSchedule(arguments.schedule);
  if (!arguments.fullEvery.empty()) {
    set.fullEvery = fullEveryFromText(arguments.fullEvery);
    if (!set.fullEvery)
      throw SetArgumentError("--full-every is one of: weekly, every4Weeks, never.");
  }
  auto orgs = context.cli.listOrgs(true, context.listTimeout);
  const Org& org = OrgsCommand::findLogin(orgs, arguments.login);
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

  const auto registry = registryOf(setup);
  set.created = context.now();
  for (const auto& existing : registry.load().sets) {
    if (lowered(existing.username) == lowered(set.username)) {
      // Replacing a set keeps its history.
      set.created = existing.created;
      set.lastSuccessAt = existing.lastSuccessAt;
    }
  }
  registry.upsert(set);
  context.out << fmt::format("Backup set for {} saved: {}, backups in {}.\n", set.username,
                             set.effectiveSchedule().text(),
                             set.location(setup.backupRoot).folder().string());
  reconcile(context, setup);
}

void removeSet(CommandContext& context, const Setup& setup, const std::string& login) {
  const auto registry = registryOf(setup);
  const auto loaded = registry.load();
  if (loaded.isUnreadable()) throw UserFacingError(registry.unreadableMessage());
  const auto found = std::find_if(loaded.sets.begin(), loaded.sets.end(), [&](const BackupSet& set) {
    return lowered(set.username) == lowered(login);
  });
  if (found == loaded.sets.end())
    throw SetArgumentError("There is no backup set for \"" + login +
                           "\". Run \"corvane backup sets\" to see them.");
  const std::string username = found->username;
  registry.remove(username);
  context.out << "Backup set for " << username
              << " removed. Its backups stay where they are.\n";
  reconcile(context, setup);
}

void status(CommandContext& context, const Setup& setup) {
  const auto scheduler = setup.scheduler();
  const auto state = scheduler->current(true);
  const auto registry = registryOf(setup);
  const auto wish = registry.scheduleWish();
  if (state.installed) {
    context.out << fmt::format("Installed: the {} {}\n", scheduler->kindName(),
                               scheduler->fileURL().string());
    context.out << fmt::format("Runs: {} --backup-tick at minute {} of every hour\n",
                               state.executablePath.value_or("(unreadable)"),
                               state.minute ? std::to_string(*state.minute) : "(unreadable)");
    context.out << "Loaded: " << (state.loaded.value_or(false) ? "yes" : "no") << "\n";
  } else {
    context.out << "Installed: nothing; no scheduled backup runs by itself.\n";
  }
  if (const auto minute = setup.defaults.tickMinute(); minute && *minute >= 1 && *minute <= 59)
    context.out << "Tick minute: " << *minute << "\n";
  if (wish == ScheduleWish::unknown) {
    context.out << registry.unreadableMessage() << "\n";
  } else if ((wish == ScheduleWish::scheduled) != state.installed) {
    context.out << (wish == ScheduleWish::scheduled
                        ? "Some backup sets have a schedule but nothing is installed to run "
                          "them. Change or re-add a set to install it.\n"
                        : "No backup set has a schedule, yet a schedule is installed. Remove or "
                          "re-add a set to take it away.\n");
  }
  context.out << "Files wait for mains power: " << (PowerWait::isOn() ? "yes" : "no") << "\n";
  if (const auto tick = LastTick::read(setup.backupRoot)) {
    context.out << "Last tick: " << tick->startedAt << ": " << tick->result << "\n";
  } else {
    context.out << "Last tick: none yet\n";
  }
  const auto notices = NoticeLedger::unseen(setup.backupRoot);
  if (!notices.empty()) {
    context.out << "Notifications not yet seen:\n";
    for (const auto& notice : notices) context.out << "  " << notice.since << ": " << notice.text << "\n";
    try {
      NoticeLedger::markSeen(setup.backupRoot);
    } catch (const std::exception&) {
      // Shown again next time: better than lost.
    }
  }
}

SetRunner backupSetRunner(OrgAccess access) {
  struct Shared {
    OrgAccess access;
    std::optional<std::vector<Org>> orgs;  // listed at the first due set
    std::string listFailure;
  };
  auto shared = std::make_shared<Shared>();
  shared->access = std::move(access);
  return [shared](const SetRunRequest& request) {
    if (!shared->orgs && shared->listFailure.empty()) {
      try {
        shared->orgs = shared->access.logins();
      } catch (const std::exception& error) {
        shared->listFailure = error.what();
      }
    }
    if (!shared->orgs)
      return SetRunOutcome::notStarted(
          "The Salesforce CLI could not list its logins, so the backup did not run (" +
          shared->listFailure + "). It tries again at the next tick.");
    const Org* org = loginOf(*shared->orgs, request.set.username);
    if (org == nullptr)
      return SetRunOutcome::notStarted(
          "The login " + request.set.username +
          " is no longer known to the Salesforce CLI, so its backup did not run. Log in again "
          "with \"sf org login web\" and the backup runs at the next tick, or remove its backup "
          "set.");
    SalesforceAPI::Client api(shared->access.session);
    APITransport transport(api, *org);
    auto progress = shared->access.progress;
    auto runner = BackupCommand::makeRunner(transport, request.config,
                                            [progress](const BackupProgress& value) {
                                              if (progress) progress(value);
                                            });
    const auto summary = runner->run(request.kind);
    if (summary.succeeded()) {
      auto outcome = SetRunOutcome::success();
      outcome.unusualDeletions = summary.unusualDeletions;
      return outcome;
    }
    return SetRunOutcome::failed(summary.message.empty() ? "the backup stopped" : summary.message);
  };
}

int runBackupTick(SalesforceCLI& cli, const Setup& setup) {
  HeadlessBackup::Environment environment;
  environment.backupRoot = setup.backupRoot;
  environment.registryDirectory = setup.registryDirectory;
  environment.heavyWorkWaitsForPower = PowerWait::isOn();
  // On the desktop when a session bus is there; the ledger keeps every notice
  // for `corvane schedule status` either way.
  environment.notify = [](const std::string& text) {
    std::cerr << text << "\n";
    DesktopNotification::post("Corvane scheduled backup", text);
  };
  OrgAccess access;
  access.logins = [&cli] { return cli.listOrgs(true, std::chrono::milliseconds(120'000)); };
  access.session = [&cli](const std::string& username) { return cli.session(username); };
  environment.runSet = backupSetRunner(std::move(access));
  return HeadlessBackup::run(environment);
}

void reconcileAtLaunch(const Setup& setup, std::ostream& err) {
  try {
    // A missing backup-sets.json reads as no sets: a timer left behind goes.
    const auto registry = registryOf(setup);
    const auto wish = registry.scheduleWish();
    if (wish == ScheduleWish::unknown) {
      err << registry.unreadableMessage() << "\n";
      return;
    }
    const auto scheduler = setup.scheduler();
    if (wish == ScheduleWish::none && !scheduler->current(false).installed) return;
    // The service is asked too, so that a timer or agent stopped, disabled or
    // booted out behind the program's back is installed again.
    const auto state = scheduler->current(wish == ScheduleWish::scheduled);
    const auto minute = setup.defaults.tickMinute();
    if (wish == ScheduleWish::scheduled && state.installed && state.loaded.value_or(false) &&
        minute && state.minute == minute && state.executablePath == setup.executable.string())
      return;
    const auto result = BackupScheduleSetup::reconcileAtLaunch(
        registry, *scheduler, setup.defaults, isDemo(), setup.executable);
    err << changeText(result, *scheduler);
  } catch (const std::exception& error) {
    err << error.what() << "\n";
  }
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
  sets->callback([&context, &chosen, sets] {
    if (sets->get_subcommands().empty())
      chosen = [&context] { listSets(context, Setup::standard()); };
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
  statusCommand->callback(
      [&context, &chosen] { chosen = [&context] { status(context, Setup::standard()); }; });
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
