#include "dedupe/probabilistic_linker.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <random>

#include "dedupe/email_tag.hpp"
#include "dedupe/field_agreement.hpp"
#include "dedupe/key_sort.hpp"
#include "dedupe/matcher.hpp"
#include "dedupe/phonetic.hpp"
#include "dedupe/sorted_neighbourhood.hpp"

namespace corvane::ProbabilisticLinker {
namespace {

using FellegiSunter::Level;
using FellegiSunter::Pattern;

struct Blocking {
  std::string title;
  std::vector<std::uint32_t> order;  // the records with a key, sorted by it
};

bool hasLetters(const FlatColumn& column) {
  return std::any_of(column.data.begin(), column.data.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte >= 'a' && byte <= 'z') || byte >= 0x80;
  });
}

std::vector<std::uint32_t> orderByColumn(const FlatColumn& column) {
  std::vector<std::uint32_t> order;
  order.reserve(column.size());
  for (std::uint32_t r = 0; r < column.size(); ++r) {
    if (!column.value(r).empty()) order.push_back(r);
  }
  KeySort::sortIds(order, [&](std::uint32_t id) { return column.value(id); });
  return order;
}

template <typename Derive>
std::vector<std::uint32_t> orderByDerived(const FlatColumn& column, Derive&& derive) {
  FlatColumn keys;
  std::vector<std::uint32_t> owner;
  std::string key;
  for (std::uint32_t r = 0; r < column.size(); ++r) {
    const std::string_view value = column.value(r);
    if (value.empty()) continue;
    key.clear();
    derive(value, key);
    if (key.empty()) continue;
    keys.append(key);
    owner.push_back(r);
  }
  std::vector<std::uint32_t> index(owner.size());
  for (std::uint32_t i = 0; i < index.size(); ++i) index[i] = i;
  KeySort::sortIds(index, [&](std::uint32_t id) { return keys.value(id); });
  for (std::uint32_t& i : index) i = owner[i];
  return index;
}

void reversed(std::string_view value, std::string& key) { key.assign(value.rbegin(), value.rend()); }

void wordsSorted(std::string_view value, std::string& key) {
  std::array<std::string_view, 16> words;
  std::size_t count = 0;
  for (std::size_t start = 0; start < value.size() && count < words.size();) {
    std::size_t end = value.find(' ', start);
    if (end == std::string_view::npos) end = value.size();
    if (end > start) words[count++] = value.substr(start, end - start);
    start = end + 1;
  }
  std::sort(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(count));
  for (std::size_t i = 0; i < count; ++i) {
    if (i > 0) key.push_back(' ');
    key.append(words[i]);
  }
}

void localPart(std::string_view value, std::string& key) {
  const auto at = value.rfind('@');
  key.assign(at == std::string_view::npos ? value : value.substr(0, at));
}

// Scores pairs field by field, cheapest kind first.
class Scorer {
 public:
  Scorer(const std::vector<MatchField>& fields, const std::vector<FlatColumn>& columns,
         const std::vector<FlatColumn>& sounds, const std::vector<bool>& tagged)
      : fields_(fields), columns_(columns), sounds_(sounds), tagged_(tagged) {
    for (std::size_t f = 0; f < fields_.size(); ++f) byCost_.push_back(f);
    std::stable_sort(byCost_.begin(), byCost_.end(), [&](std::size_t x, std::size_t y) {
      return cost(fields_[x].kind) < cost(fields_[y].kind);
    });
  }

  Level level(std::size_t f, std::uint32_t a, std::uint32_t b) const {
    const FlatColumn& sound = sounds_[f];
    const bool withSound = sound.size() == columns_[f].size();
    const FieldAgreement::Value x{columns_[f].value(a), withSound ? sound.value(a) : std::string_view()};
    const FieldAgreement::Value y{columns_[f].value(b), withSound ? sound.value(b) : std::string_view()};
    return FieldAgreement::level(x, y, fields_[f].kind, fields_[f].mode,
                                 f < tagged_.size() && tagged_[f]);
  }

  Pattern pattern(std::uint32_t a, std::uint32_t b) const {
    Pattern result = 0;
    for (std::size_t f = 0; f < fields_.size(); ++f) {
      result = FellegiSunter::withLevel(result, f, level(f, a, b));
    }
    return result;
  }

