#include "tools/orgsim/query_engine.hpp"

#include <gtest/gtest.h>

#include "tools/orgsim/org_records.hpp"
#include "tools/orgsim/tests/sample_org.hpp"

namespace corvane::orgsim {
namespace {

using nlohmann::json;
using testing::TempFolder;

class QueryEngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    store_ = OrgStore::open(folder_.path());
    admin_ = store_->identity().adminUserId;
    auto users =
        store_->writer("User", {"Id", "Username", "LastName", "FirstName", "Email", "Alias"});
    users.insert({admin_, "admin@sample.org", "Admin", "Ada", "admin@sample.org", "aadmin"});
    users.commit();
    auto accounts = store_->writer("Account", {"Name", "Industry", "AnnualRevenue", "BillingCity",
                                               "BillingLatitude", "CreatedDate", "Description"});
    acme_ = accounts.insert({"Acme", "Banking", "1000000", "Berlin", "52.52",
                             "2024-01-05T10:00:00.000Z", "Line one\nline \"two\", three"});
    globex_ = accounts.insert({"Globex", "Energy", "250.5", FieldValue(), FieldValue(),
                               "2024-02-01T08:30:00+02:00", FieldValue()});
    initech_ = accounts.insert({"initech", FieldValue(), FieldValue(), "Austin", FieldValue(),
                                "2023-12-31T23:59:59Z", FieldValue()});
    accounts.commit();
    auto contacts = store_->writer("Contact", {"FirstName", "LastName", "AccountId", "Email"});
    ada_ = contacts.insert({"Ada", "Lovelace", acme_, "ada@acme.example"});
    contacts.insert({FieldValue(), "Nobody", FieldValue(), FieldValue()});
    contacts.commit();
  }

  nlohmann::ordered_json run(const std::string& soql, QueryScope scope = QueryScope::Live,
                             QueryApi api = QueryApi::Rest) {
    auto compiled = QueryEngine::compile(soql, scope, api, store_->now());
    auto lease = store_->read();
    std::string out = "[";
    bool first = true;
    compiled->scan(lease.db(), [&](Statement& row) {
      if (!first) out += ',';
      first = false;
      compiled->appendJson(out, row, "62.0");
      return true;
    });
    return nlohmann::ordered_json::parse(out + "]");
  }

  std::vector<std::string> names(const std::string& soql, QueryScope scope = QueryScope::Live) {
    std::vector<std::string> out;
    for (const auto& record : run(soql, scope)) {
      out.push_back(record["Name"].is_null() ? "<null>" : record["Name"].get<std::string>());
    }
    return out;
  }

  static SoqlError errorOf(const std::string& soql, QueryApi api = QueryApi::Rest) {
    try {
      QueryEngine::compile(soql, QueryScope::Live, api, std::chrono::system_clock::now());
    } catch (const SoqlError& error) {
      return error;
    }
    ADD_FAILURE() << "no error for " << soql;
    return SoqlError("", "");
  }

  TempFolder folder_;
  std::unique_ptr<OrgStore> store_;
  std::string admin_, acme_, globex_, initech_, ada_;
};

TEST_F(QueryEngineTest, RecordsCarryAttributesRelationshipObjectsAndTypedValues) {
  auto records =
      run("SELECT Id, Name, AnnualRevenue, CreatedDate, Owner.Name, Owner.Email, IsDeleted "
          "FROM Account WHERE Name = 'Acme'");
  ASSERT_EQ(records.size(), 1u);
  const auto& acme = records[0];
  EXPECT_EQ(acme["attributes"]["type"], "Account");
  EXPECT_EQ(acme["attributes"]["url"], "/services/data/v62.0/sobjects/Account/" + acme_);
  EXPECT_EQ(acme["AnnualRevenue"].dump(), "1000000");  // a number, its text kept
  EXPECT_EQ(acme["CreatedDate"], "2024-01-05T10:00:00.000+0000");
  EXPECT_EQ(acme["IsDeleted"], false);
  EXPECT_EQ(acme["Owner"]["attributes"]["type"], "User");
  EXPECT_EQ(acme["Owner"]["Name"], "Ada Admin");
  EXPECT_EQ(acme["Owner"]["Email"], "admin@sample.org");
  // Keys come in the order selected, with the relationship where it first appears.
  std::vector<std::string> keys;
  for (const auto& item : acme.items()) keys.push_back(item.key());
  EXPECT_EQ(keys, (std::vector<std::string>{"attributes", "Id", "Name", "AnnualRevenue",
                                            "CreatedDate", "Owner", "IsDeleted"}));
}

