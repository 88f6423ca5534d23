#include "backup/restore_report.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace corvane {
namespace {

using ::testing::HasSubstr;
using RestoreTask::Record;

RestoreTask::Plan twoRecords() {
  Record update;
  update.object = "Account";
  update.id = "001A";
  update.action = Record::Action::update;
  update.changes = {{"Name", "Acme Corp", "Acme"}};
  Record skipped;
  skipped.object = "Account";
  skipped.id = "001B";
  skipped.reason = "It is live.";
  RestoreTask::Plan plan;
  plan.folder = "2024-05-01 0230";
  plan.records = {update, skipped};
  return plan;
}

TEST(RestoreReport, APlanSaysWhatChangesForEachRecordAndCountsTheActions) {
  const RestoreTask::Plan plan = twoRecords();
  EXPECT_EQ(RestoreReport::countsText(plan), "1 to update, 1 skipped");
  EXPECT_EQ(RestoreReport::countsText({}), "nothing");
  EXPECT_EQ(RestoreReport::planText(plan),
            "From the backup 2024-05-01 0230:\n"
            "update\tAccount\t001A\tName: \"Acme Corp\" -> \"Acme\"\n"
            "skip\tAccount\t001B\tIt is live.\n"
            "Plan: 1 to update, 1 skipped. Nothing was written (--dry-run).\n");
  const auto json = nlohmann::json::parse(RestoreReport::planJSON("me@acme.example", plan));
  EXPECT_EQ(json.at("records")[0].at("changes")[0].at("to"), "Acme");
  EXPECT_EQ(json.at("records")[1].at("reason"), "It is live.");
  EXPECT_FALSE(json.at("records")[0].contains("result"));
}

TEST(RestoreReport, AResultListsTheRecordsWrittenAndWhereTheFailuresWent) {
  RestoreTask::Result result;
  result.plan = twoRecords();
  result.plan.records[0].result = "failed";
  result.plan.records[0].message = "Name is too long.";
  result.failed = 1;
  result.stopped = true;
  const std::string text = RestoreReport::resultText(result, "/backups/failures.csv", std::nullopt);
  EXPECT_THAT(text, HasSubstr("failed\tAccount\t001A\t-\tName: \"Acme Corp\" -> \"Acme\" Name is "
                              "too long.\n"));
  EXPECT_EQ(text.find("001B"), std::string::npos);
  EXPECT_THAT(text, HasSubstr("0 restored, 1 failed.\nStopped before the end"));
  EXPECT_THAT(text, HasSubstr("The failures are in /backups/failures.csv.\n"));
  const auto json =
      nlohmann::json::parse(RestoreReport::resultJSON("me@acme.example", result, std::nullopt));
  EXPECT_TRUE(json.at("failures").is_null());
  EXPECT_TRUE(json.at("records")[1].at("newId").is_null());

  RestoreTask::Progress progress{RestoreTask::Phase::creating, 300, 1000, "Contact"};
  EXPECT_EQ(RestoreReport::progressText(progress, 2.0),
            "Restored 300 of 1000 records (150 records/s), now Contact...\n");
  progress.total = 100;
  EXPECT_EQ(RestoreReport::progressText(progress, 2.0), "");
}

}  // namespace
}  // namespace corvane
