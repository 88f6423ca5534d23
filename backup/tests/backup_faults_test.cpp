// Faults from the org and the disk during a run: each ends with the words a user
// reads, and nothing already copied is lost.
#include <gtest/gtest.h>

#include "backup/backup_csv.hpp"
#include "backup/backup_error.hpp"
#include "backup/backup_planner.hpp"
#include "backup/tests/backup_run_fixture.hpp"

namespace corvane::testing {
namespace {

constexpr const char* stopped =
    "The backup was stopped. It carries on where it stopped the next time it runs.";
const char* resultsPath = "/services/data/*/jobs/query/*/results*";

class BackupFaultsTest : public BackupRunFixture {
 protected:
  void SetUp() override {
    BackupRunFixture::SetUp();
    only_ = {"Account", "User"};
    orgsim::testing::addAccounts(store(), 150);
    reference_ = run(second_.path(), RunKind::full);
    ASSERT_EQ(reference_.result, RunResult::complete) << reference_.message;
  }

  // The finished copy holds the same bytes and ids as the run without faults.
  void expectSameAsReference(const RunSummary& summary) {
    EXPECT_EQ(readFile(summary.folder / "Account.csv"),
              readFile(reference_.folder / "Account.csv"));
    auto ids = knownIds(first_.path(), "Account");
    EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), ids.size());
    EXPECT_EQ(ids, knownIds(second_.path(), "Account"));
  }

  RunSummary reference_;
};

TEST_F(BackupFaultsTest, ASingleExpiredSessionIsRetriedSilentlyButASecondSignsOut) {
  fault({{"path", resultsPath}, {"fault", "401"}, {"count", 1}});
  auto once = run(first_.path(), RunKind::full);
  ASSERT_EQ(once.result, RunResult::complete) << once.message;
  expectSameAsReference(once);

  TemporaryFolder third;
  fault({{"path", resultsPath}, {"fault", "401"}, {"count", 2}});
  auto twice = run(third.path(), RunKind::full);
  EXPECT_EQ(twice.result, RunResult::stopped);
  EXPECT_EQ(twice.message, BackupError::signedOut().what());
  auto resumed = run(third.path(), RunKind::full);
  ASSERT_EQ(resumed.result, RunResult::complete) << resumed.message;
  EXPECT_EQ(resumed.folder, twice.folder);
  EXPECT_EQ(readFile(resumed.folder / "Account.csv"), readFile(reference_.folder / "Account.csv"));
}

TEST_F(BackupFaultsTest, ALostLocatorRereadsTheObjectOnceThenLeavesItForTheNextRun) {
  fault({{"path", resultsPath}, {"fault", "invalidLocator"}, {"count", 1}});
  auto once = run(first_.path(), RunKind::full);
  ASSERT_EQ(once.result, RunResult::complete) << once.message;
  expectSameAsReference(once);

  TemporaryFolder third;
  fault({{"path", resultsPath}, {"fault", "invalidLocator"}, {"count", 50}});
  auto always = run(third.path(), RunKind::full);
  EXPECT_EQ(always.result, RunResult::partial);
  EXPECT_EQ(job(third.path(), always.runId, "Account").second,
            "Salesforce lost its place in this object twice while it was being read. The next "
            "backup reads it again.");
  EXPECT_EQ(job(third.path(), always.runId, "User").first, JobState::done);
}

TEST_F(BackupFaultsTest, ADroppedConnectionOrSpentAllowanceStopsAndTheNextRunCarriesOn) {
  fault({{"path", resultsPath}, {"fault", "drop"}, {"afterBytes", 50}, {"count", 1}});
  auto dropped = run(first_.path(), RunKind::full);
  EXPECT_EQ(dropped.result, RunResult::stopped);
  EXPECT_EQ(dropped.message.rfind(stopped, 0), 0u) << dropped.message;
  fault({{"path", resultsPath}, {"fault", "REQUEST_LIMIT_EXCEEDED"}, {"count", 1}});
  auto spent = run(first_.path(), RunKind::full);
  EXPECT_EQ(spent.result, RunResult::stopped);
  EXPECT_EQ(spent.message,
            std::string(stopped) + " (Salesforce says the org's daily API allowance is used up.)");
  EXPECT_EQ(spent.folder, dropped.folder);
  auto resumed = runToTheEnd(first_.path(), RunKind::full);
  ASSERT_EQ(resumed.result, RunResult::complete) << resumed.message;
  expectSameAsReference(resumed);
}