TEST_F(QueryEngineTest, MissingParentIsNullAndCompoundAddressIsAnObject) {
  json records = run("SELECT Name, Account.Name FROM Contact ORDER BY LastName");
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0]["Account"]["Name"], "Acme");
  EXPECT_TRUE(records[1]["Account"].is_null());

  records = run("SELECT BillingAddress FROM Account ORDER BY Name");
  EXPECT_EQ(records[0]["BillingAddress"]["city"], "Berlin");
  EXPECT_EQ(records[0]["BillingAddress"]["latitude"].dump(), "52.52");
  EXPECT_TRUE(records[0]["BillingAddress"]["street"].is_null());
  EXPECT_TRUE(records[1]["BillingAddress"].is_null());  // Globex has no address at all
}

TEST_F(QueryEngineTest, FiltersCompareByTypeAndTextWithoutCase) {
  EXPECT_EQ(names("SELECT Name FROM Account WHERE Name = 'ACME'"),
            std::vector<std::string>{"Acme"});
  EXPECT_EQ(names("SELECT Name FROM Account WHERE AnnualRevenue > 300 ORDER BY Name"),
            std::vector<std::string>{"Acme"});
  EXPECT_EQ(names("SELECT Name FROM Account WHERE AnnualRevenue < 1e3"),
            std::vector<std::string>{"Globex"});
  // != keeps rows where the field is null, as SOQL does.
  EXPECT_EQ(names("SELECT Name FROM Account WHERE Industry != 'Banking' ORDER BY Name"),
            (std::vector<std::string>{"Globex", "initech"}));
  EXPECT_EQ(names("SELECT Name FROM Account WHERE Industry = null"),
            std::vector<std::string>{"initech"});
  EXPECT_EQ(names("SELECT Name FROM Account WHERE Name LIKE 'gl%'"),
            std::vector<std::string>{"Globex"});
  EXPECT_EQ(names("SELECT Name FROM Account WHERE Industry IN ('Energy', 'Retail')"),
            std::vector<std::string>{"Globex"});
  EXPECT_EQ(names("SELECT Name FROM Account WHERE Industry NOT IN ('Energy') ORDER BY Name"),
            (std::vector<std::string>{"Acme", "initech"}));
  EXPECT_EQ(names("SELECT Name FROM Account WHERE NOT (Name = 'Acme' OR Name = 'Globex')"),
            std::vector<std::string>{"initech"});
  EXPECT_EQ(names("SELECT Name FROM Contact WHERE Account.Industry = 'Banking'"),
            std::vector<std::string>{"Ada Lovelace"});
  // A 15-character id finds the record as its 18-character form does.
  EXPECT_EQ(names("SELECT Name FROM Account WHERE Id = '" + globex_.substr(0, 15) + "'"),
            std::vector<std::string>{"Globex"});
}

