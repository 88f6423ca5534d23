// Field survivorship: which record's value each rule picks, and the merge
// plan that carries the picked values with the record each comes from.
#include "dedupe/value_rules.hpp"

#include <gtest/gtest.h>

#include "dedupe/resolution_planner.hpp"

namespace corvane {
namespace {

using Candidates = std::vector<ValueRules::Candidate>;

TEST(ValueRulesTest, EachRulePicksItsValueBlanksNeverWinAndTiesGoToTheEarlier) {
  // The kept record first, then the others in keeper-rule order.
  const Candidates values = {{"", "2024-01-01"},
                             {"Pilot", "2023-01-01"},
                             {"Chief Pilot", "2022-01-01"},
                             {"  ", "2025-01-01"},
                             {"Pilot", "2024-06-01"}};
  EXPECT_EQ(ValueRules::pick(ValueRule::keeper, values), 1u);
  EXPECT_EQ(ValueRules::pick(ValueRule::nonEmpty, values), 1u);
  EXPECT_EQ(ValueRules::pick(ValueRule::mostRecent, values),
            4u);  // the blank of 2025 does not count
  EXPECT_EQ(ValueRules::pick(ValueRule::longest, values), 2u);
  EXPECT_EQ(ValueRules::pick(ValueRule::mostCommon, values), 1u);  // "Pilot" twice, first holder

  EXPECT_EQ(ValueRules::pick(ValueRule::mostRecent, {{"", "2025"}, {" ", "2024"}}), std::nullopt);
  EXPECT_EQ(ValueRules::pick(ValueRule::longest, {{"Zoë", ""}, {"Zoe", ""}}), 0u);  // characters
  EXPECT_EQ(ValueRules::pick(ValueRule::mostCommon, {{"A", ""}, {"B", ""}, {"B", ""}, {"A", ""}}),
            0u);
  EXPECT_EQ(ValueRules::pick(ValueRule::keeper, {{"mine", ""}, {"theirs", ""}}), 0u);
}

TEST(ValueRulesTest, ChoicesParseForAllFieldsOrOneAndLaterOnesWin) {
  KeepValues rules;
  EXPECT_TRUE(rules.add("mostRecent"));
  EXPECT_TRUE(rules.add("Phone = longest"));
  EXPECT_TRUE(rules.add("phone=nonEmpty"));
  EXPECT_EQ(rules.all, ValueRule::mostRecent);
  EXPECT_EQ(rules.fields.size(), 1u);
  EXPECT_EQ(rules.ruleFor("PHONE"), ValueRule::nonEmpty);
  EXPECT_EQ(rules.ruleFor("Title"), ValueRule::mostRecent);
  EXPECT_FALSE(rules.add("newest"));
  EXPECT_FALSE(rules.add("=longest"));
  EXPECT_FALSE(rules.add("Title=Longest"));
  EXPECT_EQ(rules.ruleFor("Title"), ValueRule::mostRecent);
  for (auto rule : {ValueRule::keeper, ValueRule::mostRecent, ValueRule::nonEmpty,
                    ValueRule::longest, ValueRule::mostCommon}) {
    EXPECT_EQ(valueRuleFromRaw(rawValue(rule)), rule);
  }
}

class SurvivorshipTest : public ::testing::Test {
 protected:
  SurvivorshipTest() {
    context_.objectName = "Contact";
    context_.matchFields = {{"Name", "Full Name", MatchKind::personName, MatchMode::close},
                            {"Email", "Email", MatchKind::email, MatchMode::exact}};
    context_.extraFields = {"Title", "Phone"};
    context_.writableFields = std::map<std::string, std::vector<ResolutionPlanner::WritableField>>{
        {"Contact", {{"Email", false}, {"Title", true}, {"Phone", false}}}};
    context_.keeperRule = KeeperRule::oldest;
  }

  static SnapshotRecord record(Rid rid, std::string created, std::string modified,
                               std::string title, std::string phone) {
    SnapshotRecord r;
    r.rid = rid;
    r.sfid = "003" + std::to_string(rid);
    r.created = std::move(created);
    r.modified = std::move(modified);
    r.values = {"Ann Lee", "ann@x.org"};
    r.extras = {std::move(title), std::move(phone)};
    return r;
  }

  // Keeper 1 (oldest); in group order 3 comes before 2, by the rule 2 before 3.
  ResolvedGroup group() const {
    ResolvedGroup g;
    g.group.id = 4;
    g.records = {record(1, "2019", "2020", "", "555"), record(3, "2022", "2025", "CEO", ""),
                 record(2, "2021", "2021", "Chief Executive", "777")};
    for (const auto& r : g.records) g.group.members.push_back(r.rid);
    g.keeperRid = 1;
    return g;
  }

  std::map<std::string, std::string> values(const ResolutionPlan& plan) {
    return plan.merges.empty() ? std::map<std::string, std::string>{} : plan.merges[0].fieldValues;
  }

  ResolutionPlanner::Context context_;
};

TEST_F(SurvivorshipTest, TheMergeCarriesEachFieldsPickedValueWithTheRecordItComesFrom) {
  // keeper (the default): its blank title filled from the first other record in group order.
  auto plan = ResolutionPlanner::plan({group()}, ResolutionAction::merge(), context_);
  EXPECT_EQ(values(plan), (std::map<std::string, std::string>{{"Title", "CEO"}}));
  EXPECT_EQ(plan.merges[0].fieldSources, (std::map<std::string, std::string>{{"Title", "0033"}}));
  EXPECT_TRUE(plan.merges[1].fieldSources.empty());

  // nonEmpty tries the others in keeper-rule order: record 2 was created before record 3.
  context_.keepValues.all = ValueRule::nonEmpty;
  plan = ResolutionPlanner::plan({group()}, ResolutionAction::merge(), context_);
  EXPECT_EQ(values(plan), (std::map<std::string, std::string>{{"Title", "Chief Executive"}}));

  // mostRecent overwrites the keeper's own phone with a newer record's, but a
  // blank never replaces a value.
  context_.keepValues.all = ValueRule::mostRecent;
  plan = ResolutionPlanner::plan({group()}, ResolutionAction::merge(), context_);
  EXPECT_EQ(values(plan), (std::map<std::string, std::string>{{"Title", "CEO"}, {"Phone", "777"}}));
  EXPECT_EQ(plan.merges[0].fieldSources.at("Phone"), "0032");

  // A field's own rule wins over the one for all; a value picked that equals
  // the keeper's is not sent.
  context_.keepValues.all = ValueRule::longest;
  context_.keepValues.fields = {{"phone", ValueRule::keeper}};
  plan = ResolutionPlanner::plan({group()}, ResolutionAction::merge(), context_);
  EXPECT_EQ(values(plan), (std::map<std::string, std::string>{{"Title", "Chief Executive"}}));

  // Values the user chose stay; filling gaps never overwrites, whatever the rules.
  ResolvedGroup chosen = group();
  chosen.chosenValues = {{"Title", "Founder"}};
  plan = ResolutionPlanner::plan({chosen}, ResolutionAction::merge(), context_);
  EXPECT_EQ(values(plan).at("Title"), "Founder");
  EXPECT_EQ(plan.merges[0].fieldSources.count("Title"), 0u);
  context_.keepValues.all = ValueRule::mostRecent;
  plan = ResolutionPlanner::plan({group()}, ResolutionAction::fillGaps(), context_);
  ASSERT_EQ(plan.updates.size(), 1u);
  EXPECT_EQ(plan.updates[0].fields, (std::map<std::string, std::string>{{"Title", "CEO"}}));
}

}  // namespace
}  // namespace corvane
