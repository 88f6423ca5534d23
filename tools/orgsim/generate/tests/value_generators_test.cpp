// The building blocks of generated values: randomness, typing mistakes, the
// forms of phones, e-mails and names, and the layout of duplicate clusters.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

#include "tools/orgsim/generate/companies.hpp"
#include "tools/orgsim/generate/contact_points.hpp"
#include "tools/orgsim/generate/duplicate_plan.hpp"
#include "tools/orgsim/generate/free_text.hpp"
#include "tools/orgsim/generate/people.hpp"
#include "tools/orgsim/generate/random_source.hpp"
#include "tools/orgsim/generate/text_forms.hpp"

namespace corvane::orgsim {
namespace {

// Optimal-string-alignment distance: what a duplicate finder counts as edits.
int editDistance(std::string_view a, std::string_view b) {
  std::vector<std::vector<int>> d(a.size() + 1, std::vector<int>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = static_cast<int>(i);
  for (std::size_t j = 0; j <= b.size(); ++j) d[0][j] = static_cast<int>(j);
  for (std::size_t i = 1; i <= a.size(); ++i) {
    for (std::size_t j = 1; j <= b.size(); ++j) {
      int cost = a[i - 1] == b[j - 1] ? 0 : 1;
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
      }
    }
  }
  return d[a.size()][b.size()];
}

bool isValidUtf8(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    auto c = static_cast<unsigned char>(text[i]);
    std::size_t length = c < 0x80         ? 1
                         : (c >> 5) == 6  ? 2
                         : (c >> 4) == 14 ? 3
                         : (c >> 3) == 30 ? 4
                                          : 0;
    if (length == 0 || i + length > text.size()) return false;
    for (std::size_t k = 1; k < length; ++k) {
      if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return false;
    }
    i += length;
  }
  return true;
}

std::string digitsOf(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (c >= '0' && c <= '9') out += c;
  }
  return out;
}

TEST(RandomSource, IsReproducibleAndRecordsAreIndependent) {
  RandomSource a(42), b(42), c(43);
  std::vector<std::uint64_t> first, second, third;
  for (int i = 0; i < 16; ++i) {
    first.push_back(a.next());
    second.push_back(b.next());
    third.push_back(c.next());
  }
  EXPECT_EQ(first, second);
  EXPECT_NE(first, third);
  // A record's source depends on the record alone, not on what was drawn before.
  auto r1 = RandomSource::forRecord(1, streamTag("Account"), 500);
  auto r2 = RandomSource::forRecord(1, streamTag("Account"), 500);
  auto other = RandomSource::forRecord(1, streamTag("Contact"), 500);
  EXPECT_EQ(r1.next(), r2.next());
  EXPECT_NE(r1.next(), other.next());
  for (int i = 0; i < 1000; ++i) {
    EXPECT_LT(a.below(7), 7u);
    auto v = a.between(-3, 3);
    EXPECT_GE(v, -3);
    EXPECT_LE(v, 3);
  }
}

TEST(IndexPermutation, IsABijectionThatScattersNeighbours) {
  for (std::uint64_t size : {1u, 2u, 7u, 64u, 1000u, 4097u}) {
    IndexPermutation permutation(9, size);
    std::set<std::uint64_t> seen;
    for (std::uint64_t i = 0; i < size; ++i) {
      auto p = permutation(i);
      ASSERT_LT(p, size);
      seen.insert(p);
    }
    EXPECT_EQ(seen.size(), size);
  }
  IndexPermutation permutation(9, 100000);
  int adjacent = 0;
  for (std::uint64_t i = 0; i + 1 < 1000; ++i) {
    auto a = permutation(i), b = permutation(i + 1);
    adjacent += (a > b ? a - b : b - a) < 8 ? 1 : 0;
  }
  EXPECT_LT(adjacent, 10);
}

TEST(TextForms, TyposAreOneEditAwayAndLeaveTheFirstLetterAndUnicodeAlone) {
  RandomSource random(3);
  for (auto kind : {TextForms::Typo::KeyboardNeighbour, TextForms::Typo::Transposition,
                    TextForms::Typo::Deletion, TextForms::Typo::Doubling}) {
    for (std::string_view text :
         {"Thompson", "Müller-Lüdenscheidt", "O'Connor", "Zoë Ångström", "12 Main St", "02139"}) {
      for (int i = 0; i < 20; ++i) {
        std::string typed = TextForms::withTypo(text, kind, random);
        EXPECT_EQ(editDistance(text, typed), 1) << text << " -> " << typed;
        EXPECT_EQ(typed[0], text[0]);
        EXPECT_TRUE(isValidUtf8(typed)) << typed;
      }
    }
  }
  // Nowhere to put a mistake: the text comes back as it was.
  EXPECT_EQ(TextForms::withTypo("Li", TextForms::Typo::Deletion, random), "Li");
  EXPECT_EQ(TextForms::withTypo("山田", random), "山田");
}

