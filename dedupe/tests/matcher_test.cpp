// Matching and grouping: which pairs pass at which strictness, how groups
// form and what they report, records kept out, and the cutting of groups
// that grew through chains of weak links.
#include <gtest/gtest.h>

#include "dedupe/disjoint_set.hpp"
#include "dedupe/group_splitter.hpp"
#include "dedupe/matcher.hpp"
#include "dedupe/normalizer.hpp"
#include "dedupe/record_store.hpp"
#include "dedupe/sorted_neighbourhood.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

struct Table {
  std::vector<MatchField> fields;
  std::vector<FlatColumn> columns;
  std::vector<Rid> rids;

  explicit Table(std::vector<MatchField> matchFields)
      : fields(std::move(matchFields)), columns(fields.size()) {}
  void add(const std::vector<std::string>& raw) {
    for (std::size_t f = 0; f < fields.size(); ++f) {
      columns[f].append(Normalizer::normalize(raw[f], fields[f].kind));
    }
    rids.push_back(static_cast<Rid>(rids.size() + 1));
  }
  MatchOutcome match(MatchSettings settings = {}) const {
    return Matcher::findDuplicates(fields, columns, rids, settings, {}, {}, {});
  }
};

const MatchField nameField{"Name", "Name", MatchKind::personName, MatchMode::close};
const MatchField emailField{"Email", "Email", MatchKind::email, MatchMode::exact};

std::optional<double> closeName(const char* a, const char* b, Strictness strictness) {
  return Matcher::uncappedCloseScore(Normalizer::normalize(a, MatchKind::personName),
                                     Normalizer::normalize(b, MatchKind::personName),
                                     MatchKind::personName, strictness);
}

TEST(MatcherTest, PersonNamesPassByStrictness) {
  // A typo passes everywhere; a short form from normal on; initials only loose.
  EXPECT_TRUE(closeName("Martha Jones", "Marhta Jones", Strictness::strict));
  EXPECT_FALSE(closeName("Ed Smith", "Edward Smith", Strictness::strict));
  EXPECT_TRUE(closeName("Ed Smith", "Edward Smith", Strictness::normal));
  EXPECT_EQ(closeName("Smith, Ed", "Edward Smith", Strictness::normal), 0.88);
  EXPECT_FALSE(closeName("J Smith", "John Smith", Strictness::normal));
  EXPECT_EQ(closeName("J Smith", "John Smith", Strictness::loose), 0.85);
  EXPECT_FALSE(closeName("Anna Lee", "Peter Quinn", Strictness::loose));
  // Different generations are different people; one suffix alone is compared as usual.
  EXPECT_FALSE(closeName("John Smith Jr", "John Smith Sr", Strictness::loose));
  EXPECT_TRUE(closeName("John Smith Jr", "John Smith", Strictness::normal));
}

TEST(MatcherTest, NameAbbreviationNeedsAnAnchorWord) {
  EXPECT_TRUE(Matcher::nameAbbreviationMatch("ed smith", "edward smith", false));
  EXPECT_FALSE(Matcher::nameAbbreviationMatch("ed sm", "edward smith", false));
  EXPECT_FALSE(Matcher::nameAbbreviationMatch("e smith", "edward smith", false));
  EXPECT_TRUE(Matcher::nameAbbreviationMatch("e smith", "edward smith", true));
  EXPECT_FALSE(Matcher::nameAbbreviationMatch("ed smith", "edward jones", true));
  EXPECT_FALSE(Matcher::nameAbbreviationMatch("ed", "edward smith", true));
}

TEST(MatcherTest, OtherKindsScore) {
  EXPECT_EQ(Matcher::uncappedCloseScore("jo+news@x.com", "jo@x.com", MatchKind::email,
                                        Strictness::strict, true),
            0.99);
  EXPECT_EQ(Matcher::uncappedCloseScore("jon@x.com", "john@x.com", MatchKind::email,
                                        Strictness::normal),
            0.90);
  EXPECT_FALSE(Matcher::uncappedCloseScore("jon@x.com", "johnny@x.com", MatchKind::email,
                                           Strictness::normal));
  EXPECT_EQ(Matcher::uncappedCloseScore("4155550100", "5550100", MatchKind::phone,
                                        Strictness::strict),
            0.90);
  EXPECT_FALSE(Matcher::uncappedCloseScore("4155550100", "550100", MatchKind::phone,
                                           Strictness::loose));
  EXPECT_TRUE(Matcher::uncappedCloseScore("acme widgets", "widgets acme", MatchKind::companyName,
                                          Strictness::strict));
}

