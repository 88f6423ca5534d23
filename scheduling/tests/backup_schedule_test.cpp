#include "scheduling/backup_schedule.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace corvane {
namespace {

using namespace std::chrono_literals;
using Decision = BackupSchedule::Decision;
using FullEvery = BackupSchedule::FullEvery;
using WaitReason = BackupSchedule::WaitReason;

SystemTime at(const char* text) { return *IsoTime::parsePlain(text); }

// 2024-05-01 is a Wednesday (weekday 4).
TEST(BackupScheduleSlot, LatestMomentAtOrBefore) {
  const auto utc = ScheduleCalendar::utc();
  struct Row {
    BackupSchedule schedule;
    const char* before;
    std::optional<const char*> slot;
  };
  const Row rows[] = {
      {BackupSchedule::manual(), "2024-05-01T10:00:00Z", std::nullopt},
      {BackupSchedule::hourly(), "2024-05-01T10:37:12Z", "2024-05-01T10:00:00Z"},
      {BackupSchedule::hourly(), "2024-05-01T10:00:00Z", "2024-05-01T10:00:00Z"},
      {BackupSchedule::daily(2, 30), "2024-05-01T02:30:00Z", "2024-05-01T02:30:00Z"},
      {BackupSchedule::daily(2, 30), "2024-05-01T02:29:59Z", "2024-04-30T02:30:00Z"},
      {BackupSchedule::daily(2, 30), "2024-03-01T01:00:00Z", "2024-02-29T02:30:00Z"},
      {BackupSchedule::weekly(4, 9, 0), "2024-05-01T09:00:00Z", "2024-05-01T09:00:00Z"},
      {BackupSchedule::weekly(4, 9, 0), "2024-05-01T08:59:00Z", "2024-04-24T09:00:00Z"},
      {BackupSchedule::weekly(1, 3, 0), "2024-05-01T12:00:00Z", "2024-04-28T03:00:00Z"},
      {BackupSchedule::weekly(7, 23, 0), "2024-05-01T12:00:00Z", "2024-04-27T23:00:00Z"},
  };
  for (const auto& row : rows) {
    const auto slot = row.schedule.lastSlot(at(row.before), utc);
    if (row.slot) {
      EXPECT_EQ(slot, at(*row.slot)) << row.schedule.text() << " before " << row.before;
    } else {
      EXPECT_FALSE(slot) << row.schedule.text();
    }
  }

  // Wall-clock moments in a zone two hours east of UTC: 02:30 there is 00:30 UTC,
  // and Wednesday 01:00 there is still Tuesday in UTC.
  const auto east = ScheduleCalendar::offset(2h);
  EXPECT_EQ(BackupSchedule::daily(2, 30).lastSlot(at("2024-05-01T01:00:00Z"), east),
            at("2024-05-01T00:30:00Z"));
  EXPECT_EQ(BackupSchedule::weekly(4, 1, 0).lastSlot(at("2024-04-30T23:30:00Z"), east),
            at("2024-04-30T23:00:00Z"));
}

TEST(BackupScheduleDecide, Table) {
  const auto utc = ScheduleCalendar::utc();
  const BackupSchedule::Conditions fine;
  BackupSchedule::Conditions offline;
  offline.networkAvailable = false;
  BackupSchedule::Conditions batteryWaits;
  batteryWaits.onBattery = true;
  batteryWaits.heavyWorkWaitsForPower = true;
  BackupSchedule::Conditions batteryFirstFiles = batteryWaits;
  batteryFirstFiles.firstFilesDone = false;
  BackupSchedule::Conditions batteryOnly;
  batteryOnly.onBattery = true;
  batteryOnly.firstFilesDone = false;

  const auto daily = BackupSchedule::daily(2, 0);
  const auto now = at("2024-05-10T10:05:00Z");
  struct Row {
    const char* what;
    BackupSchedule schedule;
    std::optional<SystemTime> lastSuccess;
    std::optional<SystemTime> lastFull;
    FullEvery fullEvery;
    bool unfinished;
    BackupSchedule::Conditions conditions;
    Decision expected;
  };
  const Row rows[] = {
      {"manual never runs, even unfinished", BackupSchedule::manual(), std::nullopt, std::nullopt,
       FullEvery::weekly, true, fine, Decision::notDue()},
      {"never succeeded: first full copy", daily, std::nullopt, std::nullopt, FullEvery::weekly,
       false, fine, Decision::run(RunKind::full, true)},
      {"ran after today's slot", daily, at("2024-05-10T02:20:00Z"), at("2024-05-09T02:20:00Z"),
       FullEvery::weekly, false, fine, Decision::notDue()},
      {"missed three days of slots: one catch-up run", daily, at("2024-05-07T02:20:00Z"),
       at("2024-05-07T02:20:00Z"), FullEvery::weekly, false, fine,
       Decision::run(RunKind::changes, true)},
      {"unfinished run resumes before its slot", daily, at("2024-05-10T02:20:00Z"),
       at("2024-05-09T02:20:00Z"), FullEvery::weekly, true, fine,
       Decision::run(RunKind::changes, true)},
      {"hourly, not yet this hour", BackupSchedule::hourly(), at("2024-05-10T10:01:00Z"),
       at("2024-05-09T00:00:00Z"), FullEvery::weekly, false, fine, Decision::notDue()},
      {"hourly, last hour", BackupSchedule::hourly(), at("2024-05-10T09:01:00Z"),
       at("2024-05-09T00:00:00Z"), FullEvery::weekly, false, fine,
       Decision::run(RunKind::changes, true)},
      {"weekly full: six days old gives changes", daily, at("2024-05-09T02:00:00Z"),
       now - 6 * 24h, FullEvery::weekly, false, fine, Decision::run(RunKind::changes, true)},
      {"weekly full: seven days old gives full", daily, at("2024-05-09T02:00:00Z"), now - 7 * 24h,
       FullEvery::weekly, false, fine, Decision::run(RunKind::full, true)},
      {"every4Weeks: 27 days old gives changes", daily, at("2024-05-09T02:00:00Z"),
       now - 27 * 24h, FullEvery::every4Weeks, false, fine, Decision::run(RunKind::changes, true)},
      {"every4Weeks: 28 days old gives full", daily, at("2024-05-09T02:00:00Z"), now - 28 * 24h,
       FullEvery::every4Weeks, false, fine, Decision::run(RunKind::full, true)},
      {"never: a year old still changes", daily, at("2024-05-09T02:00:00Z"), now - 365 * 24h,
       FullEvery::never, false, fine, Decision::run(RunKind::changes, true)},
      {"never: but a first full copy", daily, at("2024-05-09T02:00:00Z"), std::nullopt,
       FullEvery::never, false, fine, Decision::run(RunKind::full, true)},
      {"offline waits", daily, std::nullopt, std::nullopt, FullEvery::weekly, false, offline,
       Decision::wait(WaitReason::offline)},
      {"offline but not due", daily, at("2024-05-10T02:20:00Z"), std::nullopt, FullEvery::weekly,
       false, offline, Decision::notDue()},
      {"battery, first files pending, user wants power: wait", daily, std::nullopt, std::nullopt,
       FullEvery::weekly, false, batteryFirstFiles, Decision::wait(WaitReason::needsPower)},
      {"battery, files done, user wants power: records only", daily, at("2024-05-09T02:00:00Z"),
       at("2024-05-09T02:00:00Z"), FullEvery::weekly, false, batteryWaits,
       Decision::run(RunKind::changes, false)},
      {"battery, user did not ask to wait", daily, std::nullopt, std::nullopt, FullEvery::weekly,
       false, batteryOnly, Decision::run(RunKind::full, true)},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.schedule.decide(now, utc, row.lastSuccess, row.lastFull, row.fullEvery,
                                  row.unfinished, row.conditions),
              row.expected)
        << row.what;
  }
}

