// The headless tick: once an hour, run the backup sets that are due.
//
// HeadlessBackup::run takes ".tick.lock" in the backup root (a second tick
// finding it held ends at once), writes "last-tick.json" with "Checking what
// is due", reads the run conditions, lets ScheduledBackups::tick decide and
// run each set, records the outcome in "last-tick.json" and tells the user of
// new problems once, keeping "notifications.json" as the ledger of what was
// already told.
//
// A set that cannot run (its login is gone, its disk is unplugged, its folder
// cannot be written, the run fails) is recorded with its reason; the tick goes
// on with the others.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "backup/backup_config.hpp"
#include "backup/backup_volumes.hpp"
#include "backup/deleted_count.hpp"
#include "platform/file_lock.hpp"
#include "platform/iso_time.hpp"
#include "platform/user_facing_error.hpp"
#include "scheduling/backup_registry.hpp"
#include "scheduling/backup_schedule.hpp"
#include "scheduling/run_conditions.hpp"

namespace corvane {

// ".tick.lock": keeps two ticks from running at once.
class TickLockFailure : public UserFacingError {
 public:
  explicit TickLockFailure(const std::filesystem::path& path);
};

namespace TickLock {
inline constexpr const char* fileName = ".tick.lock";
// The lock, held until it is destroyed or the process ends; none when another
// tick holds it. Creates the folder when missing. Throws TickLockFailure when
// the file cannot be opened.
std::optional<FileLock> acquire(const std::filesystem::path& backupRoot);
}  // namespace TickLock

// What one due set asks of the backup run.
struct SetRunRequest {
  BackupSet set;
  BackupConfig config;
  RunKind kind = RunKind::full;
  bool downloadFiles = false;
};

// How a run ended: success, or the sentence of its failure. A failure before
// the run could start (the login is gone) is not counted as a run.
struct SetRunOutcome {
  bool succeeded = false;
  std::string failure;
  bool started = true;
  // What the run found deleted beyond the usual (the deletion alarm).
  std::vector<DeletedCount> unusualDeletions;
  static SetRunOutcome success() { return {true, {}, true, {}}; }
  static SetRunOutcome failed(std::string sentence) {
    return {false, std::move(sentence), true, {}};
  }
  static SetRunOutcome notStarted(std::string sentence) {
    return {false, std::move(sentence), false, {}};
  }
};

// Runs one set to its end. May throw; a UserFacingError's sentence is kept,
// anything else is reported as "the backup stopped".
using SetRunner = std::function<SetRunOutcome(const SetRunRequest&)>;

// What the set's own backup folder says about earlier runs.
struct SetHistory {
  std::optional<SystemTime> lastFull;  // the start of the last usable full copy
  bool unfinishedRun = false;          // the latest run did not reach its end
  bool firstFilesDone = false;         // some usable run left no file bodies waiting
  // When the documents still owed began to be owed: the start of the first of
  // the latest usable runs that all left file bodies waiting; none when the
  // latest usable run left none.
  std::optional<SystemTime> filesWaitingSince;
};
using SetHistoryReader = std::function<SetHistory(const BackupLocation&)>;

// Reads backup.sqlite when it is there; a folder without one has no history.
// Throws what BackupStore throws (another login's folder, an unreadable database).
SetHistory readSetHistory(const BackupLocation& location);

struct SetTickOutcome {
  enum class Kind { notDue, waiting, succeeded, failed };
  std::string username;
  Kind kind = Kind::notDue;
  BackupSchedule::WaitReason waitReason = BackupSchedule::WaitReason::offline;
  std::string failure;  // failed: the sentence
  bool ran = false;     // the run itself was started
  std::vector<DeletedCount> unusualDeletions;    // succeeded: what the alarm found
  std::optional<SystemTime> filesWaitingSince;  // documents owed since then
  bool operator==(const SetTickOutcome&) const = default;
};

struct BackupTickResult {
  bool setsUnreadable = false;
  std::vector<SetTickOutcome> sets;

