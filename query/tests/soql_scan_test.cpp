#include "query/soql_scan.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace corvane {
namespace {

using ::testing::ElementsAre;
using ::testing::Pair;

std::vector<int> depths(const SoqlScan& scan) {
  return std::vector<int>(scan.depths().begin(), scan.depths().end());
}

std::string literalMask(const SoqlScan& scan) {
  std::string mask;
  for (std::size_t i = 0; i < scan.size(); ++i) mask += scan.inLiteral(i) ? 'L' : '.';
  return mask;
}

std::vector<std::string> texts(const SoqlScan& scan, const std::vector<CharRange>& ranges) {
  std::vector<std::string> out;
  for (auto range : ranges) out.push_back(scan.text(range));
  return out;
}

std::vector<std::string_view> keywords(std::initializer_list<std::string_view> list) {
  return std::vector<std::string_view>(list);
}

TEST(SoqlScan, ParenthesesRaiseTheDepthOutsideLiteralsOnly) {
  SoqlScan scan("a(b)c'(\\')'d");
  //             a ( b ) c ' ( \ ' ) ' d
  EXPECT_THAT(depths(scan), ElementsAre(0, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0));
  EXPECT_EQ(literalMask(scan), ".....LLLLLL.");
  auto literal = scan.literal(7);
  ASSERT_TRUE(literal);
  EXPECT_EQ(literal->range, (CharRange{5, 11}));
  EXPECT_TRUE(literal->closed);
}

TEST(SoqlScan, AnUnbalancedClosingParenthesisLeavesTheDepthAtZero) {
  SoqlScan scan("a))(b");
  EXPECT_THAT(depths(scan), ElementsAre(0, 0, 0, 1, 1));
}

TEST(SoqlScan, AnUnclosedLiteralRunsToTheEndAndHidesKeywords) {
  SoqlScan scan("WHERE Name = 'x ORDER BY (");
  EXPECT_EQ(literalMask(scan), ".............LLLLLLLLLLLLL");
  EXPECT_EQ(scan.depth(scan.size() - 1), 0);
  auto literal = scan.literal(scan.size() - 1);
  ASSERT_TRUE(literal);
  EXPECT_EQ(literal->range, (CharRange{13, scan.size()}));
  EXPECT_FALSE(literal->closed);
  std::vector<std::string_view> among = keywords({"ORDER BY", "WHERE"});
  EXPECT_EQ(scan.lastClauseKeyword(scan.size(), among), "WHERE");
}

TEST(SoqlScan, AdjacentLiteralsAreToldApart) {
  SoqlScan scan("'a''b'");
  EXPECT_EQ(literalMask(scan), "LLLLLL");
  EXPECT_EQ(scan.literal(1)->range, (CharRange{0, 3}));
  EXPECT_EQ(scan.literal(3)->range, (CharRange{3, 6}));
  EXPECT_FALSE(scan.literal(6));
}

TEST(SoqlScan, EmptyTextGivesEmptyListsAndNoAnswers) {
  SoqlScan scan("");
  EXPECT_EQ(scan.size(), 0u);
  EXPECT_TRUE(scan.chars().empty());
  EXPECT_TRUE(scan.depths().empty());
  EXPECT_FALSE(scan.matchWord("SELECT", 0));
  EXPECT_FALSE(scan.lastClauseKeyword(0, SoqlScan::clauseKeywords()));
  EXPECT_FALSE(scan.identifier("FROM"));
  EXPECT_FALSE(scan.clauses());
  EXPECT_FALSE(scan.literal(0));
  EXPECT_EQ(scan.text(CharRange{0, 5}), "");
}

TEST(SoqlScan, OffsetsCountUserPerceivedCharacters) {
  // "e" + combining acute, a thumbs-up with a skin tone, a family emoji and CR LF
  // are one character each.
  const std::string text =
      "SELECT Re\u0301sume\u0301__c, '\U0001F44D\U0001F3FD' "
      "\U0001F468\u200D\U0001F469\u200D\U0001F467\r\nFROM";
  SoqlScan scan(text);
  auto chars = scan.chars();
  ASSERT_EQ(chars.size(), 28u);
  EXPECT_EQ(chars[8], "e\u0301");
  EXPECT_EQ(chars[19], "\U0001F44D\U0001F3FD");
  EXPECT_EQ(chars[22], "\U0001F468\u200D\U0001F469\u200D\U0001F467");
  EXPECT_EQ(chars[23], "\r\n");
  EXPECT_EQ(scan.text(CharRange{7, 16}), "Re\u0301sume\u0301__c");
  EXPECT_EQ(literalMask(scan).substr(17, 5), ".LLL.");
  EXPECT_EQ(scan.identifier("\U0001F468\u200D\U0001F469\u200D\U0001F467"), "FROM");
  EXPECT_EQ(scan.characterOffset(scan.byteOffset(22) + 1), 22u);
}

TEST(SoqlScan, InvalidBytesAreOneCharacterEachAndNeverStopTheScan) {
  SoqlScan scan(std::string("a\xff\xfe'\x80", 5));
  EXPECT_EQ(scan.size(), 5u);
  EXPECT_EQ(literalMask(scan), "...LL");
}

TEST(SoqlScan, MatchWordComparesUpperCasedCharactersAndNeedsOneBlank) {
  SoqlScan scan("order by x ORDER  BY y Order\nBY");
  EXPECT_EQ(scan.matchWord("ORDER BY", 0), 8u);
  EXPECT_FALSE(scan.matchWord("ORDER BY", 11));
  EXPECT_FALSE(scan.matchWord("ORDER BY", 23));
  EXPECT_FALSE(scan.matchWord("BYE", 29));  // would run past the end
  EXPECT_EQ(scan.matchWord("by", 29), 31u);
}

TEST(SoqlScan, LastClauseKeywordMustStartAndEndAWord) {
  const auto among = keywords({"SELECT", "FROM", "WHERE"});
  SoqlScan scan("SELECT FROMDATE__c, NoWHERE, Id_FROM ");
  EXPECT_EQ(scan.lastClauseKeyword(scan.size(), among), "SELECT");
  EXPECT_FALSE(scan.lastClauseKeyword(0, among));
  // A keyword counts from its start: a cursor inside it is already past it.
  EXPECT_EQ(scan.lastClauseKeyword(3, among), "SELECT");
}

TEST(SoqlScan, LastClauseKeywordIgnoresDeeperSubqueriesButNotEnclosingOnes) {
  const auto among = keywords({"SELECT", "FROM", "WHERE"});
  const std::string text = "SELECT Id, (SELECT Name FROM Contacts) FROM Account WHERE ";
  SoqlScan scan(text);
  EXPECT_EQ(scan.lastClauseKeyword(scan.size(), among), "WHERE");
  // Inside the subquery, just after its SELECT: the inner keyword counts.
  EXPECT_EQ(scan.lastClauseKeyword(19, among), "SELECT");
  EXPECT_EQ(scan.lastClauseKeyword(29, among), "FROM");
  // Just after the subquery closes, its keywords are deeper and ignored.
  EXPECT_EQ(scan.lastClauseKeyword(39, among), "SELECT");
  // In a semi-join, the enclosing WHERE counts until its own SELECT.
  SoqlScan semiJoin("SELECT Id FROM Account WHERE Id IN (");
  EXPECT_EQ(semiJoin.lastClauseKeyword(semiJoin.size(), among), "WHERE");
}

TEST(SoqlScan, IdentifierFollowsTheFirstTopLevelWholeWord) {
  EXPECT_EQ(
      SoqlScan("SELECT Id, (SELECT Name FROM Contacts) FROM\r\n\tAccount WHERE").identifier("from"),
      "Account");
  EXPECT_EQ(SoqlScan("SELECT FROMDATE__c FROM My_Object__c.x").identifier("FROM"), "My_Object__c");
  EXPECT_FALSE(SoqlScan("SELECT Id FROM ").identifier("FROM"));
  EXPECT_FALSE(SoqlScan("SELECT Id FROM 'Account'").identifier("FROM"));
  EXPECT_FALSE(SoqlScan("SELECT Name FROM").identifier("WHERE"));
}

TEST(SoqlScan, ClausesMapEachTopLevelKeywordToItsBody) {
  SoqlScan scan(
      "select Id, (SELECT Id FROM Contacts WHERE x = 1) FROM Account WHERE Name = 'LIMIT 5' "
      "GROUP BY Id ORDER BY Name LIMIT 10 OFFSET 5 FOR VIEW");
  auto clauses = scan.clauses();
  ASSERT_TRUE(clauses);
  std::map<std::string, std::string> bodies;
  for (const auto& [keyword, range] : *clauses) bodies[keyword] = scan.text(range);
  EXPECT_THAT(bodies,
              ElementsAre(Pair("FOR", " VIEW"), Pair("FROM", " Account "), Pair("GROUP BY", " Id "),
                          Pair("LIMIT", " 10 "), Pair("OFFSET", " 5 "), Pair("ORDER BY", " Name "),
                          Pair("SELECT", " Id, (SELECT Id FROM Contacts WHERE x = 1) "),
                          Pair("WHERE", " Name = 'LIMIT 5' ")));
  EXPECT_FALSE(SoqlScan("FIND {Acme} RETURNING Account").clauses());
  EXPECT_FALSE(SoqlScan("SELECTED FROM x").clauses());
}

TEST(SoqlScan, SplitsAtTopLevelSeparatorsOutsideLiterals) {
  SoqlScan scan("Id, (SELECT a, b FROM c), 'x,y', COUNT(Id),,Name");
  EXPECT_THAT(texts(scan, scan.splitTopLevel({0, scan.size()}, ",")),
              ElementsAre("Id", " (SELECT a, b FROM c)", " 'x,y'", " COUNT(Id)", "", "Name"));
  // A range inside the parentheses splits at its own depth.
  EXPECT_THAT(texts(scan, scan.splitTopLevel({12, 23}, ",")), ElementsAre("a", " b FROM c"));
  EXPECT_THAT(texts(scan, scan.splitTopLevel({0, 0}, ",")), ElementsAre(""));
}

TEST(SoqlScan, SplitsAtWholeTopLevelWords) {
  SoqlScan scan("A = 1 and Android = 'x AND y' AND (B = 2 OR C = 3) or D = 4");
  EXPECT_THAT(texts(scan, scan.splitTopLevelWord({0, scan.size()}, "AND")),
              ElementsAre("A = 1 ", " Android = 'x AND y' ", " (B = 2 OR C = 3) or D = 4"));
  EXPECT_THAT(texts(scan, scan.splitTopLevelWord({0, scan.size()}, "OR")),
              ElementsAre("A = 1 and Android = 'x AND y' AND (B = 2 OR C = 3) ", " D = 4"));
}

}  // namespace
}  // namespace corvane