  // Takes the model's weights and the threshold, and picks the order in
  // which the fields are scored: the one that, on the sampled patterns,
  // costs least before each pair is settled (by trying every order of up to
  // six fields; more fields keep the order of their cost).
  void useWeights(std::vector<std::array<double, FellegiSunter::levelCount>> table,
                  double threshold, const std::vector<FellegiSunter::PatternCount>& counts) {
    weights_ = std::move(table);
    if (byCost_.size() <= 6 && !std::isinf(threshold)) {
      std::vector<std::size_t> order = byCost_;
      std::sort(order.begin(), order.end());
      double cheapest = std::numeric_limits<double>::infinity();
      do {
        const double spent = expectedCost(order, threshold, counts);
        if (spent < cheapest) {
          cheapest = spent;
          byCost_ = order;
        }
      } while (std::next_permutation(order.begin(), order.end()));
    }
    best_ = bestRest(byCost_);
  }

  // The pair's weight and whether every field is exact, or none when the
  // weight cannot reach threshold.
  std::optional<std::pair<double, bool>> weighAbove(std::uint32_t a, std::uint32_t b,
                                                    double threshold) const {
    double sum = 0;
    bool allExact = true;
    for (std::size_t i = 0; i < byCost_.size(); ++i) {
      if (sum + best_[i] < threshold) return std::nullopt;
      const std::size_t f = byCost_[i];
      const Level l = level(f, a, b);
      allExact = allExact && l == Level::exact;
      sum += weights_[f][static_cast<std::size_t>(l)];
    }
    if (sum < threshold) return std::nullopt;
    return std::make_pair(sum, allExact);
  }

 private:
  // best[i]: the most the fields order[i..] can still add.
  std::vector<double> bestRest(const std::vector<std::size_t>& order) const {
    std::vector<double> best(order.size() + 1, 0.0);
    for (std::size_t i = order.size(); i-- > 0;) {
      const auto& row = weights_[order[i]];
      best[i] = best[i + 1] + *std::max_element(row.begin(), row.end());
    }
    return best;
  }

  double expectedCost(const std::vector<std::size_t>& order, double threshold,
                      const std::vector<FellegiSunter::PatternCount>& counts) const {
    const std::vector<double> best = bestRest(order);
    double spent = 0;
    for (const FellegiSunter::PatternCount& entry : counts) {
      double sum = 0;
      for (std::size_t i = 0; i < order.size(); ++i) {
        if (sum + best[i] < threshold) break;
        const std::size_t f = order[i];
        spent += entry.count * (1 + cost(fields_[f].kind));
        sum += weights_[f][static_cast<std::size_t>(FellegiSunter::levelOf(entry.pattern, f))];
      }
    }
    return spent;
  }

  static int cost(MatchKind kind) { return comparisonCost(kind); }

  const std::vector<MatchField>& fields_;
  const std::vector<FlatColumn>& columns_;
  const std::vector<FlatColumn>& sounds_;
  const std::vector<bool>& tagged_;
  std::vector<std::size_t> byCost_;
  std::vector<std::array<double, FellegiSunter::levelCount>> weights_;
  std::vector<double> best_;
};

}  // namespace