TEST(MatcherTest, PairScoreCapsCloseMatchesAndFailsOnBlanks) {
  Table table({nameField, emailField});
  table.add({"Martha Jones", "m@x.com"});
  table.add({"Marhta Jones", "m@x.com"});
  table.add({"Martha Jones", ""});
  table.add({"Martha Jones", "m@x.com"});
  table.add({"Martha Jones", "other@x.com"});
  const auto score = [&](std::uint32_t a, std::uint32_t b) {
    return Matcher::pairScore(a, b, table.fields, table.columns, Strictness::normal, {});
  };
  EXPECT_EQ(score(0, 3), 1.0);
  ASSERT_TRUE(score(0, 1));
  EXPECT_LE(*score(0, 1), Matcher::closeCap);
  EXPECT_FALSE(score(0, 2));  // blank e-mail
  EXPECT_FALSE(score(0, 4));  // exact field differs
}

TEST(MatcherTest, GroupsFormWithTheirWeakestLinkAndStatistics) {
  Table table({nameField, emailField});
  table.add({"Martha Jones", "m@x.com"});   // rid 1
  table.add({"Martha Jones", "m@x.com"});   // rid 2: exact twin
  table.add({"Marhta Jones", "m@x.com"});   // rid 3: close
  table.add({"Peter Quinn", "p@x.com"});    // rid 4
  table.add({"Peter Quinn", "p@x.com"});    // rid 5
  table.add({"Anna Lee", ""});              // rid 6: blank e-mail
  table.add({"Anna Lee", ""});              // rid 7
  const MatchOutcome outcome = table.match();
  ASSERT_EQ(outcome.groups.size(), 2U);
  const DuplicateGroup& martha = outcome.groups[0];
  EXPECT_EQ(martha.members, (std::vector<Rid>{1, 2, 3}));
  EXPECT_GT(martha.weakestLink, 0.9);
  EXPECT_LE(martha.weakestLink, Matcher::closeCap);
  EXPECT_EQ(martha.distinctCount, 1);
  EXPECT_EQ(outcome.groups[1].members, (std::vector<Rid>{4, 5}));
  EXPECT_EQ(outcome.groups[1].weakestLink, 1.0);
  EXPECT_EQ(outcome.stats.groupCount, 2);
  EXPECT_EQ(outcome.stats.recordsInGroups, 5);
  EXPECT_EQ(outcome.stats.largestGroup, 3);
  EXPECT_EQ(outcome.stats.exactOnlyGroups, 1);
  EXPECT_GT(outcome.stats.comparisons, 0);
}

TEST(MatcherTest, DisjointSetHangsSmallerUnderLargerAndTiesUnderTheFirst) {
  DisjointSet set(5);
  EXPECT_TRUE(set.unite(1, 2));
  EXPECT_EQ(set.find(2), 1U);  // tie: second root under the first
  EXPECT_TRUE(set.unite(3, 1));
  EXPECT_EQ(set.find(3), 1U);  // smaller set under the larger
  EXPECT_FALSE(set.unite(2, 3));
  EXPECT_EQ(set.setSize(3), 3U);
  EXPECT_EQ(set.groups(), (std::vector<std::vector<std::uint32_t>>{{0}, {1, 2, 3}, {4}}));
}

TEST(MatcherTest, ScheduleDropsTheLowestAndSpreadsLevels) {
  EXPECT_TRUE(GroupSplitter::schedule({0.9, 0.95}, 0).empty());
  EXPECT_TRUE(GroupSplitter::schedule({0.9, 0.90001}, 3).empty());
  EXPECT_EQ(GroupSplitter::schedule({0.95, 0.9, 0.97, 0.9}, 5), (std::vector<double>{0.95, 0.97}));
  EXPECT_EQ(GroupSplitter::schedule({0.1, 0.2, 0.3, 0.4, 0.5, 0.6}, 2),
            (std::vector<double>{0.2, 0.6}));
}

