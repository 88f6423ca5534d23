// A record is found deleted only when Salesforce says so or a complete copy
// lacks it: never from a count that could not be had, and never twice.
#include <gtest/gtest.h>

#include "backup/tests/backup_run_fixture.hpp"
#include "tools/orgsim/org_records.hpp"

namespace corvane::testing {
namespace {

class BackupDeletedRowsTest : public BackupRunFixture {
 protected:
  std::vector<std::string> addTasks(int count) {
    auto writer = store().writer("Task", {"Subject"});
    std::vector<std::string> ids;
    for (int i = 0; i < count; ++i) ids.push_back(writer.insert({"Call " + std::to_string(i)}));
    writer.commit();
    return ids;
  }

  // Deleted rows of Task from queryAll are deletions: none of them is in the
  // CSV, each is counted once, and the records are the live ones.
  void expectDeletedTasksLeftOut(int tasks) {
    only_ = {"Task"};
    auto ids = addTasks(tasks);
    auto first = run(first_.path(), RunKind::full);
    ASSERT_EQ(first.result, RunResult::complete) << first.message;
    const auto admin = store().identity().adminUserId;
    for (int i = 0; i < 3; ++i)
      ASSERT_TRUE(orgsim::OrgRecords::remove(store(), ids[i * 7], admin).success);

    auto second = run(first_.path(), RunKind::full);
    ASSERT_EQ(second.result, RunResult::complete) << second.message;
    EXPECT_EQ(second.records, first.records - 3);
    EXPECT_EQ(second.deleted, 3);
    const auto csv = readFile(second.folder / "Task.csv");
    const auto deleted = readFile(second.folder / "Deleted.csv");
    for (int i = 0; i < 3; ++i) {
      const auto& id = ids[i * 7];
      EXPECT_EQ(csv.find(id), std::string::npos) << id;
      const auto at = deleted.find(id);
      ASSERT_NE(at, std::string::npos) << id;
      EXPECT_EQ(deleted.find(id, at + 1), std::string::npos) << id;
    }
    EXPECT_NE(csv.find(ids[1]), std::string::npos);
    EXPECT_EQ(knownIds(first_.path(), "Task").size(), static_cast<std::size_t>(first.records));
  }
};

TEST_F(BackupDeletedRowsTest, DeletedRowsFromQueryAllOverRestAreDeletionsNotRecords) {
  expectDeletedTasksLeftOut(30);
}

TEST_F(BackupDeletedRowsTest, DeletedRowsFromQueryAllInBulkAreDeletionsNotRecords) {
  expectDeletedTasksLeftOut(150);
}

TEST_F(BackupDeletedRowsTest, ACountThatCannotBeHadIsNeverReadAsNoRecords) {
  orgsim::testing::addAccounts(store(), 150);
  only_ = {"Account", "User"};
  auto first = run(first_.path(), RunKind::full);
  ASSERT_EQ(first.result, RunResult::complete) << first.message;

  // Both counts fail; the rough counts lag behind and say there is nothing.
  fault({{"path", "/services/data/*/query"}, {"fault", "500"}, {"count", 2}});
  tampering_->edit = [](const std::string& path, std::string& body) {
    if (path.find("recordCount") == std::string::npos) return;
    auto json = nlohmann::json::parse(body);
    for (auto& entry : json["sObjects"]) entry["count"] = 0;
    body = json.dump();
  };
  auto second = run(first_.path(), RunKind::full);
  ASSERT_EQ(second.result, RunResult::complete) << second.message;
  EXPECT_EQ(second.deleted, 0);
  EXPECT_EQ(second.records, first.records);
  EXPECT_EQ(readFile(second.folder / "Account.csv"), readFile(first.folder / "Account.csv"));
  EXPECT_EQ(job(first_.path(), second.runId, "Account").first, JobState::done);
}

}  // namespace
}  // namespace corvane::testing
