#include "scheduling/schedule_report.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace corvane {
namespace {

using ::testing::HasSubstr;

TEST(ScheduleReport, SetsReadAsATableAndAsJSONWithNullsForWhatIsNotKnown) {
  ScheduleTask::Setup setup;
  setup.backupRoot = "/backups";
  BackupSet set;
  set.username = "admin@acme.example";
  set.orgKey = "00D000000000001AAA";
  set.schedule = BackupSchedule::daily(2, 30);
  set.retention = Retention::Policy{5};

  const std::string table = ScheduleReport::setsTable({set}, setup);
  EXPECT_THAT(table, HasSubstr("USERNAME"));
  EXPECT_THAT(table, HasSubstr("admin@acme.example"));
  EXPECT_THAT(table, HasSubstr("last 5 full"));
  EXPECT_THAT(table, HasSubstr("never"));
  EXPECT_THAT(table, HasSubstr("/backups/00D000000000001AAA/admin@acme.example"));

  const auto json = nlohmann::json::parse(ScheduleReport::setsJSON({set}, setup));
  ASSERT_EQ(json.at("sets").size(), 1u);
  const auto& entry = json["sets"][0];
  EXPECT_EQ(entry.at("keepLastFulls"), 5);
  EXPECT_TRUE(entry.at("orgName").is_null());
  EXPECT_TRUE(entry.at("lastSuccessAt").is_null());
  EXPECT_TRUE(entry.at("onlyObjects").is_null());
  EXPECT_EQ(entry.at("includeFiles"), false);
}

TEST(ScheduleReport, StatusSaysWhatIsInstalledAndListsTheNoticesNotYetSeen) {
  ScheduleTask::Status status;
  status.schedulerKind = "systemd user timer";
  status.unseenNotices = {{"The disk is full.", "2024-05-01T10:17:00Z"}};
  const std::string nothing = ScheduleReport::statusText(status);
  EXPECT_THAT(nothing, HasSubstr("Installed: nothing; no scheduled backup runs by itself.\n"));
  EXPECT_THAT(nothing, HasSubstr("Last tick: none yet\n"));
  EXPECT_THAT(nothing, HasSubstr("Notifications not yet seen:\n  2024-05-01T10:17:00Z: The "
                                 "disk is full.\n"));

  status.installed = true;
  status.schedulerFile = "/units/corvane.timer";
  status.minute = 41;
  status.lastTick = LastTick::Record{"complete", "2024-05-01T10:41:00Z", ""};
  const std::string installed = ScheduleReport::statusText(status);
  EXPECT_THAT(installed, HasSubstr("Installed: the systemd user timer /units/corvane.timer\n"));
  EXPECT_THAT(installed,
              HasSubstr("Runs: (unreadable) --backup-tick at minute 41 of every hour\n"));
  EXPECT_THAT(installed, HasSubstr("Last tick: 2024-05-01T10:41:00Z: complete\n"));

  const auto json = nlohmann::json::parse(ScheduleReport::statusJSON(status));
  EXPECT_EQ(json.at("schedulerFile"), "/units/corvane.timer");
  EXPECT_TRUE(json.at("executable").is_null());
  EXPECT_EQ(json.at("minute"), 41);
  EXPECT_EQ(json.at("lastTick").at("result"), "complete");
  EXPECT_EQ(json.at("notifications").size(), 1u);
}

}  // namespace
}  // namespace corvane
