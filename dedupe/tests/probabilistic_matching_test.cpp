// Strictness auto: the levels each field agrees at, the model that EM
// learns without labels, the threshold it picks, and what the matcher finds
// with it that the rules miss.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <set>

#include "dedupe/fellegi_sunter.hpp"
#include "dedupe/field_agreement.hpp"
#include "dedupe/matcher.hpp"
#include "dedupe/normalizer.hpp"

namespace corvane {
namespace {

using FellegiSunter::Level;

Level levelOf(const char* a, const char* b, MatchKind kind, MatchMode mode = MatchMode::close,
              bool tagged = false) {
  return FieldAgreement::level(Normalizer::normalize(a, kind), Normalizer::normalize(b, kind), kind,
                               mode, tagged);
}

TEST(FieldAgreement, NamesAgreeByTyposSoundWordOrderAndSharedWords) {
  const auto name = MatchKind::personName;
  EXPECT_EQ(levelOf("John Waller", "john  waller", name), Level::exact);
  EXPECT_EQ(levelOf("Martha Jones", "Marhta Jones", name), Level::close);
  EXPECT_EQ(levelOf("Waller, John", "John Waller", name), Level::close);
  EXPECT_EQ(levelOf("Catherine Smith", "Kathryn Smith", name), Level::close);
  const Level surnameOnly = levelOf("Waller", "John Waller", name);
  EXPECT_TRUE(surnameOnly == Level::partial || surnameOnly == Level::close);
  EXPECT_EQ(levelOf("J Waller", "John Waller", name), Level::partial);  // an initial
  EXPECT_EQ(levelOf("Anna Lee", "Peter Quinn", name), Level::different);
  EXPECT_EQ(levelOf("", "Peter Quinn", name), Level::missing);
  EXPECT_EQ(levelOf("Mr", "Peter Quinn", name), Level::missing);  // a title alone is blank
  EXPECT_EQ(levelOf("Acme Holdings", "Holdings Acme", MatchKind::companyName), Level::close);
}

TEST(FieldAgreement, DigitsCountEditsNotSharedPrefixes) {
  const auto text = MatchKind::text;
  EXPECT_EQ(levelOf("19560409", "19560490", text), Level::close);  // two digits swapped
  EXPECT_EQ(levelOf("19560409", "19560419", text), Level::close);
  EXPECT_EQ(levelOf("19560409", "19560418", text), Level::partial);
  // Close by Jaro-Winkler, but another date: digits are not judged by spelling.
  EXPECT_EQ(levelOf("19560409", "19561231", text), Level::different);
}

TEST(FieldAgreement, EmailPhoneAndExactMode) {
  const auto email = MatchKind::email;
  EXPECT_EQ(levelOf("jo+news@example.com", "jo@example.com", email, MatchMode::close, true),
            Level::close);
  EXPECT_EQ(levelOf("jo.smith@example.com", "jo.smtih@example.com", email), Level::close);
  EXPECT_EQ(levelOf("jo.smith@example.com", "jo.smith@other.org", email), Level::partial);
  EXPECT_EQ(levelOf("jo.smith@example.com", "ann.lee@example.com", email), Level::different);
  EXPECT_EQ(levelOf("(415) 555-0100", "555-0100", MatchKind::phone), Level::close);
  EXPECT_EQ(levelOf("415 555 0100", "415 555 0101", MatchKind::phone), Level::partial);
  EXPECT_EQ(levelOf("415 555 0100", "212 777 3456", MatchKind::phone), Level::different);
  // Exact mode knows no degrees, but the same inbox still counts, as in the rules.
  EXPECT_EQ(levelOf("Martha Jones", "Marhta Jones", MatchKind::personName, MatchMode::exact),
            Level::different);
  EXPECT_EQ(levelOf("jo+news@example.com", "jo@example.com", email, MatchMode::exact, true),
            Level::close);
}

// Patterns drawn from a known model: three fields, levels different,
// partial, close, exact, and a missing value now and then.
std::vector<FellegiSunter::Pattern> drawPatterns(std::size_t count, double share,
                                                 const std::vector<std::array<double, 5>>& m,
                                                 const std::vector<std::array<double, 5>>& u,
                                                 unsigned seed) {
  std::mt19937_64 random(seed);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  std::vector<FellegiSunter::Pattern> patterns;
  for (std::size_t i = 0; i < count; ++i) {
    const bool match = unit(random) < share;
    FellegiSunter::Pattern pattern = 0;
    for (std::size_t f = 0; f < m.size(); ++f) {
      const auto& p = match ? m[f] : u[f];
      Level level = Level::missing;
      if (unit(random) >= 0.05) {
        double roll = unit(random);
        std::size_t l = 1;
        while (l < 4 && roll >= p[l]) roll -= p[l++];
        level = static_cast<Level>(l);
      }
      pattern = FellegiSunter::withLevel(pattern, f, level);
    }
    patterns.push_back(pattern);
  }
  return patterns;
}

TEST(FellegiSunter, EstimateRecoversTheProbabilitiesPatternsWereDrawnFrom) {
  const std::vector<std::array<double, 5>> m = {{1, 0.05, 0.10, 0.25, 0.60},
                                                {1, 0.02, 0.03, 0.15, 0.80},
                                                {1, 0.10, 0.10, 0.20, 0.60}};
  const std::vector<std::array<double, 5>> u = {{1, 0.70, 0.20, 0.07, 0.03},
                                                {1, 0.85, 0.08, 0.05, 0.02},
                                                {1, 0.60, 0.25, 0.10, 0.05}};
  const auto counts = FellegiSunter::tally(drawPatterns(200'000, 0.15, m, u, 42));
  const FellegiSunter::Model model = FellegiSunter::estimate(3, counts);
  EXPECT_TRUE(model.converged);
  EXPECT_NEAR(model.matchShare, 0.15, 0.01);
  for (std::size_t f = 0; f < 3; ++f) {
    for (std::size_t l = 1; l < 5; ++l) {
      EXPECT_NEAR(model.m[f][l], m[f][l], 0.02) << "m, field " << f << ", level " << l;
      EXPECT_NEAR(model.u[f][l], u[f][l], 0.02) << "u, field " << f << ", level " << l;
    }
  }
  // The same counts give the same model.
  const FellegiSunter::Model again = FellegiSunter::estimate(3, counts);
  EXPECT_EQ(again.m, model.m);
  EXPECT_EQ(again.matchShare, model.matchShare);
}

TEST(FellegiSunter, WeightsAndThresholdSeparateTheClasses) {
  const std::vector<std::array<double, 5>> m = {{1, 0.02, 0.03, 0.15, 0.80},
                                                {1, 0.02, 0.03, 0.15, 0.80}};
  const std::vector<std::array<double, 5>> u = {{1, 0.85, 0.08, 0.05, 0.02},
                                                {1, 0.85, 0.08, 0.05, 0.02}};
  const auto counts = FellegiSunter::tally(drawPatterns(50'000, 0.1, m, u, 7));
  const FellegiSunter::Model model = FellegiSunter::estimate(2, counts);
  const auto table = FellegiSunter::weights(model);
  using FellegiSunter::withLevel;
  const auto both = [](Level x, Level y) { return withLevel(withLevel(0, 0, x), 1, y); };
  const double threshold = FellegiSunter::chooseThreshold(model, counts, 0.98, 0.5);
  EXPECT_GE(FellegiSunter::weight(table, both(Level::exact, Level::exact)), threshold);
  EXPECT_LT(FellegiSunter::weight(table, both(Level::exact, Level::different)), threshold);
  EXPECT_LT(FellegiSunter::weight(table, both(Level::different, Level::different)), threshold);
  // Asking for less precision lets weaker patterns in.
  const double lower = FellegiSunter::chooseThreshold(model, counts, 0.9, 0.5);
  EXPECT_LT(lower, threshold);
  EXPECT_GE(FellegiSunter::weight(table, both(Level::exact, Level::close)), lower);
  // A missing value weighs nothing either way.
  EXPECT_EQ(FellegiSunter::weight(table, both(Level::exact, Level::missing)), table[0][4]);
  EXPECT_GT(FellegiSunter::matchProbability(model, threshold), 0.5);
  // No pattern at all: nothing can be called a match.
  EXPECT_TRUE(std::isinf(FellegiSunter::chooseThreshold(model, {}, 0.98, 0.5)));
}

TEST(MatchSettings, StrictnessReadsAndWritesItsRawTexts) {
  for (Strictness s : {Strictness::strict, Strictness::normal, Strictness::loose,
                       Strictness::automatic}) {
    EXPECT_EQ(strictnessFromRaw(rawValue(s)), s);
  }
  EXPECT_EQ(rawValue(Strictness::automatic), "auto");
  EXPECT_EQ(strictnessFromRaw("Auto"), std::nullopt);
  EXPECT_EQ(strictnessFromRaw("automatic"), std::nullopt);
}

// A fixed sample of people (name, birth date, id number); some are entered
// twice with the slips people make: a blank or a missing first name, a
// mistyped date or id, surname first. The rules need every field to pass;
// auto weighs what agrees against what does not.
struct People {
  std::vector<MatchField> fields{{"Name", "Name", MatchKind::personName, MatchMode::close},
                                 {"Birthdate", "Birthdate", MatchKind::text, MatchMode::close},
                                 {"IdNumber", "Id number", MatchKind::text, MatchMode::close}};
  std::vector<FlatColumn> columns{3};
  std::vector<Rid> rids;
  std::vector<int> person;

  void add(int who, const std::string& name, const std::string& date, const std::string& id) {
    columns[0].append(Normalizer::normalize(name, MatchKind::personName));
    columns[1].append(Normalizer::normalize(date, MatchKind::text));
    columns[2].append(Normalizer::normalize(id, MatchKind::text));
    rids.push_back(static_cast<Rid>(rids.size() + 1));
    person.push_back(who);
  }
  MatchOutcome match(Strictness strictness) const {
    MatchSettings settings;
    settings.strictness = strictness;
    return Matcher::findDuplicates(fields, columns, rids, settings, {}, {}, {});
  }
  bool together(const MatchOutcome& outcome, Rid a, Rid b) const {
    for (const DuplicateGroup& group : outcome.groups) {
      const std::set<Rid> members(group.members.begin(), group.members.end());
      if (members.count(a) != 0 && members.count(b) != 0) return true;
    }
    return false;
  }
};

People samplePeople() {
  static const char* first[] = {"john",   "mary",   "peter",  "anna",    "james",  "linda",
                                "robert", "susan",  "michael", "karen",  "david",  "nancy",
                                "thomas", "sarah",  "daniel", "lisa",    "mark",   "emily",
                                "paul",   "laura",  "steven", "helen",   "kevin",  "ruth"};
  static const char* last[] = {"waller", "berry",  "nguyen", "okafor",  "schmidt", "rossi",
                               "kowalski", "tanaka", "dubois", "silva",  "murphy",  "haddad",
                               "jensen", "novak",  "petrov", "garcia",  "lindqvist", "mbeki",
                               "fischer", "moreau", "costa",  "ivanova", "oconnor", "yilmaz",
                               "brennan", "castillo", "dalton", "eriksen", "fontaine", "gallo"};
  std::mt19937 random(2024);
  People people;
  struct Original {
    std::string first, last, date, id;
  };
  std::vector<Original> originals;
  for (int who = 0; who < 400; ++who) {
    Original o{first[random() % 24], last[random() % 30],
               std::to_string(1930 + random() % 70) + "0" + std::to_string(1 + random() % 9) +
                   std::to_string(10 + random() % 18),
               std::to_string(1000000 + random() % 9000000)};
    people.add(who, o.first + " " + o.last, o.date, o.id);
    originals.push_back(o);
  }
  return people;
}

TEST(ProbabilisticMatching, AutoFindsTheCopiesTheRulesMissAndNoOthers) {
  People people = samplePeople();
  const auto original = [&](int who, std::size_t field) {
    return std::string(people.columns[field].value(static_cast<std::size_t>(who)));
  };
  const auto copy = [&](int who, const std::string& name, const std::string& date,
                        const std::string& id) {
    people.add(who, name, date, id);
    return people.rids.back();
  };
  std::vector<std::pair<Rid, Rid>> expected;
  std::vector<std::pair<Rid, Rid>> missedByRules;  // a blank field, or a name the rules reject
  const auto keep = [&](int who, Rid rid) {
    expected.emplace_back(who + 1, rid);
    if (who % 5 == 0 || who % 5 == 1 || who % 5 == 4) missedByRules.emplace_back(who + 1, rid);
  };
  for (int who = 0; who < 60; ++who) {
    const std::string name = original(who, 0);
    const std::string date = original(who, 1);
    const std::string id = original(who, 2);
    const std::string surname = name.substr(name.find(' ') + 1);
    const std::string given = name.substr(0, name.find(' '));
    std::string mistyped = id;
    mistyped[3] = mistyped[3] == '9' ? '0' : static_cast<char>(mistyped[3] + 1);
    switch (who % 5) {
      case 0:  // the given name left out
        keep(who, copy(who, surname, date, id));
        break;
      case 1:  // no birth date
        keep(who, copy(who, name, "", id));
        break;
      case 2:  // surname first, id mistyped
        keep(who, copy(who, surname + ", " + given, date, mistyped));
        break;
      case 3:  // the date's day and month swapped and the id mistyped
        keep(who, copy(who, name, date.substr(0, 4) + date.substr(6, 2) + date.substr(4, 2),
                       mistyped));
        break;
      default:  // only an initial, no id
        keep(who, copy(who, given.substr(0, 1) + " " + surname, date, ""));
        break;
    }
  }

  const MatchOutcome normal = people.match(Strictness::normal);
  const MatchOutcome automatic = people.match(Strictness::automatic);
  int foundAuto = 0;
  for (const auto& [a, b] : expected) foundAuto += people.together(automatic, a, b) ? 1 : 0;
  EXPECT_GE(foundAuto, 57) << "of " << expected.size();
  int missedFoundByNormal = 0;
  int missedFoundByAuto = 0;
  for (const auto& [a, b] : missedByRules) {
    missedFoundByNormal += people.together(normal, a, b) ? 1 : 0;
    missedFoundByAuto += people.together(automatic, a, b) ? 1 : 0;
  }
  EXPECT_EQ(missedFoundByNormal, 0);
  EXPECT_GE(missedFoundByAuto, 34) << "of " << missedByRules.size();
  for (const DuplicateGroup& group : automatic.groups) {
    for (const Rid member : group.members) {
      EXPECT_EQ(people.person[static_cast<std::size_t>(member - 1)],
                people.person[static_cast<std::size_t>(group.members.front() - 1)])
          << "group " << group.id << " joins different people";
    }
    EXPECT_LT(group.weakestLink, 1.0);
    EXPECT_GT(group.weakestLink, 0.5);
  }
  // The same snapshot gives the same groups.
  EXPECT_EQ(people.match(Strictness::automatic).groups, automatic.groups);
}

TEST(ProbabilisticMatching, OneFieldMatchesByTheNormalRules) {
  // One field: nothing to weigh it against.
  People people = samplePeople();
  People names;
  names.fields = {people.fields[0]};
  names.columns = {people.columns[0]};
  names.rids = people.rids;
  names.columns[0].append(Normalizer::normalize(
      std::string(people.columns[0].value(0)) + "x", MatchKind::personName));
  names.rids.push_back(static_cast<Rid>(names.rids.size() + 1));
  EXPECT_EQ(names.match(Strictness::automatic).groups, names.match(Strictness::normal).groups);
  EXPECT_FALSE(names.match(Strictness::normal).groups.empty());
}

TEST(ProbabilisticMatching, RecordsEqualOnEveryFieldScoreOneAndStopsWhenAsked) {
  People people = samplePeople();
  people.add(0, "John Smith", "19700101", "1234567");
  people.add(1, "john smith", "19700101", "1234567");
  const MatchOutcome outcome = people.match(Strictness::automatic);
  ASSERT_TRUE(people.together(outcome, 401, 402));
  for (const DuplicateGroup& group : outcome.groups) {
    if (group.members == std::vector<Rid>{401, 402}) {
      EXPECT_EQ(group.weakestLink, 1.0);
    }
  }
  MatchSettings settings;
  settings.strictness = Strictness::automatic;
  int polls = 0;
  const MatchOutcome stopped = Matcher::findDuplicates(
      people.fields, people.columns, people.rids, settings, {}, {}, [&] { return ++polls > 1; });
  EXPECT_TRUE(stopped.cancelled);
}

}  // namespace
}  // namespace corvane
