#include "dedupe/matcher.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <map>
#include <span>

#include "dedupe/disjoint_set.hpp"
#include "dedupe/email_tag.hpp"
#include "dedupe/filler_values.hpp"
#include "dedupe/group_splitter.hpp"
#include "dedupe/key_sort.hpp"
#include "dedupe/phonetic.hpp"
#include "dedupe/probabilistic_linker.hpp"
#include "dedupe/record_store.hpp"
#include "dedupe/similarity.hpp"
#include "dedupe/sorted_neighbourhood.hpp"

namespace corvane::Matcher {
namespace {

struct Thresholds {
  double pass;      // similarity that passes on its own
  double phonetic;  // similarity that passes when the sound keys agree
};

Thresholds thresholds(Strictness strictness) {
  switch (strictness) {
    case Strictness::strict:
      return {0.95, 0.91};
    case Strictness::normal:
    case Strictness::automatic:  // only the group splitter scores by rules under auto
      return {0.90, 0.86};
    case Strictness::loose:
      return {0.85, 0.81};
  }
  return {0.90, 0.86};
}

std::string_view lastWord(std::string_view value) {
  const auto blank = value.rfind(' ');
  return blank == std::string_view::npos ? value : value.substr(blank + 1);
}

bool isGenerationSuffix(std::string_view word) {
  static constexpr std::array<std::string_view, 5> suffixes{"jr", "sr", "ii", "iii", "iv"};
  return std::find(suffixes.begin(), suffixes.end(), word) != suffixes.end();
}

// The blank-separated words of a normalised value, at most maxWords of them
// (a value with more words gives none: too long to be a short form).
constexpr std::size_t maxWords = 8;
struct Words {
  std::array<std::string_view, maxWords> items;
  std::size_t count = 0;
  bool tooMany = false;
};

Words words(std::string_view value) {
  Words result;
  std::size_t start = 0;
  while (start <= value.size()) {
    std::size_t end = value.find(' ', start);
    if (end == std::string_view::npos) end = value.size();
    if (end > start) {
      if (result.count == maxWords) {
        result.tooMany = true;
        return result;
      }
      result.items[result.count++] = value.substr(start, end - start);
    }
    start = end + 1;
  }
  return result;
}

std::optional<double> personNameScore(std::string_view a, std::string_view b,
                                      Strictness strictness) {
  const std::string_view lastA = lastWord(a);
  const std::string_view lastB = lastWord(b);
  if (isGenerationSuffix(lastA) && isGenerationSuffix(lastB) && lastA != lastB) return std::nullopt;
  const double j = Similarity::jaroWinkler(a, b);
  const Thresholds limit = thresholds(strictness);
  if (j >= limit.pass) return j;
  if (j >= limit.phonetic && Phonetic::key(a) == Phonetic::key(b)) return j;
  if (strictness == Strictness::strict) return std::nullopt;
  if (nameAbbreviationMatch(a, b, false)) return 0.88;
  if (strictness == Strictness::loose && nameAbbreviationMatch(a, b, true)) return 0.85;
  return std::nullopt;
}

bool lessByValues(std::uint32_t a, std::uint32_t b, const std::vector<FlatColumn>& columns) {
  for (const FlatColumn& column : columns) {
    const int order = column.value(a).compare(column.value(b));
    if (order != 0) return order < 0;
  }
  return false;
}

bool equalValues(std::uint32_t a, std::uint32_t b, const std::vector<FlatColumn>& columns) {
  for (const FlatColumn& column : columns) {
    if (column.value(a) != column.value(b)) return false;
  }
  return true;
}

bool hasBlank(std::uint32_t a, const std::vector<FlatColumn>& columns) {
  for (const FlatColumn& column : columns) {
    if (column.value(a).empty()) return true;
  }
  return false;
}

bool abbreviatedInOrder(std::span<const std::string_view> left,
                        std::span<const std::string_view> right, bool allowInitials);

// Joins the records with no blank value that are equal on every field: the
// records are sorted by a hash of their values, and those whose hashes are
// equal are compared.
template <typename Join>
void joinEqualRecords(const std::vector<FlatColumn>& columns, Join&& join) {
  const std::uint32_t count = columns.empty() ? 0 : static_cast<std::uint32_t>(columns[0].size());
  std::vector<KeySort::Keyed> hashed;
  hashed.reserve(count);
  for (std::uint32_t r = 0; r < count; ++r) {
    if (hasBlank(r, columns)) continue;
    std::uint64_t hash = 0;
    for (const FlatColumn& column : columns) {
      hash = (hash ^ std::hash<std::string_view>()(column.value(r))) * 0x9E3779B97F4A7C15ULL;
    }
    hashed.push_back({hash, r});
  }
  std::vector<KeySort::Keyed> spare;
  KeySort::sortByPrefix(hashed, spare);
  // Within a run of one hash, each record joins the first earlier record
  // with its values; a run holds more than one set of values only when two
  // differing records share a hash.
  std::vector<std::uint32_t> firsts;
  for (std::size_t i = 0; i < hashed.size();) {
    std::size_t end = i + 1;
    while (end < hashed.size() && hashed[end].prefix == hashed[i].prefix) ++end;
    firsts.clear();
    for (std::size_t k = i; k < end; ++k) {
      const std::uint32_t r = hashed[k].id;
      const auto same = std::find_if(firsts.begin(), firsts.end(), [&](std::uint32_t first) {
        return equalValues(first, r, columns);
      });
      if (same == firsts.end()) {
        firsts.push_back(r);
      } else {
        join(*same, r);
      }
    }
    i = end;
  }
}

}  // namespace

int emailEditBound(Strictness strictness) { return strictness == Strictness::loose ? 2 : 1; }

std::vector<Pass> buildPassList(const std::vector<MatchField>& fields,
                                const std::vector<std::size_t>& closeIdx,
                                const std::vector<bool>& taggedEmail) {
  std::vector<Pass> passes;
  for (const std::size_t index : closeIdx) {
    const MatchField& field = fields[index];
    passes.push_back({index, "Comparing " + field.label, {}});
    passes.push_back({index, "Comparing " + field.label + " from the end",
                      [](std::string_view value) { return std::string(value.rbegin(), value.rend()); }});
    switch (field.kind) {
      case MatchKind::text:
      case MatchKind::personName:
      case MatchKind::companyName:
        passes.push_back({index, "Comparing " + field.label + " by sound",
                          [](std::string_view value) { return Phonetic::key(value); }});
        break;
      case MatchKind::email:
        if (index < taggedEmail.size() && taggedEmail[index]) {
          passes.push_back({index, "Comparing " + field.label + " without +tags",
                            [](std::string_view value) { return EmailTag::canonical(value); }});
        }
        break;
      case MatchKind::phone:
        break;
    }
  }
  return passes;
}

std::optional<double> uncappedCloseScore(std::string_view a, std::string_view b, MatchKind kind,
                                         Strictness strictness, bool taggedEmail) {
  switch (kind) {
    case MatchKind::text: {
      const double j = Similarity::jaroWinkler(a, b);
      if (j >= thresholds(strictness).pass) return j;
      return std::nullopt;
    }
    case MatchKind::companyName: {
      // Word order does not count; the bigram score, taken for names short
      // enough to be read as one phrase, rescues a dropped or added word
      // that Jaro-Winkler punishes when it sits at the front.
      double score = Similarity::tokenSortRatio(a, b);
      if (a.size() < 64 && b.size() < 64) score = std::max(score, Similarity::bigramDice(a, b));
      if (score >= thresholds(strictness).pass) return score;
      return std::nullopt;
    }
    case MatchKind::personName:
      return personNameScore(a, b, strictness);
    case MatchKind::email:
      if (taggedEmail && EmailTag::sameInbox(a, b)) return EmailTag::sameInboxScore;
      if (Similarity::withinEdits(a, b, emailEditBound(strictness))) return 0.90;
      return std::nullopt;
    case MatchKind::phone:
      if (Similarity::suffixMatch(a, b, phoneSuffixDigits)) return 0.90;
      return std::nullopt;
  }
  return std::nullopt;
}

std::optional<double> pairScore(std::uint32_t a, std::uint32_t b,
                                const std::vector<MatchField>& fields,
                                const std::vector<FlatColumn>& columns, Strictness strictness,
                                const std::vector<bool>& taggedExactEmail) {
  // Every field must pass and the score is the lowest, so the order of the
  // checks does not change the result: the cheap ones (blanks, equality,
  // exact fields) go first, then the close fields from the cheapest kind.
  constexpr std::size_t most = 32;
  std::array<std::uint8_t, most> pending{};
  std::size_t pendingCount = 0;
  for (std::size_t f = 0; f < fields.size(); ++f) {
    const std::string_view x = columns[f].value(a);
    const std::string_view y = columns[f].value(b);
    if (x.empty() || y.empty()) return std::nullopt;
    if (x == y) continue;
    if (fields[f].mode == MatchMode::exact && fields[f].kind != MatchKind::email) return std::nullopt;
    if (pendingCount == most) return std::nullopt;
    pending[pendingCount++] = static_cast<std::uint8_t>(f);
  }
  if (pendingCount == 0) return 1.0;
  const auto cost = [&](std::uint8_t f) { return comparisonCost(fields[f].kind); };
  for (std::size_t i = 1; i < pendingCount; ++i) {
    for (std::size_t j = i; j > 0 && cost(pending[j]) < cost(pending[j - 1]); --j) {
      std::swap(pending[j], pending[j - 1]);
    }
  }
  double lowest = 1.0;
  for (std::size_t i = 0; i < pendingCount; ++i) {
    const std::size_t f = pending[i];
    const std::string_view x = columns[f].value(a);
    const std::string_view y = columns[f].value(b);
    const bool tagged = f < taggedExactEmail.size() && taggedExactEmail[f];
    std::optional<double> score;
    if (fields[f].mode == MatchMode::close) {
      score = uncappedCloseScore(x, y, fields[f].kind, strictness, tagged);
    } else if (tagged && EmailTag::sameInbox(x, y)) {
      score = EmailTag::sameInboxScore;
    }
    if (!score) return std::nullopt;
    lowest = std::min(lowest, *score);
  }
  return std::min(lowest, closeCap);
}

int distinctValues(const std::vector<std::uint32_t>& members,
                   const std::vector<MatchField>& fields, const std::vector<FlatColumn>& columns) {
  (void)fields;
  std::vector<std::uint32_t> sorted = members;
  std::sort(sorted.begin(), sorted.end(), [&](std::uint32_t a, std::uint32_t b) {
    return lessByValues(a, b, columns);
  });
  int distinct = 0;
  for (std::size_t i = 0; i < sorted.size();) {
    std::size_t end = i + 1;
    while (end < sorted.size() && equalValues(sorted[i], sorted[end], columns)) ++end;
    if (end - i == 1) ++distinct;
    i = end;
  }
  return distinct;
}

bool nameAbbreviationMatch(std::string_view a, std::string_view b, bool allowInitials) {
  // Most pairs differ in their number of words: they are turned away before
  // any word is split.
  if (std::count(a.begin(), a.end(), ' ') != std::count(b.begin(), b.end(), ' ')) return false;
  Words left = words(a);
  Words right = words(b);
  if (left.count == 0 || left.tooMany || right.tooMany || left.count != right.count) return false;
  const auto l = std::span(left.items.data(), left.count);
  const auto r = std::span(right.items.data(), right.count);
  if (!abbreviatedInOrder(l, r, allowInitials)) {
    // "Smith, John" against "John Smith": the same words in another order.
    std::sort(l.begin(), l.end());
    std::sort(r.begin(), r.end());
    return abbreviatedInOrder(l, r, allowInitials);
  }
  return true;
}

namespace {

bool abbreviatedInOrder(std::span<const std::string_view> left,
                        std::span<const std::string_view> right, bool allowInitials) {
  bool anchored = left.size() == 1;
  bool shortened = false;
  for (std::size_t i = 0; i < left.size(); ++i) {
    std::string_view x = left[i];
    std::string_view y = right[i];
    if (x == y) {
      if (x.size() >= 2) anchored = true;
      continue;
    }
    if (x.size() > y.size()) std::swap(x, y);
    const bool prefix = y.substr(0, x.size()) == x;
    if (!prefix) return false;
    if (x.size() < 2 && !(allowInitials && x.size() == 1)) return false;
    shortened = true;
  }
  return anchored && (shortened || left.size() > 1);
}

}  // namespace

MatchOutcome findDuplicates(const std::vector<MatchField>& fields, std::vector<FlatColumn> columns,
                            const std::vector<Rid>& rids, const MatchSettings& settings,
                            MatchStats stats, const Progress& progress,
                            const ShouldCancel& shouldCancel) {
  MatchOutcome outcome;
  const auto count = static_cast<std::uint32_t>(rids.size());
  const auto report = [&](const std::string& text) {
    if (progress) progress(text);
  };
  const auto cancelled = [&] { return shouldCancel && shouldCancel(); };
  stats.recordsScanned = count;

  std::vector<bool> tagged(fields.size(), false);
  std::vector<std::size_t> closeIdx;
  for (std::size_t f = 0; f < fields.size(); ++f) {
    if (fields[f].kind == MatchKind::email) tagged[f] = EmailTag::columnHasTags(columns[f]);
    if (fields[f].mode == MatchMode::close) closeIdx.push_back(f);
  }

  DisjointSet forest(count);
  // The lowest link score of each set, kept at its root.
  std::vector<float> weakest(count, 1.0F);
  const auto join = [&](std::uint32_t a, std::uint32_t b, double score) {
    const std::uint32_t ra = forest.find(a);
    const std::uint32_t rb = forest.find(b);
    if (ra == rb) return;
    const float low = std::min({weakest[ra], weakest[rb], static_cast<float>(score)});
    forest.unite(ra, rb);
    weakest[forest.find(ra)] = low;
  };

  report("Finding exact matches");
  joinEqualRecords(columns, [&](std::uint32_t a, std::uint32_t b) { join(a, b, 1.0); });
  if (cancelled()) {
    outcome.cancelled = true;
    outcome.stats = stats;
    return outcome;
  }

  report("Comparing records\u2026");
  // auto needs two fields or more to learn from, and a threshold that keeps
  // the precision it expects; short of either, it matches by the normal rules.
  bool automatic = settings.strictness == Strictness::automatic;
  Strictness rules = automatic ? Strictness::normal : settings.strictness;
  if (automatic && fields.size() >= 2) {
    ProbabilisticLinker::Callbacks callbacks;
    callbacks.together = [&](std::uint32_t a, std::uint32_t b) {
      return forest.find(a) == forest.find(b);
    };
    callbacks.join = join;
    callbacks.progress = report;
    callbacks.shouldCancel = shouldCancel;
    const ProbabilisticLinker::Linkage linkage =
        ProbabilisticLinker::link(fields, columns, tagged, settings.window, callbacks);
    stats.comparisons += linkage.comparisons;
    outcome.cancelled = linkage.cancelled;
    if (!linkage.cancelled && std::isinf(linkage.threshold)) automatic = false;
  } else {
    automatic = false;
  }
  if (settings.strictness == Strictness::automatic && !automatic && !outcome.cancelled) {
    report("Too little to learn from here: comparing by the normal rules");
  }
  std::vector<std::uint32_t> everyone(count);
  for (std::uint32_t r = 0; r < count; ++r) everyone[r] = r;
  // Each pass scores its pairs on the machine's cores and joins them in the
  // order of the walk. Pairs already in one group when the pass starts are
  // not scored again.
  // The orders of the passes are sorted up front, several at once.
  const std::vector<Pass> passes =
      automatic ? std::vector<Pass>() : buildPassList(fields, closeIdx, tagged);
  std::vector<std::vector<std::uint32_t>> orders(passes.size());
  runOnCores(passes.size(), [&](std::size_t p) {
    orders[p] = sortedOrder(passes[p], columns[passes[p].fieldIndex], everyone);
  });
  std::vector<std::uint32_t> root(count);
  for (std::size_t p = 0; p < passes.size(); ++p) {
    const Pass& pass = passes[p];
    report(pass.title);
    const std::vector<std::uint32_t> order = std::move(orders[p]);
    for (std::uint32_t r = 0; r < count; ++r) root[r] = forest.find(r);
    const ScoredNeighbours scored = scoreNeighbours(
        order, static_cast<std::size_t>(std::max(settings.window, 1)),
        [&](std::uint32_t a, std::uint32_t b) { return root[a] == root[b]; },
        [&](std::uint32_t a, std::uint32_t b) -> std::optional<float> {
          if (auto score = pairScore(a, b, fields, columns, rules, tagged)) {
            return static_cast<float>(*score);
          }
          return std::nullopt;
        },
        cancelled, {columns, root});
    stats.comparisons += scored.scored;
    for (const ScoredPair& pair : scored.pairs) join(pair.a, pair.b, pair.score);
    if (scored.stopped) {
      outcome.cancelled = true;
      break;
    }
  }

  std::vector<DuplicateGroup> groups;
  struct Pending {
    std::vector<std::uint32_t> members;
    double weakest;
    bool fromSplit;
  };
  std::vector<Pending> pending;
  for (auto& members : forest.groups()) {
    if (members.size() < 2) continue;
    const double low = weakest[forest.find(members.front())];
    stats.largestGroupBefore =
        std::max(stats.largestGroupBefore, static_cast<std::int64_t>(members.size()));
    pending.push_back({std::move(members), low, false});
  }

  // The splitter cuts by the rules' scores, which auto's links need not reach.
  if (settings.split.enabled && !outcome.cancelled && !automatic) {
    bool announced = false;
    std::vector<Pending> replaced;
    for (Pending& group : pending) {
      if (static_cast<int>(group.members.size()) < settings.split.minSize || cancelled()) {
        replaced.push_back(std::move(group));
        continue;
      }
      if (!announced) {
        report("Looking again at the biggest groups");
        announced = true;
      }
      ++stats.splitExamined;
      GroupSplitter::Outcome repaired =
          GroupSplitter::repair(group.members, fields, columns, rules,
                                settings.window, closeIdx, settings.split, shouldCancel, tagged);
      stats.comparisons += repaired.comparisons;
      if (repaired.tooBig) ++stats.splitTooBig;
      if (!repaired.split) {
        replaced.push_back(std::move(group));
        continue;
      }
      ++stats.splitPerformed;
      for (GroupSplitter::Piece& piece : repaired.pieces) {
        if (piece.members.size() < 2) continue;
        ++stats.splitPieces;
        replaced.push_back({std::move(piece.members), piece.weakest, true});
      }
    }
    pending = std::move(replaced);
  }

  for (Pending& group : pending) {
    DuplicateGroup result;
    result.id = static_cast<std::int64_t>(groups.size()) + 1;
    result.weakestLink = group.weakest;
    result.fromSplit = group.fromSplit;
    result.distinctCount = distinctValues(group.members, fields, columns);
    result.members.reserve(group.members.size());
    for (const std::uint32_t m : group.members) result.members.push_back(rids[m]);
    std::sort(result.members.begin(), result.members.end());
    if (result.weakestLink >= 1.0) ++stats.exactOnlyGroups;
    stats.recordsInGroups += static_cast<std::int64_t>(result.members.size());
    stats.largestGroup =
        std::max(stats.largestGroup, static_cast<std::int64_t>(result.members.size()));
    groups.push_back(std::move(result));
  }
  stats.groupCount = static_cast<std::int64_t>(groups.size());
  outcome.groups = std::move(groups);
  outcome.stats = std::move(stats);
  return outcome;
}

MatchOutcome findDuplicates(RecordStore& store, const MatchSettings& settings,
                            const std::set<Rid>& excluding, const Progress& progress,
                            const ShouldCancel& shouldCancel) {
  if (progress) progress("Reading your local copy");
  const std::vector<MatchField>& fields = store.matchFields();
  const std::size_t fieldCount = fields.size();
  std::vector<FlatColumn> columns(fieldCount);
  std::vector<Rid> rids;
  MatchStats stats;
  stats.skippedBlankPerField.assign(fieldCount, 0);
  stats.skippedFillerPerField.assign(fieldCount, 0);
  std::vector<std::map<std::string, std::int64_t, std::less<>>> fillers(fieldCount);
  store.scanNormalized([&](Rid rid, const std::vector<std::string_view>& values) {
    if (excluding.count(rid) != 0) {
      ++stats.excludedByUser;
      return;
    }
    bool skipped = false;
    for (std::size_t f = 0; f < fieldCount; ++f) {
      const std::string_view value = f < values.size() ? values[f] : std::string_view();
      if (value.empty()) {
        ++stats.skippedBlankPerField[f];
        skipped = true;
        columns[f].append({});
      } else if (settings.treatFillerAsBlank &&
                 FillerValues::shouldIgnore(value, settings.valuesTreatedAsReal,
                                            settings.valuesTreatedAsBlank)) {
        ++stats.skippedFillerPerField[f];
        auto found = fillers[f].find(value);
        if (found == fillers[f].end()) {
          fillers[f].emplace(std::string(value), 1);
        } else {
          ++found->second;
        }
        skipped = true;
        columns[f].append({});
      } else {
        columns[f].append(value);
      }
    }
    if (skipped) ++stats.skippedTotal;
    rids.push_back(rid);
  });
  for (std::size_t f = 0; f < fieldCount; ++f) {
    std::vector<ValueCount> counts;
    for (const auto& [value, number] : fillers[f]) counts.push_back({value, number});
    std::stable_sort(counts.begin(), counts.end(),
                     [](const ValueCount& a, const ValueCount& b) { return a.count > b.count; });
    stats.fillerValuesPerField.push_back(std::move(counts));
  }
  return findDuplicates(fields, std::move(columns), rids, settings, std::move(stats), progress,
                        shouldCancel);
}

}  // namespace corvane::Matcher