TEST(BackupScheduleDecide, ACaughtUpSlotIsNeverRunTwice) {
  const auto utc = ScheduleCalendar::utc();
  const auto weekly = BackupSchedule::weekly(2, 3, 0);  // Mondays 03:00
  // Asleep for three weeks; wakes on Wednesday 2024-05-01 at 10:05.
  auto lastSuccess = at("2024-04-08T03:10:00Z");
  auto tick = at("2024-05-01T10:05:00Z");
  const auto first = weekly.decide(tick, utc, lastSuccess, lastSuccess, FullEvery::never, false, {});
  EXPECT_EQ(first.kind, Decision::Kind::run);
  lastSuccess = tick + 20min;
  for (int hour = 1; hour < 24 * 5; ++hour) {  // until Monday 2024-05-06 03:00 comes
    const auto later = tick + std::chrono::hours(hour);
    const auto decision = weekly.decide(later, utc, lastSuccess, lastSuccess, FullEvery::never,
                                        false, {});
    EXPECT_EQ(decision.kind, later < at("2024-05-06T03:00:00Z") ? Decision::Kind::notDue
                                                                : Decision::Kind::run)
        << IsoTime::formatPlain(later);
  }
}

// Sixty days of hourly ticks at minute 17, for a set made at `begin` (its
// first run comes at its first slot). Each run starts a few seconds after its
// tick (the process has to start) and takes 25 minutes; the full copy is
// remembered by when it started. Returns the days (from the first run) on
// which full copies ran.
std::vector<double> fullRunDays(const BackupSchedule& schedule, FullEvery fullEvery,
                                const ScheduleCalendar& calendar, SystemTime begin) {
  std::optional<SystemTime> lastSuccess = begin;
  std::optional<SystemTime> lastFull;
  std::optional<SystemTime> firstRun;
  std::vector<double> days;
  unsigned jitter = 7;
  for (int hour = 0; hour < 24 * 60; ++hour) {
    const auto tick = begin + std::chrono::hours(hour) + 17min;
    const auto decision = schedule.decide(tick, calendar, lastSuccess, lastFull, fullEvery, false,
                                          {});
    if (decision.kind != Decision::Kind::run) continue;
    jitter = (jitter * 37 + 11) % 59;
    const auto started = tick + std::chrono::seconds(1 + jitter);
    if (!firstRun) firstRun = started;
    if (decision.runKind == RunKind::full) {
      lastFull = started;
      days.push_back(std::chrono::duration<double, std::ratio<86400>>(started - *firstRun).count());
    }
    lastSuccess = started + 25min;
  }
  return days;
}