Linkage link(const std::vector<MatchField>& allFields, const std::vector<FlatColumn>& columns,
             const std::vector<bool>& taggedEmail, int window, const Callbacks& callbacks) {
  Linkage linkage;
  const auto report = [&](const std::string& text) {
    if (callbacks.progress) callbacks.progress(text);
  };
  const auto cancelled = [&] { return callbacks.shouldCancel && callbacks.shouldCancel(); };
  const std::size_t fieldCount = std::min(allFields.size(), FellegiSunter::maxFields);
  const std::vector<MatchField> fields(allFields.begin(),
                                       allFields.begin() + static_cast<std::ptrdiff_t>(fieldCount));
  const auto span = static_cast<std::size_t>(std::max(window, 1));

  report("Finding candidate pairs");
  std::vector<FlatColumn> sounds(fieldCount);
  std::vector<Blocking> blockings;
  for (std::size_t f = 0; f < fieldCount; ++f) {
    const MatchField& field = fields[f];
    const FlatColumn& column = columns[f];
    const bool close = field.mode == MatchMode::close;
    const bool tagged = f < taggedEmail.size() && taggedEmail[f];
    blockings.push_back({"Comparing " + field.label, orderByColumn(column)});
    if (close) {
      blockings.push_back({"Comparing " + field.label + " from the end",
                           orderByDerived(column, reversed)});
    }
    if (close && FieldAgreement::usesSound(field.kind) && hasLetters(column)) {
      FlatColumn& sound = sounds[f];
      sound.offsets.reserve(column.size() + 1);
      for (std::uint32_t r = 0; r < column.size(); ++r) {
        const std::string_view value = column.value(r);
        sound.append(value.empty() ? std::string() : Phonetic::key(value));
      }
      blockings.push_back({"Comparing " + field.label + " by sound", orderByColumn(sound)});
      if (field.kind == MatchKind::personName) {
        blockings.push_back({"Comparing " + field.label + " by sound, in any order",
                             orderByDerived(sound, wordsSorted)});
      }
    }
    if (field.kind == MatchKind::email) {
      blockings.push_back({"Comparing " + field.label + " by name", orderByDerived(column, localPart)});
      if (tagged) {
        blockings.push_back({"Comparing " + field.label + " without +tags",
                             orderByDerived(column, [](std::string_view value, std::string& key) {
                               key = EmailTag::canonical(value);
                             })});
      }
    }
    if (cancelled()) {
      linkage.cancelled = true;
      return linkage;
    }
  }

  Scorer scorer(fields, columns, sounds, taggedEmail);
  const auto slotsOf = [&](std::size_t n) {
    // Pairs (i, i+k) with 1 <= k <= span and i+k < n.
    const std::uint64_t count = n;
    if (count <= span) return count * (count - (count > 0 ? 1 : 0)) / 2;
    return (count - span) * span + span * (span - 1) / 2;
  };
  std::uint64_t totalSlots = 0;
  std::uint64_t totalRecords = 0;
  for (const Blocking& blocking : blockings) {
    totalSlots += slotsOf(blocking.order.size());
    totalRecords += blocking.order.size();
  }

  report("Learning what tells records apart");
  std::vector<Pattern> sample;
  if (totalSlots <= sampleSize) {
    for (const Blocking& blocking : blockings) {
      const auto& order = blocking.order;
      for (std::size_t i = 0; i < order.size(); ++i) {
        for (std::size_t j = i + 1; j < std::min(order.size(), i + 1 + span); ++j) {
          sample.push_back(scorer.pattern(order[i], order[j]));
        }
      }
    }
  } else {
    std::mt19937_64 random(sampleSeed);
    sample.reserve(sampleSize);
    for (std::size_t draw = 0; draw < sampleSize; ++draw) {
      std::uint64_t at = random() % totalRecords;
      std::size_t p = 0;
      while (at >= blockings[p].order.size()) at -= blockings[p++].order.size();
      const std::uint64_t k = 1 + random() % span;
      const auto& order = blockings[p].order;
      if (at + k >= order.size()) continue;
      sample.push_back(scorer.pattern(order[at], order[at + k]));
    }
  }
  linkage.sampled = static_cast<std::int64_t>(sample.size());
  const std::vector<FellegiSunter::PatternCount> counts = FellegiSunter::tally(std::move(sample));
  linkage.model = FellegiSunter::estimate(fieldCount, counts);
  linkage.threshold = FellegiSunter::chooseThreshold(linkage.model, counts, minExpectedPrecision,
                                                     minMatchProbability);
  scorer.useWeights(FellegiSunter::weights(linkage.model), linkage.threshold, counts);
  if (cancelled()) {
    linkage.cancelled = true;
    return linkage;
  }
  if (std::isinf(linkage.threshold)) return linkage;

  // The candidate pairs are scored on the machine's cores; the links each
  // key's walk finds are joined in the order of the walk.
  for (const Blocking& blocking : blockings) {
    report(blocking.title);
    const Matcher::ScoredNeighbours scored = Matcher::scoreNeighbours(
        blocking.order, span, [](std::uint32_t, std::uint32_t) { return false; },
        [&](std::uint32_t a, std::uint32_t b) -> std::optional<float> {
          const auto weighed = scorer.weighAbove(a, b, linkage.threshold);
          if (!weighed) return std::nullopt;
          if (weighed->second) return 1.0F;
          const double probability =
              FellegiSunter::matchProbability(linkage.model, weighed->first);
          return static_cast<float>(std::min(probability, Matcher::closeCap));
        },
        cancelled, {columns, {}});
    linkage.comparisons += scored.scored;
    linkage.linked += static_cast<std::int64_t>(scored.pairs.size());
    for (const Matcher::ScoredPair& pair : scored.pairs) {
      if (callbacks.together && callbacks.together(pair.a, pair.b)) continue;
      if (callbacks.join) callbacks.join(pair.a, pair.b, pair.score);
    }
    if (scored.stopped) {
      linkage.cancelled = true;
      return linkage;
    }
  }
  return linkage;
}

}  // namespace corvane::ProbabilisticLinker
