// A bulk job's results end only where Salesforce says they end, and hold every
// row the job found.
#include <gtest/gtest.h>

#include "backup/backup_csv.hpp"
#include "backup/tests/backup_run_fixture.hpp"
#include "connections/download_error.hpp"

namespace corvane::testing {
namespace {

const char* resultsPath = "/services/data/*/jobs/query/*/results*";

class BackupBulkResultsTest : public BackupRunFixture {
 protected:
  void SetUp() override {
    BackupRunFixture::SetUp();
    only_ = {"Account", "User"};
    orgsim::testing::addAccounts(store(), 150);
    reference_ = run(second_.path(), RunKind::full);
    ASSERT_EQ(reference_.result, RunResult::complete) << reference_.message;
  }

  RunSummary reference_;
};

TEST_F(BackupBulkResultsTest, APageWithoutItsLocatorIsAskedForAgainThenFailsTheObject) {
  fault({{"path", resultsPath}, {"fault", "noLocator"}, {"count", 1}});
  auto once = run(first_.path(), RunKind::full);
  ASSERT_EQ(once.result, RunResult::complete) << once.message;
  EXPECT_EQ(readFile(once.folder / "Account.csv"), readFile(reference_.folder / "Account.csv"));
  EXPECT_EQ(once.records, reference_.records);

  TemporaryFolder third;
  fault({{"path", resultsPath}, {"fault", "noLocator"}, {"count", 2}});
  auto twice = run(third.path(), RunKind::full);
  EXPECT_EQ(twice.result, RunResult::partial);
  EXPECT_EQ(job(third.path(), twice.runId, "Account"),
            std::make_pair(std::string(JobState::failed),
                           std::string(DownloadError::pageWithoutLocator().what())));
  EXPECT_NE(twice.message.find("Account"), std::string::npos) << twice.message;
}

TEST_F(BackupBulkResultsTest, ResultsShortOfTheJobsCountFailTheObject) {
  // A page that lost its last row on the way.
  bool cut = false;
  tampering_->edit = [&cut](const std::string& path, std::string& body) {
    if (cut || path.find("/results") == std::string::npos) return;
    if (body.find("Account 00") == std::string::npos) return;
    body.pop_back();
    body.erase(body.rfind('\n') + 1);
    cut = true;
  };
  auto summary = run(first_.path(), RunKind::full);
  ASSERT_TRUE(cut);
  EXPECT_EQ(summary.result, RunResult::partial);
  EXPECT_EQ(job(first_.path(), summary.runId, "Account").second,
            DownloadError::rowsNotAsCounted(150, 149).what());

  tampering_->edit = nullptr;
  auto next = run(first_.path(), RunKind::full);
  ASSERT_EQ(next.result, RunResult::complete) << next.message;
  EXPECT_EQ(readFile(next.folder / "Account.csv"), readFile(reference_.folder / "Account.csv"));
}

}  // namespace
}  // namespace corvane::testing
