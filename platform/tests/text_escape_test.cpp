#include "platform/text_escape.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace corvane {
namespace {

TEST(TextEscapeTest, JSONStringsReadBackAsTheSameText) {
  const std::string samples[] = {"",
                                 "plain",
                                 "quote \" and backslash \\",
                                 "it's",
                                 "tab\tline\nfeed\rbell\x07",
                                 std::string("nul\0byte", 8),
                                 "\x1f unit separator",
                                 "Zoë 😀 \u2028",
                                 "50% of a_b"};
  for (const auto& text : samples) {
    std::string out;
    TextEscape::appendJSONString(out, text);
    EXPECT_EQ(nlohmann::json::parse(out).get<std::string>(), text) << out;
  }
  std::string out;
  TextEscape::appendJSONString(out, "it's\x01");
  EXPECT_EQ(out, "\"it's\\u0001\"");
}

TEST(TextEscapeTest, SOQLLiteralsEscapeQuotesAndWildcardsOnlyForLike) {
  EXPECT_EQ(TextEscape::soqlLiteral("O'Brien \"Jr\" \\"), "'O\\'Brien \\\"Jr\\\" \\\\'");
  EXPECT_EQ(TextEscape::soqlLiteral("50%_off"), "'50%_off'");
  EXPECT_EQ(TextEscape::soqlLiteral("50%_off", true), "'50\\%\\_off'");
  EXPECT_EQ(TextEscape::soqlLiteral("two\nlines\x01"), "'two\\nlines\x01'");
}

}  // namespace
}  // namespace corvane