  int runCount() const;
  // The one line stored as "result" in last-tick.json.
  std::string summary() const;
};

struct TickContext {
  const BackupRegistry* registry = nullptr;
  std::filesystem::path defaultRoot;  // where sets without rootPath keep their backups
  std::function<SystemTime()> now;
  ScheduleCalendar calendar = ScheduleCalendar::local();
  RunConditions conditions;
  // The user's choice that file downloads wait for mains power (PowerWait).
  bool heavyWorkWaitsForPower = false;
  SetRunner runSet;
  SetHistoryReader history = readSetHistory;
  // Which backup disks are connected.
  BackupVolumes volumes = BackupVolumes::system();
};

namespace ScheduledBackups {
// One pass over the sets: decide each, run the due ones in order, record each
// success in the registry.
//
// Before a due set runs, its folder is checked: a folder on a backup disk that
// is not connected fails with the driveNotConnected sentence, and a folder
// that cannot be written (probed by writing a small file, within
// FolderWriteProbe::tickDeadline) fails with its own sentence; neither starts
// the run, so nothing is written anywhere else. A set that is not due is not
// checked at all: an unplugged disk between its slots is normal.
BackupTickResult tick(const TickContext& context);
}  // namespace ScheduledBackups

// "last-tick.json" in the backup root.
namespace LastTick {
inline constexpr const char* fileName = "last-tick.json";
inline constexpr const char* checking = "Checking what is due";
void recordCheckStarted(const std::filesystem::path& backupRoot, SystemTime startedAt);
void recordLastTick(const std::filesystem::path& backupRoot, SystemTime startedAt,
                    SystemTime recordedAt, const std::string& result);
struct Record {
  std::string result;
  std::string startedAt;
  std::string recordedAt;
};
// None when missing or unreadable.
std::optional<Record> read(const std::filesystem::path& backupRoot);
}  // namespace LastTick

// "notifications.json": one notice per problem, not one per hour. A problem is
// one of a set's: its run failed or was given up, it waits for mains power to
// fetch its first documents, its run found unusual deletions, or it has owed
// documents for more than three days. Once told it is not told again while it
// lasts; a set that succeeds forgets its failure, so the same failure coming
// back later is told again. Every notice is kept as not yet seen until the
// program shows it (`corvane schedule status`).
namespace NoticeLedger {
inline constexpr const char* fileName = "notifications.json";
// How long documents may be owed before the user is told.
inline constexpr std::chrono::hours filesOwedGrace{72};
// The notices to give now, as sentences; updates the ledger. A ledger that
// holds bad JSON is moved aside and counts as empty.
std::vector<std::string> update(const std::filesystem::path& backupRoot,
                                const BackupTickResult& result, SystemTime now);
struct Notice {
  std::string text;
  std::string since;  // ISO 8601
  bool operator==(const Notice&) const = default;
};
// The notices not yet seen, oldest first; none when there is no ledger.
std::vector<Notice> unseen(const std::filesystem::path& backupRoot);
// Marks every notice seen.
void markSeen(const std::filesystem::path& backupRoot);
}  // namespace NoticeLedger

// The power-wait setting: "backupFilesWaitForPower" (true or false) in the
// settings file, off unless the user turns it on with `corvane schedule
// power-wait on`. It only ever holds back file downloads, and only on battery:
// a set that downloads file bodies and has not yet had one complete download
// of them waits for mains power as a whole (that first download is the big
// one); later runs on battery go ahead with records only and leave the bodies
// for a run on mains. Sets without file downloads never wait for power.
namespace PowerWait {
inline constexpr const char* settingKey = "backupFilesWaitForPower";
// Off when unset or unreadable.
bool isOn();
void set(bool on);
}  // namespace PowerWait

namespace HeadlessBackup {

struct Environment {
  std::function<SystemTime()> now = [] { return std::chrono::system_clock::now(); };
  std::function<RunConditions()> conditions = ConditionsReader::read;
  std::filesystem::path backupRoot = BackupLocation::defaultRoot();
  // The folder of backup-sets.json; empty for the standard one.
  std::filesystem::path registryDirectory;
  ScheduleCalendar calendar = ScheduleCalendar::local();
  // The user's choice that file downloads wait for mains power (PowerWait).
  bool heavyWorkWaitsForPower = false;
  SetRunner runSet;
  SetHistoryReader history = readSetHistory;
  BackupVolumes volumes = BackupVolumes::system();
  // Where new notices go (the headless program posts them on the desktop
  // when it can; they stay in notifications.json as not yet seen anyway).
  std::function<void(const std::string&)> notify;
};

// The tick's process: returns the exit status (0, also when another tick held
// the lock; 1 when the lock file cannot be opened or last-tick.json cannot be
// written).
int run(const Environment& environment);

}  // namespace HeadlessBackup

}  // namespace corvane
