// What a duplicate search is asked to do (strictness, window, splitting of
// over-grown groups, filler handling) and what it finds (groups, statistics).
// Plain values.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "dedupe/match_kind.hpp"

namespace corvane {

// How far close values may differ. Raw texts "strict", "normal", "loose",
// "auto". The first three are rules every field must pass; `automatic`
// weighs each field's agreement by what it tells on this snapshot
// (ProbabilisticLinker) and needs no field to pass on its own. With a single
// match field, or when the model finds no threshold that keeps its expected
// precision, `automatic` matches by the normal rules.
enum class Strictness { strict, normal, loose, automatic };

std::string_view rawValue(Strictness strictness);
std::optional<Strictness> strictnessFromRaw(std::string_view raw);

// When chains of weak links make a group too large, the group is looked at
// again and cut at its weakest links.
//
// Defaults, measured on the FEBRL sets and the sample org: genuine groups
// there have at most 5 members and a diameter of at most 3 links, so groups
// of 6 or more are examined, a chain of more than 3 links is cut, and pieces
// of 3 or fewer are final. 200,000 scored pairs bound the splitter's memory
// (a few MB) for one group; a bigger group is left whole and counted.
struct SplitSettings {
  int minSize = 6;
  int stopSize = 3;
  int maxHops = 3;
  int maxLevels = 6;
  std::int64_t edgeBudget = 200'000;
  bool enabled = true;
  bool operator==(const SplitSettings&) const = default;
};

// The default window: each record is compared with its next 8 neighbours in
// every sorted close pass. On FEBRL dataset3 (normal) recall grows by under
// half a point from 8 to 20 while the comparisons more than double.
inline constexpr int defaultWindow = 8;

struct MatchSettings {
  Strictness strictness = Strictness::normal;
  int window = defaultWindow;
  SplitSettings split;
  bool treatFillerAsBlank = true;
  std::set<std::string, std::less<>> valuesTreatedAsReal;
  std::set<std::string, std::less<>> valuesTreatedAsBlank;
};

using Rid = std::int32_t;

struct DuplicateGroup {
  std::int64_t id = 0;
  std::vector<Rid> members;
  double weakestLink = 1.0;  // lowest score on the links holding it together
  int distinctCount = 0;     // members with no exact twin in the group
  bool fromSplit = false;
  bool operator==(const DuplicateGroup&) const = default;
};

struct MatchStats {
  std::int64_t recordsScanned = 0;
  std::vector<std::int64_t> skippedBlankPerField;
  std::vector<std::int64_t> skippedFillerPerField;
  std::vector<std::vector<ValueCount>> fillerValuesPerField;
  std::int64_t skippedTotal = 0;  // records left out of matching by a blank or filler value
  std::int64_t excludedByUser = 0;
  std::int64_t groupCount = 0;
  std::int64_t recordsInGroups = 0;
  std::int64_t largestGroup = 0;
  std::int64_t exactOnlyGroups = 0;
  std::int64_t comparisons = 0;
  std::int64_t splitExamined = 0;
  std::int64_t splitPerformed = 0;
  std::int64_t splitPieces = 0;
  std::int64_t splitTooBig = 0;
  std::int64_t largestGroupBefore = 0;
  bool operator==(const MatchStats&) const = default;
};

struct MatchOutcome {
  std::vector<DuplicateGroup> groups;
  MatchStats stats;
  bool cancelled = false;
};

}  // namespace corvane
