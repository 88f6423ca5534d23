// Accuracy of the matcher on the public FEBRL data sets (records named
// rec-N-org and rec-N-dup-k are the same person): precision, recall and F1 of
// the pairs implied by the groups, at each strictness (`automatic` is `auto`).
// dataset4 is dataset4a and dataset4b read as one set. Match fields: given
// name + surname (personName, close), date of birth (text, close) and
// social security id (text, close).
//
// Also reported: how many true pairs can never match because one side has a
// blank match field (a blank value fails a pair, on purpose) -- the recall
// ceiling that rule sets.
//
// Data folder: CORVANE_FEBRL_DIR, else the shared data folder beside the repository.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "dedupe/matcher.hpp"
#include "dedupe/normalizer.hpp"

namespace {

using namespace corvane;

struct Loaded {
  std::vector<MatchField> fields;
  std::vector<FlatColumn> columns;
  std::vector<Rid> rids;
  std::vector<std::string> person;  // the person each record stands for
};

std::string trim(const std::string& text) {
  const auto first = text.find_first_not_of(' ');
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

void read(const std::string& name, Loaded& loaded) {
  const char* folder = std::getenv("CORVANE_FEBRL_DIR");
  std::ifstream in(std::string(folder ? folder : CORVANE_FEBRL_DEFAULT) + "/" + name);
  std::string line;
  std::getline(in, line);
  while (std::getline(in, line)) {
    std::vector<std::string> cells;
    std::stringstream row(line);
    std::string cell;
    while (std::getline(row, cell, ',')) cells.push_back(trim(cell));
    if (cells.size() < 11) continue;
    const std::string id = cells[0];
    loaded.person.push_back(id.substr(0, id.find('-', 4)));
    const std::string person = trim(cells[1] + " " + cells[2]);
    loaded.columns[0].append(Normalizer::normalize(person, MatchKind::personName));
    loaded.columns[1].append(Normalizer::normalize(cells[9], MatchKind::text));
    loaded.columns[2].append(Normalizer::normalize(cells[10], MatchKind::text));
    loaded.rids.push_back(static_cast<Rid>(loaded.rids.size()));
  }
}

// name: a file, or "dataset4.csv" for dataset4a and dataset4b together (the
// originals in one file, their copies in the other).
Loaded load(const std::string& name) {
  Loaded loaded;
  loaded.fields = {{"Name", "Name", MatchKind::personName, MatchMode::close},
                   {"Birthdate", "Birthdate", MatchKind::text, MatchMode::close},
                   {"SocialSecurityId", "Social security id", MatchKind::text, MatchMode::close}};
  loaded.columns.resize(3);
  if (name == "dataset4.csv") {
    read("dataset4a.csv", loaded);
    read("dataset4b.csv", loaded);
  } else {
    read(name, loaded);
  }
  return loaded;
}

void BM_FebrlAccuracy(benchmark::State& state, const std::string& file, Strictness strictness) {
  const Loaded loaded = load(file);
  MatchSettings settings;
  settings.strictness = strictness;
  MatchOutcome outcome;
  for (auto _ : state) {
    outcome = Matcher::findDuplicates(loaded.fields, loaded.columns, loaded.rids, settings, {},
                                      {}, {});
  }
  std::map<std::string, std::vector<std::size_t>> byPerson;
  for (std::size_t i = 0; i < loaded.person.size(); ++i) byPerson[loaded.person[i]].push_back(i);
  const auto blank = [&](std::size_t i) {
    for (const FlatColumn& column : loaded.columns) {
      if (column.value(i).empty()) return true;
    }
    return false;
  };
  double truePairs = 0;
  double blocked = 0;
  for (const auto& [person, members] : byPerson) {
    for (std::size_t x = 0; x < members.size(); ++x) {
      for (std::size_t y = x + 1; y < members.size(); ++y) {
        ++truePairs;
        if (blank(members[x]) || blank(members[y])) ++blocked;
      }
    }
  }
  double found = 0;
  double correct = 0;
  for (const DuplicateGroup& group : outcome.groups) {
    for (std::size_t x = 0; x < group.members.size(); ++x) {
      for (std::size_t y = x + 1; y < group.members.size(); ++y) {
        ++found;
        const auto a = static_cast<std::size_t>(group.members[x]);
        const auto b = static_cast<std::size_t>(group.members[y]);
        if (loaded.person[a] == loaded.person[b]) ++correct;
      }
    }
  }
  const double precision = found > 0 ? correct / found : 0;
  const double recall = truePairs > 0 ? correct / truePairs : 0;
  state.counters["precision"] = precision;
  state.counters["recall"] = recall;
  state.counters["F1"] = precision + recall > 0 ? 2 * precision * recall / (precision + recall) : 0;
  state.counters["truePairs"] = truePairs;
  state.counters["blankCeiling"] = truePairs > 0 ? 1.0 - blocked / truePairs : 0;
  state.counters["comparisons"] = static_cast<double>(outcome.stats.comparisons);
}

}  // namespace

#define FEBRL(file, level)                                                                 \
  BENCHMARK_CAPTURE(BM_FebrlAccuracy, file##_##level, #file ".csv", Strictness::level) \
      ->Unit(benchmark::kMillisecond)                                                      \
      ->Iterations(1);

FEBRL(dataset1, strict)
FEBRL(dataset1, normal)
FEBRL(dataset1, loose)
FEBRL(dataset2, strict)
FEBRL(dataset2, normal)
FEBRL(dataset2, loose)
FEBRL(dataset3, strict)
FEBRL(dataset3, normal)
FEBRL(dataset3, loose)
FEBRL(dataset4, strict)
FEBRL(dataset4, normal)
FEBRL(dataset4, loose)
FEBRL(dataset1, automatic)
FEBRL(dataset2, automatic)
FEBRL(dataset3, automatic)
FEBRL(dataset4, automatic)

BENCHMARK_MAIN();
