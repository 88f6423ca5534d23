#include "dedupe/fellegi_sunter.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

namespace corvane::FellegiSunter {
namespace {

// No probability goes below this: a level never seen in one class must not
// make a weight infinite.
constexpr double floorProbability = 1e-5;

constexpr std::size_t first = static_cast<std::size_t>(Level::different);

void normalise(std::array<double, levelCount>& row) {
  double total = 0;
  for (std::size_t l = first; l < levelCount; ++l) {
    row[l] = std::max(row[l], floorProbability);
    total += row[l];
  }
  for (std::size_t l = first; l < levelCount; ++l) row[l] /= total;
  row[0] = 1.0;
}

}  // namespace

std::vector<PatternCount> tally(std::vector<Pattern> patterns) {
  std::sort(patterns.begin(), patterns.end());
  std::vector<PatternCount> counts;
  for (const Pattern pattern : patterns) {
    if (counts.empty() || counts.back().pattern != pattern) {
      counts.push_back({pattern, 0});
    }
    counts.back().count += 1;
  }
  return counts;
}

Model estimate(std::size_t fieldCount, const std::vector<PatternCount>& counts,
               int maxIterations, double tolerance) {
  Model model;
  model.matchShare = 0.1;
  model.m.assign(fieldCount, {1.0, 0.05, 0.05, 0.10, 0.80});
  model.u.assign(fieldCount, {1.0, 0.80, 0.10, 0.05, 0.05});
  double total = 0;
  for (const PatternCount& entry : counts) total += entry.count;
  if (total <= 0 || fieldCount == 0) return model;

  std::vector<std::array<double, levelCount>> mSum(fieldCount);
  std::vector<std::array<double, levelCount>> uSum(fieldCount);
  for (int iteration = 1; iteration <= maxIterations; ++iteration) {
    for (auto& row : mSum) row.fill(0);
    for (auto& row : uSum) row.fill(0);
    double matched = 0;
    const double logShare = std::log(model.matchShare);
    const double logRest = std::log(1.0 - model.matchShare);
    for (const PatternCount& entry : counts) {
      double logM = logShare;
      double logU = logRest;
      for (std::size_t f = 0; f < fieldCount; ++f) {
        const auto level = static_cast<std::size_t>(levelOf(entry.pattern, f));
        if (level == 0) continue;
        logM += std::log(model.m[f][level]);
        logU += std::log(model.u[f][level]);
      }
      const double g = 1.0 / (1.0 + std::exp(logU - logM));
      matched += entry.count * g;
      for (std::size_t f = 0; f < fieldCount; ++f) {
        const auto level = static_cast<std::size_t>(levelOf(entry.pattern, f));
        mSum[f][level] += entry.count * g;
        uSum[f][level] += entry.count * (1.0 - g);
      }
    }
    double change = 0;
    const double share = std::clamp(matched / total, floorProbability, 1.0 - floorProbability);
    change = std::max(change, std::abs(share - model.matchShare));
    model.matchShare = share;
    for (std::size_t f = 0; f < fieldCount; ++f) {
      std::array<double, levelCount> m = mSum[f];
      std::array<double, levelCount> u = uSum[f];
      double mTotal = 0;
      double uTotal = 0;
      for (std::size_t l = first; l < levelCount; ++l) {
        mTotal += m[l];
        uTotal += u[l];
      }
      for (std::size_t l = first; l < levelCount; ++l) {
        m[l] = mTotal > 0 ? m[l] / mTotal : model.m[f][l];
        u[l] = uTotal > 0 ? u[l] / uTotal : model.u[f][l];
      }
      normalise(m);
      normalise(u);
      for (std::size_t l = first; l < levelCount; ++l) {
        change = std::max({change, std::abs(m[l] - model.m[f][l]), std::abs(u[l] - model.u[f][l])});
      }
      model.m[f] = m;
      model.u[f] = u;
    }
    model.iterations = iteration;
    if (change < tolerance) {
      model.converged = true;
      break;
    }
  }
  return model;
}

std::vector<std::array<double, levelCount>> weights(const Model& model) {
  std::vector<std::array<double, levelCount>> result(model.m.size());
  for (std::size_t f = 0; f < model.m.size(); ++f) {
    result[f][0] = 0;
    for (std::size_t l = first; l < levelCount; ++l) {
      result[f][l] = std::log2(model.m[f][l] / model.u[f][l]);
    }
  }
  return result;
}

double weight(const std::vector<std::array<double, levelCount>>& weights, Pattern pattern) {
  double sum = 0;
  for (std::size_t f = 0; f < weights.size(); ++f) {
    sum += weights[f][static_cast<std::size_t>(levelOf(pattern, f))];
  }
  return sum;
}

double matchProbability(const Model& model, double weight) {
  const double priorOdds = model.matchShare / (1.0 - model.matchShare);
  const double odds = priorOdds * std::exp2(weight);
  if (std::isinf(odds)) return 1.0;
  return odds / (1.0 + odds);
}

double chooseThreshold(const Model& model, const std::vector<PatternCount>& counts,
                       double minPrecision, double minProbability) {
  const auto table = weights(model);
  struct Scored {
    double weight;
    double count;
    double probability;
  };
  std::vector<Scored> scored;
  scored.reserve(counts.size());
  double expectedMatches = 0;
  for (const PatternCount& entry : counts) {
    const double w = weight(table, entry.pattern);
    const double p = matchProbability(model, w);
    scored.push_back({w, entry.count, p});
    expectedMatches += entry.count * p;
  }
  std::sort(scored.begin(), scored.end(),
            [](const Scored& a, const Scored& b) { return a.weight > b.weight; });
  double best = std::numeric_limits<double>::infinity();
  double bestF1 = -1;
  double found = 0;
  double correct = 0;
  for (std::size_t i = 0; i < scored.size();) {
    const double w = scored[i].weight;
    const double p = scored[i].probability;
    for (; i < scored.size() && scored[i].weight == w; ++i) {
      found += scored[i].count;
      correct += scored[i].count * scored[i].probability;
    }
    if (p < minProbability) break;
    const double precision = correct / found;
    if (precision < minPrecision) continue;
    const double recall = expectedMatches > 0 ? correct / expectedMatches : 0;
    const double f1 = precision + recall > 0 ? 2 * precision * recall / (precision + recall) : 0;
    if (f1 > bestF1) {
      bestF1 = f1;
      best = w;
    }
  }
  return best;
}

}  // namespace corvane::FellegiSunter