TEST(MatcherTest, ScoredWalkGivesTheSerialWalksPairsInItsOrderAndStopsWhenAsked) {
  // Several chunks' worth of positions, so that threads share the walk.
  std::vector<std::uint32_t> order(100'000);
  for (std::uint32_t i = 0; i < order.size(); ++i) order[i] = (i * 7919U) % 100'000U;
  const auto skip = [](std::uint32_t a, std::uint32_t) { return a % 5 == 0; };
  const auto score = [](std::uint32_t a, std::uint32_t b) -> std::optional<float> {
    if ((a + b) % 3 != 0) return std::nullopt;
    return static_cast<float>(a % 100) / 100.0F;
  };
  std::vector<Matcher::ScoredPair> serial;
  std::int64_t scored = 0;
  for (std::size_t i = 0; i < order.size(); ++i) {
    for (std::size_t j = i + 1; j < std::min(order.size(), i + 4); ++j) {
      if (skip(order[i], order[j])) continue;
      ++scored;
      if (auto s = score(order[i], order[j])) serial.push_back({order[i], order[j], *s});
    }
  }
  const Matcher::ScoredNeighbours walked =
      Matcher::scoreNeighbours(order, 3, skip, score, [] { return false; });
  EXPECT_FALSE(walked.stopped);
  EXPECT_EQ(walked.scored, scored);
  ASSERT_EQ(walked.pairs.size(), serial.size());
  for (std::size_t i = 0; i < serial.size(); ++i) {
    ASSERT_EQ(walked.pairs[i].a, serial[i].a) << i;
    ASSERT_EQ(walked.pairs[i].b, serial[i].b) << i;
    ASSERT_EQ(walked.pairs[i].score, serial[i].score) << i;
  }
  int polls = 0;
  const Matcher::ScoredNeighbours stopped =
      Matcher::scoreNeighbours(order, 3, skip, score, [&] { return ++polls > 1; });
  EXPECT_TRUE(stopped.stopped);
  EXPECT_LT(stopped.pairs.size(), serial.size());
}

TEST(MatcherTest, ChainsOfWeakLinksAreCut) {
  // Two tight clusters of four, joined only by weaker links at their ends.
  Table table({{"Code", "Code", MatchKind::text, MatchMode::close}});
  for (const char* code : {"abcdefghijklmnopqrst", "abcdefghijklmnopqrsu", "abcdefghijklmnopqrsv",
                           "abcdefghijklmnopqrsw", "abcdefghijklmnopzzza", "abcdefghijklmnopzzzb",
                           "abcdefghijklmnopzzzc", "abcdefghijklmnopzzzd"}) {
    table.add({code});
  }
  MatchSettings settings;
  settings.window = 1;
  settings.split.enabled = false;
  const MatchOutcome whole = table.match(settings);
  ASSERT_EQ(whole.groups.size(), 1U);
  EXPECT_EQ(whole.groups[0].members.size(), 8U);

  settings.split.enabled = true;
  settings.split.maxHops = 2;
  const MatchOutcome split = table.match(settings);
  EXPECT_EQ(split.stats.splitExamined, 1);
  EXPECT_EQ(split.stats.splitPerformed, 1);
  EXPECT_EQ(split.stats.largestGroupBefore, 8);
  ASSERT_EQ(split.groups.size(), 2U);
  EXPECT_EQ(split.groups[0].members, (std::vector<Rid>{1, 2, 3, 4}));
  EXPECT_EQ(split.groups[1].members, (std::vector<Rid>{5, 6, 7, 8}));
  for (const DuplicateGroup& group : split.groups) {
    EXPECT_TRUE(group.fromSplit);
    EXPECT_GT(group.weakestLink, whole.groups[0].weakestLink);
  }
}

TEST(MatcherTest, SnapshotMatchLeavesOutExcludedAndFillerRecords) {
  TemporaryFolder folder;
  RecordStore::Creation creation;
  creation.orgId = "00D000000000001";
  creation.objectName = "Contact";
  creation.matchFields = {nameField, emailField};
  auto store = RecordStore::create(folder.path() / "s.sqlite", creation);
  store->ingest({{"003A", "Martha Jones", "", "", {"Martha Jones", "m@x.com"}, {}},
                 {"003B", "Martha Jones", "", "", {"Martha Jones", "m@x.com"}, {}},
                 {"003C", "Martha Jones", "", "", {"Martha Jones", "m@x.com"}, {}},
                 {"003D", "Unknown", "", "", {"Unknown", "u@x.com"}, {}},
                 {"003E", "Unknown", "", "", {"Unknown", "u@x.com"}, {}}},
                "null");
  std::vector<std::string> progress;
  const MatchOutcome outcome = Matcher::findDuplicates(
      *store, {}, {2}, [&](const std::string& text) { progress.push_back(text); }, {});
  ASSERT_EQ(outcome.groups.size(), 1U);
  EXPECT_EQ(outcome.groups[0].members, (std::vector<Rid>{1, 3}));
  EXPECT_EQ(outcome.stats.excludedByUser, 1);
  EXPECT_EQ(outcome.stats.skippedFillerPerField, (std::vector<std::int64_t>{2, 0}));
  ASSERT_EQ(outcome.stats.fillerValuesPerField[0].size(), 1U);
  EXPECT_EQ(outcome.stats.fillerValuesPerField[0][0], (ValueCount{"unknown", 2}));
  ASSERT_GE(progress.size(), 4U);
  EXPECT_EQ(progress[0], "Reading your local copy");
  EXPECT_EQ(progress[1], "Finding exact matches");
  EXPECT_EQ(progress[2], "Comparing records\u2026");
  EXPECT_EQ(progress[3], "Comparing Name");
}

}  // namespace
}  // namespace corvane