TEST_F(QueryEngineTest, DateTimeLiteralsWithOffsetsCompareAsInstants) {
  // Globex was created at 06:30 UTC (08:30+02:00).
  EXPECT_EQ(names("SELECT Name FROM Account WHERE CreatedDate = 2024-02-01T06:30:00Z"),
            std::vector<std::string>{"Globex"});
  EXPECT_EQ(names("SELECT Name FROM Account WHERE CreatedDate >= 2024-01-05T11:00:00+01:00 "
                  "ORDER BY CreatedDate"),
            (std::vector<std::string>{"Acme", "Globex"}));
  EXPECT_EQ(names("SELECT Name FROM Account WHERE CreatedDate < 2024-01-01T00:00:00.000Z"),
            std::vector<std::string>{"initech"});
  EXPECT_TRUE(names("SELECT Name FROM Account WHERE CreatedDate = LAST_N_DAYS:30").empty());
  EXPECT_EQ(names("SELECT Name FROM Account WHERE LastModifiedDate = TODAY").size(), 3u);
}

TEST_F(QueryEngineTest, OrderByHonoursDirectionAndNullsPlacement) {
  EXPECT_EQ(names("SELECT Name FROM Account ORDER BY Industry"),
            (std::vector<std::string>{"initech", "Acme", "Globex"}));
  EXPECT_EQ(names("SELECT Name FROM Account ORDER BY Industry NULLS LAST"),
            (std::vector<std::string>{"Acme", "Globex", "initech"}));
  EXPECT_EQ(names("SELECT Name FROM Account ORDER BY Industry DESC NULLS FIRST"),
            (std::vector<std::string>{"initech", "Globex", "Acme"}));
  // Numbers sort by value, not by text ("250.5" after "1000000" as text).
  EXPECT_EQ(names("SELECT Name FROM Account WHERE AnnualRevenue != null ORDER BY AnnualRevenue"),
            (std::vector<std::string>{"Globex", "Acme"}));
  EXPECT_EQ(names("SELECT Name FROM Account ORDER BY Name LIMIT 2 OFFSET 1"),
            (std::vector<std::string>{"Globex", "initech"}));
}

TEST_F(QueryEngineTest, RecycleBinRowsAreSeenOnlyByQueryAll) {
  auto removed = OrgRecords::remove(*store_, globex_, admin_);
  ASSERT_TRUE(removed.success);
  EXPECT_EQ(names("SELECT Name FROM Account ORDER BY Name"),
            (std::vector<std::string>{"Acme", "initech"}));
  json all = run("SELECT Name, IsDeleted FROM Account WHERE IsDeleted = true", QueryScope::All);
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0]["Name"], "Globex");
}

TEST_F(QueryEngineTest, ArchivedActivitiesAreSeenOnlyByQueryAll) {
  auto tasks = store_->writer("Task", {"Subject", "IsArchived", "WhoId", "WhatId"});
  tasks.insert({"Call", "true", ada_, acme_});
  tasks.insert({"Send Quote", "false", FieldValue(), globex_});
  tasks.commit();
  EXPECT_EQ(run("SELECT Subject FROM Task").size(), 1u);
  json all = run("SELECT Subject, Who.Name, Who.Type, What.Name FROM Task ORDER BY Subject",
                 QueryScope::All);
  ASSERT_EQ(all.size(), 2u);
  // Polymorphic relationships answer from the record the id points at.
  EXPECT_EQ(all[0]["Who"]["attributes"]["type"], "Contact");
  EXPECT_EQ(all[0]["Who"]["Name"], "Ada Lovelace");
  EXPECT_EQ(all[0]["Who"]["Type"], "Contact");
  EXPECT_EQ(all[0]["What"]["Name"], "Acme");
  EXPECT_TRUE(all[1]["Who"].is_null());
}