TEST(TextForms, AccentsFoldSpellOutAndDecompose) {
  EXPECT_EQ(TextForms::asciiFolded("José Müller"), "Jose Muller");
  EXPECT_EQ(TextForms::asciiFolded("José Müller", true), "Jose Mueller");
  EXPECT_EQ(TextForms::asciiFolded("Weiß, Łukasz 山田"), "Weiss, Lukasz ");
  std::string decomposed = TextForms::decomposed("José");
  EXPECT_EQ(decomposed, "Jose\u0301");
  EXPECT_NE(decomposed, "José");
  EXPECT_FALSE(TextForms::hasDecomposable("Smith"));
  EXPECT_EQ(TextForms::slug("Müller & Söhne", true), "muellersoehne");
}

TEST(Phones, EveryStyleWritesTheSameNumber) {
  RandomSource random(5);
  for (const auto& city : WordLists::cities()) {
    PhoneNumber phone = Phones::make(city, random);
    std::string national = phone.area + phone.subscriber;
    for (int style = 0; style < Phones::kStyles; ++style) {
      std::string digits = digitsOf(Phones::format(phone, style));
      // Drop an international prefix, the country code or the trunk 0.
      if (digits.starts_with("00" + std::string(phone.dialCode))) {
        digits = digits.substr(2 + phone.dialCode.size());
      } else if (digits.size() > national.size() && digits.starts_with(phone.dialCode)) {
        digits = digits.substr(phone.dialCode.size());
      }
      if (digits.size() == national.size() + 1 && digits[0] == '0') digits = digits.substr(1);
      EXPECT_EQ(digits, national) << city.city << " style " << style << ": "
                                  << Phones::format(phone, style);
    }
  }
  PhoneNumber us{"US", "1", "415", "2220142"};
  EXPECT_EQ(Phones::format(us, 0), "(415) 222-0142");
  EXPECT_EQ(Phones::format(us, 3), "+1 415 222 0142");
  EXPECT_EQ(Phones::format(us, 1, "12"), "415-222-0142 ext. 12");
}

TEST(Emails, PlusTagsAndCaseChangesKeepTheSameInbox) {
  RandomSource random(8);
  for (int i = 0; i < 50; ++i) {
    std::string tagged = Emails::withPlusTag("jo.smith@example.com", random);
    ASSERT_TRUE(tagged.starts_with("jo.smith+")) << tagged;
    EXPECT_TRUE(tagged.ends_with("@example.com"));
    std::string cased = Emails::withCaseChange("jo.smith@example.com", random);
    EXPECT_NE(cased, "jo.smith@example.com");
    EXPECT_EQ(TextForms::lower(cased), "jo.smith@example.com");
  }
  EXPECT_EQ(Emails::localPart("Jürgen", "O'Brien", 0), "jurgen.obrien");
  EXPECT_EQ(Emails::localPart("Mary", "Smith", 1), "msmith");
}

TEST(FreeText, NumbersAreWrittenInFullAndTextIsCutBetweenCharacters) {
  EXPECT_EQ(Addresses::coordinate(0.0000001), "0.0000001");
  EXPECT_EQ(Addresses::coordinate(-122.5), "-122.5");
  RandomSource random(2);
  bool sawLargest = false, sawSmallest = false;
  for (int i = 0; i < 2000; ++i) {
    std::string value = FreeText::decimal(random, 16, 2);
    ASSERT_EQ(value.find_first_not_of("0123456789."), std::string::npos) << value;
    auto point = value.find('.');
    ASSERT_NE(point, std::string::npos);
    EXPECT_LE(point, 16u);
    EXPECT_EQ(value.size() - point - 1, 2u);
    sawLargest |= value == "9999999999999999.99";
    sawSmallest |= value == "0.01";
  }
  EXPECT_TRUE(sawLargest);
  EXPECT_TRUE(sawSmallest);
  EXPECT_EQ(FreeText::truncated("ab😀", 4), "ab");
  for (int i = 0; i < 200; ++i) {
    std::string note = FreeText::note(random, 300);
    EXPECT_LE(note.size(), 300u);
    EXPECT_TRUE(isValidUtf8(note));
  }
}

TEST(DuplicatePlan, ClustersHoldTwoToFiveRecordsEachMemberOnce) {
  DuplicatePlan::Options options;
  options.entityPrefix = "company-";
  DuplicatePlan plan(11, "Account", 20000, options);
  std::map<std::uint64_t, std::set<int>> members;
  std::map<std::uint64_t, int> sizes;
  std::uint64_t clustered = 0;
  for (std::uint64_t i = 0; i < plan.records(); ++i) {
    auto m = plan.membership(i);
    if (!m.inCluster) continue;
    ++clustered;
    EXPECT_TRUE(members[m.block].insert(m.member).second);
    sizes[m.block] = m.size;
  }
  for (const auto& [block, found] : members) {
    EXPECT_GE(sizes[block], 2);
    EXPECT_LE(sizes[block], 5);
    EXPECT_EQ(static_cast<int>(found.size()), sizes[block]);
  }
  // About 0.3 * 3.5 / 8 of the records.
  EXPECT_GT(clustered, 20000u * 8 / 100);
  EXPECT_LT(clustered, 20000u * 18 / 100);
}

