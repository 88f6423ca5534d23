#include "backup/backup_planner.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "backup/backup_error.hpp"
#include "connections/server_time.hpp"

namespace corvane {
namespace {

using BackupPlanner::Describe;
using BackupPlanner::GlobalObject;
using BackupPlanner::Mode;
using BackupPlanner::Options;

std::vector<GlobalObject> sampleOrg() {
  return GlobalObject::parse(R"({"encoding":"UTF-8","sobjects":[
    {"name":"Account","keyPrefix":"001","queryable":true,"replicateable":true,"deprecatedAndHidden":false,"customSetting":false},
    {"name":"AccountHistory","keyPrefix":"017","queryable":true,"replicateable":true,"deprecatedAndHidden":false},
    {"name":"AccountFeed","keyPrefix":null,"queryable":true,"replicateable":true,"deprecatedAndHidden":false},
    {"name":"Contact","keyPrefix":"003","queryable":true,"replicateable":true,"deprecatedAndHidden":false},
    {"name":"Invoice__c","keyPrefix":"a00","queryable":true,"replicateable":true,"deprecatedAndHidden":false},
    {"name":"Vote","queryable":true,"replicateable":true,"deprecatedAndHidden":false},
    {"name":"RecentlyViewed","queryable":true,"replicateable":false,"deprecatedAndHidden":false},
    {"name":"AggregateThing","queryable":true,"replicateable":false,"deprecatedAndHidden":false},
    {"name":"OldThing","queryable":true,"replicateable":true,"deprecatedAndHidden":true},
    {"name":"Secret","queryable":false,"replicateable":true,"deprecatedAndHidden":false}]})");
}

TEST(BackupPlanner, ParsesTheGlobalDescribeAndRefusesOtherAnswers) {
  auto global = sampleOrg();
  ASSERT_EQ(global.size(), 10u);
  EXPECT_EQ(global[0], (GlobalObject{"Account", "001", true, true, false, false}));
  EXPECT_FALSE(global[2].keyPrefix);
  EXPECT_THROW(GlobalObject::parse("[]"), BackupError);
  EXPECT_THROW(GlobalObject::parse("<html>"), BackupError);
  EXPECT_THROW(Describe::parse(R"({"name":"Account"})"), BackupError);
}

TEST(BackupPlanner, ChoosesReplicableObjectsWithoutHistoryFeedOrBulkRefused) {
  EXPECT_EQ(BackupPlanner::objects(sampleOrg(), Options{}),
            (std::vector<std::string>{"Account", "Contact", "Invoice__c"}));
  Options withHistory;
  withHistory.includeHistoryAndFeed = true;
  EXPECT_EQ(BackupPlanner::objects(sampleOrg(), withHistory),
            (std::vector<std::string>{"Account", "AccountFeed", "AccountHistory", "Contact",
                                      "Invoice__c"}));
}

TEST(BackupPlanner, ExtraExcludedAndOnlyListsIgnoreLetterCase) {
  Options options;
  options.extraObjects = {"aggregatething", "accounthistory", "NoSuchObject", "recentlyviewed"};
  options.excludedObjects = {"CONTACT"};
  EXPECT_EQ(
      BackupPlanner::objects(sampleOrg(), options),
      (std::vector<std::string>{"Account", "AccountHistory", "AggregateThing", "Invoice__c"}));
  options.onlyObjects = std::vector<std::string>{"account", "contact", "Missing__c", "VOTE"};
  EXPECT_EQ(BackupPlanner::objects(sampleOrg(), options), std::vector<std::string>{"Account"});
}

TEST(BackupPlanner, AdvancedChoicesAreTheReadableObjectsLeftOut) {
  EXPECT_EQ(BackupPlanner::advancedChoices(sampleOrg()),
            (std::vector<std::string>{"AccountFeed", "AccountHistory", "AggregateThing"}));
  EXPECT_TRUE(BackupPlanner::isHistoryOrFeed("CaseFeed"));
  EXPECT_FALSE(BackupPlanner::isHistoryOrFeed("Feedback__c"));
}

Describe invoice() {
  return Describe::parse(R"({"name":"Invoice__c","fields":[
    {"name":"Id","type":"id","calculated":false},
    {"name":"Name","type":"string","calculated":false},
    {"name":"Total__c","type":"currency","calculated":true},
    {"name":"BillingAddress","type":"address","calculated":false},
    {"name":"Where__c","type":"location","calculated":false},
    {"name":"Scan__c","type":"base64","calculated":false},
    {"name":"IsDeleted","type":"boolean","calculated":false},
    {"name":"systemmodstamp","type":"datetime","calculated":false},
    {"name":"CreatedDate","type":"datetime","calculated":false}]})");
}

