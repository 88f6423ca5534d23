// The dated folders a run makes: named on the user's clock, and tidied away
// by retention even when every full run leaves an object out.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "backup/backup_store.hpp"
#include "backup/tests/backup_run_fixture.hpp"
#include "platform/iso_time.hpp"

namespace corvane::testing {
namespace {

class BackupRunFoldersTest : public BackupRunFixture {
 protected:
  void SetUp() override {
    BackupRunFixture::SetUp();
    orgsim::testing::addAccounts(store(), 3);
  }
};

// Sets the process's time zone for one test and puts the old one back.
class TimeZone {
 public:
  explicit TimeZone(const char* zone) {
    if (const char* old = std::getenv("TZ")) old_ = old;
    ::setenv("TZ", zone, 1);
    ::tzset();
  }
  ~TimeZone() {
    if (old_)
      ::setenv("TZ", old_->c_str(), 1);
    else
      ::unsetenv("TZ");
    ::tzset();
  }
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;

 private:
  std::optional<std::string> old_;
};

TEST_F(BackupRunFoldersTest, TheFolderIsNamedOnTheLocalClockAndTheDatabaseKeepsUtc) {
  // Thirteen and a half hours east of UTC: never the same day and hour as UTC.
  TimeZone zone("XYZ-13:30");
  auto summary = run(first_.path(), RunKind::full);
  ASSERT_EQ(summary.result, RunResult::complete) << summary.message;

  BackupStore backup(config(first_.path()).location);
  const auto stored = backup.run(summary.runId);
  ASSERT_TRUE(stored);
  ASSERT_FALSE(stored->startedAt.empty());
  EXPECT_EQ(stored->startedAt.back(), 'Z') << stored->startedAt;
  const auto started = IsoTime::parsePlain(stored->startedAt);
  ASSERT_TRUE(started);
  EXPECT_EQ(stored->folder, IsoTime::folderStamp(*started + std::chrono::minutes(13 * 60 + 30)));
  EXPECT_EQ(summary.folder.filename().string(), stored->folder);
  EXPECT_TRUE(std::filesystem::is_directory(summary.folder));
}

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
