#include "platform/unicode.hpp"

#include <gtest/gtest.h>

namespace corvane {
namespace {

TEST(Unicode, CountsUserPerceivedCharacters) {
  EXPECT_EQ(Unicode::characterCount(""), 0u);
  EXPECT_EQ(Unicode::characterCount("abc"), 3u);
  EXPECT_EQ(Unicode::characterCount("e\xCC\x81"), 1u);                   // e + combining acute
  EXPECT_EQ(Unicode::characterCount("a\r\nb"), 3u);                      // CR LF is one
  EXPECT_EQ(Unicode::characterCount("\xF0\x9F\x87\xAB\xF0\x9F\x87\xB7"  // two flags
                                    "\xF0\x9F\x87\xA9\xF0\x9F\x87\xAA"),
            2u);
  // Family: man ZWJ woman ZWJ girl.
  EXPECT_EQ(Unicode::characterCount("\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9\xE2\x80\x8D"
                                    "\xF0\x9F\x91\xA7x"),
            2u);
  EXPECT_EQ(Unicode::characterBoundaries("a\xC3\xA9z"), (std::vector<std::size_t>{0, 1, 3, 4}));
}

TEST(Unicode, InvalidBytesAreCharactersOfTheirOwnAndNeverThrow) {
  std::string bad = "a\xFF\xC3(b\xE2\x82";
  EXPECT_FALSE(Unicode::isValidUTF8(bad));
  EXPECT_TRUE(Unicode::isValidUTF8("plain \xEF\xBF\xBD text"));
  EXPECT_FALSE(Unicode::isValidUTF8("\xC0\xAF"));      // overlong "/"
  EXPECT_FALSE(Unicode::isValidUTF8("\xED\xA0\x80"));  // a surrogate
  auto boundaries = Unicode::characterBoundaries(bad);
  EXPECT_EQ(boundaries.front(), 0u);
  EXPECT_EQ(boundaries.back(), bad.size());
  EXPECT_EQ(Unicode::fold(bad), "a\xEF\xBF\xBD\xEF\xBF\xBD(b\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(Unicode, FoldsCaseDiacriticsAndWidth) {
  EXPECT_EQ(Unicode::fold("Ærøskøbing ÉCOLE"), "ærøskøbing ecole");
  EXPECT_EQ(Unicode::fold("Straße"), "strasse");
  EXPECT_EQ(Unicode::fold("\xEF\xBC\xA1\xEF\xBC\xA2\xEF\xBC\x91"), "ab1");  // full-width "AB1"
  EXPECT_EQ(Unicode::fold("ﬁne"), "fine");                                   // ligature
  EXPECT_EQ(Unicode::fold("Zoë"), Unicode::fold("ZOE"));
}

TEST(Unicode, ClassesAndDigitValuesOfAnyScript) {
  EXPECT_TRUE(Unicode::isLetter(U'ß'));
  EXPECT_TRUE(Unicode::isLetter(U'中'));
  EXPECT_FALSE(Unicode::isLetter(U'-'));
  EXPECT_TRUE(Unicode::isLetterOrDigit(U'٣'));  // Arabic-Indic three
  EXPECT_EQ(Unicode::digitValue(U'7'), 7);
  EXPECT_EQ(Unicode::digitValue(U'٣'), 3);
  EXPECT_EQ(Unicode::digitValue(U'９'), 9);         // full-width nine
  EXPECT_EQ(Unicode::digitValue(0x1D7D9), 1);      // mathematical double-struck one, a run after bold
  EXPECT_EQ(Unicode::digitValue(U'²'), -1);        // superscript: a number but not a decimal digit
  EXPECT_EQ(Unicode::digitValue(U'x'), -1);
  EXPECT_TRUE(Unicode::isWhitespace(0x00A0));
  EXPECT_TRUE(Unicode::isWhitespace('\n'));
  EXPECT_FALSE(Unicode::isWhitespace('x'));
}

TEST(Unicode, LowercaseLeavesEverythingElse) {
  EXPECT_EQ(Unicode::lowercase("ÀB-c ÉÎ"), "àb-c éî");
}

}  // namespace
}  // namespace corvane