TEST(BackupPlanner, SelectsFieldsWithoutRefusedTypesAndFormulasUnlessAsked) {
  EXPECT_EQ(BackupPlanner::fields(invoice(), Options{}),
            (std::vector<std::string>{"Id", "Name", "IsDeleted", "systemmodstamp", "CreatedDate"}));
  Options formulas;
  formulas.includeFormulaFields = true;
  EXPECT_EQ(BackupPlanner::fields(invoice(), formulas).at(2), "Total__c");
}

TEST(BackupPlanner, WatermarkIsTheFirstCandidateSpeltAsTheCandidate) {
  EXPECT_EQ(BackupPlanner::watermarkField(invoice()), "SystemModstamp");
  Describe created{"Thing", {{"Id", "id", false}, {"CreatedDate", "datetime", false}}};
  EXPECT_EQ(BackupPlanner::watermarkField(created), "CreatedDate");
  Describe none{"Thing", {{"Id", "id", false}}};
  EXPECT_FALSE(BackupPlanner::watermarkField(none));
}

TEST(BackupPlanner, PlansFullChangesAndWholeCopies) {
  const auto since = ServerTime::parse("2024-03-05T10:11:12Z");
  auto full = BackupPlanner::plan(invoice(), Options{}, std::nullopt);
  EXPECT_EQ(full.mode, Mode::full);
  EXPECT_EQ(full.soql, "SELECT Id, Name, IsDeleted, systemmodstamp, CreatedDate FROM Invoice__c");
  EXPECT_EQ(full.operation, "query");
  EXPECT_TRUE(full.hasIsDeleted);
  EXPECT_EQ(full.fieldTypes->at(3), "datetime");

  auto changes = BackupPlanner::plan(invoice(), Options{}, since, {"name"});
  EXPECT_EQ(changes.mode, Mode::changes);
  EXPECT_EQ(changes.soql,
            "SELECT Id, IsDeleted, systemmodstamp, CreatedDate FROM Invoice__c WHERE "
            "SystemModstamp >= 2024-03-05T10:11:12Z");

  Describe task{"Task", {{"Id", "id", false}, {"Subject", "string", false}}};
  auto whole = BackupPlanner::plan(task, Options{}, since);
  EXPECT_EQ(whole.mode, Mode::whole);
  EXPECT_EQ(whole.operation, "queryAll");
  EXPECT_EQ(whole.soql, "SELECT Id, Subject FROM Task");
}

TEST(BackupPlanner, ContentDocumentLinkIsAlwaysFiltered) {
  Describe links{"ContentDocumentLink",
                 {{"Id", "id", false},
                  {"LinkedEntityId", "reference", false},
                  {"SystemModstamp", "datetime", false}}};
  auto plan = BackupPlanner::plan(links, Options{}, ServerTime::parse("2024-03-05T10:11:12Z"));
  EXPECT_EQ(plan.soql,
            "SELECT Id, LinkedEntityId, SystemModstamp, LinkedEntity.Type, LinkedEntity.Name FROM "
            "ContentDocumentLink WHERE ContentDocumentId IN (SELECT ContentDocumentId FROM "
            "ContentVersion) AND SystemModstamp >= 2024-03-05T10:11:12Z");
  EXPECT_EQ(BackupPlanner::idQuery("ContentDocumentLink").first,
            "SELECT Id FROM ContentDocumentLink WHERE ContentDocumentId IN (SELECT "
            "ContentDocumentId FROM ContentVersion)");
}

TEST(BackupPlanner, CountsTheSameRowsThePlanReads) {
  EXPECT_EQ(BackupPlanner::idQuery("Account"),
            (std::pair<std::string, std::string>{"SELECT Id FROM Account", "query"}));
  EXPECT_EQ(BackupPlanner::idQuery("Event").second, "queryAll");
  EXPECT_EQ(BackupPlanner::countSOQL("SELECT Id, Name FROM Account WHERE X >= 1"),
            "SELECT COUNT() FROM Account WHERE X >= 1");
  EXPECT_FALSE(BackupPlanner::countSOQL("SELECT Id"));
  EXPECT_EQ(BackupPlanner::countPath("SELECT Id FROM Task", "queryAll", "62.0"),
            "/services/data/v62.0/queryAll?q=SELECT%20COUNT()%20FROM%20Task");
}

TEST(BackupPlanner, OptionsReadBackFromJSONWithDefaultsForMissingKeys) {
  Options options;
  options.extraObjects = {"AccountHistory"};
  options.onlyObjects = std::vector<std::string>{"Account"};
  EXPECT_EQ(nlohmann::json(options).get<Options>(), options);
  EXPECT_EQ(nlohmann::json::object().get<Options>(), Options{});
}

}  // namespace
}  // namespace corvane
