// The pairs behind strictness `auto`: candidate pairs from several sorted-
// neighbourhood blocking keys, each scored field by field with the levels of
// FieldAgreement and weighed by a Fellegi-Sunter model that is estimated from
// the snapshot itself, without labels:
//
// 1. Blocking: every field by its value; close fields also by the value
//    reversed (typos near the start, phone numbers without area code); names
//    and text with letters by sound, and names by sound with their words
//    sorted (surname first); e-mail addresses by their local part (and
//    without +tags when the column has them). Each record meets its next
//    `window` records in every order.
// 2. Estimation: a seeded random sample of the candidate pairs gives the
//    counts of the agreement patterns; EM turns them into weights.
// 3. Threshold: the weight that maximises the F1 the model expects, among
//    those whose expected precision is at least 0.98 and whose pairs are
//    more likely matches than not.
// 4. Linking: every candidate pair at or above the threshold is joined.
//    Fields are scored cheapest first and a pair stops being scored as soon
//    as the weight it could still reach falls short.
//
// A blank value is missing, not a disagreement: unlike the rules, it neither
// fails a pair nor counts for it. Deterministic: the same columns give the
// same pairs.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "dedupe/fellegi_sunter.hpp"
#include "dedupe/flat_column.hpp"
#include "dedupe/match_kind.hpp"

namespace corvane::ProbabilisticLinker {

// How many candidate pairs the model is estimated from, at most, and the
// seed that picks them.
inline constexpr std::size_t sampleSize = 200'000;
inline constexpr std::uint64_t sampleSeed = 0x5eed'c0fe'e000'0001ULL;
inline constexpr double minExpectedPrecision = 0.98;
inline constexpr double minMatchProbability = 0.5;

struct Linkage {
  FellegiSunter::Model model;
  double threshold = 0;  // weight a pair must reach; infinite: none keeps the precision, no links
  std::int64_t comparisons = 0;   // candidate pairs scored (with repeats across keys)
  std::int64_t sampled = 0;       // pairs the model was estimated from
  std::int64_t linked = 0;        // pairs at or above the threshold
  bool cancelled = false;
};

// Records are positions in the columns. Pairs are scored on several threads
// (Matcher::scoreNeighbours); together, join and progress are only called
// from the calling thread, shouldCancel from any of them but never at once.
struct Callbacks {
  // Whether a and b are already in one group (their link is not needed).
  std::function<bool(std::uint32_t, std::uint32_t)> together;
  // Joins a pair that reached the threshold; score: its match probability,
  // below 1.0 unless the two are equal on every field.
  std::function<void(std::uint32_t, std::uint32_t, double)> join;
  std::function<void(const std::string&)> progress;
  std::function<bool()> shouldCancel;
};

// Links the records of columns (one per field, blank = empty). taggedEmail:
// per field, whether its e-mail column has +tags. At most
// FellegiSunter::maxFields fields take part; further fields are ignored.
Linkage link(const std::vector<MatchField>& fields, const std::vector<FlatColumn>& columns,
             const std::vector<bool>& taggedEmail, int window, const Callbacks& callbacks);

}  // namespace corvane::ProbabilisticLinker