TEST_F(QueryEngineTest, FilesAreFoundThroughTheLinkSemiJoin) {
  auto documents = store_->writer("ContentDocument", {"Title"});
  std::string document = documents.insert({"Plan"});
  documents.commit();
  auto versions = store_->writer(
      "ContentVersion", {"ContentDocumentId", "Title", "VersionData", "IsLatest", "PathOnClient"});
  versions.insert({document, "Plan", "hello", "true", "plan.txt"});
  versions.commit();
  auto links = store_->writer("ContentDocumentLink", {"ContentDocumentId", "LinkedEntityId"});
  links.insert({document, acme_});
  links.commit();

  json found =
      run("SELECT Title, Checksum, ContentSize, VersionData FROM ContentVersion WHERE "
          "ContentDocumentId IN (SELECT ContentDocumentId FROM ContentDocumentLink WHERE "
          "LinkedEntityId = '" +
          acme_ + "')");
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0]["Checksum"], "5d41402abc4b2a76b9719d911017c592");  // MD5 of "hello"
  EXPECT_EQ(found[0]["ContentSize"].dump(), "5");
  EXPECT_EQ(found[0]["VersionData"].get<std::string>().substr(0, 44),
            "/services/data/v62.0/sobjects/ContentVersion");
  EXPECT_TRUE(run("SELECT Id FROM ContentVersion WHERE ContentDocumentId IN (SELECT "
                  "ContentDocumentId FROM ContentDocumentLink WHERE LinkedEntityId = '" +
                  globex_ + "')")
                  .empty());
  EXPECT_EQ(run("SELECT Id, LinkedEntity.Name, LinkedEntity.Type FROM ContentDocumentLink "
                "WHERE ContentDocumentId IN (SELECT ContentDocumentId FROM ContentVersion)")
                [0]["LinkedEntity"]["Type"],
            "Account");
}

TEST_F(QueryEngineTest, RefusesWhatSalesforceRefusesWithItsCodesAndWords) {
  SoqlError field = errorOf("SELECT Id, Foo FROM Account");
  EXPECT_EQ(field.errorCode(), "INVALID_FIELD");
  EXPECT_NE(field.message().find("ERROR at Row:1:Column:12\nNo such column 'Foo' on entity "
                                 "'Account'. If you are attempting to use a custom field, be sure "
                                 "to append the '__c' after the custom field name."),
            std::string::npos)
      << field.message();

  SoqlError type = errorOf("SELECT Id FROM ScratchOrgInfo limit 1");
  EXPECT_EQ(type.errorCode(), "INVALID_TYPE");
  EXPECT_NE(type.message().find("sObject type 'ScratchOrgInfo' is not supported."),
            std::string::npos);

  EXPECT_EQ(errorOf("SELECT Id FRM Account").errorCode(), "MALFORMED_QUERY");
  EXPECT_EQ(errorOf("SELECT Id FROM Account WHERE (Name = 'x'").errorCode(), "MALFORMED_QUERY");
  EXPECT_EQ(errorOf("SELECT Id FROM Account WHERE Name = 'unterminated").errorCode(),
            "MALFORMED_QUERY");
  EXPECT_EQ(errorOf("SELECT Id FROM Account OFFSET 2001").errorCode(),
            "NUMBER_OUTSIDE_VALID_RANGE");
  EXPECT_EQ(errorOf("SELECT Foo.Name FROM Contact").errorCode(), "INVALID_FIELD");
  EXPECT_EQ(errorOf("SELECT Id FROM Account WHERE CreatedDate > '2024-01-01'").errorCode(),
            "INVALID_FIELD");
  EXPECT_EQ(errorOf("SELECT Id FROM Account WHERE Id = 'nonsense'").errorCode(),
            "INVALID_QUERY_FILTER_OPERATOR");
  EXPECT_EQ(errorOf("SELECT Name, COUNT(Id) FROM Account").errorCode(), "MALFORMED_QUERY");

  SoqlError links = errorOf("SELECT Id FROM ContentDocumentLink");
  EXPECT_EQ(links.errorCode(), "MALFORMED_QUERY");
  EXPECT_EQ(links.message(),
            "Implementation restriction: ContentDocumentLink requires a filter by a single Id on "
            "ContentDocumentId or LinkedEntityId using the equals operator or multiple Id's using "
            "the IN operator.");
  // An OR leaves the restriction unmet.
  EXPECT_EQ(errorOf("SELECT Id FROM ContentDocumentLink WHERE LinkedEntityId = "
                    "'001000000000000AAA' OR ShareType = 'V'")
                .errorCode(),
            "MALFORMED_QUERY");
}

