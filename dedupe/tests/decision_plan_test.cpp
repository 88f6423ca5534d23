// Decisions read back from a workbook, turned into the groups to resolve.
#include "dedupe/decision_plan.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace corvane {
namespace {

using ::testing::ElementsAre;

SnapshotRecord record(Rid rid, std::string created) {
  SnapshotRecord r;
  r.rid = rid;
  r.sfid = "003" + std::to_string(rid);
  r.name = "Record " + std::to_string(rid);
  r.created = std::move(created);
  return r;
}

std::vector<SnapshotRecord> records() {
  return {record(1, "2020"), record(2, "2019"), record(3, "2021"), record(4, "2018"),
          record(5, "2022"), record(6, "2017"), record(7, "2023")};
}

std::vector<DecisionWorkbook::DecidedGroup> groups() {
  return {{1, {"0031", "0032", "0033"}}, {2, {"0034", "0035"}}, {3, {"0036", "0037"}}};
}

std::vector<Rid> rids(const ResolvedGroup& group) {
  std::vector<Rid> out;
  for (const auto& r : group.records) out.push_back(r.rid);
  return out;
}

TEST(DecisionPlanTest, KeepPicksTheKeeperDeleteLeavesBlankRowsStayAndNotDuplicatesAreRemembered) {
  DecisionWorkbook::Decisions decisions;
  decisions.keeps = {"0033"};
  decisions.deletes = {"0031", "0035"};
  decisions.notDuplicates = {"0037"};
  auto outcome = DecisionPlan::resolve(decisions, groups(), records(), KeeperRule::oldest,
                                       ResolutionAction::merge());
  EXPECT_TRUE(outcome.problems.empty());
  ASSERT_EQ(outcome.groups.size(), 2u);
  // Group 1: 3 marked Keep although 2 is older; 2 is blank and left alone.
  EXPECT_EQ(outcome.groups[0].keeperRid, 3);
  EXPECT_THAT(rids(outcome.groups[0]), ElementsAre(3, 1));
  EXPECT_EQ(outcome.groups[0].keeperReason, "Marked Keep in the workbook");
  EXPECT_EQ(outcome.groups[0].group.distinctCount, 0);  // never held back
  // Group 2: no Keep, so the rule picks among the blank rows.
  EXPECT_EQ(outcome.groups[1].keeperRid, 4);
  EXPECT_THAT(rids(outcome.groups[1]), ElementsAre(4, 5));
  EXPECT_EQ(outcome.groups[1].keeperReason,
            "Kept because it was created first (2018); no record was marked Keep");
  // Group 3 has no Delete: nothing to resolve, but its Not a duplicate is remembered.
  EXPECT_EQ(outcome.notDuplicates, (std::vector<std::pair<Rid, std::string>>{{7, "0037"}}));
  ASSERT_EQ(outcome.decided.size(), 3u);
  EXPECT_EQ(outcome.decided[2].records[1].decision, DecisionPlan::Decision::notDuplicate);
  EXPECT_EQ(outcome.decided[0].records[1].decision, DecisionPlan::Decision::none);
}

TEST(DecisionPlanTest, AMergeNeedsOneKeeperAndADeleteNeedsSomethingLeftToKeep) {
  DecisionWorkbook::Decisions decisions;
  decisions.keeps = {"0031", "0032"};
  decisions.deletes = {"0033", "0036"};
  decisions.notDuplicates = {"0037"};
  decisions.problems = {"from the workbook"};
  auto outcome = DecisionPlan::resolve(decisions, groups(), records(), KeeperRule::oldest,
                                       ResolutionAction::merge());
  EXPECT_THAT(outcome.problems,
              ElementsAre("from the workbook",
                          "Group 1 has 2 records marked Keep, so the records marked Delete have "
                          "no single record to be merged into. Mark one record Keep and leave the "
                          "others blank."));
  EXPECT_EQ(outcome.groups.size(), 0u);  // group 3 has nothing left to keep

  // Deleting needs no single target: the rule picks among the Keeps, and the
  // other Keep is not touched.
  decisions.problems.clear();
  decisions.notDuplicates.clear();
  outcome = DecisionPlan::resolve(decisions, groups(), records(), KeeperRule::oldest,
                                  ResolutionAction::deleteLosers());
  EXPECT_TRUE(outcome.problems.empty());
  ASSERT_EQ(outcome.groups.size(), 2u);
  EXPECT_THAT(rids(outcome.groups[0]), ElementsAre(2, 3));
  EXPECT_THAT(rids(outcome.groups[1]), ElementsAre(7, 6));
}

}  // namespace
}  // namespace corvane
