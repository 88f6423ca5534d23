// 1,000,000 Contacts with three close match fields (person name, e-mail,
// phone) matched end to end over loaded columns, at normal and at auto
// (targets: normal under 6 seconds, auto under 30 seconds, 1.5 GB; run one
// with --benchmark_filter=normal or =auto to read its peak memory alone). One record in ten is a copy of another with a typo in its
// name, a +tag in its e-mail or the area code left off its phone number.
// Reports comparisons per second.
#include <benchmark/benchmark.h>

#include <array>
#include <random>
#include <string>
#include <vector>

#include "dedupe/matcher.hpp"
#include "dedupe/normalizer.hpp"

namespace {

using namespace corvane;

struct Contacts {
  std::vector<MatchField> fields{{"Name", "Full Name", MatchKind::personName, MatchMode::close},
                                 {"Email", "Email", MatchKind::email, MatchMode::close},
                                 {"Phone", "Phone", MatchKind::phone, MatchMode::close}};
  std::vector<FlatColumn> columns{3};
  std::vector<Rid> rids;
};

std::string word(std::mt19937& random, int syllables) {
  static const char* parts[] = {"an", "be", "ca", "do", "el", "fi", "ga", "ho", "is", "ju",
                                "ka", "lo", "ma", "ne", "ol", "pa", "qu", "ri", "sa", "to",
                                "ur", "vi", "wa", "xe", "yo", "za", "th", "sh", "ch", "mi"};
  std::string out;
  for (int i = 0; i < syllables; ++i) out += parts[random() % 30];
  return out;
}

Contacts generate(std::size_t count) {
  Contacts contacts;
  std::mt19937 random(7);
  std::vector<std::array<std::string, 3>> originals;
  for (std::size_t i = 0; i < count; ++i) {
    std::array<std::string, 3> row;
    if (!originals.empty() && random() % 10 == 0) {
      row = originals[random() % originals.size()];
      switch (random() % 3) {
        case 0:
          row[0][1 + random() % (row[0].size() - 2)] = static_cast<char>('a' + random() % 26);
          break;
        case 1:
          row[1].insert(row[1].find('@'), "+news");
          break;
        default:
          row[2] = row[2].substr(3);
          break;
      }
    } else {
      const std::string first = word(random, 2 + static_cast<int>(random() % 2));
      const std::string last = word(random, 2 + static_cast<int>(random() % 3));
      row = {first + " " + last, first + "." + last + "@" + word(random, 3) + ".com",
             std::to_string(2000000000ULL + random() % 7999999999ULL)};
      originals.push_back(row);
    }
    for (std::size_t f = 0; f < 3; ++f) {
      contacts.columns[f].append(Normalizer::normalize(row[f], contacts.fields[f].kind));
    }
    contacts.rids.push_back(static_cast<Rid>(i + 1));
  }
  return contacts;
}

void BM_MatchMillionContacts(benchmark::State& state, Strictness strictness) {
  const Contacts contacts = generate(static_cast<std::size_t>(state.range(0)));
  MatchSettings settings;
  settings.strictness = strictness;
  MatchOutcome outcome;
  for (auto _ : state) {
    outcome = Matcher::findDuplicates(contacts.fields, contacts.columns, contacts.rids, settings,
                                      {}, {}, {});
  }
  state.counters["groups"] = static_cast<double>(outcome.stats.groupCount);
  state.counters["comparisons"] = static_cast<double>(outcome.stats.comparisons);
  state.counters["comparisons/s"] = benchmark::Counter(
      static_cast<double>(outcome.stats.comparisons) * static_cast<double>(state.iterations()),
      benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK_CAPTURE(BM_MatchMillionContacts, normal, Strictness::normal)
    ->Arg(1'000'000)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();
BENCHMARK_CAPTURE(BM_MatchMillionContacts, auto, Strictness::automatic)
    ->Arg(1'000'000)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();

BENCHMARK_MAIN();