TEST_F(QueryEngineTest, BulkRefusalsNameWhatIsNotSupported) {
  auto refusal = [&](const std::string& soql) {
    auto compiled = QueryEngine::compile(soql, QueryScope::Live, QueryApi::Bulk, store_->now());
    return QueryEngine::bulkRefusal(*compiled).value_or("");
  };
  EXPECT_EQ(refusal("SELECT Id, Name FROM Account"), "");
  EXPECT_EQ(refusal("SELECT Id FROM RecentlyViewed"),
            "Entity 'RecentlyViewed' is not supported by the Bulk API.");
  EXPECT_NE(refusal("SELECT Id, BillingAddress FROM Account").find("compound data"),
            std::string::npos);
  EXPECT_NE(refusal("SELECT COUNT() FROM Account"), "");
}

TEST_F(QueryEngineTest, BulkCsvQuotesEveryValueAndKeepsLineBreaks) {
  auto compiled = QueryEngine::compile(
      "SELECT Id, Name, Description, AnnualRevenue, CreatedDate, Owner.Name FROM Account "
      "WHERE Name = 'Acme'",
      QueryScope::Live, QueryApi::Bulk, store_->now());
  std::string csv;
  compiled->appendCsvHeader(csv);
  auto lease = store_->read();
  compiled->scan(lease.db(), [&](Statement& row) {
    compiled->appendCsv(csv, row);
    return true;
  });
  EXPECT_EQ(csv,
            "\"Id\",\"Name\",\"Description\",\"AnnualRevenue\",\"CreatedDate\",\"Owner.Name\"\n"
            "\"" +
                acme_ +
                "\",\"Acme\",\"Line one\nline \"\"two\"\", three\",\"1000000\","
                "\"2024-01-05T10:00:00.000Z\",\"Ada Admin\"\n");
}

TEST_F(QueryEngineTest, AggregatesGroupAndNameTheirColumns) {
  auto aggregate = [&](const std::string& soql) {
    auto compiled = QueryEngine::compile(soql, QueryScope::Live, QueryApi::Rest, store_->now());
    auto lease = store_->read();
    std::string out;
    compiled->appendAggregateJson(lease.db(), out);
    return json::parse("[" + out + "]");
  };
  json grouped = aggregate(
      "SELECT Industry, COUNT(Id) total, MAX(AnnualRevenue) FROM Account GROUP BY Industry "
      "ORDER BY Industry NULLS LAST");
  ASSERT_EQ(grouped.size(), 3u);
  EXPECT_EQ(grouped[0]["attributes"]["type"], "AggregateResult");
  EXPECT_EQ(grouped[0]["Industry"], "Banking");
  EXPECT_EQ(grouped[0]["total"], 1);
  EXPECT_EQ(grouped[0]["expr0"].dump(), "1000000");
  EXPECT_TRUE(grouped[2]["Industry"].is_null());

  auto count = QueryEngine::compile("SELECT COUNT() FROM Account WHERE Industry != null",
                                    QueryScope::Live, QueryApi::Rest, store_->now());
  auto lease = store_->read();
  EXPECT_EQ(count->count(lease.db()), 2);
}

