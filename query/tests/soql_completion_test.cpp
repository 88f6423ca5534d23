#include "query/soql_completion.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/unicode.hpp"

namespace corvane {
namespace {

using ::testing::ElementsAre;
using Context = SoqlCompletion::Context;
using Kind = Completion::Kind;

std::size_t lengthOf(std::string_view text) { return Unicode::characterCount(text); }

Context contextAtEnd(std::string_view text) {
  return SoqlCompletion::context(text, lengthOf(text));
}

std::vector<std::string> displays(const std::vector<Completion>& completions) {
  std::vector<std::string> out;
  for (const auto& completion : completions) out.push_back(completion.display);
  return out;
}

Completion keyword(std::string display) { return {display, display, "clause", Kind::keyword}; }
Completion field(std::string display) { return {display, display, "string", Kind::field}; }

std::vector<SObjectSummary> sampleObjects() {
  return {{"Account", "Account", false, true},
          {"AccountHistory", "Account History", false, false},
          {"Account_Plan__c", "Account Plan", true, true},
          {"Contact", "Contact", false, true}};
}

std::vector<SObjectField> sampleFields() {
  SObjectField id{"Id", "Account ID", "id", 18, false, "", {}, {}};
  SObjectField name{"Name", "Account Name", "string", 255, false, "", {}, {}};
  SObjectField industry{"Industry", "Industry", "picklist", 255, false, "", {}, {}};
  industry.picklistValues = {"Banking", "Energy", "O'Hare Air"};
  SObjectField owner{"OwnerId", "Owner ID", "reference", 18, false, "Owner", {"User"}, {}};
  SObjectField created{"CreatedDate", "Created Date", "datetime", 0, false, "", {}, {}};
  SObjectField fromDate{"FROMDATE__c", "From", "date", 0, true, "", {}, {}};
  return {id, name, industry, owner, created, fromDate};
}

SoqlCompletion::Suggestions completeAtEnd(std::string_view text,
                                          const SoqlCompletion::RelatedFields& related = {}) {
  return SoqlCompletion::complete(text, lengthOf(text), sampleObjects(), sampleFields(), 50,
                                  related);
}

TEST(SoqlContext, FollowsTheLastClauseKeywordAtTheCursorsDepth) {
  const std::string account = "Account";
  EXPECT_EQ(SoqlCompletion::context("", 0), Context::none());
  EXPECT_EQ(SoqlCompletion::context("SELECT Id FROM Account", 0), Context::none());
  EXPECT_EQ(contextAtEnd("SELECT "), Context::selectList(std::nullopt));
  EXPECT_EQ(SoqlCompletion::context("SELECT Id,  FROM Account", 11), Context::selectList(account));
  EXPECT_EQ(contextAtEnd("SELECT Id FROM "), Context::fromObject());
  EXPECT_EQ(contextAtEnd("SELECT Id, (SELECT Name FROM Contacts) FROM Account WHERE "),
            Context::condition(account));
  EXPECT_EQ(contextAtEnd("SELECT Id FROM Account WHERE Id != null ORDER BY "),
            Context::grouping(account));
  EXPECT_EQ(contextAtEnd("SELECT Id FROM Account WHERE Id != null ORDER  BY "),
            Context::condition(account));
  EXPECT_EQ(contextAtEnd("select Industry from Account group by "), Context::grouping(account));
  EXPECT_EQ(contextAtEnd("SELECT Industry FROM Account GROUP BY Industry HAVING "),
            Context::condition(account));
  EXPECT_EQ(contextAtEnd("SELECT Id FROM Account LIMIT "), Context::none());
  EXPECT_EQ(contextAtEnd("SELECT Id FROM Account LIMIT 5 OFFSET "), Context::none());
  // An unbalanced ")" leaves the depth at 0, so the clauses after it still count.
  EXPECT_EQ(contextAtEnd("SELECT Id) FROM Account WHERE "), Context::condition(account));
  // A cursor past the end counts as the end.
  EXPECT_EQ(SoqlCompletion::context("SELECT ", 99), Context::selectList(std::nullopt));
}

TEST(SoqlContext, KeywordLettersInsideNamesAndLiteralsAreNotClauses) {
  EXPECT_EQ(contextAtEnd("SELECT FROMDATE__c, NoWHERE"), Context::selectList(std::nullopt));
  EXPECT_EQ(contextAtEnd("SELECT Id FROM Account WHERE Name = 'x ORDER BY "),
            Context::condition(std::string("Account")));
  EXPECT_EQ(contextAtEnd("SELECT Id FROM Account WHERE Name = 'it\\'s LIMIT' LIMIT "),
            Context::none());
}

TEST(SoqlToken, RunsBackToABlankCommaOrParenthesisAndKeepsDots) {
  EXPECT_EQ(SoqlCompletion::currentToken("SELECT Id, Account.Na", 21),
            (SoqlCompletion::Token{"Account.Na", {11, 21}}));
  EXPECT_EQ(SoqlCompletion::currentToken("SELECT COUNT(Na", 15).text, "Na");
  EXPECT_EQ(SoqlCompletion::currentToken("SELECT Id,Na", 12).text, "Na");
  EXPECT_EQ(SoqlCompletion::currentToken("SELECT Id\r\nFR", 13).text, "FR");
  EXPECT_EQ(SoqlCompletion::currentToken("SELECT Id", 0), (SoqlCompletion::Token{"", {0, 0}}));
  EXPECT_EQ(SoqlCompletion::currentToken("SELECT Id ", 10), (SoqlCompletion::Token{"", {10, 10}}));
  // Offsets count characters: the decomposed "é" and the emoji are one each.
  const std::string text = "SELECT \U0001F44D\U0001F3FD, Re\u0301sume\u0301";
  EXPECT_EQ(SoqlCompletion::currentToken(text, 16),
            (SoqlCompletion::Token{"Re\u0301sume\u0301", {10, 16}}));
  EXPECT_EQ(SoqlCompletion::currentToken(text, 12).text, "Re\u0301");
}

TEST(SoqlRank, ScoresByEqualityPrefixContainmentThenSubsequence) {
  // "nm" against the field Name scores 250 - 4 + 60 = 306: just between
  // keywords that contain "nm" with scores 307 and 305.
  std::string filler(191, 'x');
  Completion above = keyword(filler + "nm");    // 500 - 193 = 307
  Completion below = keyword(filler + "xxnm");  // 500 - 195 = 305
  Completion tied = keyword(filler + "xnm");    // 500 - 194 = 306
  auto ranked = SoqlCompletion::rank({below, tied, field("Name"), above}, "nm", 10);
  EXPECT_THAT(displays(ranked), ElementsAre(above.display, tied.display, "Name", below.display));
  ranked = SoqlCompletion::rank({below, field("Name"), tied, above}, "nm", 10);
  EXPECT_THAT(displays(ranked), ElementsAre(above.display, "Name", tied.display, below.display));

  // Equality beats everything; the field bonus orders two exact matches.
  ranked = SoqlCompletion::rank({keyword("NAME"), field("Name"), field("Names"), keyword("RENAME")},
                                "name", 10);
  EXPECT_THAT(displays(ranked), ElementsAre("Name", "NAME", "Names", "RENAME"));
  // Nothing that fails every test survives.
  EXPECT_TRUE(SoqlCompletion::rank({field("Id"), keyword("FROM")}, "zz", 10).empty());
}

TEST(SoqlRank, AnEmptyTokenKeepsShortestFirstInGatheringOrderUpToTheLimit) {
  auto ranked = SoqlCompletion::rank(
      {keyword("WHERE"), keyword("FROM"), keyword("LIMIT"), keyword("AND"), keyword("SELECT")}, "",
      4);
  EXPECT_THAT(displays(ranked), ElementsAre("AND", "FROM", "WHERE", "LIMIT"));
  EXPECT_TRUE(SoqlCompletion::rank({keyword("AND")}, "", 0).empty());
}

TEST(SoqlRank, ComparesCharactersNotBytes) {
  // Upper-case accented display, lower-case token; the length is in characters.
  auto ranked =
      SoqlCompletion::rank({field("\u00C9v\u00E9nement__c"), field("Event__c")}, "\u00E9v", 10);
  ASSERT_EQ(ranked.size(), 1u);
  EXPECT_EQ(ranked[0].display, "\u00C9v\u00E9nement__c");
  EXPECT_TRUE(SoqlCompletion::isSubsequence("nm", "name"));
  EXPECT_FALSE(SoqlCompletion::isSubsequence("mn", "name"));
  EXPECT_TRUE(SoqlCompletion::isSubsequence("", "name"));
  // "e" is not a character of "e" + combining acute, which is one character.
  EXPECT_FALSE(SoqlCompletion::isSubsequence("e", "e\u0301"));
  EXPECT_TRUE(SoqlCompletion::isSubsequence("\U0001F44D", "a\U0001F44Db"));
}

TEST(SoqlSuggestions, OutsideAnyClauseOffersTheClauseKeywordsShortestFirst) {
  auto result = completeAtEnd("");
  EXPECT_THAT(displays(result.completions),
              ElementsAre("FROM", "WHERE", "LIMIT", "SELECT", "HAVING", "OFFSET", "ORDER BY",
                          "GROUP BY", "FOR VIEW", "FOR REFERENCE"));
  for (const auto& completion : result.completions) {
    EXPECT_EQ(completion.detail, "clause");
    EXPECT_EQ(completion.kind, Kind::keyword);
  }
  EXPECT_THAT(displays(completeAtEnd("SEL").completions), ElementsAre("SELECT"));
}

TEST(SoqlSuggestions, AfterFromOffersQueryableObjectsWithTheirKind) {
  auto result = completeAtEnd("SELECT Id FROM acc");
  ASSERT_EQ(result.completions.size(), 2u);
  EXPECT_EQ(result.completions[0],
            (Completion{"Account", "Account", "standard object", Kind::object}));
  EXPECT_EQ(result.completions[1],
            (Completion{"Account_Plan__c", "Account_Plan__c", "custom object", Kind::object}));
  EXPECT_EQ(result.replace, (CharRange{15, 18}));
}

TEST(SoqlSuggestions, TheSelectListOffersFieldsRelationshipsFunctionsAndClauses) {
  auto result = completeAtEnd("SELECT Id, Own");
  EXPECT_THAT(result.completions,
              ElementsAre(Completion{"OwnerId", "OwnerId", "reference to User", Kind::field},
                          Completion{"Owner.", "Owner.", "related User", Kind::relationship}));
  EXPECT_THAT(displays(completeAtEnd("SELECT cou").completions),
              ElementsAre("COUNT()", "COUNT_DISTINCT()"));
  EXPECT_EQ(completeAtEnd("SELECT Na").completions.front(),
            (Completion{"Name", "Name", "string(255)", Kind::field}));
  EXPECT_THAT(displays(completeAtEnd("SELECT Name fro").completions),
              ElementsAre("FROMDATE__c", "FROM"));
}

TEST(SoqlSuggestions, ConditionsOfferOperatorsAndOrderingOffersClauses) {
  auto condition = displays(completeAtEnd("SELECT Id FROM Account WHERE Name L").completions);
  EXPECT_EQ(condition.front(), "LIKE");
  EXPECT_THAT(condition, ::testing::Contains("LIMIT"));
  auto grouping = displays(completeAtEnd("SELECT Id FROM Account ORDER BY Na").completions);
  EXPECT_EQ(grouping.front(), "Name");
  EXPECT_THAT(grouping, ::testing::Not(::testing::Contains("LIKE")));
}

TEST(SoqlSuggestions, PicklistValuesReplaceTheWholeValueQuoted) {
  const std::string text = "SELECT Id FROM Account WHERE Industry = 'ba";
  auto result = completeAtEnd(text);
  ASSERT_EQ(result.completions.size(), 1u);
  EXPECT_EQ(result.completions[0],
            (Completion{"'Banking'", "Banking", "picklist value", Kind::picklistValue}));
  EXPECT_EQ(result.replace, (CharRange{40, 43}));

  // Inside a closed literal the closing quote is replaced too; quotes in values are escaped.
  result = SoqlCompletion::complete("SELECT Id FROM Account WHERE Industry = 'O' LIMIT 1", 42,
                                    sampleObjects(), sampleFields(), 10);
  ASSERT_EQ(result.completions.size(), 1u);
  EXPECT_EQ(result.completions[0].text, "'O\\'Hare Air'");
  EXPECT_EQ(result.replace, (CharRange{40, 43}));

  // In an IN list every value is offered, with the date literals left out.
  result = completeAtEnd("SELECT Id FROM Account WHERE Industry NOT IN ('Banking', ");
  EXPECT_THAT(displays(result.completions), ElementsAre("NULL", "Energy", "Banking", "O'Hare Air"));
}

TEST(SoqlSuggestions, DateFieldsGetDateLiterals) {
  auto result = completeAtEnd("SELECT Id FROM Account WHERE CreatedDate>=tod");
  ASSERT_FALSE(result.completions.empty());
  EXPECT_EQ(result.completions[0], (Completion{"TODAY", "TODAY", "date literal", Kind::function}));
  EXPECT_EQ(result.replace, (CharRange{42, 45}));
  EXPECT_THAT(displays(completeAtEnd("SELECT Id FROM Account WHERE Name = ").completions),
              ElementsAre("NULL"));
}

TEST(SoqlSuggestions, RelationshipPathsCompleteFromTheRelatedObject) {
  std::vector<std::string> asked;
  auto related = [&](const std::string& object) {
    asked.push_back(object);
    return std::vector<SObjectField>{{"Name", "Full Name", "string", 121, false, "", {}, {}},
                                     {"Email", "Email", "email", 80, false, "", {}, {}}};
  };
  auto result = completeAtEnd("SELECT owner.na", related);
  EXPECT_THAT(result.completions,
              ElementsAre(Completion{"owner.Name", "owner.Name", "string(121)", Kind::field}));
  EXPECT_EQ(result.replace, (CharRange{7, 15}));
  EXPECT_THAT(asked, ElementsAre("User"));
  EXPECT_TRUE(completeAtEnd("SELECT Nobody.Na", related).completions.empty());
}

TEST(SoqlSuggestions, OffsetsAreCharactersWithAccentsAndEmojiBeforeTheCursor) {
  const std::string text =
      "SELECT Id FROM Account WHERE Name = 'Caf\u00E9 \U0001F468\u200D\U0001F469\u200D\U0001F467' "
      "AND Industry = 'E";
  auto result = completeAtEnd(text);
  EXPECT_THAT(displays(result.completions), ElementsAre("Energy", "O'Hare Air"));
  EXPECT_EQ(result.replace, (CharRange{60, 62}));
  EXPECT_EQ(lengthOf(text), 62u);
}

TEST(SoqlValuePosition, NamesTheComparedFieldAndTheValueSoFar) {
  auto position = SoqlCompletion::valuePosition("WHERE Account.Name LIKE 'Ac\\'m", 30);
  ASSERT_TRUE(position);
  EXPECT_EQ(position->field, "Account.Name");
  EXPECT_EQ(position->typed, "Ac'm");
  EXPECT_TRUE(position->quoted);
  EXPECT_EQ(position->range, (CharRange{24, 30}));

  position = SoqlCompletion::valuePosition("WHERE Amount>=-5", 16);
  ASSERT_TRUE(position);
  EXPECT_EQ(position->field, "Amount");
  EXPECT_EQ(position->typed, "-5");
  EXPECT_FALSE(position->quoted);

  position = SoqlCompletion::valuePosition("WHERE Tags__c INCLUDES ('a',", 28);
  ASSERT_TRUE(position);
  EXPECT_EQ(position->field, "Tags__c");
}

TEST(SoqlValuePosition, IsAbsentWhereNoValueIsTyped) {
  EXPECT_FALSE(SoqlCompletion::valuePosition("", 0));
  EXPECT_FALSE(SoqlCompletion::valuePosition("WHERE Name = 'x'", 16));  // after the closing quote
  EXPECT_FALSE(SoqlCompletion::valuePosition("WHERE Name ", 11));
  EXPECT_FALSE(SoqlCompletion::valuePosition("SELECT Id, ", 11));
  EXPECT_FALSE(SoqlCompletion::valuePosition("SELECT COUNT(", 13));
  EXPECT_FALSE(SoqlCompletion::valuePosition("WHERE Id IN ('a') , ", 20));
  EXPECT_FALSE(SoqlCompletion::valuePosition("WHERE = ", 8));
}

}  // namespace
}  // namespace corvane
