// The rows of the results workbook for the plans that no end-to-end test
// runs: updates, groups skipped and groups held back.
#include <gtest/gtest.h>

#include "dedupe/resolution_task.hpp"

namespace corvane {
namespace {

SnapshotRecord record(Rid rid) {
  SnapshotRecord r;
  r.rid = rid;
  r.sfid = "003" + std::to_string(rid);
  r.name = "Record " + std::to_string(rid);
  return r;
}

ResolvedGroup group(std::int64_t id, std::vector<Rid> rids) {
  ResolvedGroup g;
  g.group.id = id;
  for (Rid rid : rids) g.records.push_back(record(rid));
  g.keeperRid = rids.front();
  return g;
}

TEST(ResolutionResultsTest, UpdatesSkippedAndHeldBackGroupsEachSayWhatHappened) {
  ResolutionTask::Resolution resolution;
  resolution.groups = {group(1, {1, 2}), group(2, {3, 4}), group(3, {5, 6, 7})};
  ResolutionPlan& plan = resolution.plan;
  plan.action = ResolutionAction::tagLosers("Dup__c");
  plan.updates = {{"0032", "", 1, {{"Dup__c", "0031"}}, "Contact"}};
  plan.skipped = {{2, "This group no longer has a keeper and other records."}};
  plan.heldBack = {{3, 3}};
  ResolutionTask::ApplyOutcome outcome;
  outcome.changes = {{"0032", 1, false, "FIELD_CUSTOM_VALIDATION_EXCEPTION: no",
                      ChangeRunner::ChangeResult::Status::failed}};

  const auto rows = ResolutionTask::resultEntries(resolution, outcome);
  ASSERT_EQ(rows.size(), 7u);
  EXPECT_EQ(rows[0], (ResolutionResultsWorkbook::Entry{"0031", 1, "Record 1", "Keep", "Kept", ""}));
  EXPECT_EQ(rows[1],
            (ResolutionResultsWorkbook::Entry{"0032", 1, "Record 2", "Update Dup__c = \"0031\"",
                                              "Failed", "FIELD_CUSTOM_VALIDATION_EXCEPTION: no"}));
  EXPECT_EQ(rows[2].outcome, "Skipped");
  EXPECT_EQ(rows[3].detail, "This group no longer has a keeper and other records.");
  EXPECT_EQ(rows[4].outcome, "Held back");
  EXPECT_EQ(rows[6].action, "None");

  // Included when the user asked: the held-back group's records are then planned.
  plan.heldBackIncluded = true;
  plan.updates.push_back({"0036", "", 3, {{"Dup__c", "0035"}}, "Contact"});
  const auto included = ResolutionTask::resultEntries(resolution, outcome);
  EXPECT_EQ(included[5].outcome, "Not attempted");
  EXPECT_EQ(included[6].outcome, "Unchanged");
}

}  // namespace
}  // namespace corvane
