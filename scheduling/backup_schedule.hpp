// When a backup set runs by itself, and what kind of run each tick starts.
//
// The schedule names moments on the user's wall clock ("daily at 02:30"); the
// tick comes once an hour and asks decide() whether the set is due. The rules:
//
// - A set is due when it has never succeeded, or when its last success is
//   older than the latest scheduled moment (lastSlot). A machine that slept
//   through several moments therefore runs once when it wakes, never once per
//   missed moment: after that run the last success is newer than every past
//   moment, and the set waits for the next one.
// - A run left unfinished is due at the next tick whatever the schedule says
//   (manual sets excepted): half a copy is worth finishing soon.
// - Without a network nothing can run: wait(offline).
// - Waiting for mains power only concerns file downloads, and only when the
//   user asked for it (heavyWorkWaitsForPower) while on battery. The first
//   download of file bodies (firstFilesDone false) can be very large, so the
//   whole run waits (needsPower); later runs go ahead with records only
//   (downloadFiles false) and leave the bodies for a run on mains. Callers pass
//   firstFilesDone true for sets that do not download files at all.
// - The kind: full when there is no full copy yet, or when the last one was
//   started at least the interval of fullEvery ago (seven days, 28 days), give
//   or take the few seconds a run starts after its tick; otherwise changes. A
//   daily set thus gets its full copy on every 7th day, not every 8th.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "backup/run_kind.hpp"
#include "platform/iso_time.hpp"

namespace corvane {

// How wall-clock moments map to instants. The machine's local time zone by
// default; a fixed offset from UTC where a result must not depend on the
// machine (tests, and a zone known from elsewhere).
struct ScheduleCalendar {
  std::optional<std::chrono::seconds> fixedOffset;

  static ScheduleCalendar local() { return {}; }
  static ScheduleCalendar utc() { return {std::chrono::seconds(0)}; }
  static ScheduleCalendar offset(std::chrono::seconds east) { return {east}; }
};

struct BackupSchedule {
  enum class Kind { manual, hourly, daily, weekly };
  Kind kind = Kind::manual;
  // weekly only: 1 = Sunday ... 7 = Saturday, the calendar's own numbering.
  int weekday = 1;
  // daily and weekly: 0-23 and 0-59. hourly runs at any tick of the hour.
  int hour = 0;
  int minute = 0;

  static BackupSchedule manual() { return {}; }
  static BackupSchedule hourly() { return {Kind::hourly, 1, 0, 0}; }
  static BackupSchedule daily(int hour, int minute) { return {Kind::daily, 1, hour, minute}; }
  static BackupSchedule weekly(int weekday, int hour, int minute) {
    return {Kind::weekly, weekday, hour, minute};
  }

  // True when the numbers are in range for the kind.
  bool isValid() const;
  // "manual", "hourly", "daily 02:30", "weekly Sun 02:30".
  std::string text() const;

  enum class FullEvery { weekly, every4Weeks, never };

  struct Conditions {
    bool onBattery = false;
    bool networkAvailable = true;
    bool heavyWorkWaitsForPower = false;
    bool firstFilesDone = true;
    bool operator==(const Conditions&) const = default;
  };

  enum class WaitReason { offline, needsPower };

  struct Decision {
    enum class Kind { run, wait, notDue };
    Kind kind = Kind::notDue;
    RunKind runKind = RunKind::full;  // run only
    bool downloadFiles = false;       // run only
    WaitReason reason = WaitReason::offline;  // wait only

    static Decision run(RunKind runKind, bool downloadFiles) {
      return {Kind::run, runKind, downloadFiles, WaitReason::offline};
    }
    static Decision wait(WaitReason reason) { return {Kind::wait, RunKind::full, false, reason}; }
    static Decision notDue() { return {}; }
    bool operator==(const Decision&) const = default;
  };

  // The latest scheduled moment at or before `before`; none for manual. For
  // hourly it is the start of the hour. A wall-clock moment that does not exist
  // (skipped by a daylight-saving change) falls where the calendar puts it.
  std::optional<SystemTime> lastSlot(SystemTime before, const ScheduleCalendar& calendar) const;

  Decision decide(SystemTime now, const ScheduleCalendar& calendar,
                  // lastFull: when the last usable full copy started.
                  std::optional<SystemTime> lastSuccess, std::optional<SystemTime> lastFull,
                  FullEvery fullEvery, bool unfinishedRun, const Conditions& conditions) const;

  bool operator==(const BackupSchedule&) const = default;
};

std::string toText(BackupSchedule::FullEvery fullEvery);
std::optional<BackupSchedule::FullEvery> fullEveryFromText(std::string_view text);
// The age at which a full copy is due again; none for never.
std::optional<std::chrono::seconds> fullCopyInterval(BackupSchedule::FullEvery fullEvery);

}  // namespace corvane
