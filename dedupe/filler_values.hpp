// Values that mean "we do not know" ("unknown", "tbd", "test lead 4"): the
// matcher can treat them as blank so that they do not join strangers into
// one group. Pure functions on normalised values; the tables are built once.
#pragma once

#include <set>
#include <string>
#include <string_view>

namespace corvane::FillerValues {

// The screen's explanation of the filler list.
inline constexpr std::string_view explanation =
    "These values mean \"we do not know\", so they are treated the same way an empty field "
    "already is. Untick any that belong to a real person and the records come back.";

// Whether a normalised value is one of the known fillers or begins with one
// of the filler prefixes followed by more words.
bool isFiller(std::string_view value);

// Whether a value counts as blank for matching: never when empty (it already
// is) or when the user marked it real; always when the user added it;
// otherwise when it is filler.
bool shouldIgnore(std::string_view value, const std::set<std::string, std::less<>>& treatAsReal,
                  const std::set<std::string, std::less<>>& alsoTreatAsBlank);

}  // namespace corvane::FillerValues
