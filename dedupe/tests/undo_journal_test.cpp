// The undo journal's entries, apply by apply: a later apply from the same
// snapshot never replaces an entry of an earlier one once a call of it left,
// and an entry that no call left for is refreshed by the apply run again.
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "dedupe/undo_journal.hpp"
#include "platform/sqlite_db.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

class UndoJournalTest : public ::testing::Test {
 protected:
  void SetUp() override { SQLiteDB::open(snapshot_)->exec("CREATE TABLE records (rid INTEGER)"); }

  static UndoGroup entry(std::int64_t group, const std::string& keeper, const std::string& loser,
                         const std::string& keeperFields = "{}") {
    UndoGroup out;
    out.groupId = group;
    out.object = "Account";
    out.action = "merge";
    out.keeper = keeper;
    out.keeperFields = keeperFields;
    out.losers.push_back({loser, "{}", "sending", ""});
    out.journaledAt = "2026-11-26T04:10:00Z";
    return out;
  }

  static std::vector<std::pair<std::int64_t, std::int64_t>> keys(const UndoJournal& journal) {
    std::vector<std::pair<std::int64_t, std::int64_t>> out;
    for (const UndoGroup& group : journal.groups()) out.emplace_back(group.apply, group.groupId);
    return out;
  }

  TemporaryFolder folder_;
  std::filesystem::path snapshot_ = folder_.path() / "Account.sqlite";
};

TEST_F(UndoJournalTest, AnEntryWhoseCallsLeftIsKeptAndOneNoCallLeftForIsRefreshed) {
  UndoJournal journal(snapshot_);
  const std::int64_t first = journal.beginApply("2026-11-26T04:10:00Z");
  // 1: killed before its call left; 2: merged; 3: not attempted; 4: its
  // call may have left, and the next apply numbers other records 4.
  journal.recordBefore(first, {entry(1, "K1", "L1", R"({"Phone":null})"), entry(2, "K2", "L2"),
                               entry(3, "K3", "L3"), entry(4, "K4", "L4")});
  journal.recordOutcome(first, 2, "L2", "done", "");
  journal.recordOutcome(first, 3, "L3", "notAttempted", "");

  const std::int64_t second = journal.beginApply("2026-11-26T04:20:00Z");
  EXPECT_GT(second, first);
  journal.recordBefore(second, {entry(1, "K1", "L1", R"({"Phone":"1"})"), entry(2, "K2", "L2"),
                                entry(3, "K3", "L3"), entry(4, "K9", "L9")});
  journal.recordOutcome(second, 2, "L2", "failed", "locked");
  const std::vector<std::pair<std::int64_t, std::int64_t>> expected = {
      {second, 1}, {second, 2}, {second, 3}, {second, 4}, {first, 2}, {first, 4}};
  EXPECT_EQ(keys(journal), expected);

  const auto groups = journal.groups();
  EXPECT_EQ(groups[0].keeperFields, R"({"Phone":"1"})");
  EXPECT_EQ(groups[0].appliedAt, "2026-11-26T04:20:00Z");
  EXPECT_EQ(groups[4].losers[0].state, "done");  // the later outcome went to its own entry
  EXPECT_EQ(groups[4].appliedAt, "2026-11-26T04:10:00Z");
  EXPECT_EQ(groups[5].keeper, "K4");

  // Once its undo has begun, not even an entry no call left for is replaced.
  const std::int64_t third = journal.beginApply("2026-11-26T04:30:00Z");
  journal.recordUndoState(second, 3, "undoing", "");
  journal.recordBefore(third, {entry(3, "K3", "L3")});
  EXPECT_EQ(keys(journal).size(), 7u);
  EXPECT_EQ(UndoJournal(snapshot_).groups().size(), 7u);  // as kept on disk
}

}  // namespace
}  // namespace corvane
