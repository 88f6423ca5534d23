// What a whole run does about deletions, older copies and the backup disk.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "backup/backup_csv.hpp"
#include "backup/backup_error.hpp"
#include "backup/backup_runner.hpp"
#include "backup/manifest.hpp"
#include "connections/api_transport.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/org_records.hpp"
#include "tools/orgsim/tests/sample_org.hpp"
#include "tools/orgsim/tests/sample_org_api.hpp"

namespace corvane {
namespace {

using namespace std::chrono_literals;

class BackupKeepingRunTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    api_ = orgsim::testing::adminClient(*server_);
    org_.username = store().identity().adminUsername;
    transport_ = std::make_unique<APITransport>(*api_, org_);
    root_ = backups_.path();
  }

  BackupConfig config() {
    BackupConfig config;
    config.location = {root_, "00D", org_.username};
    config.options.onlyObjects = std::vector<std::string>{"Account", "Contact"};
    config.freeSpaceFloor = 1000;
    config.restThreshold = 100;
    config.bulkPageSize = 500;
    config.purgeCheckInterval = 0;
    config.retention = retention_;
    return config;
  }

  RunSummary run(RunKind kind, std::map<std::string, std::string> environment = {}) {
    BackupRunner runner(
        *transport_, config(), [](const std::filesystem::path&) { return 1'000'000'000'000; },
        [](const std::filesystem::path&) { return std::nullopt; }, 1ms,
        [this] { return store().now(); }, std::move(environment),
        [this](const BackupProgress& progress) {
          std::lock_guard guard(stepsMutex_);
          steps_.insert(progress.step);
        });
    auto summary = runner.run(kind);
    // Runs a minute apart on the org's clock, as the window of its delete log needs.
    store().advanceClock(2min);
    return summary;
  }

  TemporaryFolder backups_;
  std::filesystem::path root_;
  std::unique_ptr<SalesforceAPI::Client> api_;
  Org org_;
  std::unique_ptr<APITransport> transport_;
  Retention::Policy retention_ = Retention::Policy::keepEverything();
  std::mutex stepsMutex_;  // guards steps_: progress comes from the copying threads
  std::set<BackupProgress::Step> steps_;
};

TEST_F(BackupKeepingRunTest, AThousandDeletionsRaiseTheAlarmAndReachDeletedCsv) {
  auto ids = orgsim::testing::addAccounts(store(), 1100);
  auto first = run(RunKind::full);
  ASSERT_EQ(first.result, RunResult::complete) << first.message;
  EXPECT_EQ(first.deleted, 0);

  const auto admin = store().identity().adminUserId;
  for (int i = 0; i < 1000; ++i)
    ASSERT_TRUE(orgsim::OrgRecords::remove(store(), ids[i], admin).success);
  store().advanceClock(2min);
  auto second = run(RunKind::changes);
  ASSERT_EQ(second.result, RunResult::complete) << second.message;
  EXPECT_EQ(second.deleted, 1000);
  EXPECT_EQ(second.unusualDeletions,
            (std::vector<DeletedCount>{{"Account", 1000, 0, 1100}}));
  EXPECT_TRUE(steps_.count(BackupProgress::Step::findingDeletions));

  std::ifstream in(second.folder / "Deleted.csv");
  std::stringstream text;
  text << in.rdbuf();
  auto page = BackupCSV::scan(text.str());
  ASSERT_EQ(page.records.size(), 1000u);
  EXPECT_EQ(page.records.front().fields[0], "Account");
  EXPECT_EQ(page.records.front().fields[3], "recycleBin");
  auto manifest = Manifest::read(second.folder);
  ASSERT_TRUE(manifest);
  EXPECT_EQ(manifest->deletionCount, 1000);
  ASSERT_EQ(manifest->deletionsByObject.size(), 1u);
  EXPECT_TRUE(manifest->deletionsByObject[0].unusual);

  // A few deletions later: counted, no alarm.
  for (int i = 1000; i < 1010; ++i)
    ASSERT_TRUE(orgsim::OrgRecords::remove(store(), ids[i], admin).success);
  store().advanceClock(2min);
  auto third = run(RunKind::changes);
  EXPECT_EQ(third.deleted, 10);
  EXPECT_TRUE(third.unusualDeletions.empty());
}

