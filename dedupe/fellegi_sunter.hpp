// The probabilistic record-linkage model of Fellegi and Sunter: each field of
// a pair of records agrees at one of a few levels, each level is m times as
// likely among pairs of the same person (m) as among pairs of different
// people (u), and a pair's weight is the sum of log2(m / u) over its fields.
//
// The m and u probabilities are estimated without labels, by expectation-
// maximisation over the counts of the agreement patterns seen in a sample of
// candidate pairs; fields are assumed independent given the class. A missing
// value (blank on either side) says nothing: it adds no weight and takes no
// part in the estimate.
//
// Pure functions, safe from any thread; the same input gives the same model.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace corvane::FellegiSunter {

// How well one field of a pair agrees. The order is the order of strength.
enum class Level : std::uint8_t { missing, different, partial, close, exact };
inline constexpr std::size_t levelCount = 5;

// The levels of every field of a pair, three bits a field, field 0 lowest:
// up to maxFields fields.
using Pattern = std::uint64_t;
inline constexpr std::size_t maxFields = 21;

inline Level levelOf(Pattern pattern, std::size_t field) {
  return static_cast<Level>((pattern >> (3 * field)) & 7U);
}
inline Pattern withLevel(Pattern pattern, std::size_t field, Level level) {
  return pattern | (static_cast<Pattern>(level) << (3 * field));
}

struct PatternCount {
  Pattern pattern = 0;
  double count = 0;
  bool operator==(const PatternCount&) const = default;
};

// Counts equal patterns; the result is sorted by pattern.
std::vector<PatternCount> tally(std::vector<Pattern> patterns);

struct Model {
  double matchShare = 0;  // the share of the pairs that are matches
  // [field][level]: the probability of the level among matches (m) and
  // among non-matches (u), over the pairs where the field is not missing.
  std::vector<std::array<double, levelCount>> m;
  std::vector<std::array<double, levelCount>> u;
  int iterations = 0;
  bool converged = false;
};

// Estimates the model for fieldCount fields by EM from the pattern counts.
// Starts from the belief that matches mostly agree exactly and non-matches
// mostly differ, so the class called "match" is the one that agrees more.
// Every probability is kept above a small floor, so no weight is infinite.
Model estimate(std::size_t fieldCount, const std::vector<PatternCount>& counts,
               int maxIterations = 500, double tolerance = 1e-9);

// log2(m / u) of each [field][level]; 0 for missing.
std::vector<std::array<double, levelCount>> weights(const Model& model);

// The pair's weight: the sum of its fields' weights.
double weight(const std::vector<std::array<double, levelCount>>& weights, Pattern pattern);

// The probability that a pair with this weight is a match, by Bayes' rule
// with the model's match share as the prior.
double matchProbability(const Model& model, double weight);

// The lowest weight a pair must reach to be called a match: of the thresholds
// the observed patterns allow, the one whose expected F1 under the model is
// highest among those whose expected precision is at least minPrecision and
// whose pairs have a match probability of at least minProbability. The
// expectations use the model's own match probabilities as the truth.
double chooseThreshold(const Model& model, const std::vector<PatternCount>& counts,
                       double minPrecision, double minProbability);

}  // namespace corvane::FellegiSunter
