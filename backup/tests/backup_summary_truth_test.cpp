// What a run says at its end is what happened: counts, removals, failures and
// the clock it went by.
#include <gtest/gtest.h>

#include "backup/last_run.hpp"
#include "backup/manifest.hpp"
#include "backup/tests/backup_run_fixture.hpp"
#include "tools/orgsim/org_records.hpp"

namespace corvane::testing {
namespace {

class BackupSummaryTruthTest : public BackupRunFixture {
 protected:
  void SetUp() override {
    BackupRunFixture::SetUp();
    only_ = {"Account", "User"};
    accounts_ = orgsim::testing::addAccounts(store(), 150);
  }

  // Stops once `count` progress values of step have come since it was made.
  BackupRunner::ShouldStop after(BackupProgress::Step step, int count) {
    std::size_t from;
    {
      std::lock_guard guard(seenMutex_);
      from = seen_.size();
    }
    return [this, step, count, from] {
      std::lock_guard guard(seenMutex_);
      return std::count_if(seen_.begin() + static_cast<std::ptrdiff_t>(from), seen_.end(),
                           [&](const BackupProgress& progress) {
                             return progress.step == step;
                           }) >= count;
    };
  }

  std::vector<std::string> accounts_;
};

TEST_F(BackupSummaryTruthTest, AnUnreadableServerClockStopsTheRunInsteadOfUsingOurs) {
  fault({{"path", "/services/data/*/limits"}, {"fault", "503"}, {"count", 1}});
  auto stopped = run(first_.path(), RunKind::full);
  EXPECT_EQ(stopped.result, RunResult::stopped);
  EXPECT_EQ(stopped.message,
            "Salesforce's clock could not be read, so the backup did not start: the next backup "
            "of changes asks for what changed since this moment on that clock. It starts again "
            "the next time it runs.");
  EXPECT_EQ(stopped.records, 0);
  auto resumed = run(first_.path(), RunKind::full);
  ASSERT_EQ(resumed.result, RunResult::complete) << resumed.message;
  EXPECT_EQ(resumed.folder, stopped.folder);
}

TEST_F(BackupSummaryTruthTest, HeldBeforeIsCountedBeforeTheRunAndRemovalsReachLastRun) {
  auto first = run(first_.path(), RunKind::full);
  ASSERT_EQ(first.result, RunResult::complete) << first.message;
  orgsim::testing::addAccounts(store(), 50);
  const auto admin = store().identity().adminUserId;
  for (int i = 0; i < 10; ++i)
    ASSERT_TRUE(orgsim::OrgRecords::remove(store(), accounts_[i], admin).success);

  auto second = run(first_.path(), RunKind::full);
  ASSERT_EQ(second.result, RunResult::complete) << second.message;
  EXPECT_EQ(second.deleted, 10);
  auto manifest = Manifest::read(second.folder);
  ASSERT_TRUE(manifest);
  ASSERT_EQ(manifest->deletionsByObject.size(), 1u);
  EXPECT_EQ(manifest->deletionsByObject[0].name, "Account");
  EXPECT_EQ(manifest->deletionsByObject[0].heldBefore, 150);

  auto last = LastRun::read(config(first_.path()).location);
  ASSERT_TRUE(last);
  ASSERT_TRUE(last->removedBackups);
  EXPECT_EQ(*last->removedBackups, second.removedBackups);
  ASSERT_TRUE(last->removedBytes);
  EXPECT_EQ(*last->removedBytes, second.removedBytes);
}

TEST_F(BackupSummaryTruthTest, AGivenUpRunStillNamesTheObjectsThatFailed) {
  fault({{"path", "/services/data/*/jobs/query"}, {"fault", "failJob"}, {"message", "boom"},
         {"count", 1}});
  auto stopped = run(first_.path(), RunKind::full, after(BackupProgress::Step::objectSkipped, 1));
  ASSERT_EQ(stopped.result, RunResult::stopped) << stopped.message;
  RunSummary given;
  for (int attempt = 0; attempt < 5 && given.result != RunResult::gaveUp; ++attempt)
    given = run(first_.path(), RunKind::full, [] { return true; });
  ASSERT_EQ(given.result, RunResult::gaveUp) << given.message;
  EXPECT_NE(given.message.find("Salesforce would not give these objects: Account."),
            std::string::npos)
      << given.message;
}

class BackupSummaryFilesTest : public BackupSummaryTruthTest {
 protected:
  void SetUp() override {
    BackupSummaryTruthTest::SetUp();
    only_ = {"Account", "ContentVersion"};
    auto writer = store().writer("ContentVersion", {"Title", "PathOnClient", "VersionData",
                                                    "FileExtension", "FirstPublishLocationId", "IsLatest"});
    for (int i = 0; i < 6; ++i) {
      const std::string title = "Report " + std::to_string(i);
      versions_.push_back(writer.insert(
          {title, title + ".txt", "body of " + title, "txt", accounts_[static_cast<std::size_t>(i)], "true"}));
    }
    writer.commit();
  }

  std::vector<std::string> versions_;
};

TEST_F(BackupSummaryFilesTest, ARunThatKeepsDownloadingIsNeverGivenUpForItsStops) {
  RunSummary summary = run(first_.path(), RunKind::full,
                           after(BackupProgress::Step::downloadingFiles, 1));
  ASSERT_EQ(summary.result, RunResult::stopped) << summary.message;
  for (int attempt = 0; attempt < 8 && summary.result == RunResult::stopped; ++attempt)
    summary = run(first_.path(), RunKind::full, after(BackupProgress::Step::downloadingFiles, 1));
  EXPECT_EQ(summary.result, RunResult::complete) << summary.message;
  BackupStore backup(config(first_.path()).location);
  for (const auto& version : backup.fileVersions()) EXPECT_TRUE(version.downloaded) << version.id;
}

TEST_F(BackupSummaryFilesTest, TheManifestCountsFailedAndLeftOutFiles) {
  admin("records/update",
        {{"id", versions_[0]}, {"fields", {{"Checksum", "00000000000000000000000000000000"}}}});
  auto first = run(first_.path(), RunKind::full);
  auto manifest = Manifest::read(first.folder);
  ASSERT_TRUE(manifest);
  EXPECT_TRUE(manifest->files.failed.empty()) << "a refusal counts once it came back on 3 runs";
  EXPECT_EQ(manifest->files.leftOut, 0);
  run(first_.path(), RunKind::changes);
  auto third = run(first_.path(), RunKind::changes);
  manifest = Manifest::read(third.folder);
  ASSERT_TRUE(manifest);
  EXPECT_EQ(manifest->files.leftOut, 1);
  EXPECT_EQ(manifest->files.leftOutThisRun, 1);
  ASSERT_EQ(manifest->files.failed.size(), 1u);
  EXPECT_EQ(manifest->files.failed[0].id, versions_[0]);
  EXPECT_FALSE(manifest->files.failed[0].reason.empty());
}

}  // namespace
}  // namespace corvane::testing