TEST_F(QueryEngineTest, RelativeDatesFollowTheOrgClockInUtc) {
  store_->setClock(*WireTime::parseDateTime("2024-03-15T12:00:00Z"));
  auto opportunities = store_->writer("Opportunity", {"Name", "StageName", "CloseDate"});
  for (const char* date : {"2024-02-29", "2024-03-01", "2024-03-14", "2024-03-15", "2024-03-16",
                           "2024-04-01", "2023-12-31"}) {
    opportunities.insert({date, "Prospecting", date});
  }
  opportunities.commit();
  auto closing = [&](const std::string& condition) {
    return names("SELECT Name FROM Opportunity WHERE CloseDate " + condition + " ORDER BY Name");
  };
  EXPECT_EQ(closing("= TODAY"), std::vector<std::string>{"2024-03-15"});
  EXPECT_EQ(closing("= YESTERDAY"), std::vector<std::string>{"2024-03-14"});
  EXPECT_EQ(closing("> TODAY"), (std::vector<std::string>{"2024-03-16", "2024-04-01"}));
  EXPECT_EQ(closing("= THIS_MONTH"),
            (std::vector<std::string>{"2024-03-01", "2024-03-14", "2024-03-15", "2024-03-16"}));
  EXPECT_EQ(closing("= LAST_MONTH"), std::vector<std::string>{"2024-02-29"});
  EXPECT_EQ(closing("< THIS_YEAR"), std::vector<std::string>{"2023-12-31"});
  EXPECT_EQ(closing("= LAST_N_DAYS:15"),
            (std::vector<std::string>{"2024-02-29", "2024-03-01", "2024-03-14", "2024-03-15"}));
  EXPECT_EQ(closing("= NEXT_N_DAYS:1"), std::vector<std::string>{"2024-03-16"});
}

TEST_F(QueryEngineTest, LikeTreatsEscapedWildcardsAsText) {
  auto accounts = store_->writer("Account", {"Name"});
  accounts.insert({"100% Cotton"});
  accounts.insert({"1000 Cotton"});
  accounts.insert({"snake_case"});
  accounts.insert({"snakeXcase"});
  accounts.commit();
  EXPECT_EQ(names("SELECT Name FROM Account WHERE Name LIKE '100\\% %'"),
            std::vector<std::string>{"100% Cotton"});
  EXPECT_EQ(names("SELECT Name FROM Account WHERE Name LIKE 'snake\\_case'"),
            std::vector<std::string>{"snake_case"});
  EXPECT_EQ(names("SELECT Name FROM Account WHERE Name LIKE 'snake_case' ORDER BY Name"),
            (std::vector<std::string>{"snake_case", "snakeXcase"}));
  EXPECT_EQ(names("SELECT Name FROM Account WHERE NOT Name LIKE '%o%' ORDER BY Name"),
            (std::vector<std::string>{"Acme", "initech", "snake_case", "snakeXcase"}));
  EXPECT_EQ(names("SELECT Name FROM Account WHERE Industry IN ('Energy', null) ORDER BY Name"),
            (std::vector<std::string>{"100% Cotton", "1000 Cotton", "Globex", "initech",
                                      "snake_case", "snakeXcase"}));
}

TEST_F(QueryEngineTest, SumsAveragesAndDistinctCounts) {
  auto compiled = QueryEngine::compile(
      "SELECT SUM(AnnualRevenue) total, AVG(AnnualRevenue) average, COUNT_DISTINCT(Industry) "
      "kinds, MIN(CreatedDate) first, COUNT(Industry) FROM Account",
      QueryScope::Live, QueryApi::Rest, store_->now());
  auto lease = store_->read();
  std::string out;
  EXPECT_EQ(compiled->appendAggregateJson(lease.db(), out), 1);
  json row = json::parse(out);
  EXPECT_EQ(row["total"].dump(), "1000250.5");
  EXPECT_EQ(row["average"].dump(), "500125.25");
  EXPECT_EQ(row["kinds"], 2);
  EXPECT_EQ(row["first"], "2023-12-31T23:59:59.000+0000");
  EXPECT_EQ(row["expr0"], 2);
  json grouped = json::parse("[" + [&] {
    auto byAccount =
        QueryEngine::compile("SELECT Account.Name, COUNT(Id) FROM Contact GROUP BY Account.Name",
                             QueryScope::Live, QueryApi::Rest, store_->now());
    std::string text;
    byAccount->appendAggregateJson(lease.db(), text);
    return text;
  }() + "]");
  EXPECT_EQ(grouped.size(), 2u);
}

}  // namespace
}  // namespace corvane::orgsim
