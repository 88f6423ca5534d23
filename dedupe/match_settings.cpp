#include "dedupe/match_settings.hpp"

namespace corvane {

std::string_view rawValue(Strictness strictness) {
  switch (strictness) {
    case Strictness::strict:
      return "strict";
    case Strictness::normal:
      return "normal";
    case Strictness::loose:
      return "loose";
    case Strictness::automatic:
      return "auto";
  }
  return "normal";
}

std::optional<Strictness> strictnessFromRaw(std::string_view raw) {
  if (raw == "strict") return Strictness::strict;
  if (raw == "normal") return Strictness::normal;
  if (raw == "loose") return Strictness::loose;
  if (raw == "auto") return Strictness::automatic;
  return std::nullopt;
}

}  // namespace corvane
