#include "import/value_coercion.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace corvane {
namespace {

using Kind = CoercionProblem::Kind;

ImportField field(std::string type, int length = 0, int precision = 0, int scale = 0) {
  ImportField f;
  f.name = "F";
  f.type = std::move(type);
  f.length = length;
  f.precision = precision;
  f.scale = scale;
  return f;
}

std::string value(std::string_view cell, const ImportField& f, CoercionOptions options = {}) {
  Coerced c = ValueCoercion::coerce(cell, f, options);
  EXPECT_FALSE(c.problem) << cell << ": " << c.problem->sentence();
  return c.value;
}

std::optional<Kind> problem(std::string_view cell, const ImportField& f,
                            CoercionOptions options = {}) {
  Coerced c = ValueCoercion::coerce(cell, f, options);
  if (!c.problem) return std::nullopt;
  return c.problem->kind;
}

TEST(ValueCoercion, BlankCellsAreNoValueForEveryType) {
  for (const char* type : {"string", "int", "date", "picklist", "boolean", "reference"}) {
    Coerced c = ValueCoercion::coerce("  \xC2\xA0", field(type), {});
    EXPECT_EQ(c.value, "") << type;
    EXPECT_FALSE(c.problem) << type;
  }
}

TEST(ValueCoercion, TextIsLimitedInCharactersNotBytes) {
  ImportField name = field("string", 5);
  EXPECT_EQ(value("Zoë Ö", name), "Zoë Ö");
  EXPECT_EQ(problem("Zoë Ös", name), Kind::tooLong);
  EXPECT_THAT(ValueCoercion::coerce("abcdef", name, {}).problem->sentence(),
              ::testing::HasSubstr("has 6 characters, more than the 5"));
}

TEST(ValueCoercion, BooleansTakeTheCommonSpreadsheetWords) {
  ImportField flag = field("boolean");
  for (const char* yes : {"TRUE", "yes", "Y", "1", "x", "X"}) EXPECT_EQ(value(yes, flag), "true");
  for (const char* no : {"False", "NO", "n", "0"}) EXPECT_EQ(value(no, flag), "false");
  EXPECT_EQ(problem("maybe", flag), Kind::notBoolean);
}

TEST(ValueCoercion, NumbersDropSeparatorsSignsAndSymbolsButNeverGuessADecimalComma) {
  ImportField money = field("currency", 0, 18, 2);
  EXPECT_EQ(value("$1,234,567.50", money), "1234567.5");
  EXPECT_EQ(value("(1,000)", money), "-1000");
  EXPECT_EQ(value("-€ 12", money), "-12");
  EXPECT_EQ(value("0012.3400", money), "12.34");
  EXPECT_EQ(problem("1,5", money), Kind::notNumber);
  EXPECT_EQ(problem("1,23,456", money), Kind::notNumber);
  EXPECT_EQ(problem("12abc", money), Kind::notNumber);
  EXPECT_EQ(problem("1234567890123456789", money), Kind::tooManyDigits);

  ImportField percent = field("percent", 0, 5, 2);
  EXPECT_EQ(value("12.5%", percent), "12.5");
  ImportField count = field("int", 0, 9, 0);
  EXPECT_EQ(value("1.5E+03", count), "1500");
  EXPECT_EQ(problem("1.5", count), Kind::notWholeNumber);
  ImportField ratio = field("double", 0, 18, 6);
  EXPECT_EQ(value("2.5e-3", ratio), "0.0025");
  EXPECT_EQ(value("-0", ratio), "0");
}

TEST(ValueCoercion, DatesAreISOOrFollowTheNamedOrder) {
  ImportField day = field("date");
  EXPECT_EQ(value("2024-02-29", day), "2024-02-29");
  EXPECT_EQ(value("2024-03-01 00:00:00", day), "2024-03-01");
  EXPECT_EQ(problem("2024-03-01 13:00:00", day), Kind::notDate);
  EXPECT_EQ(problem("2023-02-29", day), Kind::notDate);
  EXPECT_EQ(problem("03/04/2024", day), Kind::ambiguousDate);
  EXPECT_EQ(value("03/04/2024", day, {DateOrder::dmy, 0, nullptr}), "2024-04-03");
  EXPECT_EQ(value("03/04/2024", day, {DateOrder::mdy, 0, nullptr}), "2024-03-04");
  EXPECT_EQ(value("1.2.29", day, {DateOrder::dmy, 0, nullptr}), "2029-02-01");
  EXPECT_EQ(value("1.2.30", day, {DateOrder::dmy, 0, nullptr}), "1930-02-01");
  EXPECT_EQ(problem("31/02/2024", day, {DateOrder::dmy, 0, nullptr}), Kind::notDate);
  EXPECT_EQ(problem("03/04-2024", day, {DateOrder::dmy, 0, nullptr}), Kind::notDate);
}

TEST(ValueCoercion, DateTimesBecomeUTCFromTheirOwnOrTheChosenZone) {
  ImportField when = field("datetime");
  EXPECT_EQ(value("2024-03-31 14:30", when), "2024-03-31T14:30:00.000Z");
  EXPECT_EQ(value("2024-03-31T14:30:05.25+02:00", when), "2024-03-31T12:30:05.250Z");
  EXPECT_EQ(value("2024-01-01 00:30:00", when, {std::nullopt, 60, nullptr}),
            "2023-12-31T23:30:00.000Z");
  EXPECT_EQ(value("12/31/2024 11:45 PM", when, {DateOrder::mdy, -300, nullptr}),
            "2025-01-01T04:45:00.000Z");
  EXPECT_EQ(value("2024-03-31", when), "2024-03-31T00:00:00.000Z");
  EXPECT_EQ(problem("2024-03-31 25:00", when), Kind::notDateTime);
  EXPECT_EQ(problem("2024-03-31 10:00 CEST", when), Kind::notDateTime);
  EXPECT_EQ(value("7:05", field("time")), "07:05:00.000Z");
  EXPECT_EQ(ValueCoercion::utcOffsetMinutes("UTC-05:30"), -330);
  EXPECT_EQ(ValueCoercion::utcOffsetMinutes("+0100"), 60);
  EXPECT_EQ(ValueCoercion::utcOffsetMinutes("Europe/Paris"), std::nullopt);
}

TEST(ValueCoercion, PicklistsTakeTheOrgsSpellingOfActiveValues) {
  ImportField rating = field("picklist");
  rating.picklistValues = {"Hot", "Warm", "Cold"};
  EXPECT_EQ(value(" hot ", rating), "Hot");
  EXPECT_EQ(problem("Tepid", rating), Kind::notPicklistValue);
  EXPECT_THAT(ValueCoercion::coerce("Tepid", rating, {}).problem->sentence(),
              ::testing::HasSubstr("Use one of: Hot, Warm, Cold"));

  ImportField tags = field("multipicklist");
  tags.picklistValues = {"Red", "Green", "Blue"};
  EXPECT_EQ(value("red; BLUE;;Red", tags), "Red;Blue");
  EXPECT_EQ(problem("Red;Pink", tags), Kind::notPicklistValue);
}

TEST(ValueCoercion, IdsComeOutWithEighteenCharactersAndTheirOwnCase) {
  EXPECT_EQ(ValueCoercion::normalizedId("001xx000003DGb2"), "001xx000003DGb2AAG");
  // A spreadsheet that upper-cased the id: the checksum restores the case.
  EXPECT_EQ(ValueCoercion::normalizedId("001XX000003DGB2AAG"), "001xx000003DGb2AAG");
  EXPECT_EQ(ValueCoercion::normalizedId("001xx000003dgb2aag"), "001xx000003DGb2AAG");
  EXPECT_EQ(ValueCoercion::normalizedId("001xx000003DGb2AA"), std::nullopt);
  EXPECT_EQ(ValueCoercion::normalizedId("001xx000003DGb2AA!"), std::nullopt);
  EXPECT_EQ(problem("not an id", field("reference")), Kind::notId);
}

TEST(ValueCoercion, ContactDetailsAreCheckedForSanity) {
  ImportField mail = field("email", 80);
  EXPECT_EQ(value(" ana@example.com ", mail), "ana@example.com");
  for (const char* bad :
       {"ana@", "ana example.com", "a@b@c.com", "ana@example", "a@b.com;c@d.com"}) {
    EXPECT_EQ(problem(bad, mail), Kind::notEmail) << bad;
  }
  ImportField phone = field("phone", 40);
  EXPECT_EQ(value("+1 (415) 555-0100 ext. 12", phone), "+1 (415) 555-0100 ext. 12");
  EXPECT_EQ(problem("call me", phone), Kind::notPhone);
  ImportField site = field("url", 255);
  EXPECT_EQ(value("example.com/a", site), "example.com/a");
  EXPECT_EQ(problem("my site", site), Kind::notURL);
}

}  // namespace
}  // namespace corvane
