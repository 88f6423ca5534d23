#include "backup/backup_report.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "connections/api_transport.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/tests/sample_org.hpp"
#include "tools/orgsim/tests/sample_org_api.hpp"

namespace corvane {
namespace {

class BackupReportTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    api_ = orgsim::testing::adminClient(*server_);
    org_.username = store().identity().adminUsername;
    transport_ = std::make_unique<APITransport>(*api_, org_);
    config_.location = {backups_.path(), "00D", org_.username};
    config_.options.onlyObjects = std::vector<std::string>{"Account"};
    config_.freeSpaceFloor = 1000;
  }

  std::string statusText() {
    return BackupReport::statusText(config_.location, BackupTask::status(config_.location));
  }
  nlohmann::json statusJSON() {
    return nlohmann::json::parse(
        BackupReport::statusJSON(config_.location, BackupTask::status(config_.location)));
  }

  BackupTask::Survey plan(std::int64_t free) {
    return BackupTask::plan(*transport_, config_, [free](const auto&) { return free; }, {});
  }

  TemporaryFolder backups_;
  std::unique_ptr<SalesforceAPI::Client> api_;
  Org org_;
  std::unique_ptr<APITransport> transport_;
  BackupConfig config_;
};

TEST_F(BackupReportTest, ThePlanReadsAsTextAndAsJSON) {
  orgsim::testing::addAccounts(store(), 150);
  auto survey = plan(1'000'000'000'000);
  const auto text = BackupReport::text(survey);
  EXPECT_NE(text.find("1 objects, 150 records."), std::string::npos) << text;
  EXPECT_NE(text.find("It fits."), std::string::npos) << text;
  const auto json = nlohmann::json::parse(BackupReport::json(survey));
  EXPECT_EQ(json["objects"][0]["records"], 150);
  EXPECT_EQ(json["space"]["verdict"], "fits");

  EXPECT_NE(BackupReport::text(plan(1500)).find("Free up space or choose another folder"),
            std::string::npos);
}

TEST_F(BackupReportTest, StatusShowsTheRunsAsTextAndAsJSON) {
  const auto before = statusJSON();
  EXPECT_TRUE(before.at("lastRun").is_null());
  EXPECT_TRUE(before.at("runs").empty());
  EXPECT_NE(statusText().find("No backup of"), std::string::npos);

  orgsim::testing::addAccounts(store(), 30);
  const auto summary = BackupTask::run(*transport_, config_, RunKind::full, {});
  ASSERT_TRUE(summary.succeeded()) << summary.message;
  const auto status = statusText();
  EXPECT_NE(status.find("Last backup of " + org_.username + ": full (complete)"),
            std::string::npos)
      << status;
  EXPECT_NE(status.find("30 records"), std::string::npos) << status;
  EXPECT_NE(status.find(summary.folder.filename().string()), std::string::npos) << status;

  const auto json = statusJSON();
  EXPECT_EQ(json.at("username"), org_.username);
  EXPECT_EQ(json.at("folder"), config_.location.folder().string());
  EXPECT_EQ(json.at("lastRun").at("result"), "complete");
  EXPECT_EQ(json.at("lastRun").at("records"), 30);
  EXPECT_EQ(json.at("lastRun").at("folder"), summary.folder.filename().string());
  ASSERT_EQ(json.at("runs").size(), 1u);
  const auto& run = json["runs"][0];
  EXPECT_EQ(run.at("kind"), "full");
  EXPECT_EQ(run.at("result"), "complete");
  EXPECT_EQ(run.at("records"), 30);
  for (const char* key : {"id", "folder", "startedAt", "finishedAt", "deleted", "files",
                          "apiRequests"})
    EXPECT_TRUE(run.contains(key)) << key;
}

}  // namespace
}  // namespace corvane
