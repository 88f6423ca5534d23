#include "dedupe/filler_values.hpp"

#include <array>
#include <unordered_set>

namespace corvane::FillerValues {

namespace {

const std::unordered_set<std::string_view>& exactValues() {
  static const std::unordered_set<std::string_view> values{
      "unknown",       "not provided",  "notprovided", "not available", "not applicable",
      "not specified", "not given",     "not known",   "no name",       "noname",
      "no last name",  "no first name", "unspecified", "undisclosed",   "unidentified",
      "anonymous",     "do not use",    "donotuse",    "placeholder",   "unassigned",
      "to be determined", "tbd",        "missing",     "blank",         "empty",
      "no value",      "novalue",       "withheld"};
  return values;
}

constexpr std::array<std::string_view, 7> prefixes{"anonymous visitor", "unknown ",
                                                   "not provided",      "no name provided",
                                                   "do not use",        "test lead",
                                                   "test record"};

}  // namespace

bool isFiller(std::string_view value) {
  if (exactValues().contains(value)) return true;
  for (char c : value) {
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  }
  for (std::string_view prefix : prefixes) {
    if (value.size() > prefix.size() && value.starts_with(prefix) &&
        (prefix.back() == ' ' || value[prefix.size()] == ' ')) {
      return true;
    }
  }
  return false;
}

bool shouldIgnore(std::string_view value, const std::set<std::string, std::less<>>& treatAsReal,
                  const std::set<std::string, std::less<>>& alsoTreatAsBlank) {
  if (value.empty()) return false;
  if (treatAsReal.contains(value)) return false;
  if (alsoTreatAsBlank.contains(value)) return true;
  return isFiller(value);
}

}  // namespace corvane::FillerValues
