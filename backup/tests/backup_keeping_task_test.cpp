#include "backup/backup_keeping_task.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "backup/backup_store.hpp"
#include "connections/api_transport.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/tests/sample_org.hpp"
#include "tools/orgsim/tests/sample_org_api.hpp"

namespace corvane {
namespace {

class BackupKeepingTaskTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    api_ = orgsim::testing::adminClient(*server_);
    Org org;
    org.username = store().identity().adminUsername;
    transport_ = std::make_unique<DedupeAPITransport>(*api_, org);
    location_ = {folder_.path(), "00D000000000001AAA", org.username};
  }

  // Ids of records the org never had, so every one is "not in the bin".
  static std::vector<std::string> unknownIds(int count) {
    std::vector<std::string> ids;
    for (int i = 0; i < count; ++i) ids.push_back(fmt::format("001{:012d}AAA", i + 1));
    return ids;
  }

  TemporaryFolder folder_;
  std::unique_ptr<SalesforceAPI::Client> api_;
  std::unique_ptr<DedupeAPITransport> transport_;
  BackupLocation location_;
};

TEST_F(BackupKeepingTaskTest, ChecksABatchAtATimeReportingEachAndStopsBetweenBatches) {
  const auto ids = unknownIds(450);
  std::vector<BackupKeepingTask::Progress> seen;
  auto result = BackupKeepingTask::recycleBin(
      *transport_, location_, {"Account", ids, false}, {},
      [&](const BackupKeepingTask::Progress& progress) { seen.push_back(progress); });
  EXPECT_EQ(result.asked, 450u);
  ASSERT_EQ(result.outcomes.size(), 450u);
  EXPECT_EQ(result.outcomes.back().kind, RecycleBin::Outcome::Kind::notInTheBin);
  EXPECT_FALSE(result.stopped);
  using Phase = BackupKeepingTask::Phase;
  EXPECT_EQ(seen, (std::vector<BackupKeepingTask::Progress>{{Phase::checking, 0, 450, "Account"},
                                                            {Phase::checking, 200, 450, "Account"},
                                                            {Phase::checking, 400, 450, "Account"},
                                                            {Phase::finished, 450, 450, ""}}));

  std::stop_source source;
  result = BackupKeepingTask::recycleBin(*transport_, location_, {"Account", ids, false},
                                         source.get_token(),
                                         [&](const BackupKeepingTask::Progress& progress) {
                                           if (progress.done == 200) source.request_stop();
                                         });
  EXPECT_TRUE(result.stopped);
  EXPECT_EQ(result.outcomes.size(), 400u) << "the batch in flight is finished";
}

TEST_F(BackupKeepingTaskTest, WithoutABackupNothingIsFoundDeleted) {
  try {
    BackupKeepingTask::recycleBin(*transport_, location_, {"Account", {}, false}, {});
    FAIL() << "there is no backup to take the ids from";
  } catch (const BackupKeepingError& error) {
    EXPECT_EQ(error.kind(), BackupKeepingError::Kind::noBackupYet);
    EXPECT_NE(error.description().find(folder_.path().string()), std::string::npos);
  }
  EXPECT_THROW(BackupKeepingTask::deleted(location_, "", ""), BackupKeepingError);

  BackupStore created(location_);
  EXPECT_TRUE(BackupKeepingTask::deleted(location_, "", "").empty());
  const auto result = BackupKeepingTask::recycleBin(*transport_, location_, {"Account", {}, false}, {});
  EXPECT_EQ(result.asked, 0u);
  EXPECT_TRUE(result.outcomes.empty());
}

}  // namespace
}  // namespace corvane
