#include "app/backup_command.hpp"

#include <gtest/gtest.h>

#include "connections/api_transport.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/tests/sample_org.hpp"

namespace corvane {
namespace {

class BackupPlanTest : public orgsim::testing::ServerFixture {
 protected:
  BackupCommand::Survey plan(const BackupPlanner::Options& options, std::int64_t free) {
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
    return BackupCommand::survey(transport, config, [&](const std::filesystem::path& folder) {
      seenFolder_ = folder;
      return free;
    });
  }

  const BackupCommand::PlannedObject* find(const BackupCommand::Survey& survey,
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
      (std::vector<BackupCommand::LeftOut>{
          {"AccountHistory", "History and feed objects are left out unless they are asked for."},
          {"RecentlyViewed", "Salesforce does not allow this object to be read in bulk."}}));
  EXPECT_EQ(survey.estimate.verdict, BackupEstimator::Verdict::fits);
  // The backup folder does not exist yet: its nearest existing parent is measured.
  EXPECT_EQ(seenFolder_, backups_.path());

  const auto text = BackupCommand::text(survey);
  EXPECT_NE(text.find("3 objects, "), std::string::npos) << text;
  EXPECT_NE(text.find("It fits."), std::string::npos) << text;
  const auto json = nlohmann::json::parse(BackupCommand::json(survey));
  EXPECT_EQ(json["objects"][0]["records"], 150);
  EXPECT_EQ(json["space"]["verdict"], "fits");
  EXPECT_FALSE(std::filesystem::exists(survey.location.folder())) << "planning wrote nothing";
}

TEST_F(BackupPlanTest, SaysWhenTheCopyWillNotFit) {
  orgsim::testing::addAccounts(store(), 20);
  BackupPlanner::Options options;
  options.onlyObjects = std::vector<std::string>{"Account"};
  auto survey = plan(options, 1500);
  EXPECT_EQ(survey.estimate.verdict, BackupEstimator::Verdict::willNotFit);
  EXPECT_NE(BackupCommand::text(survey).find("Free up space or choose another folder"),
            std::string::npos);
}

TEST_F(BackupPlanTest, RunCopiesTheOrgAndStatusShowsTheRun) {
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
  auto runner = BackupCommand::makeRunner(
      transport, config, [&](const BackupProgress& progress) { lines.push_back(progressText(progress)); });
  auto summary = runner->run(RunKind::full);
  EXPECT_EQ(summary.result, "complete") << summary.message;
  EXPECT_EQ(summary.records, 30);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.front(), "Starting the backup…");
  EXPECT_EQ(nlohmann::json::parse(summary.json())["records"], 30);

  const auto status = BackupCommand::statusText(config.location);
  EXPECT_NE(status.find("Last backup of " + org.username + ": full (complete)"), std::string::npos)
      << status;
  EXPECT_NE(status.find("30 records"), std::string::npos) << status;
  EXPECT_NE(status.find(summary.folder.filename().string()), std::string::npos) << status;
}

}  // namespace
}  // namespace corvane
