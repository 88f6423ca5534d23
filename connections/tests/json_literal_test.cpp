#include "connections/json_literal.hpp"

#include <gtest/gtest.h>

namespace corvane {
namespace {

TEST(JSONLiteral, NumbersSurviveReadAndWriteAsTheirOwnText) {
  const std::string text =
      R"({"big":123456789012345678901234567890,"id18":100000000000000001,)"
      R"("neg":-9223372036854775808,"max":18446744073709551615,"frac":0.10000000000000000001,)"
      R"("exp":1.5E+3,"small":-2.5e-3,"list":[1,2.50,null,true,false,"x"]})";
  JSONLiteral value = JSONLiteral::parse(text);
  EXPECT_EQ(value.dump(), text);
  EXPECT_EQ(value.find("big")->asNumber()->text, "123456789012345678901234567890");
  EXPECT_EQ(value.find("frac")->asNumber()->text, "0.10000000000000000001");
  EXPECT_EQ(value.find("exp")->asNumber()->text, "1.5E+3");
}

TEST(JSONLiteral, KeepsKeyOrderAndEscapesStringsOnWrite) {
  JSONLiteral value = JSONLiteral::parse(R"({"z":"a\"b\\c\n\u0001é","a":{},"m":[]})");
  ASSERT_NE(value.asObject(), nullptr);
  EXPECT_EQ(value.asObject()->front().first, "z");
  EXPECT_EQ(*value.find("z")->asString(), "a\"b\\c\n\x01\xC3\xA9");
  EXPECT_EQ(value.dump(), R"({"z":"a\"b\\c\n\u0001é","a":{},"m":[]})");
  EXPECT_EQ(JSONLiteral::parse(value.dump()), value);
  EXPECT_EQ(value.find("missing"), nullptr);
}

TEST(JSONLiteral, MalformedInputThrowsMalformed) {
  for (const char* bad : {"", "{", R"({"a":})", "[1,]", "01", "nul", R"({"a":1} x)", "\"\x01\"",
                          R"({"a":"unterminated)"}) {
    EXPECT_THROW(JSONLiteral::parse(bad), JSONLiteral::Malformed) << bad;
  }
}

}  // namespace
}  // namespace corvane