TEST(BackupScheduleDecide, FullCopiesComeExactlyEveryIntervalOverSixtyDays) {
  const auto utc = ScheduleCalendar::utc();
  const auto begin = at("2024-05-01T00:00:00Z");  // a Wednesday
  struct Row {
    BackupSchedule schedule;
    FullEvery fullEvery;
    std::vector<int> days;  // whole days from the first run
  };
  const Row rows[] = {
      {BackupSchedule::hourly(), FullEvery::weekly, {0, 7, 14, 21, 28, 35, 42, 49, 56}},
      {BackupSchedule::hourly(), FullEvery::every4Weeks, {0, 28, 56}},
      {BackupSchedule::hourly(), FullEvery::never, {0}},
      {BackupSchedule::daily(2, 30), FullEvery::weekly, {0, 7, 14, 21, 28, 35, 42, 49, 56}},
      {BackupSchedule::daily(2, 30), FullEvery::every4Weeks, {0, 28, 56}},
      {BackupSchedule::daily(2, 30), FullEvery::never, {0}},
      {BackupSchedule::weekly(2, 9, 0), FullEvery::weekly, {0, 7, 14, 21, 28, 35, 42, 49}},
      {BackupSchedule::weekly(2, 9, 0), FullEvery::every4Weeks, {0, 28}},
      {BackupSchedule::weekly(2, 9, 0), FullEvery::never, {0}},
  };
  for (const auto& row : rows) {
    const auto days = fullRunDays(row.schedule, row.fullEvery, utc, begin);
    std::vector<double> expected(row.days.begin(), row.days.end());
    ASSERT_EQ(days.size(), expected.size()) << row.schedule.text() << " " << toText(row.fullEvery);
    for (std::size_t i = 0; i < days.size(); ++i)
      EXPECT_NEAR(days[i], expected[i], 0.01)
          << row.schedule.text() << " " << toText(row.fullEvery) << " full run " << i;
  }
}

TEST(BackupScheduleDecide, FullCopyKeepsItsWeekdayAcrossADaylightSavingChange) {
  const char* saved = std::getenv("TZ");
  const std::string previous = saved ? saved : "";
  setenv("TZ", "Europe/Berlin", 1);
  tzset();
  // Daily at 09:00 local from Monday 2024-03-18; clocks go forward on 2024-03-31.
  const auto days = fullRunDays(BackupSchedule::daily(9, 0), FullEvery::weekly,
                                ScheduleCalendar::local(), at("2024-03-18T00:00:00Z"));
  if (saved) setenv("TZ", previous.c_str(), 1); else unsetenv("TZ");
  tzset();
  ASSERT_GE(days.size(), 4u);
  for (std::size_t i = 0; i < days.size(); ++i)
    EXPECT_NEAR(days[i], 7.0 * static_cast<double>(i), 0.1) << "full run " << i;
}

TEST(BackupScheduleText, NamesAndFullEveryTexts) {
  EXPECT_EQ(BackupSchedule::weekly(1, 2, 5).text(), "weekly Sun 02:05");
  EXPECT_EQ(BackupSchedule::daily(14, 0).text(), "daily 14:00");
  for (auto every : {FullEvery::weekly, FullEvery::every4Weeks, FullEvery::never})
    EXPECT_EQ(fullEveryFromText(toText(every)), every);
  EXPECT_FALSE(fullEveryFromText("Weekly"));
}

}  // namespace
}  // namespace corvane
