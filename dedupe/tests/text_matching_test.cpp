// Normalisation, the phonetic code, string scores, filler values and
// plus-addressing: the examples users rely on, plus Unicode input.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "dedupe/email_tag.hpp"
#include "dedupe/filler_values.hpp"
#include "dedupe/normalizer.hpp"
#include "dedupe/phonetic.hpp"
#include "dedupe/similarity.hpp"

namespace corvane {
namespace {

using Normalizer::normalize;

TEST(Normalizer, EmptyStaysEmptyForEveryKind) {
  for (MatchKind kind : {MatchKind::text, MatchKind::personName, MatchKind::companyName,
                         MatchKind::email, MatchKind::phone}) {
    EXPECT_EQ(normalize("", kind), "") << rawValue(kind);
    EXPECT_EQ(matchKindFromRaw(rawValue(kind)), kind);
  }
  EXPECT_EQ(matchKindFromRaw("Text"), std::nullopt);
}

TEST(Normalizer, TextKeepsLettersAndDigitsWithSingleBlanks) {
  EXPECT_EQ(normalize("  O'Brien-Smith, Jr. ", MatchKind::text), "o brien smith jr");
  EXPECT_EQ(normalize("---", MatchKind::text), "");
  EXPECT_EQ(normalize("A\r\nB\t\tC42", MatchKind::text), "a b c42");
}

TEST(Normalizer, FoldsCaseDiacriticsAndWidthOutsideASCII) {
  EXPECT_EQ(normalize("José Müller", MatchKind::text), "jose muller");
  EXPECT_EQ(normalize("ＡＢＣ１２", MatchKind::text), "abc12");  // full width
  EXPECT_EQ(normalize("Straße", MatchKind::text), "strasse");
  EXPECT_EQ(normalize("ÉCOLE—Δέλτα", MatchKind::text), "ecole δελτα");
  EXPECT_EQ(normalize("山田 太郎", MatchKind::personName), "山田 太郎");
  // A decomposed accent folds like the composed one.
  EXPECT_EQ(normalize("Jose\xCC\x81", MatchKind::text), normalize("José", MatchKind::text));
  // Bytes that are not UTF-8 do not stop normalisation.
  EXPECT_EQ(normalize("ab\xFF" "cd", MatchKind::text), "ab cd");
}

TEST(Normalizer, PersonNameDropsTitlesAndPostNominalsButKeepsGenerations) {
  EXPECT_EQ(normalize("Mr", MatchKind::personName), "");
  EXPECT_EQ(normalize("Dr. Prof. Ann Lee, PhD MD", MatchKind::personName), "ann lee");
  EXPECT_EQ(normalize("John Smith Jr.", MatchKind::personName), "john smith jr");
  EXPECT_EQ(normalize("Mrs", MatchKind::text), "mrs");
  EXPECT_EQ(Normalizer::generationSuffix({"john", "smith", "iii"}), "iii");
  EXPECT_EQ(Normalizer::generationSuffix({"john", "smith"}), std::nullopt);
  EXPECT_EQ(Normalizer::generationSuffix({}), std::nullopt);
}

TEST(Normalizer, CompanyNameDropsArticleAndLegalFormsButNeverTheLastWord) {
  EXPECT_EQ(normalize("The Company", MatchKind::companyName), "company");
  EXPECT_EQ(normalize("Company", MatchKind::companyName), "company");
  EXPECT_EQ(normalize("The", MatchKind::companyName), "the");
  EXPECT_EQ(normalize("Acme Holdings Co. Ltd.", MatchKind::companyName), "acme holdings");
  EXPECT_EQ(normalize("Acme Inc LLC", MatchKind::companyName), "acme");
  EXPECT_EQ(normalize("Müller GmbH", MatchKind::companyName), "muller");
  EXPECT_EQ(normalize("Theory Inc", MatchKind::companyName), "theory");
}

TEST(Normalizer, EmailIsTrimmedAndLowerCasedOnly) {
  EXPECT_EQ(normalize(" \tJo.Doe+News@Example.COM\r\n", MatchKind::email),
            "jo.doe+news@example.com");
  EXPECT_EQ(normalize("ÅSA@EXAMPLE.SE", MatchKind::email), "åsa@example.se");
}

TEST(Normalizer, PhoneKeepsDigitsWithoutExtensionOrNorthAmericanPrefix) {
  EXPECT_EQ(normalize("+1 (415) 555-0100 ext. 12", MatchKind::phone), "4155550100");
  EXPECT_EQ(normalize("1-800-555-0100", MatchKind::phone), "8005550100");
  EXPECT_EQ(normalize("415.555.0100", MatchKind::phone), "4155550100");
  EXPECT_EQ(normalize("1 415 555 0100 1", MatchKind::phone), "141555501001");
  EXPECT_EQ(normalize("21 555 0100", MatchKind::phone), "215550100");
  EXPECT_EQ(normalize("415 555 0100 x 7", MatchKind::phone), "4155550100");
  EXPECT_EQ(normalize("415 555 0100 #7", MatchKind::phone), "4155550100");
  EXPECT_EQ(normalize("415 555 0100 Extension: 7", MatchKind::phone), "4155550100");
  // Arabic-Indic digits count as digits.
  EXPECT_EQ(normalize("\xD9\xA4\xD9\xA1\xD9\xA5", MatchKind::phone), "415");
}

TEST(Normalizer, StripExtensionNeedsDigitsAfterTheMarker) {
  EXPECT_EQ(Normalizer::stripExtension("555-0100 Ext. 12"), "555-0100 ");
  EXPECT_EQ(Normalizer::stripExtension("555 XYZ 12"), "555 xyz 12");
  EXPECT_EQ(Normalizer::stripExtension("555 ext"), "555 ext");
  EXPECT_EQ(Normalizer::stripExtension("555 x12b"), "555 x12b");
}

TEST(Normalizer, GuessKindFromTypeNameAndObject) {
  using Normalizer::guessKind;
  EXPECT_EQ(guessKind("Work_Address__c", "email", "Account"), MatchKind::email);
  EXPECT_EQ(guessKind("Other", "phone", "Account"), MatchKind::phone);
  EXPECT_EQ(guessKind("MobilePhone", "string", "Contact"), MatchKind::phone);
  EXPECT_EQ(guessKind("Fax", "string", "Account"), MatchKind::phone);
  EXPECT_EQ(guessKind("Personal_Email__c", "string", "Account"), MatchKind::email);
  EXPECT_EQ(guessKind("Industry", "picklist", "Account"), MatchKind::text);
  EXPECT_EQ(guessKind("Name", "string", "Account"), MatchKind::companyName);
  EXPECT_EQ(guessKind("Name", "string", "Lead"), MatchKind::personName);
  EXPECT_EQ(guessKind("Account.Name", "string", "Contact"), MatchKind::personName);
  EXPECT_EQ(guessKind("LastName", "string", "Account"), MatchKind::personName);
  EXPECT_EQ(guessKind("Contact_Name__c", "string", "Case"), MatchKind::text);
  EXPECT_EQ(guessKind("ContactName", "string", "Case"), MatchKind::personName);
  EXPECT_EQ(guessKind("Owner.Name", "string", "Opportunity"), MatchKind::companyName);
}

TEST(Phonetic, EncodesTheDocumentedExamples) {
  EXPECT_EQ(Phonetic::encode("thompson"), "0MPSN");
  EXPECT_EQ(Phonetic::encode("knight"), "NKT");
  EXPECT_EQ(Phonetic::encode("catherine"), "K0RN");
  EXPECT_EQ(Phonetic::encode("schmidt"), "SXMT");
  EXPECT_EQ(Phonetic::encode("x"), "KS");
  EXPECT_EQ(Phonetic::encode("xavier"), "SFR");
  EXPECT_EQ(Phonetic::encode(""), "");
}

TEST(Phonetic, InitialRulesAndCollapsedRepeats) {
  EXPECT_EQ(Phonetic::encode("white"), "WT");
  EXPECT_EQ(Phonetic::encode("wright"), "RKT");
  EXPECT_EQ(Phonetic::encode("psmith"), "SM0");
  EXPECT_EQ(Phonetic::encode("gnome"), "NM");
  EXPECT_EQ(Phonetic::encode("Matt"), "MT");
  EXPECT_EQ(Phonetic::encode("cecily"), "SL");  // s, (e), s collapse
  EXPECT_EQ(Phonetic::encode("george"), "JRJ");
  EXPECT_EQ(Phonetic::encode("philip"), "FLP");
  EXPECT_EQ(Phonetic::encode("alex"), "ALKS");
  EXPECT_EQ(Phonetic::encode("k"), "K");
  EXPECT_EQ(Phonetic::encode("Thompson"), Phonetic::encode("thompson"));
}

TEST(Phonetic, KeyEncodesLetterWordsAndKeepsOthers) {
  EXPECT_EQ(Phonetic::key("john smith"), "JN SM0");
  EXPECT_EQ(Phonetic::key("apt 4b main"), "APT 4b MN");
  EXPECT_EQ(Phonetic::key(""), "");
  EXPECT_EQ(Phonetic::key("  ann  "), "AN");
  // Letters outside ASCII are coded as themselves, upper-cased.
  EXPECT_EQ(Phonetic::key("δελτα"), "ΔΕΛΤΑ");
}

TEST(Similarity, JaroAndJaroWinkler) {
  using namespace Similarity;
  EXPECT_NEAR(jaroWinkler("martha", "marhta"), 0.961, 0.001);
  EXPECT_NEAR(jaro("martha", "marhta"), 0.944, 0.001);
  EXPECT_NEAR(jaroWinkler("dixon", "dicksonx"), 0.813, 0.001);
  EXPECT_EQ(jaroWinkler("", ""), 1.0);
  EXPECT_EQ(jaroWinkler("a", ""), 0.0);
  EXPECT_EQ(jaroWinkler("abc", "xyz"), 0.0);
  EXPECT_EQ(jaro("same", "same"), 1.0);
  EXPECT_EQ(jaro("a", "b"), 0.0);
  // Symmetric, and long inputs take the heap path with the same result.
  std::string longA(300, 'a');
  std::string longB = longA;
  longB[150] = 'b';
  EXPECT_DOUBLE_EQ(jaro(longA, longB), jaro(longB, longA));
  EXPECT_NEAR(jaro(longA, longB), (299.0 / 300 * 2 + 1) / 3, 1e-12);
}

// The textbook algorithm, to hold the fast paths to.
double referenceJaro(const std::string& a, const std::string& b) {
  if (a.empty() && b.empty()) return 1.0;
  if (a.empty() || b.empty()) return 0.0;
  if (a == b) return 1.0;
  std::size_t longer = std::max(a.size(), b.size());
  std::size_t range = longer / 2 >= 1 ? longer / 2 - 1 : 0;
  std::vector<bool> ma(a.size()), mb(b.size());
  double m = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    for (std::size_t j = i > range ? i - range : 0; j < std::min(i + range + 1, b.size()); ++j) {
      if (!mb[j] && a[i] == b[j]) {
        ma[i] = mb[j] = true;
        ++m;
        break;
      }
    }
  }
  if (m == 0) return 0.0;
  double t = 0;
  for (std::size_t i = 0, j = 0; i < a.size(); ++i) {
    if (!ma[i]) continue;
    while (!mb[j]) ++j;
    t += a[i] != b[j++];
  }
  return (m / a.size() + m / b.size() + (m - t / 2) / m) / 3;
}

double referenceJaroWinkler(const std::string& a, const std::string& b) {
  const double j = referenceJaro(a, b);
  if (!(j > 0.0)) return 0.0;
  std::size_t l = 0;
  while (l < 4 && l < a.size() && l < b.size() && a[l] == b[l]) ++l;
  return j + static_cast<double>(l) * 0.1 * (1.0 - j);
}

// The fast paths give the textbook's value to the last bit, for every pair:
// a changed score would move a pair across a threshold somewhere.
TEST(Similarity, JaroWinklerIsBitForBitTheTextbookValue) {
  std::vector<std::pair<std::string, std::string>> pairs{
      {"", ""}, {"a", ""}, {"", "a"}, {"a", "a"}, {"a", "b"}, {"ab", "ba"},
      {"aaaa", "aaaa"}, {"aaaa", "aaa"}, {"martha", "marhta"}, {"dixon", "dicksonx"},
      {"jonh smith", "john smith"}, {std::string(1, '\0'), std::string(2, '\0')},
      {"\xff\xfe\x80", "\x80\xfe\xff"}, {"jos\xc3\xa9 m\xc3\xbcller", "jose muller"},
      {"\xe5\xbc\xa0\xe4\xbc\x9f", "\xe5\xbc\xa0\xe4\xbc\x9f\xe6\x98\x8e"}};
  // Every length around the sizes the fast paths work in.
  for (std::size_t n : {15u, 16u, 17u, 31u, 32u, 33u, 47u, 48u, 49u, 63u, 64u, 65u, 130u}) {
    std::string x(n, 'a'), y(n, 'a');
    for (std::size_t i = 0; i < n; ++i) {
      x[i] = static_cast<char>('a' + i % 7);
      y[i] = static_cast<char>('a' + (i * 3) % 7);
    }
    pairs.emplace_back(x, y);
    pairs.emplace_back(x, x.substr(1));
    pairs.emplace_back(x, std::string(n, 'a'));
    pairs.emplace_back(std::string(n, '\0'), std::string(n > 1 ? n - 1 : 1, '\0'));
  }
  std::mt19937 random(11);
  for (int round = 0; round < 30'000; ++round) {
    const std::size_t lengths[] = {random() % 8, random() % 20, random() % 70, random() % 140};
    const int alphabet = 1 + static_cast<int>(random() % 6);
    const bool anyByte = random() % 4 == 0;
    std::string a(lengths[random() % 4], ' ');
    std::string b(lengths[random() % 4], ' ');
    for (char& c : a) c = static_cast<char>(anyByte ? random() % 256 : 'a' + random() % alphabet);
    for (char& c : b) c = static_cast<char>(anyByte ? random() % 256 : 'a' + random() % alphabet);
    if (random() % 10 == 0) b = a;
    if (random() % 10 == 0 && !a.empty()) b = a.substr(0, random() % a.size()) + b;
    pairs.emplace_back(std::move(a), std::move(b));
  }
  for (const auto& [a, b] : pairs) {
    ASSERT_EQ(Similarity::jaroWinkler(a, b), referenceJaroWinkler(a, b)) << a << " / " << b;
    ASSERT_EQ(Similarity::jaro(b, a), referenceJaro(b, a)) << b << " / " << a;
  }
}

TEST(Similarity, JaroAgreesWithTheTextbookAlgorithmAtEveryLength) {
  std::mt19937 random(7);
  for (int round = 0; round < 3000; ++round) {
    std::string a(random() % 90, 'a');
    std::string b(random() % 90, 'a');
    for (char& c : a) c = static_cast<char>('a' + random() % 4);
    for (char& c : b) c = static_cast<char>('a' + random() % 4);
    ASSERT_NEAR(Similarity::jaro(a, b), referenceJaro(a, b), 1e-12) << a << " / " << b;
  }
}

TEST(Similarity, BigramDiceCountsPairsAsMultisets) {
  using Similarity::bigramDice;
  EXPECT_EQ(bigramDice("a", "a"), 1.0);
  EXPECT_EQ(bigramDice("a", "b"), 0.0);
  EXPECT_EQ(bigramDice("", "ab"), 0.0);
  EXPECT_NEAR(bigramDice("night", "nacht"), 0.25, 1e-12);
  // "aaaa" has three "aa" pairs, "aa" one: intersection 1.
  EXPECT_NEAR(bigramDice("aaaa", "aa"), 2.0 / 4.0, 1e-12);
}

TEST(Similarity, TokenSortIgnoresWordOrder) {
  using Similarity::tokenSortRatio;
  EXPECT_EQ(tokenSortRatio("smith john", "john smith"), 1.0);
  EXPECT_EQ(tokenSortRatio("  smith   john ", "john smith"), 1.0);
  EXPECT_LT(tokenSortRatio("smith jon", "john smith"), 1.0);
}

TEST(Similarity, WithinEditsCountsSwapsAsOneEdit) {
  using Similarity::withinEdits;
  EXPECT_TRUE(withinEdits("", "ab", 2));
  EXPECT_FALSE(withinEdits("", "abc", 2));
  EXPECT_TRUE(withinEdits("abc", "", 3));
  EXPECT_TRUE(withinEdits("kitten", "sitting", 3));
  EXPECT_FALSE(withinEdits("kitten", "sitting", 2));
  EXPECT_TRUE(withinEdits("ab", "ba", 1));
  EXPECT_TRUE(withinEdits("martha", "marhta", 1));
  EXPECT_FALSE(withinEdits("ca", "abc", 2) && !withinEdits("ca", "abc", 3));
  EXPECT_TRUE(withinEdits("same", "same", 0));
  EXPECT_FALSE(withinEdits("same", "sane", 0));
  EXPECT_FALSE(withinEdits("abcdef", "ab", 3));
  // A long pair far apart stops early and agrees with the short cases.
  std::string a(200, 'x');
  std::string b = a;
  b[10] = 'y';
  b[100] = 'y';
  EXPECT_TRUE(withinEdits(a, b, 2));
  EXPECT_FALSE(withinEdits(a, b, 1));
  EXPECT_FALSE(withinEdits(a, std::string(200, 'z'), 5));
}

// The textbook optimal-string-alignment distance, for comparison.
int alignmentDistance(const std::string& a, const std::string& b) {
  std::vector<std::vector<int>> d(a.size() + 1, std::vector<int>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = static_cast<int>(i);
  for (std::size_t j = 0; j <= b.size(); ++j) d[0][j] = static_cast<int>(j);
  for (std::size_t i = 1; i <= a.size(); ++i) {
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const int cost = a[i - 1] == b[j - 1] ? 0 : 1;
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
      }
    }
  }
  return d[a.size()][b.size()];
}

