#include "dedupe/match_kind.hpp"

#include <array>

namespace corvane {

namespace {
constexpr std::array<std::string_view, 5> kindTexts{"text", "personName", "companyName", "email",
                                                    "phone"};
constexpr std::array<std::string_view, 2> modeTexts{"exact", "close"};
}  // namespace

std::string_view rawValue(MatchKind kind) { return kindTexts[static_cast<std::size_t>(kind)]; }

std::optional<MatchKind> matchKindFromRaw(std::string_view raw) {
  for (std::size_t i = 0; i < kindTexts.size(); ++i) {
    if (kindTexts[i] == raw) return static_cast<MatchKind>(i);
  }
  return std::nullopt;
}

std::string_view rawValue(MatchMode mode) { return modeTexts[static_cast<std::size_t>(mode)]; }

std::optional<MatchMode> matchModeFromRaw(std::string_view raw) {
  for (std::size_t i = 0; i < modeTexts.size(); ++i) {
    if (modeTexts[i] == raw) return static_cast<MatchMode>(i);
  }
  return std::nullopt;
}

}  // namespace corvane
