#include "health/audit_trail.hpp"

#include <gtest/gtest.h>

#include "health/health_error.hpp"

namespace corvane {
namespace {

TEST(AuditTrail, LiteralsEscapeEverythingThatCouldEndThem) {
  EXPECT_EQ(AuditTrail::literal("O'Brien"), R"('O\'Brien')");
  EXPECT_EQ(AuditTrail::literal(R"(a\' OR Section != ')"), R"('a\\\' OR Section != \'')");
  EXPECT_EQ(AuditTrail::literal("say \"hi\"\n"), R"('say \"hi\"\n')");
  EXPECT_EQ(AuditTrail::literal("50%_off"), "'50%_off'");
  EXPECT_EQ(AuditTrail::literal("50%_off", true), R"('50\%\_off')");
}

TEST(AuditTrail, PredicateJoinsTheGivenFiltersWithDatesAsLiterals) {
  EXPECT_EQ(AuditTrail::predicate({}), std::nullopt);
  AuditFilter filter;
  filter.since = AuditTrail::parseSince("2024-01-05");
  filter.user = "Ann O'Neil";
  filter.section = "Manage Users";
  EXPECT_EQ(AuditTrail::predicate(filter),
            R"(CreatedDate >= 2024-01-05T00:00:00Z AND CreatedBy.Name LIKE '%Ann O\'Neil%')"
            R"( AND Section LIKE '%Manage Users%')");
  filter = {};
  filter.since = AuditTrail::parseSince("2024-01-05T10:11:12+02:00");
  EXPECT_EQ(AuditTrail::predicate(filter), "CreatedDate >= 2024-01-05T08:11:12Z");
}

TEST(AuditTrail, ABadDateIsRefusedWithASentence) {
  for (const char* text :
       {"yesterday", "2024-13-01", "2024-01-05' OR Id != '", "", "2999-01-01", "0024-01-01"}) {
    try {
      AuditTrail::parseSince(text);
      ADD_FAILURE() << text;
    } catch (const HealthError& error) {
      EXPECT_EQ(error.kind(), HealthError::Kind::badDate);
      EXPECT_NE(std::string(error.what()).find("YYYY-MM-DD"), std::string::npos);
    }
  }
}

TEST(AuditTrail, EntriesReadNestedUserAndSurviveMissingFields) {
  auto records = nlohmann::json::parse(R"([
    {"attributes": {}, "Action": "changedProfile", "Section": "Manage Users",
     "CreatedDate": "2024-01-05T10:00:00.000+0000", "CreatedBy": {"Name": "Ann"},
     "Display": "Changed profile\nfor Bob"},
    {"Action": "systemChange", "CreatedBy": null},
    "not a record"
  ])");
  auto entries = AuditTrail::entries(records);
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0], (AuditEntry{"2024-01-05T10:00:00.000+0000", "Ann", "Manage Users",
                                    "changedProfile", "Changed profile\nfor Bob"}));
  EXPECT_EQ(entries[1].user, "");
  EXPECT_NE(AuditTrail::table(entries).find("Changed profile for Bob"), std::string::npos);
  EXPECT_NE(AuditTrail::csv(entries).find("\"Changed profile\nfor Bob\""), std::string::npos);
}

}  // namespace
}  // namespace corvane
