// A resumed run whose REST cursor Salesforce let go asks again from the last
// row it kept, in order of Id: nothing lost, nothing twice.
#include <gtest/gtest.h>

#include "backup/tests/backup_run_fixture.hpp"

namespace corvane::testing {
namespace {

class BackupLostCursorTest : public BackupRunFixture {
 protected:
  void SetUp() override {
    BackupRunFixture::SetUp();
    // More than one REST page (2,000 rows each) and still read over REST.
    only_ = {"Account"};
    restThreshold_ = 5000;
    orgsim::testing::addAccounts(store(), 2300);
    reference_ = run(second_.path(), RunKind::full);
    ASSERT_EQ(reference_.result, RunResult::complete) << reference_.message;
  }

  RunSummary reference_;
};

TEST_F(BackupLostCursorTest, AResumedRunAsksAgainAfterTheLastRowItKept) {
  pages_ = 0;
  auto stopped = run(first_.path(), RunKind::full, [this] { return pages_ >= 2; });
  ASSERT_EQ(stopped.result, RunResult::stopped) << stopped.message;
  ASSERT_EQ(knownIds(first_.path(), "Account").size(), 2000u);

  fault({{"path", "/services/data/*/query/*"}, {"fault", "invalidLocator"}, {"count", 1}});
  auto resumed = run(first_.path(), RunKind::full);
  ASSERT_EQ(resumed.result, RunResult::complete) << resumed.message;
  EXPECT_EQ(resumed.folder, stopped.folder);
  EXPECT_EQ(resumed.records, 2300);
  EXPECT_EQ(readFile(resumed.folder / "Account.csv"), readFile(reference_.folder / "Account.csv"));
  auto ids = knownIds(first_.path(), "Account");
  EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), 2300u);
}

}  // namespace
}  // namespace corvane::testing
