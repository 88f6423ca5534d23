#include "query/result_table.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace corvane {
namespace {

using ::testing::ElementsAre;

std::vector<std::string> names(const std::vector<ResultTable::Column>& columns) {
  std::vector<std::string> out;
  for (const auto& column : columns) out.push_back(column.name);
  return out;
}

TEST(ResultTable, ColumnsFollowTheSelectList) {
  EXPECT_THAT(
      names(ResultTable::columns(
          "SELECT Id, Owner.Name, Account.Owner.Email, toLabel(Industry), "
          "(SELECT LastName FROM Contacts), 'x' FROM Account WHERE Name = 'a, b'")),
      ElementsAre("Id", "Owner.Name", "Account.Owner.Email", "Industry", "Contacts", "'x'"));
  EXPECT_THAT(names(ResultTable::columns(
                  "select Industry, COUNT(Id), MAX(AnnualRevenue) top, CALENDAR_YEAR(CreatedDate) "
                  "from Account group by Industry, CALENDAR_YEAR(CreatedDate)")),
              ElementsAre("Industry", "expr0", "top", "expr1"));
  EXPECT_TRUE(ResultTable::columns("SELECT FIELDS(STANDARD) FROM Account").empty());
  EXPECT_TRUE(ResultTable::columns("not a query").empty());
  EXPECT_TRUE(ResultTable::isCountOnly("SELECT COUNT ( ) FROM Account"));
  EXPECT_FALSE(ResultTable::isCountOnly("SELECT COUNT(Id) FROM Account"));
}

TEST(ResultTable, CellsFlattenRelationshipsAndKeepNumberText) {
  auto record = JSONLiteral::parse(
      R"({"attributes":{"type":"Contact"},"Id":"003A","Amount__c":12345678901234567890.10,)"
      R"("DoNotCall":false,"Email":null,)"
      R"("Account":{"attributes":{"type":"Account"},"Name":"Acme","Owner":null},)"
      R"("MailingAddress":{"city":"Oslo","street":null},)"
      R"("Cases":{"totalSize":1,"done":true,"records":[{"attributes":{"type":"Case"},"Subject":"Hi"}]}})");
  auto columns = ResultTable::columns(
      "SELECT id, Amount__c, DoNotCall, Email, Account.Name, "
      "account.owner.name, MailingAddress, Missing__c, "
      "(SELECT Subject FROM Cases) FROM Contact");
  EXPECT_THAT(ResultTable::cells(record, columns),
              ElementsAre("003A", "12345678901234567890.10", "false", "", "Acme", "",
                          R"({"city":"Oslo","street":null})", "", R"([{"Subject":"Hi"}])"));
  // Header names take the record's own spelling where the whole path is present.
  auto other = JSONLiteral::parse(R"({"Account":null,"ID":"x"})");
  EXPECT_THAT(names(ResultTable::withRecordNames(columns, {other, record})),
              ElementsAre("ID", "Amount__c", "DoNotCall", "Email", "Account.Name",
                          "account.owner.name", "MailingAddress", "Missing__c", "Cases"));
  // Without a usable select list the record's own fields give the columns.
  EXPECT_THAT(names(ResultTable::columns(record)),
              ElementsAre("Id", "Amount__c", "DoNotCall", "Email", "Account.Name", "Account.Owner",
                          "MailingAddress", "Cases"));
}

}  // namespace
}  // namespace corvane
