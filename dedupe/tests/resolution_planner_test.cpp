// Keeper rules and the resolution planner: who stays, why, and every reason a
// group is left alone.
#include "dedupe/resolution_planner.hpp"

#include <gtest/gtest.h>

#include "dedupe/keeper_rules.hpp"

namespace corvane {
namespace {

SnapshotRecord record(Rid rid, std::string created, std::string modified = "",
                      std::int64_t filled = 0, std::vector<std::string> values = {},
                      std::string object = "") {
  SnapshotRecord r;
  r.rid = rid;
  r.sfid = "003000000000" + std::string(3 - std::to_string(rid).size(), '0') + std::to_string(rid);
  r.name = "Record " + std::to_string(rid);
  r.created = std::move(created);
  r.modified = std::move(modified);
  r.filledCount = filled;
  r.values = std::move(values);
  r.object = std::move(object);
  return r;
}

TEST(KeeperRulesTest, EachRulePicksItsRecordAndTheFirstOfEqualsStays) {
  std::vector<SnapshotRecord> records = {
      record(1, "2024-03-01T10:00:00.000Z", "2024-05-01T00:00:00.000Z", 3),
      record(2, "2023-01-01T10:00:00.000Z", "2024-06-01T00:00:00.000Z", 5),
      record(3, "2025-01-01T10:00:00.000Z", "2024-04-01T00:00:00.000Z", 5),
  };
  EXPECT_EQ(KeeperRules::keeper(records, KeeperRule::oldest)->rid, 2);
  EXPECT_EQ(KeeperRules::keeper(records, KeeperRule::newest)->rid, 3);
  EXPECT_EQ(KeeperRules::keeper(records, KeeperRule::mostComplete)->rid, 2);  // tie: first
  EXPECT_EQ(KeeperRules::keeper(records, KeeperRule::recentlyUpdated)->rid, 2);
  EXPECT_EQ(KeeperRules::keeper({}, KeeperRule::oldest), nullptr);
}

TEST(KeeperRulesTest, ARecordWithoutADateNeverWinsWhileAnotherHasOne) {
  std::vector<SnapshotRecord> records = {record(1, ""), record(2, "2024-01-01T00:00:00.000Z"),
                                         record(3, "")};
  EXPECT_EQ(KeeperRules::keeper(records, KeeperRule::oldest)->rid, 2);
  EXPECT_EQ(KeeperRules::keeper(records, KeeperRule::newest)->rid, 2);
  EXPECT_EQ(KeeperRules::keeper(records, KeeperRule::recentlyUpdated)->rid, 1);  // all blank
}

TEST(KeeperRulesTest, ReasonsAndLabelsReadAsWritten) {
  SnapshotRecord keeper = record(1, "2024-03-01T10:00:00.000+0000", "2024-05-02T00:00:00Z", 7);
  EXPECT_EQ(KeeperRules::why(keeper, KeeperRule::oldest, 2),
            "Kept because it was created first (2024-03-01)");
  EXPECT_EQ(KeeperRules::why(keeper, KeeperRule::newest, 2),
            "Kept because it was created last (2024-03-01)");
  EXPECT_EQ(KeeperRules::why(keeper, KeeperRule::mostComplete, 2),
            "Kept because it has the most filled-in fields (7)");
  EXPECT_EQ(KeeperRules::why(keeper, KeeperRule::recentlyUpdated, 2),
            "Kept because it was updated most recently (2024-05-02)");
  EXPECT_EQ(KeeperRules::label(KeeperRule::oldest),
            "The record created first stays. Usually the one other records already link to.");
  for (KeeperRule rule : allKeeperRules) EXPECT_EQ(keeperRuleFromRaw(rawValue(rule)), rule);
  EXPECT_EQ(keeperRuleFromRaw("Oldest"), std::nullopt);
}

class PlannerTest : public ::testing::Test {
 protected:
  PlannerTest() {
    context_.objectName = "Contact";
    context_.objectLabel = "Contact";
    context_.matchFields = {{"Name", "Full Name", MatchKind::personName, MatchMode::close},
                            {"Email", "Email", MatchKind::email, MatchMode::exact},
                            {"Phone", "Phone", MatchKind::phone, MatchMode::exact}};
    context_.writableFields = std::map<std::string, std::vector<ResolutionPlanner::WritableField>>{
        {"Contact", {{"Email", false}, {"Phone", false}, {"Duplicate_Of__c", true}}}};
  }

  ResolvedGroup group(std::int64_t id, std::vector<SnapshotRecord> records, Rid keeper,
                      int distinct = 2) {
    ResolvedGroup g;
    g.group.id = id;
    for (const auto& r : records) g.group.members.push_back(r.rid);
    g.group.distinctCount = distinct;
    g.records = std::move(records);
    g.keeperRid = keeper;
    return g;
  }

