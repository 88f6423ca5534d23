#include "scheduling/scheduled_backups.hpp"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "backup/backup_error.hpp"
#include "backup/backup_store.hpp"
#include "backup/folder_access.hpp"
#include "platform/app_support.hpp"
#include "platform/durable_file.hpp"

namespace corvane {

namespace {

using nlohmann::json;

std::optional<SystemTime> parseTime(const std::string& text) {
  if (auto fractional = IsoTime::parseFractional(text)) return fractional;
  return IsoTime::parsePlain(text);
}

std::string sentence(std::string text) {
  while (!text.empty() && text.back() == ' ') text.pop_back();
  if (!text.empty() && text.back() != '.' && text.back() != '!' && text.back() != '?') text += '.';
  return text;
}

// Why the set's folder cannot be reached now without touching it: its backup
// disk is not connected, or the folder the user chose is gone. None when it
// can be.
std::optional<std::string> placeProblem(const BackupSet& set, const BackupLocation& location,
                                        const BackupVolumes& volumes) {
  const auto reach = volumes.reach(location.folder());
  if (reach.kind == BackupFolderState::Kind::driveNotConnected)
    return BackupError::driveNotConnected(reach.name).description();
  std::error_code error;
  if (set.rootPath && !std::filesystem::is_directory(location.root, error)) {
    return "Its backup folder " + location.root.string() +
           " cannot be found. If it is on a disk that is not connected, connect the disk; the "
           "backup runs at the next tick.";
  }
  return std::nullopt;
}

// Why the set's folder cannot be written, found by writing a small file in
// its deepest existing folder; none when it can. Nothing else is created.
std::optional<std::string> writeProblem(const BackupSet& set, const BackupLocation& location,
                                        const BackupVolumes& volumes) {
  switch (FolderWriteProbe::write(location.folder(), FolderWriteProbe::tickDeadline)) {
    case FolderAccess::writable:
      return std::nullopt;
    case FolderAccess::refused:
#ifdef __APPLE__
      return BackupAccessText::needsPermission(set.orgName.value_or(set.username),
                                               volumes.volumeName(location.folder()));
#else
      (void)set;
      (void)volumes;
      return "Corvane cannot write to its backup folder " + location.folder().string() +
             ". Check the folder's permissions, or choose another folder for this backup.";
#endif
    case FolderAccess::didNotAnswer:
      return "The disk of the backup folder " + location.folder().string() +
             " did not answer within " +
             std::to_string(static_cast<int>(FolderWriteProbe::tickDeadline)) +
             " seconds, so the backup did not start. It tries again at the next tick.";
  }
  return std::nullopt;
}

SetTickOutcome failed(const std::string& username, std::string why, bool ran) {
  SetTickOutcome outcome;
  outcome.username = username;
  outcome.kind = SetTickOutcome::Kind::failed;
  outcome.failure = sentence(std::move(why));
  outcome.ran = ran;
  return outcome;
}

}  // namespace

TickLockFailure::TickLockFailure(const std::filesystem::path& path)
    : UserFacingError("The scheduled backup could not open its lock file " + path.string() +
                      ", so it did not run. Check that the backup folder can be written.") {}

namespace TickLock {

std::optional<FileLock> acquire(const std::filesystem::path& backupRoot) {
  const auto path = backupRoot / fileName;
  try {
    std::filesystem::create_directories(backupRoot);
    return FileLock::tryAcquire(path);
  } catch (const std::exception&) {
    throw TickLockFailure(path);
  }
}

}  // namespace TickLock

SetHistory readSetHistory(const BackupLocation& location) {
  SetHistory history;
  std::error_code error;
  if (!std::filesystem::exists(location.databaseURL(), error)) return history;
  BackupStore store(location);
  const auto runs = store.runs();
  for (const auto& run : runs) {
    if (!run.isUsable()) continue;
    if (run.kind == RunKind::full) {
      if (auto started = parseTime(run.startedAt)) history.lastFull = started;
    }
    if (run.filesWaiting == 0) {
      history.firstFilesDone = true;
      history.filesWaitingSince.reset();
    } else if (!history.filesWaitingSince) {
      history.filesWaitingSince = parseTime(run.startedAt);
    }
  }
  history.unfinishedRun = !runs.empty() && !runs.back().isFinished();
  return history;
}

int BackupTickResult::runCount() const {
  int count = 0;
  for (const auto& set : sets) count += set.ran ? 1 : 0;
  return count;
}

std::string BackupTickResult::summary() const {
  if (setsUnreadable)
    return "Your backup settings could not be read, so nothing was run. Open Corvane to see "
           "what happened.";
  const int count = runCount();
  std::string text = count == 1 ? "Ran 1 backup. " : "Ran " + std::to_string(count) + " backups. ";
  bool waiting = false;
  for (const auto& set : sets) {
    if (set.kind == SetTickOutcome::Kind::failed) {
      text += "The backup of " + set.username + " did not finish: " + set.failure + " ";
    } else if (set.kind == SetTickOutcome::Kind::waiting) {
      text += "The backup of " + set.username +
              (set.waitReason == BackupSchedule::WaitReason::offline
                   ? " is waiting for a network connection. "
                   : " is waiting for mains power. ");
      waiting = true;
    }
  }
  if (waiting) text += "It will try again within the hour.";
  return text;
}

namespace ScheduledBackups {

BackupTickResult tick(const TickContext& context) {
  BackupTickResult result;
  const auto loaded = context.registry->load();
  if (loaded.isUnreadable()) {
    result.setsUnreadable = true;
    return result;
  }
  for (const auto& set : loaded.sets) {
    if (!set.hasSchedule()) continue;
    const auto config = set.config(context.defaultRoot);
    SetTickOutcome outcome;
    outcome.username = set.username;
    try {
      if (auto problem = placeProblem(set, config.location, context.volumes)) {
        // Only a due set is worth a word: an unplugged disk between slots is
        // normal. Its history is on that disk, so the schedule alone decides.
        const auto decision = set.effectiveSchedule().decide(
            context.now(), context.calendar, set.lastSuccessAt, std::nullopt,
            set.effectiveFullEvery(), false, {});
        if (decision.kind != BackupSchedule::Decision::Kind::notDue)
          result.sets.push_back(failed(set.username, *problem, false));
        else
          result.sets.push_back(outcome);
        continue;
      }
      const auto history = context.history(config.location);
      outcome.filesWaitingSince = history.filesWaitingSince;
      BackupSchedule::Conditions conditions;
      conditions.onBattery = context.conditions.onBattery;
      conditions.networkAvailable = context.conditions.networkAvailable;
      conditions.heavyWorkWaitsForPower = context.heavyWorkWaitsForPower;
      conditions.firstFilesDone = !config.downloadFileBodies || history.firstFilesDone;
      const auto decision = set.effectiveSchedule().decide(
          context.now(), context.calendar, set.lastSuccessAt, history.lastFull,
          set.effectiveFullEvery(), history.unfinishedRun, conditions);
      if (decision.kind == BackupSchedule::Decision::Kind::notDue) {
        result.sets.push_back(outcome);
        continue;
      }
      if (decision.kind == BackupSchedule::Decision::Kind::wait) {
        outcome.kind = SetTickOutcome::Kind::waiting;
        outcome.waitReason = decision.reason;
        result.sets.push_back(outcome);
        continue;
      }
      if (auto problem = writeProblem(set, config.location, context.volumes)) {
        auto refused = failed(set.username, *problem, false);
        refused.filesWaitingSince = outcome.filesWaitingSince;
        result.sets.push_back(refused);
        continue;
      }
      SetRunRequest request{set, config, decision.runKind,
                            decision.downloadFiles && config.downloadFileBodies};
      request.config.downloadFileBodies = request.downloadFiles;
      SetRunOutcome run;
      try {
        run = context.runSet(request);
      } catch (const UserFacingError& error) {
        run = SetRunOutcome::failed(error.description());
      } catch (const std::exception&) {
        run = SetRunOutcome::failed("the backup stopped");
      }
      if (!run.succeeded) {
        auto failure = failed(set.username,
                              run.failure.empty() ? "the backup stopped" : run.failure,
                              run.started);
        failure.filesWaitingSince = outcome.filesWaitingSince;
        result.sets.push_back(failure);
        continue;
      }
      outcome.kind = SetTickOutcome::Kind::succeeded;
      outcome.ran = true;
      outcome.unusualDeletions = run.unusualDeletions;
      try {
        outcome.filesWaitingSince = context.history(config.location).filesWaitingSince;
      } catch (const std::exception&) {
      }
      context.registry->recordSuccess(set.username, context.now());
      result.sets.push_back(outcome);
    } catch (const UserFacingError& error) {
      result.sets.push_back(failed(set.username, error.description(), outcome.ran));
    } catch (const std::exception& error) {
      result.sets.push_back(failed(set.username, error.what(), outcome.ran));
    }
  }
  return result;
}

}  // namespace ScheduledBackups

namespace LastTick {

void recordCheckStarted(const std::filesystem::path& backupRoot, SystemTime startedAt) {
  recordLastTick(backupRoot, startedAt, startedAt, checking);
}

void recordLastTick(const std::filesystem::path& backupRoot, SystemTime startedAt,
                    SystemTime recordedAt, const std::string& result) {
  const json record = {{"result", result},
                       {"startedAt", IsoTime::formatPlain(startedAt)},
                       {"recordedAt", IsoTime::formatPlain(recordedAt)}};
  std::filesystem::create_directories(backupRoot);
  Durable::replace(backupRoot / fileName, record.dump(2) + "\n", 0600);
}

std::optional<Record> read(const std::filesystem::path& backupRoot) {
  try {
    const auto text = Durable::readWhole(backupRoot / fileName);
    if (!text) return std::nullopt;
    const auto record = json::parse(*text);
    return Record{record.at("result").get<std::string>(),
                  record.value("startedAt", std::string()),
                  record.value("recordedAt", std::string())};
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace LastTick

namespace NoticeLedger {

std::vector<std::string> update(const std::filesystem::path& backupRoot,
                                const BackupTickResult& result, SystemTime now) {
  const auto path = backupRoot / fileName;
  json ledger = json::object();
  // A ledger that cannot be read just now is neither set aside nor written
  // over: its notices are told again, which beats never telling.
  bool writable = true;
  try {
    if (const auto text = Durable::readWhole(path)) {
      ledger = json::parse(*text, nullptr, false);
      if (ledger.is_discarded() || !ledger.is_object() ||
          !ledger.value("notices", json::object()).is_object()) {
        try {
          Durable::moveAside(path, now);
        } catch (const std::exception&) {
          writable = false;
        }
        ledger = json::object();
      }
    }
  } catch (const std::exception&) {
    writable = false;
    ledger = json::object();
  }
  json notices = ledger.value("notices", json::object());

  // Problems of this tick. A set's failure (or its wait for power) is keyed
  // by its username, so that its notice is replaced when the problem changes
  // and dropped when the set succeeds; unusual deletions and owed documents
  // have keys of their own.
  std::vector<std::string> toTell;
  auto raise = [&](const std::string& key, const std::string& problem, const std::string& text) {
    const auto known = notices.find(key);
    if (known != notices.end() && known->value("problem", "") == problem) return;
    toTell.push_back(text);
    notices[key] = {{"problem", problem},
                    {"since", IsoTime::formatPlain(now)},
                    {"text", text},
                    {"seen", false}};
  };
  if (result.setsUnreadable) {
    raise("", "unreadable", result.summary());
  } else {
    notices.erase("");
  }
  for (const auto& set : result.sets) {
    const std::string& name = set.username;
    if (set.kind == SetTickOutcome::Kind::failed) {
      raise(name, set.failure,
            "The scheduled backup of " + name + " did not finish: " + set.failure);
    } else if (set.kind == SetTickOutcome::Kind::succeeded) {
      notices.erase(name);
      if (set.unusualDeletions.empty()) {
        notices.erase(name + "|deletions");
      } else {
        std::string list;
        for (const auto& count : set.unusualDeletions) {
          if (!list.empty()) list += ", ";
          list += std::to_string(count.deleted + count.missing) + " " + count.object;
        }
        raise(name + "|deletions", list,
              "The scheduled backup of " + name + " found unusually many records deleted (" +
                  list + "). Check with \"corvane backup deleted " + name +
                  "\" that this was meant.");
      }
    } else if (set.kind == SetTickOutcome::Kind::waiting &&
               set.waitReason == BackupSchedule::WaitReason::needsPower) {
      raise(name, "needsPower",
            "The scheduled backup of " + name +
                " is waiting for mains power to download files. Connect the power adapter.");
    }
    if (set.filesWaitingSince && now - *set.filesWaitingSince > filesOwedGrace) {
      const auto days = std::chrono::floor<std::chrono::days>(now - *set.filesWaitingSince).count();
      raise(name + "|filesOwed", "filesOwed",
            "The backup of " + name + " has owed documents for " + std::to_string(days) +
                " days: their bodies have not been downloaded yet. They are fetched by the next "
                "run on mains power with a working connection.");
    } else if (set.kind == SetTickOutcome::Kind::succeeded) {
      notices.erase(name + "|filesOwed");
    }
  }
  ledger["notices"] = notices;
  try {
    if (writable) {
      std::filesystem::create_directories(backupRoot);
      Durable::replace(path, ledger.dump(2) + "\n", 0600);
    }
  } catch (const std::exception&) {
    // Without a ledger the notice comes again next hour: better than never.
  }
  return toTell;
}

namespace {

std::optional<json> readLedger(const std::filesystem::path& backupRoot) {
  try {
    const auto text = Durable::readWhole(backupRoot / fileName);
    if (!text) return std::nullopt;
    auto ledger = json::parse(*text, nullptr, false);
    if (ledger.is_discarded() || !ledger.is_object()) return std::nullopt;
    return ledger;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace

std::vector<Notice> unseen(const std::filesystem::path& backupRoot) {
  std::vector<Notice> out;
  const auto ledger = readLedger(backupRoot);
  if (!ledger) return out;
  const auto notices = ledger->value("notices", json::object());
  if (!notices.is_object()) return out;
  for (const auto& [key, notice] : notices.items()) {
    if (!notice.is_object() || notice.value("seen", true)) continue;
    out.push_back({notice.value("text", std::string()), notice.value("since", std::string())});
  }
  std::stable_sort(out.begin(), out.end(),
                   [](const Notice& a, const Notice& b) { return a.since < b.since; });
  return out;
}

void markSeen(const std::filesystem::path& backupRoot) {
  auto ledger = readLedger(backupRoot);
  if (!ledger || !ledger->contains("notices") || !(*ledger)["notices"].is_object()) return;
  bool changed = false;
  for (auto& [key, notice] : (*ledger)["notices"].items()) {
    if (notice.is_object() && !notice.value("seen", true)) {
      notice["seen"] = true;
      changed = true;
    }
  }
  if (changed) Durable::replace(backupRoot / fileName, ledger->dump(2) + "\n", 0600);
}

}  // namespace NoticeLedger

namespace PowerWait {

bool isOn() {
  try {
    const auto settings = Settings::load();
    const auto found = settings.find(settingKey);
    return found != settings.end() && found->is_boolean() && found->get<bool>();
  } catch (const std::exception&) {
    return false;
  }
}

void set(bool on) { Settings::set(settingKey, on); }

}  // namespace PowerWait

namespace HeadlessBackup {

int run(const Environment& environment) {
  std::optional<FileLock> lock;
  try {
    lock = TickLock::acquire(environment.backupRoot);
  } catch (const TickLockFailure& failure) {
    if (environment.notify) environment.notify(failure.description());
    return 1;
  }
  if (!lock) return 0;  // another tick is at work

  const auto startedAt = environment.now();
  try {
    LastTick::recordCheckStarted(environment.backupRoot, startedAt);
  } catch (const std::exception& error) {
    if (environment.notify) environment.notify(error.what());
    return 1;
  }
  const BackupRegistry registry(environment.registryDirectory.empty()
                                    ? BackupRegistry::standardDirectory()
                                    : environment.registryDirectory);
  TickContext context;
  context.registry = &registry;
  context.defaultRoot = environment.backupRoot;
  context.now = environment.now;
  context.calendar = environment.calendar;
  context.conditions = environment.conditions();
  context.heavyWorkWaitsForPower = environment.heavyWorkWaitsForPower;
  context.runSet = environment.runSet;
  context.history = environment.history;
  context.volumes = environment.volumes;
  const auto result = ScheduledBackups::tick(context);

  int status = 0;
  try {
    LastTick::recordLastTick(environment.backupRoot, startedAt, environment.now(),
                             result.summary());
  } catch (const std::exception& error) {
    if (environment.notify) environment.notify(error.what());
    status = 1;
  }
  for (const auto& notice : NoticeLedger::update(environment.backupRoot, result, environment.now()))
    if (environment.notify) environment.notify(notice);
  return status;
}

}  // namespace HeadlessBackup

}  // namespace corvane
