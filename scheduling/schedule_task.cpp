#include "scheduling/schedule_task.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "backup/backup_location.hpp"
#include "backup/backup_task.hpp"
#include "connections/api_transport.hpp"
#include "connections/ascii.hpp"

namespace corvane {

BackupSetError BackupSetError::badTime(const std::string& text) {
  return {Kind::badTime, "\"" + text +
                             "\" is not a time of day. Give it as HH:MM in 24-hour form, such as "
                             "02:30."};
}

BackupSetError BackupSetError::badDay(const std::string& text) {
  return {Kind::badDay, "\"" + text +
                            "\" is not a day of the week. Give a day such as Sun, Monday or 1 "
                            "(Sunday) to 7 (Saturday)."};
}

BackupSetError BackupSetError::badSchedule() {
  return {Kind::badSchedule,
          "The schedule is one of: manual, hourly, daily HH:MM, or weekly DAY HH:MM (for "
          "example: --schedule weekly Sun 02:30)."};
}

BackupSetError BackupSetError::badFullEvery() {
  return {Kind::badFullEvery, "--full-every is one of: weekly, every4Weeks, never."};
}

BackupSetError BackupSetError::keepBoth() {
  return {Kind::keepBoth, "Give either --keep N or --keep-everything, not both."};
}

BackupSetError BackupSetError::keepTooFew() {
  return {Kind::keepTooFew, "--keep needs at least 1: the newest full copy is always kept."};
}

BackupSetError BackupSetError::noSuchSet(const std::string& login) {
  return {Kind::noSuchSet, "There is no backup set for \"" + login +
                               "\". Run \"corvane backup sets\" to see them."};
}

BackupSetError BackupSetError::setsUnreadable(const BackupRegistry& registry) {
  return {Kind::setsUnreadable, registry.unreadableMessage()};
}

namespace ScheduleTask {

namespace {

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
std::string reconcile(const Setup& setup) {
  const auto scheduler = setup.scheduler();
  const auto result = BackupScheduleSetup::reconcileAtLaunch(
      registryOf(setup), *scheduler, setup.defaults, isDemo(), setup.executable);
  return changeText(result, *scheduler);
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

namespace {

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
  const auto word = Ascii::lowered(text);
  for (int i = 0; i < 7; ++i) {
    const std::string name = names[i];
    if (word == name || word == name.substr(0, 3) || word == std::to_string(i + 1)) return i + 1;
  }
  throw BackupSetError::badDay(text);
}

}  // namespace

BackupSchedule parseSchedule(const std::vector<std::string>& words) {
  const auto kind = words.empty() ? std::string() : Ascii::lowered(words[0]);
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

BackupSet newSet(const SetRequest& request,
                 const std::function<Org(const std::string& login)>& findLogin) {
  if (request.keep && request.keepEverything) throw BackupSetError::keepBoth();
  if (request.keep && *request.keep < 1) throw BackupSetError::keepTooFew();
  BackupSet set;
  if (!request.schedule.empty()) set.schedule = parseSchedule(request.schedule);
  if (!request.fullEvery.empty()) {
    set.fullEvery = fullEveryFromText(request.fullEvery);
    if (!set.fullEvery) throw BackupSetError::badFullEvery();
  }
  const Org org = findLogin(request.login);
  set.username = org.username;
  set.orgKey = org.orgId.value_or(org.username);
  set.orgName = org.name;
  if (!request.root.empty())
    set.rootPath = std::filesystem::absolute(request.root).lexically_normal().string();
  if (request.files) set.includeFiles = true;
  if (request.allVersions) set.allFileVersions = true;
  if (request.historyAndFeed) set.includeHistoryAndFeed = true;
  if (request.formulaFields) set.includeFormulaFields = true;
  if (!request.extra.empty()) set.extraObjects = request.extra;
  if (!request.exclude.empty()) set.excludedObjects = request.exclude;
  if (!request.only.empty()) set.onlyObjects = request.only;
  if (request.keep) set.retention = Retention::Policy{*request.keep};
  if (request.keepEverything) set.retention = Retention::Policy::keepEverything();
  return set;
}

std::vector<BackupSet> sets(const Setup& setup) {
  const auto registry = registryOf(setup);
  auto loaded = registry.load();
  if (loaded.isUnreadable()) throw BackupSetError::setsUnreadable(registry);
  return std::move(loaded.sets);
}

Saved saveSet(const Setup& setup, BackupSet set, SystemTime now) {
  const auto registry = registryOf(setup);
  set.created = now;
  for (const auto& existing : registry.load().sets) {
    if (Ascii::equalsIgnoringCase(existing.username, set.username)) {
      // Replacing a set keeps its history.
      set.created = existing.created;
      set.lastSuccessAt = existing.lastSuccessAt;
    }
  }
  registry.upsert(set);
  return {std::move(set), reconcile(setup)};
}

Removed removeSet(const Setup& setup, const std::string& login) {
  const auto all = sets(setup);
  const auto found = std::find_if(all.begin(), all.end(), [&](const BackupSet& set) {
    return Ascii::equalsIgnoringCase(set.username, login);
  });
  if (found == all.end()) throw BackupSetError::noSuchSet(login);
  registryOf(setup).remove(found->username);
  return {found->username, reconcile(setup)};
}

std::string Status::mismatch() const {
  if (wish == ScheduleWish::unknown || (wish == ScheduleWish::scheduled) == installed) return {};
  return wish == ScheduleWish::scheduled
             ? "Some backup sets have a schedule but nothing is installed to run them. Change "
               "or re-add a set to install it."
             : "No backup set has a schedule, yet a schedule is installed. Remove or re-add a "
               "set to take it away.";
}

Status status(const Setup& setup) {
  Status status;
  const auto scheduler = setup.scheduler();
  const auto state = scheduler->current(true);
  const auto registry = registryOf(setup);
  status.installed = state.installed;
  status.schedulerKind = scheduler->kindName();
  status.schedulerFile = scheduler->fileURL();
  status.executable = state.executablePath;
  status.minute = state.minute;
  status.loaded = state.loaded.value_or(false);
  if (const auto minute = setup.defaults.tickMinute(); minute && *minute >= 1 && *minute <= 59)
    status.tickMinute = minute;
  status.wish = registry.scheduleWish();
  if (status.wish == ScheduleWish::unknown) status.setsUnreadable = registry.unreadableMessage();
  status.filesWaitForPower = PowerWait::isOn();
  status.lastTick = LastTick::read(setup.backupRoot);
  status.unseenNotices = NoticeLedger::unseen(setup.backupRoot);
  return status;
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
    const auto summary = BackupTask::run(transport, request.config, request.kind,
                                         shared->access.stop, shared->access.progress);
    if (summary.succeeded()) {
      auto outcome = SetRunOutcome::success();
      outcome.unusualDeletions = summary.unusualDeletions;
      return outcome;
    }
    return SetRunOutcome::failed(summary.message.empty() ? "the backup stopped" : summary.message);
  };
}

int runBackupTick(SalesforceCLI& cli, const Setup& setup,
                  std::function<void(const std::string&)> notify) {
  HeadlessBackup::Environment environment;
  environment.backupRoot = setup.backupRoot;
  environment.registryDirectory = setup.registryDirectory;
  environment.heavyWorkWaitsForPower = PowerWait::isOn();
  environment.notify = std::move(notify);
  OrgAccess access;
  access.logins = [&cli] { return cli.listOrgs(true, std::chrono::milliseconds(120'000)); };
  access.session = [&cli](const std::string& username) { return cli.session(username); };
  environment.runSet = backupSetRunner(std::move(access));
  return HeadlessBackup::run(environment);
}

std::string reconcileAtLaunch(const Setup& setup) {
  try {
    // A missing backup-sets.json reads as no sets: a timer left behind goes.
    const auto registry = registryOf(setup);
    const auto wish = registry.scheduleWish();
    if (wish == ScheduleWish::unknown) return registry.unreadableMessage() + "\n";
    const auto scheduler = setup.scheduler();
    if (wish == ScheduleWish::none && !scheduler->current(false).installed) return {};
    // The service is asked too, so that a timer or agent stopped, disabled or
    // booted out behind the program's back is installed again.
    const auto state = scheduler->current(wish == ScheduleWish::scheduled);
    const auto minute = setup.defaults.tickMinute();
    if (wish == ScheduleWish::scheduled && state.installed && state.loaded.value_or(false) &&
        minute && state.minute == minute && state.executablePath == setup.executable.string())
      return {};
    const auto result = BackupScheduleSetup::reconcileAtLaunch(
        registry, *scheduler, setup.defaults, isDemo(), setup.executable);
    return changeText(result, *scheduler);
  } catch (const std::exception& error) {
    return std::string(error.what()) + "\n";
  }
}

}  // namespace ScheduleTask

}  // namespace corvane