  ResolutionPlanner::Context context_;
};

TEST_F(PlannerTest, AGroupOfThreeGivesTwoMergesWithTheSamePrimaryAndValuesOnTheFirstOnly) {
  auto g = group(7,
                 {record(1, "2020", "m1", 2, {"Ann Lee", "", "555"}),
                  record(2, "2021", "m2", 2, {"Ann Lee", "ann@x.org", ""}),
                  record(3, "2022", "m3", 2, {"Anne Lee", "ann2@x.org", "555"})},
                 1);
  auto plan = ResolutionPlanner::plan({g}, ResolutionAction::merge(), context_);
  ASSERT_EQ(plan.merges.size(), 2u);
  EXPECT_EQ(plan.groupCount, 1);
  EXPECT_EQ(plan.merges[0].primary, plan.merges[1].primary);
  EXPECT_EQ(plan.merges[0].primary, g.records[0].sfid);
  EXPECT_EQ(plan.merges[0].primaryModified, "m1");
  EXPECT_EQ(plan.merges[0].loser, g.records[1].sfid);
  EXPECT_EQ(plan.merges[1].loserModified, "m3");
  // The keeper's blank e-mail takes the first loser's; Name is not writable.
  EXPECT_EQ(plan.merges[0].fieldValues, (std::map<std::string, std::string>{{"Email", "ann@x.org"}}));
  EXPECT_TRUE(plan.merges[1].fieldValues.empty());
  EXPECT_EQ(plan.merges[0].object, "Contact");
}

TEST_F(PlannerTest, ChosenValuesRideOnTheFirstMergeAndAGoneKeeperSkipsTheGroup) {
  auto g = group(1, {record(1, "2020", "m1", 0, {"A", "a@x", "1"}), record(2, "2021", "m2", 0, {"A", "b@x", "1"})}, 1);
  g.chosenValues = {{"Email", "b@x"}};
  auto plan = ResolutionPlanner::plan({g}, ResolutionAction::merge(), context_);
  ASSERT_EQ(plan.merges.size(), 1u);
  EXPECT_EQ(plan.merges[0].fieldValues.at("Email"), "b@x");

  g.keeperRid = 99;
  plan = ResolutionPlanner::plan({g}, ResolutionAction::merge(), context_);
  ASSERT_EQ(plan.skipped.size(), 1u);
  EXPECT_EQ(plan.skipped[0].second,
            "The record you chose to keep is no longer available, and this group has chosen "
            "values. Review it again.");
  g.chosenValues.clear();
  plan = ResolutionPlanner::plan({g}, ResolutionAction::deleteLosers(), context_);
  EXPECT_EQ(plan.skipped.at(0).second, "This group no longer has a keeper and other records.");
  auto alone = group(2, {record(1, "2020")}, 1);
  plan = ResolutionPlanner::plan({alone}, ResolutionAction::deleteLosers(), context_);
  EXPECT_EQ(plan.skipped.at(0).second, "This group no longer has a keeper and other records.");
}

TEST_F(PlannerTest, MergeSkipsCasesAndMixedGroupsWithTheirSentences) {
  context_.objectName = "Case";
  context_.objectLabel = "Case";
  auto cases = group(3, {record(1, "2020"), record(2, "2021")}, 1);
  auto plan = ResolutionPlanner::plan({cases}, ResolutionAction::merge(), context_);
  EXPECT_TRUE(plan.merges.empty());
  ASSERT_EQ(plan.skipped.size(), 1u);
  EXPECT_EQ(plan.skipped[0], std::make_pair(std::int64_t{3},
                                            std::string("Corvane merges only Accounts, Contacts "
                                                        "and Leads, so these Case records cannot "
                                                        "be merged.")));
  // Cases can still be deleted.
  plan = ResolutionPlanner::plan({cases}, ResolutionAction::deleteLosers(), context_);
  ASSERT_EQ(plan.deletes.size(), 1u);
  EXPECT_EQ(plan.deletes[0].sfid, cases.records[1].sfid);
  EXPECT_EQ(plan.deletes[0].object, "Case");

  context_.objects = {{"Contact", "Contact", {"Name", "Email", "Phone"}, {}},
                      {"Lead", "Lead", {"Name", "Email", "Phone"}, {}}};
  auto mixed = group(4, {record(1, "2020", "", 0, {}, "Contact"), record(2, "2021", "", 0, {}, "Lead")}, 1);
  plan = ResolutionPlanner::plan({mixed}, ResolutionAction::merge(), context_);
  EXPECT_EQ(plan.skipped.at(0).second,
            "This group holds more than one kind of record, and Salesforce can only merge "
            "records of the same kind.");
  context_.shiftedKinds = {MatchKind::email, MatchKind::phone};
  plan = ResolutionPlanner::plan({mixed}, ResolutionAction::deleteLosers(), context_);
  EXPECT_EQ(plan.skipped.at(0).second.rfind("Email and phone values in it may sit under the wrong "
                                            "field, so this group may not be real. Nothing was "
                                            "changed. ",
                                            0),
            0u);
}

TEST_F(PlannerTest, FillGapsNeverOverwritesAndSaysWhyItDidNothing) {
  auto g = group(5, {record(1, "2020", "m1", 0, {"Ann", "", "555"}), record(2, "2021", "m2", 0, {"Ann", "a@x", "777"})}, 1);
  g.chosenValues = {{"Phone", "777"}};  // filling does not overwrite, even a chosen value
  auto plan = ResolutionPlanner::plan({g}, ResolutionAction::fillGaps(), context_);
  ASSERT_EQ(plan.updates.size(), 1u);
  EXPECT_EQ(plan.updates[0].sfid, g.records[0].sfid);
  EXPECT_EQ(plan.updates[0].fields, (std::map<std::string, std::string>{{"Email", "a@x"}}));

  g.records[0].values[1] = "mine@x";
  plan = ResolutionPlanner::plan({g}, ResolutionAction::fillGaps(), context_);
  EXPECT_EQ(plan.skipped.at(0).second, "The kept record already has every fillable field filled in.");

  context_.writableFields.reset();
  plan = ResolutionPlanner::plan({g}, ResolutionAction::fillGaps(), context_);
  EXPECT_EQ(plan.skipped.at(0).second,
            "Field details have not loaded from Salesforce yet, so nothing was filled.");
}

TEST_F(PlannerTest, TaggingWritesTheKeepersIdIntoAWritableTextFieldOnly) {
  auto g = group(6, {record(1, "2020"), record(2, "2021"), record(3, "2022")}, 2);
  auto plan = ResolutionPlanner::plan({g}, ResolutionAction::tagLosers("duplicate_of__c"), context_);
  ASSERT_EQ(plan.updates.size(), 2u);
  EXPECT_EQ(plan.updates[0].sfid, g.records[0].sfid);
  EXPECT_EQ(plan.updates[0].fields, (std::map<std::string, std::string>{{"Duplicate_Of__c", g.records[1].sfid}}));

  plan = ResolutionPlanner::plan({g}, ResolutionAction::tagLosers("Phone"), context_);
  EXPECT_TRUE(plan.updates.empty());
  EXPECT_EQ(plan.skipped.at(0).second,
            "Contact records have no text field named \"Phone\" that can be written, so nothing "
            "in this group was tagged.");
}

TEST_F(PlannerTest, GroupsOfManyDifferentMembersAreHeldBackUnlessIncluded) {
  auto loose = group(8, {record(1, "2020"), record(2, "2021"), record(3, "2022")}, 1, 3);
  auto tight = group(9, {record(4, "2020"), record(5, "2021")}, 4, 2);
  auto plan = ResolutionPlanner::plan({loose, tight}, ResolutionAction::deleteLosers(), context_);
  EXPECT_EQ(plan.heldBack, (std::vector<std::pair<std::int64_t, int>>{{8, 3}}));
  EXPECT_EQ(plan.groupCount, 1);
  ASSERT_EQ(plan.deletes.size(), 1u);
  EXPECT_EQ(plan.deletes[0].groupId, 9);

  context_.includeHeldBack = true;
  plan = ResolutionPlanner::plan({loose, tight}, ResolutionAction::deleteLosers(), context_);
  EXPECT_TRUE(plan.heldBackIncluded);
  EXPECT_EQ(plan.heldBack.size(), 1u);
  EXPECT_EQ(plan.deletes.size(), 3u);

  plan = ResolutionPlanner::plan({loose, tight}, ResolutionAction::exportOnly(), context_);
  EXPECT_TRUE(plan.heldBack.empty());
  EXPECT_EQ(plan.groupCount, 2);
}

TEST(ResolutionActionTest, TextsRoundTrip) {
  for (const auto& text : {"merge", "deleteLosers", "fillGaps", "tag:Dup__c", "exportOnly"}) {
    auto action = ResolutionAction::fromText(text);
    ASSERT_TRUE(action) << text;
    EXPECT_EQ(action->text(), text);
  }
  EXPECT_FALSE(ResolutionAction::fromText("tag:"));
  EXPECT_FALSE(ResolutionAction::fromText("Merge"));
}

}  // namespace
}  // namespace corvane