TEST_F(BackupFaultsTest, AnObjectBulkRefusesIsLeftOutAndTheRestIsComplete) {
  TemporaryFolder third;
  fault({{"path", "/services/data/*/jobs/query"},
         {"fault", "failJob"},
         {"message", "Entity 'Account' is not supported by the Bulk API."},
         {"count", 1}});
  auto summary = run(third.path(), RunKind::full);
  EXPECT_EQ(summary.result, RunResult::partial);
  EXPECT_EQ(summary.message,
            "Salesforce would not give these objects: Account. The rest of the backup is "
            "complete.");
  EXPECT_EQ(job(third.path(), summary.runId, "Account").second, BackupPlanner::bulkRefusedReason);
}

TEST_F(BackupFaultsTest, ARefusedFieldIsLeftOutAndRemembered) {
  fault({{"path", "/services/data/*/jobs/query"},
         {"method", "POST"},
         {"fault", "status"},
         {"status", 400},
         {"message",
          "\nSELECT Id, Industry FROM Account\n           ^\nERROR at Row:1:Column:12\nNo such "
          "column 'Industry' on entity 'Account'. If you are attempting to use a custom field, "
          "be sure to append the '__c' after the custom field name."},
         {"count", 1}});
  auto summary = run(first_.path(), RunKind::full);
  ASSERT_EQ(summary.result, RunResult::complete) << summary.message;
  auto page = BackupCSV::scan(readFile(summary.folder / "Account.csv"));
  EXPECT_EQ(page.records.size(), 150u);
  EXPECT_EQ(std::count(page.header.begin(), page.header.end(), "Industry"), 0);
  EXPECT_EQ(std::count(page.header.begin(), page.header.end(), "Name"), 1);
  BackupStore backup(config(first_.path()).location);
  auto state = backup.objectState("Account");
  ASSERT_TRUE(state);
  EXPECT_EQ(state->unsupportedFields, std::vector<std::string>{"Industry"});
  EXPECT_EQ(knownIds(first_.path(), "Account"), knownIds(second_.path(), "Account"));
}

TEST_F(BackupFaultsTest, AFieldSalesforceAlwaysRefusesIsLeftOutWithANoteAndNeverForcesAWholeCopy) {
  admin("settings", {{"queryRefusedFields", "Account.Industry"}});
  // Each run minutes apart on the org's clock: no row shares a second with a watermark.
  store().advanceClock(std::chrono::minutes(2));
  auto full = run(first_.path(), RunKind::full);
  ASSERT_EQ(full.result, RunResult::complete) << full.message;
  EXPECT_EQ(full.records, reference_.records);
  EXPECT_NE(full.message.find("Left out because Salesforce refused them in a query: "
                              "Account.Industry."),
            std::string::npos)
      << full.message;
  auto header = BackupCSV::scan(readFile(full.folder / "Account.csv")).header;
  EXPECT_EQ(std::count(header.begin(), header.end(), "Industry"), 0);

  // One account changes before each run: each changes run copies that one
  // row, never the whole object again.
  const auto ids = knownIds(first_.path(), "Account");
  for (int i = 0; i < 3; ++i) {
    store().advanceClock(std::chrono::minutes(2));
    admin("records/update",
          {{"id", *ids.begin()}, {"fields", {{"Name", "Renamed " + std::to_string(i)}}}});
    auto changes = run(first_.path(), RunKind::changes);
    ASSERT_EQ(changes.result, RunResult::complete) << changes.message;
    EXPECT_EQ(changes.records, 1) << "run " << i;
    BackupStore backup(config(first_.path()).location);
    EXPECT_EQ(backup.objectState("Account")->unsupportedFields,
              std::vector<std::string>{"Industry"});
  }
}