TEST(Similarity, WithinEditsAgreesWithTheTextbookDistance) {
  // Few distinct bytes, among them bytes 32 apart ("a", "A", "!"), so that
  // near misses are common and bytes that share a counter meet.
  const std::string alphabet = "abA!";
  std::mt19937 random(11);
  for (int round = 0; round < 20000; ++round) {
    std::string a;
    std::string b;
    const auto lengthA = random() % 9;
    const auto lengthB = random() % 9;
    for (std::size_t i = 0; i < lengthA; ++i) a += alphabet[random() % alphabet.size()];
    for (std::size_t i = 0; i < lengthB; ++i) b += alphabet[random() % alphabet.size()];
    const int k = static_cast<int>(random() % 4);
    ASSERT_EQ(Similarity::withinEdits(a, b, k), alignmentDistance(a, b) <= k)
        << '"' << a << "\" \"" << b << "\" " << k;
  }
}

TEST(Similarity, SuffixMatchForPhonesWithAndWithoutAreaCode) {
  EXPECT_TRUE(Similarity::suffixMatch("4155550100", "5550100", 7));
  EXPECT_TRUE(Similarity::suffixMatch("5550100", "4155550100", 7));
  EXPECT_FALSE(Similarity::suffixMatch("550100", "4155550100", 7));
  EXPECT_FALSE(Similarity::suffixMatch("5550101", "4155550100", 7));
}

