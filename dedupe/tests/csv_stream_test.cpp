// Result pages as the Bulk API writes them, and the pages it must refuse.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dedupe/csv_stream.hpp"

namespace corvane {
namespace {

using Rows = std::vector<std::vector<std::string>>;

Rows parse(std::string_view page) {
  Rows rows;
  auto keep = [&rows](const CsvStream::Row& row) {
    rows.emplace_back(row.begin(), row.end());
  };
  CsvStream::parsePage(page, keep, keep);
  return rows;
}

TEST(CsvStream, QuotedValuesHoldCommasQuotesAndLineBreaks) {
  Rows rows = parse(
      "\"Id\",\"Name\",\"Street\"\n"
      "\"001\",\"Smith, John\",\"1 \"\"Main\"\" St\nFloor 2\"\n"
      "\"002\",\"\",\"a\r\nb\"\n");
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(rows[0], (std::vector<std::string>{"Id", "Name", "Street"}));
  EXPECT_EQ(rows[1], (std::vector<std::string>{"001", "Smith, John", "1 \"Main\" St\nFloor 2"}));
  EXPECT_EQ(rows[2], (std::vector<std::string>{"002", "", "a\r\nb"}));
}

TEST(CsvStream, UnquotedValuesCRLFEndingsAndEmptyLines) {
  Rows rows = parse("Id,Name\r\n001,Ann\r\n\r\n002,\r\n003,Bo");
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(rows[2], (std::vector<std::string>{"002", ""}));
  EXPECT_EQ(rows[3], (std::vector<std::string>{"003", "Bo"}));
  EXPECT_EQ(parse("a,b,"), (Rows{{"a", "b", ""}}));
  EXPECT_TRUE(parse("").empty());
  EXPECT_EQ(parse("\"\xC3\xA9t\xC3\xA9\"\n"), (Rows{{"\xC3\xA9t\xC3\xA9"}}));
}

TEST(CsvStream, RefusesUnterminatedQuotesAndBytesThatAreNotUTF8) {
  try {
    parse("\"Id\"\n\"001\",\"never closed\n");
    FAIL();
  } catch (const CsvError& error) {
    EXPECT_EQ(error.kind(), CsvError::Kind::unterminatedQuote);
  }
  int delivered = 0;
  auto count = [&delivered](const CsvStream::Row&) { ++delivered; };
  try {
    CsvStream::parsePage("\"Id\"\n\"00\xC3\"\n\"001\"\n", count, count);
    FAIL();
  } catch (const CsvError& error) {
    EXPECT_EQ(error.kind(), CsvError::Kind::notUTF8);
  }
  EXPECT_EQ(delivered, 0);
  // An overlong encoding is not UTF-8 either.
  EXPECT_THROW(parse("\xC0\xAF"), CsvError);
}

}  // namespace
}  // namespace corvane
