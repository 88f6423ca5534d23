#include "backup/backup_task.hpp"

#include <gtest/gtest.h>

#include "connections/api_transport.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/tests/sample_org.hpp"

namespace corvane {
namespace {

class BackupPlanTest : public orgsim::testing::ServerFixture {
 protected:
  BackupTask::Survey plan(const BackupPlanner::Options& options, std::int64_t free,
                          std::stop_token stop = {},
                          const BackupTask::PlanProgressHandler& onProgress = {}) {
    SalesforceAPI::Client api([this](const std::string&) {
      return SalesforceAPI::Session{
          orgsim::Sessions::issue(store(), "").token, server_->baseUrl(), "62.0", {}};
    });
    Org org;
    org.username = store().identity().adminUsername;
    APITransport transport(api, org);
    BackupConfig config;
    config.location = {backups_.path(), "00D", org.username};
    config.options = options;
    config.freeSpaceFloor = 1000;
    config.restThreshold = 100;
    return BackupTask::plan(
        transport, config,
        [&](const std::filesystem::path& folder) {
          seenFolder_ = folder;
          return free;
        },
        stop, onProgress);
  }

  const BackupTask::PlannedObject* find(const BackupTask::Survey& survey,
                                           const std::string& name) {
    for (const auto& object : survey.objects) {
      if (object.plan.object == name) return &object;
    }
    return nullptr;
  }

  TemporaryFolder backups_;
  std::filesystem::path seenFolder_;
};

TEST_F(BackupPlanTest, PlansTheOrgsObjectsWithCountsAndSaysWhatIsLeftOut) {
  orgsim::testing::addAccounts(store(), 150);
  BackupPlanner::Options options;
  options.onlyObjects = std::vector<std::string>{"account",        "Contact",        "Task",
                                                 "recentlyviewed", "AccountHistory", "NoSuch__c"};
  auto survey = plan(options, 1'000'000'000'000);

  std::vector<std::string> names;
  for (const auto& object : survey.objects) names.push_back(object.plan.object);
  EXPECT_EQ(names, (std::vector<std::string>{"Account", "Contact", "Task"}));

  const auto* account = find(survey, "Account");
  ASSERT_NE(account, nullptr);
  EXPECT_EQ(account->records, 150);
  EXPECT_EQ(account->via, "bulk");
  EXPECT_EQ(account->plan.mode, BackupPlanner::Mode::full);
  EXPECT_EQ(account->plan.soql.rfind("SELECT Id, ", 0), 0u) << account->plan.soql;
  bool addressLeftOut = false;
  for (const auto& field : account->fieldsLeftOut) addressLeftOut |= field.name == "BillingAddress";
  EXPECT_TRUE(addressLeftOut);
  EXPECT_EQ(find(survey, "Task")->plan.operation, "queryAll");
  EXPECT_EQ(find(survey, "Task")->via, "rest");

  EXPECT_EQ(
      survey.objectsLeftOut,
      (std::vector<BackupTask::LeftOut>{
          {"AccountHistory", "History and feed objects are left out unless they are asked for."},
          {"RecentlyViewed", "Salesforce does not allow this object to be read in bulk."}}));
  EXPECT_EQ(survey.estimate.verdict, BackupEstimator::Verdict::fits);
  // The backup folder does not exist yet: its nearest existing parent is measured.
  EXPECT_EQ(seenFolder_, backups_.path());

  EXPECT_FALSE(std::filesystem::exists(survey.location.folder())) << "planning wrote nothing";
}

TEST_F(BackupPlanTest, SaysWhenTheCopyWillNotFit) {
  orgsim::testing::addAccounts(store(), 20);
  BackupPlanner::Options options;
  options.onlyObjects = std::vector<std::string>{"Account"};
  auto survey = plan(options, 1500);
  EXPECT_EQ(survey.estimate.verdict, BackupEstimator::Verdict::willNotFit);
}

TEST_F(BackupPlanTest, ReportsEachObjectItDescribesAndStopsBetweenThem) {
  BackupPlanner::Options options;
  options.onlyObjects = std::vector<std::string>{"Account", "Contact", "Task"};
  std::vector<BackupTask::PlanProgress> seen;
  plan(options, 1'000'000'000'000, {},
       [&](const BackupTask::PlanProgress& progress) { seen.push_back(progress); });
  using Phase = BackupTask::PlanPhase;
  std::vector<std::string> described;
  for (const auto& progress : seen) {
    if (progress.phase == Phase::describing) {
      EXPECT_EQ(progress.total, 3);
      described.push_back(progress.current);
    }
  }
  EXPECT_EQ(described, (std::vector<std::string>{"Account", "Contact", "Task"}));
  ASSERT_FALSE(seen.empty());
  EXPECT_EQ(seen.front().phase, Phase::listingObjects);
  EXPECT_EQ(seen.back(), (BackupTask::PlanProgress{Phase::finished, 3, 3, ""}));

  std::stop_source source;
  described.clear();
  EXPECT_THROW(plan(options, 1'000'000'000'000, source.get_token(),
                    [&](const BackupTask::PlanProgress& progress) {
                      if (progress.phase != Phase::describing) return;
                      described.push_back(progress.current);
                      source.request_stop();
                    }),
               TaskStopped);
  EXPECT_EQ(described, (std::vector<std::string>{"Account"}));
}

TEST_F(BackupPlanTest, ASignedOutLoginFailsWithTheOrgsOwnError) {
  SalesforceAPI::Client api([this](const std::string&) {
    return SalesforceAPI::Session{"not-a-token", server_->baseUrl(), "62.0", {}};
  });
  Org org;
  org.username = store().identity().adminUsername;
  APITransport transport(api, org);
  BackupConfig config;
  config.location = {backups_.path(), "00D", org.username};
  EXPECT_THROW(BackupTask::plan(transport, config, [](const auto&) { return 0; }, {}),
               SalesforceAPI::APIError);
}

TEST_F(BackupPlanTest, RunCopiesTheOrgReportsItsStepsAndHonoursAStop) {
  orgsim::testing::addAccounts(store(), 30);
  SalesforceAPI::Client api([this](const std::string&) {
    return SalesforceAPI::Session{orgsim::Sessions::issue(store(), "").token, server_->baseUrl(),
                                  "62.0", {}};
  });
  Org org;
  org.username = store().identity().adminUsername;
  APITransport transport(api, org);
  BackupConfig config;
  config.location = {backups_.path(), "00D", org.username};
  config.options.onlyObjects = std::vector<std::string>{"Account"};
  config.freeSpaceFloor = 1000;
  std::vector<std::string> lines;
  auto summary = BackupTask::run(transport, config, RunKind::full, {},
                                 [&](const BackupProgress& p) { lines.push_back(progressText(p)); });
  EXPECT_EQ(summary.result, "complete") << summary.message;
  EXPECT_EQ(summary.records, 30);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.front(), "Starting the backup…");

  const auto status = BackupTask::status(config.location);
  ASSERT_TRUE(status.last);
  EXPECT_EQ(status.last->result, "complete");
  EXPECT_EQ(status.last->records, 30);
  ASSERT_EQ(status.runs.size(), 1u);
  EXPECT_EQ(status.runs[0].folder, summary.folder.filename().string());

  // A stop requested before the run ends it cleanly; a run without it carries on.
  std::stop_source source;
  source.request_stop();
  summary = BackupTask::run(transport, config, RunKind::full, source.get_token());
  EXPECT_EQ(summary.result, RunResult::stopped);
  EXPECT_FALSE(summary.succeeded());
  EXPECT_TRUE(BackupIncomplete(summary).stopped());
}

}  // namespace
}  // namespace corvane