TEST_F(BackupKeepingRunTest, AFullRunComparesWhatItCopiedWhenTheDeleteLogIsRefused) {
  auto ids = orgsim::testing::addAccounts(store(), 20);
  ASSERT_EQ(run(RunKind::full).result, RunResult::complete);
  ASSERT_TRUE(orgsim::OrgRecords::remove(store(), ids[3], store().identity().adminUserId).success);
  admin("faults", {{"path", "/services/data/*/sobjects/*/deleted*"},
                   {"fault", "status"},
                   {"status", 403},
                   {"message", "insufficient access rights on object id"},
                   {"count", 10}});
  auto second = run(RunKind::full);
  ASSERT_EQ(second.result, RunResult::complete) << second.message;
  EXPECT_EQ(second.deleted, 1);
  BackupStore backup(config().location);
  const auto deletions = backup.deletions(second.runId);
  ASSERT_EQ(deletions.size(), 1u);
  EXPECT_EQ(deletions[0].id, ids[3]);
  EXPECT_EQ(deletions[0].how, "missing");
  EXPECT_TRUE(backup.objectState("Account")->getDeletedRefused);
}

TEST_F(BackupKeepingRunTest, AnUnpluggedDiskFailsTheRunWithoutWritingAnywhere) {
  const auto volumes = backups_.path() / "Volumes";
  std::filesystem::create_directories(volumes);
  root_ = volumes / "Backup Disk" / "Corvane";
  try {
    run(RunKind::full, {{"CORVANE_VOLUMES_FOLDER", volumes.string()}});
    FAIL() << "the run went ahead";
  } catch (const BackupError& error) {
    EXPECT_EQ(error.kind(), BackupError::Kind::driveNotConnected);
    EXPECT_EQ(std::string(error.what()), BackupError::driveNotConnected("Backup Disk").what());
  }
  EXPECT_TRUE(std::filesystem::is_empty(volumes));

  // Plugged in again: the same run goes ahead.
  std::filesystem::create_directories(volumes / "Backup Disk");
  orgsim::testing::addAccounts(store(), 3);
  EXPECT_EQ(run(RunKind::full, {{"CORVANE_VOLUMES_FOLDER", volumes.string()}}).result,
            RunResult::complete);
}

TEST_F(BackupKeepingRunTest, RetentionKeepsTheLastFullsWithTheChangesThatFollowThem) {
  orgsim::testing::addAccounts(store(), 5);
  retention_ = Retention::Policy{2};
  std::vector<RunSummary> runs;
  for (auto kind : {RunKind::full, RunKind::changes, RunKind::full, RunKind::changes,
                    RunKind::full, RunKind::changes}) {
    orgsim::testing::addAccounts(store(), 1);
    runs.push_back(run(kind));
    ASSERT_EQ(runs.back().result, RunResult::complete) << runs.back().message;
  }
  // The fifth run (a full one) made the first full and its changes unneeded.
  EXPECT_EQ(runs[4].removedBackups,
            (std::vector<std::string>{runs[0].folder.filename().string(),
                                      runs[1].folder.filename().string()}));
  EXPECT_GT(runs[4].removedBytes, 0);
  auto manifest = Manifest::read(runs[4].folder);
  ASSERT_TRUE(manifest);
  EXPECT_EQ(manifest->retention.removed, runs[4].removedBackups);
  EXPECT_EQ(manifest->retention.bytesFreed, runs[4].removedBytes);
  for (std::size_t i = 0; i < runs.size(); ++i)
    EXPECT_EQ(std::filesystem::exists(runs[i].folder), i >= 2) << i;
  BackupStore backup(config().location);
  EXPECT_EQ(backup.runs().size(), 4u);
  EXPECT_TRUE(steps_.count(BackupProgress::Step::tidyingOldBackups));
}

}  // namespace
}  // namespace corvane
