#include "tools/orgsim/soql.hpp"

#include <gtest/gtest.h>

namespace corvane::orgsim {
namespace {

SoqlError errorOf(const std::string& text) {
  try {
    Soql::parse(text);
  } catch (const SoqlError& error) {
    return error;
  }
  ADD_FAILURE() << "no error for " << text;
  return SoqlError("", "");
}

TEST(SoqlParserTest, ReadsEveryClauseInOrder) {
  Query q = Soql::parse(
      "select Id, Owner.Name, Account.Owner.Email from Contact where (Name like 'A%' or "
      "Email != null) and not CreatedDate < LAST_N_DAYS:30 group by Id order by Name desc nulls "
      "last, Id limit 10 offset 5");
  ASSERT_EQ(q.select.size(), 3u);
  EXPECT_EQ(q.select[2].path.parts, (std::vector<std::string>{"Account", "Owner", "Email"}));
  EXPECT_EQ(q.from, "Contact");
  ASSERT_TRUE(q.where);
  EXPECT_EQ(q.where->kind, Condition::Kind::And);
  EXPECT_EQ(q.where->children[0]->kind, Condition::Kind::Or);
  EXPECT_EQ(q.where->children[1]->kind, Condition::Kind::Not);
  const Literal& relative = q.where->children[1]->children[0]->values[0];
  EXPECT_EQ(relative.kind, Literal::Kind::Relative);
  EXPECT_EQ(relative.text, "LAST_N_DAYS");
  EXPECT_EQ(relative.n, 30);
  ASSERT_EQ(q.orderBy.size(), 2u);
  EXPECT_TRUE(q.orderBy[0].descending);
  EXPECT_EQ(q.orderBy[0].nullsFirst, false);
  EXPECT_EQ(q.limit, 10);
  EXPECT_EQ(q.offset, 5);
}

TEST(SoqlParserTest, ReadsLiteralsOfEveryKind) {
  Query q = Soql::parse(
      "SELECT Id FROM Account WHERE Name = 'O\\'Brien \\\\ \\n' AND AnnualRevenue >= -1.5e3 AND "
      "CreatedDate > 2024-01-05T10:00:00.000+01:00 AND CloseDate <= 2024-01-05 AND "
      "IsDeleted = FALSE AND Name LIKE '100\\%' AND Industry NOT IN ('a', null)");
  const auto& terms = q.where->children;
  EXPECT_EQ(terms[0]->values[0].text, "O'Brien \\ \n");
  EXPECT_EQ(terms[1]->values[0].kind, Literal::Kind::Number);
  EXPECT_EQ(terms[1]->values[0].text, "-1.5e3");
  EXPECT_EQ(terms[2]->values[0].kind, Literal::Kind::DateTime);
  EXPECT_EQ(terms[2]->values[0].text, "2024-01-05T10:00:00.000+01:00");
  EXPECT_EQ(terms[3]->values[0].kind, Literal::Kind::Date);
  EXPECT_EQ(terms[4]->values[0].text, "false");
  EXPECT_EQ(terms[5]->values[0].text, "100\\%");  // kept escaped for LIKE
  EXPECT_TRUE(terms[6]->negated);
  EXPECT_EQ(terms[6]->values[1].kind, Literal::Kind::Null);
}

TEST(SoqlParserTest, ReadsAggregatesAliasesAndSemiJoins) {
  Query q = Soql::parse(
      "SELECT Industry, COUNT(Id) n, MAX(AnnualRevenue) FROM Account WHERE Id IN "
      "(SELECT AccountId FROM Contact WHERE Email LIKE '%@x.com') GROUP BY Industry");
  EXPECT_TRUE(q.hasAggregates());
  EXPECT_EQ(q.select[1].function, "COUNT");
  EXPECT_EQ(q.select[1].alias, "n");
  EXPECT_EQ(q.select[2].alias, "");
  EXPECT_EQ(q.where->kind, Condition::Kind::SemiJoin);
  EXPECT_EQ(q.where->subquery->from, "Contact");
  EXPECT_TRUE(Soql::parse("SELECT COUNT() FROM Lead").isCountAll());
}

TEST(SoqlParserTest, ReportsWhereTheQueryStopsMakingSense) {
  SoqlError error = errorOf("SELECT Id FRM Account");
  EXPECT_EQ(error.errorCode(), "MALFORMED_QUERY");
  EXPECT_EQ(error.message(),
            "\nSELECT Id FRM Account\n          ^\nERROR at Row:1:Column:11\nunexpected token: "
            "'FRM'");
  EXPECT_NE(errorOf("SELECT Id FROM Account WHERE (Name = 'x'")
                .message()
                .find("expecting a right parentheses, found '<EOF>'"),
            std::string::npos);
  EXPECT_NE(errorOf("SELECT Id\nFROM Account WHERE Name = = 'x'")
                .message()
                .find("ERROR at Row:2:Column:27"),
            std::string::npos);
  EXPECT_NE(errorOf("SELECT Id FROM Account WHERE Name = 'a\\qb'")
                .message()
                .find("Illegal character sequence '\\q'"),
            std::string::npos);
  for (const char* bad :
       {"", "SELECT", "SELECT FROM Account", "SELECT Id FROM", "SELECT Id, FROM Account",
        "SELECT Id FROM Account LIMIT x", "SELECT Id FROM Account WHERE", "SELECT Id FROM A B C",
        "SELECT Id FROM Account WHERE Name IN ()", "SELECT (SELECT Id FROM Contacts) FROM Account",
        "SELECT Id FROM Account WHERE Name = 'x' ORDER", "SELECT Id FROM Account ; DROP"}) {
    EXPECT_EQ(errorOf(bad).errorCode(), "MALFORMED_QUERY") << bad;
  }
}

}  // namespace
}  // namespace corvane::orgsim
