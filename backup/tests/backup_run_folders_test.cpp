// The dated folders a run makes: tidied away by retention even when every
// full run leaves an object out.
#include <gtest/gtest.h>

#include "backup/backup_store.hpp"
#include "backup/tests/backup_run_fixture.hpp"

namespace corvane::testing {
namespace {

class BackupRunFoldersTest : public BackupRunFixture {
 protected:
  void SetUp() override {
    BackupRunFixture::SetUp();
    orgsim::testing::addAccounts(store(), 3);
  }
};

TEST_F(BackupRunFoldersTest, RetentionRemovesOldCopiesWhenEveryFullRunLeavesAnObjectOut) {
  // This login may not read Contact at all: every run leaves it out.
  fault({{"path", "*/sobjects/Contact/describe"}, {"fault", 403}, {"count", 100}});
  std::vector<RunSummary> runs;
  for (auto kind : {RunKind::full, RunKind::changes, RunKind::full, RunKind::full,
                    RunKind::full}) {
    runs.push_back(run(first_.path(), kind));
    ASSERT_EQ(runs.back().result, RunResult::partial) << runs.back().message;
  }
  // The fifth run is the fourth full one: the first full and its changes go.
  EXPECT_EQ(runs[4].removedBackups,
            (std::vector<std::string>{runs[0].folder.filename().string(),
                                      runs[1].folder.filename().string()}));
  for (std::size_t i = 0; i < runs.size(); ++i)
    EXPECT_EQ(std::filesystem::exists(runs[i].folder), i >= 2) << i;
}

}  // namespace
}  // namespace corvane::testing
