#include "scheduling/backup_schedule.hpp"

#include <ctime>

#include <fmt/format.h>

namespace corvane {

namespace {

using std::chrono::days;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using std::chrono::sys_days;

// A moment as the wall clock shows it.
struct WallClock {
  sys_days day;     // the calendar date, as a day count
  int weekday = 1;  // 1 = Sunday
  int hour = 0;
  int minute = 0;
  int second = 0;
  std::chrono::system_clock::duration subsecond{};
};

WallClock wallClock(SystemTime time, const ScheduleCalendar& calendar) {
  WallClock out;
  const auto whole = std::chrono::floor<seconds>(time);
  out.subsecond = time - whole;
  if (calendar.fixedOffset) {
    const auto local = whole + *calendar.fixedOffset;
    out.day = std::chrono::floor<days>(local);
    const auto rest = local - out.day;
    out.hour = static_cast<int>(std::chrono::floor<hours>(rest).count());
    out.minute = static_cast<int>(std::chrono::floor<minutes>(rest).count() % 60);
    out.second = static_cast<int>(rest.count() % 60);
  } else {
    const std::time_t clock = std::chrono::system_clock::to_time_t(whole);
    std::tm fields{};
    localtime_r(&clock, &fields);
    out.day = sys_days(std::chrono::year_month_day(std::chrono::year(fields.tm_year + 1900),
                                                   std::chrono::month(static_cast<unsigned>(fields.tm_mon + 1)),
                                                   std::chrono::day(static_cast<unsigned>(fields.tm_mday))));
    out.hour = fields.tm_hour;
    out.minute = fields.tm_min;
    out.second = fields.tm_sec;
  }
  out.weekday = static_cast<int>(std::chrono::weekday(out.day).c_encoding()) + 1;
  return out;
}

SystemTime instant(sys_days day, int hour, int minute, const ScheduleCalendar& calendar) {
  if (calendar.fixedOffset) {
    return SystemTime(day + hours(hour) + minutes(minute) - *calendar.fixedOffset);
  }
  const std::chrono::year_month_day date(day);
  std::tm fields{};
  fields.tm_year = static_cast<int>(date.year()) - 1900;
  fields.tm_mon = static_cast<int>(static_cast<unsigned>(date.month())) - 1;
  fields.tm_mday = static_cast<int>(static_cast<unsigned>(date.day()));
  fields.tm_hour = hour;
  fields.tm_min = minute;
  fields.tm_isdst = -1;
  return std::chrono::system_clock::from_time_t(std::mktime(&fields));
}

constexpr const char* weekdayNames[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};

}  // namespace

bool BackupSchedule::isValid() const {
  switch (kind) {
    case Kind::manual:
    case Kind::hourly:
      return true;
    case Kind::weekly:
      if (weekday < 1 || weekday > 7) return false;
      [[fallthrough]];
    case Kind::daily:
      return hour >= 0 && hour <= 23 && minute >= 0 && minute <= 59;
  }
  return false;
}

std::string BackupSchedule::text() const {
  switch (kind) {
    case Kind::manual:
      return "manual";
    case Kind::hourly:
      return "hourly";
    case Kind::daily:
      return fmt::format("daily {:02}:{:02}", hour, minute);
    case Kind::weekly:
      return fmt::format("weekly {} {:02}:{:02}",
                         weekday >= 1 && weekday <= 7 ? weekdayNames[weekday - 1] : "?", hour,
                         minute);
  }
  return "manual";
}

std::optional<SystemTime> BackupSchedule::lastSlot(SystemTime before,
                                                   const ScheduleCalendar& calendar) const {
  const WallClock now = wallClock(before, calendar);
  switch (kind) {
    case Kind::manual:
      return std::nullopt;
    case Kind::hourly:
      // Counted back from the instant itself, so that an hour repeated by a
      // daylight-saving change still gives the start of the hour just lived.
      return before - now.subsecond - minutes(now.minute) - seconds(now.second);
    case Kind::daily: {
      SystemTime slot = instant(now.day, hour, minute, calendar);
      if (slot > before) slot = instant(now.day - days(1), hour, minute, calendar);
      return slot;
    }
    case Kind::weekly: {
      const sys_days day = now.day - days((now.weekday - weekday + 7) % 7);
      SystemTime slot = instant(day, hour, minute, calendar);
      if (slot > before) slot = instant(day - days(7), hour, minute, calendar);
      return slot;
    }
  }
  return std::nullopt;
}

BackupSchedule::Decision BackupSchedule::decide(SystemTime now, const ScheduleCalendar& calendar,
                                                std::optional<SystemTime> lastSuccess,
                                                std::optional<SystemTime> lastFull,
                                                FullEvery fullEvery, bool unfinishedRun,
                                                const Conditions& conditions) const {
  const auto slot = lastSlot(now, calendar);
  if (!slot) return Decision::notDue();
  const bool due = unfinishedRun || !lastSuccess || *lastSuccess < *slot;
  if (!due) return Decision::notDue();
  if (!conditions.networkAvailable) return Decision::wait(WaitReason::offline);

  bool downloadFiles = true;
  if (conditions.onBattery && conditions.heavyWorkWaitsForPower) {
    if (!conditions.firstFilesDone) return Decision::wait(WaitReason::needsPower);
    downloadFiles = false;
  }

  RunKind runKind = RunKind::changes;
  if (!lastFull) {
    runKind = RunKind::full;
  } else if (const auto interval = fullCopyInterval(fullEvery)) {
    // A run starts some seconds after its tick, a little later or earlier each
    // time: a copy started at 03:17:05 is due again at the tick of 03:17:02 a
    // week on. Half the tick period forgives that; daily and weekly moments
    // also move by an hour when daylight saving changes, so they get two hours
    // (still far less than the day between their runs).
    const auto slack = kind == Kind::hourly ? seconds(minutes(30)) : seconds(hours(2));
    if (now - *lastFull >= *interval - slack) runKind = RunKind::full;
  }
  return Decision::run(runKind, downloadFiles);
}

std::string toText(BackupSchedule::FullEvery fullEvery) {
  switch (fullEvery) {
    case BackupSchedule::FullEvery::weekly:
      return "weekly";
    case BackupSchedule::FullEvery::every4Weeks:
      return "every4Weeks";
    case BackupSchedule::FullEvery::never:
      return "never";
  }
  return "weekly";
}

std::optional<BackupSchedule::FullEvery> fullEveryFromText(std::string_view text) {
  if (text == "weekly") return BackupSchedule::FullEvery::weekly;
  if (text == "every4Weeks") return BackupSchedule::FullEvery::every4Weeks;
  if (text == "never") return BackupSchedule::FullEvery::never;
  return std::nullopt;
}

std::optional<std::chrono::seconds> fullCopyInterval(BackupSchedule::FullEvery fullEvery) {
  switch (fullEvery) {
    case BackupSchedule::FullEvery::weekly:
      return std::chrono::seconds(604800);
    case BackupSchedule::FullEvery::every4Weeks:
      return std::chrono::seconds(2419200);
    case BackupSchedule::FullEvery::never:
      return std::nullopt;
  }
  return std::nullopt;
}

}  // namespace corvane
