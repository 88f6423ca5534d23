// Looks again at a large duplicate group: when chains of weak links make it
// longer than `maxHops` links across, its links are removed weakest first,
// level by level, and the connected pieces that remain replace it.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "dedupe/flat_column.hpp"
#include "dedupe/match_kind.hpp"
#include "dedupe/match_settings.hpp"

namespace corvane::GroupSplitter {

struct Piece {
  std::vector<std::uint32_t> members;
  double weakest = 1.0;
  bool operator==(const Piece&) const = default;
};

struct Outcome {
  std::vector<Piece> pieces;  // the group itself when not split
  int diameter = 0;
  int blobCount = 0;
  std::int64_t edgeCount = 0;
  std::int64_t comparisons = 0;
  bool tooBig = false;
  bool split = false;
};

// members are positions in columns. Pairs are scored with the matcher's
// passes and window; a group needing more than settings.edgeBudget scored
// pairs is left whole with tooBig.
Outcome repair(const std::vector<std::uint32_t>& members, const std::vector<MatchField>& fields,
               const std::vector<FlatColumn>& columns, Strictness strictness, int window,
               const std::vector<std::size_t>& closeIdx, const SplitSettings& settings,
               const std::function<bool()>& shouldCancel, const std::vector<bool>& taggedEmail);

// The thresholds to cut at, one per level: the distinct scores rounded to 4
// decimals, ascending, without the lowest; at most maxLevels of them, taken
// at evenly spaced positions from the first to the last.
std::vector<double> schedule(const std::vector<double>& scores, int maxLevels);

}  // namespace corvane::GroupSplitter