TEST(FillerValues, ExactValuesAndPrefixesFollowedByAWord) {
  using FillerValues::isFiller;
  EXPECT_TRUE(isFiller("unknown"));
  EXPECT_TRUE(isFiller("to be determined"));
  EXPECT_FALSE(isFiller("unknownsoldier"));
  EXPECT_TRUE(isFiller("unknown caller"));
  EXPECT_TRUE(isFiller("test lead 4"));
  EXPECT_FALSE(isFiller("test leader"));
  EXPECT_FALSE(isFiller("test lead"));
  EXPECT_FALSE(isFiller("test lead é"));
  EXPECT_FALSE(isFiller("ann lee"));
  std::set<std::string, std::less<>> real{"anonymous"};
  std::set<std::string, std::less<>> blank{"n a"};
  EXPECT_FALSE(FillerValues::shouldIgnore("anonymous", real, blank));
  EXPECT_TRUE(FillerValues::shouldIgnore("n a", real, blank));
  EXPECT_TRUE(FillerValues::shouldIgnore("tbd", real, blank));
  EXPECT_FALSE(FillerValues::shouldIgnore("", real, {"" }));
}

TEST(EmailTag, PlusTagsAndTheLocalPartsLeftAlone) {
  using namespace EmailTag;
  EXPECT_TRUE(hasTag("jo+news@example.com"));
  EXPECT_FALSE(hasTag("+news@example.com"));
  EXPECT_FALSE(hasTag("jo,x+news@example.com"));
  EXPECT_FALSE(hasTag("jo+news"));
  EXPECT_TRUE(sameInbox("jo+news@example.com", "jo@example.com"));
  EXPECT_TRUE(sameInbox("jo+a@example.com", "jo+b@example.com"));
  EXPECT_FALSE(sameInbox("jo@example.com", "jo@example.com"));
  EXPECT_FALSE(sameInbox("jo+news@example.com", "jo@example.org"));
  EXPECT_FALSE(sameInbox("\"jo+news\"@example.com", "\"jo@example.com"));
  EXPECT_EQ(canonical("jo+news+more@example.com"), "jo@example.com");
  EXPECT_EQ(canonical("+news@example.com"), "+news@example.com");
  EXPECT_EQ(strippedLocal("jo\"+x"), std::nullopt);
  FlatColumn column;
  column.append("ann@example.com");
  column.append("");
  EXPECT_FALSE(columnHasTags(column));
  column.append("bo+x@example.com");
  EXPECT_TRUE(columnHasTags(column));
}

}  // namespace
}  // namespace corvane
