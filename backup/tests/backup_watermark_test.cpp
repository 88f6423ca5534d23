// The point from which a changes run asks moves only with rows safely in a
// folder, and a changes run that cannot be trusted makes the next one full.
#include <gtest/gtest.h>

#include <thread>

#include "backup/backup_csv.hpp"
#include "backup/tests/backup_run_fixture.hpp"

namespace corvane::testing {
namespace {

constexpr const char* fullAfterGivenUp =
    "The backup before this one was given up part-way, so this one copies everything.";
constexpr const char* fullAfterObjectsChanged =
    "The kinds of record to back up changed since the last backup, so this one copies "
    "everything.";
constexpr const char* fullAfterTooLong =
    "The last backup is older than the 15 days for which Salesforce lists deleted records, so "
    "this one copies everything.";

class BackupWatermarkTest : public BackupRunFixture {
 protected:
  void SetUp() override {
    BackupRunFixture::SetUp();
    only_ = {"Account", "User"};
    orgsim::testing::addAccounts(store(), 150);
  }

  // Runs a full backup, then waits so that the next run's clock differs.
  RunSummary firstFull() {
    auto summary = run(first_.path(), RunKind::full);
    EXPECT_EQ(summary.result, RunResult::complete) << summary.message;
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    orgsim::testing::addAccounts(store(), 5);
    return summary;
  }

  std::string serverNowOf(std::int64_t runId) {
    BackupStore backup(config(first_.path()).location);
    return backup.run(runId)->serverNow;
  }
  std::string watermarkOf(const std::string& object) {
    BackupStore backup(config(first_.path()).location);
    auto state = backup.objectState(object);
    return state ? state->watermark : "";
  }

  // Stops once the object's copy is finished (from now on).
  BackupRunner::ShouldStop afterFinishing(const std::string& object) {
    std::size_t from;
    {
      std::lock_guard guard(seenMutex_);
      from = seen_.size();
    }
    return [this, object, from] {
      std::lock_guard guard(seenMutex_);
      return std::any_of(seen_.begin() + static_cast<std::ptrdiff_t>(from), seen_.end(),
                         [&](const BackupProgress& progress) {
                           return progress.step == BackupProgress::Step::objectFinished &&
                                  progress.object == object;
                         });
    };
  }
};

TEST_F(BackupWatermarkTest, AGivenUpRunLeavesTheWatermarkAndTheNextRunIsFull) {
  const auto full = firstFull();
  auto stopped = run(first_.path(), RunKind::changes, afterFinishing("Account"));
  ASSERT_EQ(stopped.result, RunResult::stopped) << stopped.message;
  ASSERT_EQ(job(first_.path(), stopped.runId, "Account").first, JobState::done);
  RunSummary given;
  for (int attempt = 0; attempt < 5 && given.result != RunResult::gaveUp; ++attempt)
    given = run(first_.path(), RunKind::changes, [] { return true; });
  ASSERT_EQ(given.result, RunResult::gaveUp) << given.message;
  EXPECT_EQ(watermarkOf("Account"), serverNowOf(full.runId));

  auto next = run(first_.path(), RunKind::changes);
  ASSERT_EQ(next.result, RunResult::complete) << next.message;
  EXPECT_EQ(next.kind, RunKind::full);
  EXPECT_EQ(next.message.rfind(fullAfterGivenUp, 0), 0u) << next.message;
  EXPECT_EQ(next.records, full.records + 5);
  EXPECT_EQ(watermarkOf("Account"), serverNowOf(next.runId));

  auto after = run(first_.path(), RunKind::changes);
  EXPECT_EQ(after.kind, RunKind::changes);
  EXPECT_EQ(after.message.find("copies everything"), std::string::npos) << after.message;
}

TEST_F(BackupWatermarkTest, ARunWhoseFolderCouldNotBeWrittenLeavesTheWatermark) {
  const auto full = firstFull();
  auto stopped = run(first_.path(), RunKind::changes, afterFinishing("Account"));
  ASSERT_EQ(stopped.result, RunResult::stopped) << stopped.message;
  // Something in the way of the summary files.
  std::filesystem::remove(stopped.folder / "manifest.json");
  std::filesystem::create_directories(stopped.folder / "manifest.json" / "in the way");
  auto resumed = run(first_.path(), RunKind::changes);
  EXPECT_NE(resumed.message.find("Its own summary files could not be written"), std::string::npos)
      << resumed.message;
  EXPECT_EQ(watermarkOf("Account"), serverNowOf(full.runId));
}

TEST_F(BackupWatermarkTest, ChangedObjectsOrAnOldWatermarkMakeARunFullAndSayWhy) {
  only_ = {"Account"};
  firstFull();
  only_ = {"Account", "User"};
  auto widened = run(first_.path(), RunKind::changes);
  ASSERT_EQ(widened.result, RunResult::complete) << widened.message;
  EXPECT_EQ(widened.kind, RunKind::changes);
  auto next = run(first_.path(), RunKind::changes);
  EXPECT_EQ(next.kind, RunKind::full);
  EXPECT_EQ(next.message.rfind(fullAfterObjectsChanged, 0), 0u) << next.message;
  EXPECT_EQ(run(first_.path(), RunKind::changes).kind, RunKind::changes);

  {
    BackupStore backup(config(first_.path()).location);
    backup.db().exec("UPDATE objects SET watermark = '2020-01-01T00:00:00Z' WHERE watermark != ''");
  }
  auto old = run(first_.path(), RunKind::changes);
  ASSERT_EQ(old.result, RunResult::complete) << old.message;
  EXPECT_EQ(old.kind, RunKind::full);
  EXPECT_EQ(old.message.rfind(fullAfterTooLong, 0), 0u) << old.message;
  EXPECT_EQ(job(first_.path(), old.runId, "Account").first, JobState::done);
  EXPECT_EQ(run(first_.path(), RunKind::changes).kind, RunKind::changes);
}

TEST_F(BackupWatermarkTest, ChangedFieldsCopyTheObjectWholeAndMakeTheNextRunFull) {
  firstFull();
  {
    // As if Account had one field more when it was last copied.
    BackupStore backup(config(first_.path()).location);
    auto state = backup.objectState("Account");
    ASSERT_TRUE(state);
    state->fields.push_back("Gone__c");
    backup.db()
        .prepare("UPDATE objects SET fields = ? WHERE name = 'Account'")
        .bindText(1, nlohmann::json(state->fields).dump())
        .run();
  }
  auto changed = run(first_.path(), RunKind::changes);
  ASSERT_EQ(changed.result, RunResult::complete) << changed.message;
  EXPECT_EQ(changed.kind, RunKind::changes);
  // Copied whole, not only the 5 new ones.
  EXPECT_EQ(BackupCSV::scan(readFile(changed.folder / "Account.csv")).records.size(), 155u);
  auto next = run(first_.path(), RunKind::changes);
  EXPECT_EQ(next.kind, RunKind::full);
  EXPECT_EQ(next.message.rfind("The fields of Account changed since the last backup, so this one "
                               "copies everything.",
                               0),
            0u)
      << next.message;
}

}  // namespace
}  // namespace corvane::testing
