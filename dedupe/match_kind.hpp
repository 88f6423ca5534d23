// What the duplicate engine compares: the kinds of match field, how strictly a
// field must agree, and a value with its number of occurrences.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

// How a match field's values are normalised and compared. The raw texts are
// what a snapshot's `fields` table stores.
enum class MatchKind { text, personName, companyName, email, phone };

std::string_view rawValue(MatchKind kind);
// None for a text that names no kind.
std::optional<MatchKind> matchKindFromRaw(std::string_view raw);
// How dear comparing two values of this kind is, cheapest 0: fields are
// compared cheapest first, so a pair that fails early costs little.
constexpr int comparisonCost(MatchKind kind) {
  switch (kind) {
    case MatchKind::phone:
      return 0;
    case MatchKind::email:
      return 1;
    case MatchKind::text:
      return 2;
    case MatchKind::companyName:
      return 3;
    case MatchKind::personName:
      return 4;
  }
  return 5;
}

// Whether values must be equal after normalisation or may differ a little.
enum class MatchMode { exact, close };

std::string_view rawValue(MatchMode mode);
std::optional<MatchMode> matchModeFromRaw(std::string_view raw);

struct MatchField {
  std::string name;   // field API name
  std::string label;
  MatchKind kind = MatchKind::text;
  MatchMode mode = MatchMode::exact;
  bool operator==(const MatchField&) const = default;
};

// One value of a field and how many records hold it.
struct ValueCount {
  std::string value;
  std::int64_t count = 0;
  bool operator==(const ValueCount&) const = default;
};

}  // namespace corvane