TEST(DuplicatePlan, PartnerPlansAgreeOnSharedClusters) {
  DuplicatePlan::Options options;
  options.sharedStream = streamTag("shared");
  options.sharedBlocks = DuplicatePlan::blocksFor(3000);
  options.sharedChance = 0.1;
  options.sharedPrefix = "person-";
  options.entityPrefix = "contact-";
  DuplicatePlan contacts(4, "Contact", 5000, options);
  options.entityPrefix = "lead-";
  options.sharedSide = 1;
  DuplicatePlan leads(4, "Lead", 3000, options);
  std::map<std::string, int> contactSide, leadSide;
  for (std::uint64_t i = 0; i < 5000; ++i) {
    auto m = contacts.membership(i);
    if (m.shared) ++contactSide[contacts.entity(m)];
  }
  for (std::uint64_t i = 0; i < 3000; ++i) {
    auto m = leads.membership(i);
    if (m.shared) ++leadSide[leads.entity(m)];
  }
  EXPECT_FALSE(contactSide.empty());
  std::set<std::string> a, b;
  for (const auto& [entity, n] : contactSide) a.insert(entity);
  for (const auto& [entity, n] : leadSide) b.insert(entity);
  EXPECT_EQ(a, b);
  for (const auto& [entity, n] : contactSide) {
    EXPECT_GE(n + leadSide[entity], 2) << entity;
    EXPECT_LE(n + leadSide[entity], 5) << entity;
  }
}

TEST(People, VariantsDifferInTheWaysRealDuplicatesDo) {
  RandomSource random(21);
  int nicknames = 0, transposed = 0, tagged = 0, different = 0;
  for (int i = 0; i < 3000; ++i) {
    PersonIdentity person = People::make(random, "example.com");
    PersonRecord base = People::write(person);
    PersonRecord other = People::variant(person, random);
    if (other.firstName != base.firstName || other.lastName != base.lastName ||
        other.email != base.email || other.phone != base.phone || other.mobile != base.mobile ||
        other.address.street != base.address.street ||
        other.address.postalCode != base.address.postalCode ||
        other.address.country != base.address.country) {
      ++different;
    }
    if (!person.nicknames.empty() && other.firstName != base.firstName &&
        (" " + std::string(person.nicknames) + " ").find(" " + other.firstName + " ") !=
            std::string::npos) {
      ++nicknames;
    }
    if (!base.firstName.empty() && other.firstName == base.lastName &&
        other.lastName == base.firstName) {
      ++transposed;
    }
    if (other.email.find('+') != std::string::npos) ++tagged;
  }
  EXPECT_GT(different, 2700);
  EXPECT_GT(nicknames, 50);
  EXPECT_GT(transposed, 50);
  EXPECT_GT(tagged, 50);
}

TEST(Companies, VariantsKeepTheStemAndVaryItsForm) {
  RandomSource random(13);
  int legalForm = 0, article = 0;
  for (int i = 0; i < 2000; ++i) {
    CompanyIdentity company = Companies::make(random);
    CompanyRecord other = Companies::variant(company, random);
    // "&" and "and" are the same words.
    auto canonical = [](std::string text) {
      text = TextForms::lower(text);
      for (auto at = text.find(" and "); at != std::string::npos; at = text.find(" and ")) {
        text.replace(at, 5, " & ");
      }
      return text;
    };
    std::string lower = canonical(other.name);
    std::string stem = canonical(company.stem);
    // The stem survives unless a typing mistake went into it.
    if (lower.find(stem) == std::string::npos) {
      std::string words = lower;
      bool nearStem = false;
      for (std::size_t at = 0; at + stem.size() - 1 <= words.size() && !nearStem; ++at) {
        for (std::size_t len : {stem.size() - 1, stem.size(), stem.size() + 1}) {
          if (at + len <= words.size() && editDistance(words.substr(at, len), stem) <= 1) {
            nearStem = true;
          }
        }
      }
      EXPECT_TRUE(nearStem) << company.stem << " -> " << other.name;
    }
    if (company.legalForm != nullptr &&
        other.name.find(company.legalForm->form) == std::string::npos) {
      ++legalForm;
    }
    if (lower.starts_with("the ") && !stem.starts_with("the ")) {
      ++article;
    }
  }
  EXPECT_GT(legalForm, 200);
  EXPECT_GT(article, 100);
}

}  // namespace
}  // namespace corvane::orgsim