TEST_F(BackupFaultsTest, AFileSizeLimitFailsOnlyThatObjectAndKeepsWhatWasRead) {
  const auto whole =
      static_cast<std::int64_t>(std::filesystem::file_size(reference_.folder / "Account.csv"));
  fileSystem_ = BackupFileSystem{"msdos", "/Volumes/SMALL", whole / 2};
  auto summary = run(first_.path(), RunKind::full);
  EXPECT_EQ(summary.result, RunResult::partial);
  const auto [state, reason] = job(first_.path(), summary.runId, "Account");
  EXPECT_EQ(state, JobState::failed);
  EXPECT_NE(reason.find("It is formatted msdos, which has that limit."), std::string::npos)
      << reason;
  EXPECT_NE(reason.find("what was read of this kind of record is kept."), std::string::npos);
  // What was committed is whole rows, each with its id known.
  const auto kept = readFile(summary.folder / "Account.csv");
  EXPECT_LE(static_cast<std::int64_t>(kept.size()), whole / 2);
  auto page = BackupCSV::scan(kept);
  EXPECT_GT(page.records.size(), 0u);
  EXPECT_EQ(knownIds(first_.path(), "Account").size(), page.records.size());
  EXPECT_EQ(job(first_.path(), summary.runId, "User").first, JobState::done);
}

TEST_F(BackupFaultsTest, AFillingDiskStopsTheRunAndItCarriesOnOnceThereIsRoom) {
  std::atomic<int> asks{0};
  // Room for the estimate, then the disk fills while the records come in.
  freeSpace_ = [&](const std::filesystem::path&) -> std::optional<std::int64_t> {
    return ++asks <= 2 ? 1'000'000'000 : 500;
  };
  auto full = run(first_.path(), RunKind::full);
  EXPECT_EQ(full.result, RunResult::stopped);
  EXPECT_EQ(full.message.rfind("The disk is almost full.", 0), 0u) << full.message;
  freeSpace_ = {};
  auto resumed = run(first_.path(), RunKind::full);
  ASSERT_EQ(resumed.result, RunResult::complete) << resumed.message;
  EXPECT_EQ(resumed.folder, full.folder);
  expectSameAsReference(resumed);
}

TEST_F(BackupFaultsTest, AWriteRefusedForAFullDiskStopsTheRunWithoutLosingAnything) {
  if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "no /dev/full here";
  auto started = run(first_.path(), RunKind::full, [] { return true; });
  ASSERT_EQ(started.result, RunResult::stopped);
  // Every write to Account.csv now fails as on a full disk (ENOSPC).
  std::filesystem::create_symlink("/dev/full", started.folder / "Account.csv");
  auto full = run(first_.path(), RunKind::full);
  EXPECT_EQ(full.result, RunResult::stopped);
  EXPECT_EQ(full.message.rfind("The disk is almost full.", 0), 0u) << full.message;
  EXPECT_EQ(full.folder, started.folder);

  std::filesystem::remove(started.folder / "Account.csv");
  auto resumed = run(first_.path(), RunKind::full);
  ASSERT_EQ(resumed.result, RunResult::complete) << resumed.message;
  EXPECT_EQ(resumed.folder, started.folder);
  expectSameAsReference(resumed);
}

TEST_F(BackupFaultsTest, APageWithoutAnIdColumnIsRefusedAndAnUnreadableAnswerIsBadResponse) {
  tampering_->edit = [](const std::string& path, std::string& body) {
    if (path.find("/results") != std::string::npos && body.rfind("\"Id\"", 0) == 0)
      body.replace(0, 4, "\"Key\"");
  };
  auto noId = run(first_.path(), RunKind::full);
  EXPECT_EQ(noId.result, RunResult::partial);
  EXPECT_EQ(job(first_.path(), noId.runId, "Account").second,
            "Salesforce sent columns without an Id. Nothing was stored from this page.");
  EXPECT_EQ(knownIds(first_.path(), "Account").size(), 0u);

  TemporaryFolder third;
  tampering_->edit = [](const std::string& path, std::string& body) {
    if (path == "/sobjects/") body = "<html>Service unavailable</html>";
  };
  auto unreadable = run(third.path(), RunKind::full);
  EXPECT_EQ(unreadable.result, RunResult::stopped);
  EXPECT_EQ(unreadable.message,
            "Salesforce sent an answer that could not be read (the org's list of objects). Try "
            "again later.");
}

}  // namespace
}  // namespace corvane::testing
