// Turns a match-field value into the form the matcher compares: folded,
// stripped of punctuation and of the words that do not tell records apart
// (titles, legal forms), or reduced to digits for phone numbers.
//
// Pure functions, safe from any thread. Every value of a snapshot goes
// through normalize once, when its page is stored.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dedupe/match_kind.hpp"

namespace corvane::Normalizer {

// The normalised form of value for its kind:
// - text, personName, companyName: folded (case, diacritics, width), letters
//   and digits kept, every run of anything else one blank, no blank at either
//   end; person names lose leading titles and trailing post-nominals, company
//   names a leading "the" and trailing legal forms (never their last word);
// - email: trimmed and lower-cased;
// - phone: the digits without an extension, without a leading North American
//   "1" when eleven digits remain.
std::string normalize(std::string_view value, MatchKind kind);

// Lower-cases value and cuts off a trailing extension ("ext. 12", "x12",
// "#12", "extension 12"); value lower-cased when it has none.
std::string stripExtension(std::string_view value);

// The kind offered by default when a field is chosen for matching, from the
// field's API name, its describe type and the object's API name.
MatchKind guessKind(std::string_view fieldName, std::string_view fieldType,
                    std::string_view objectName);

// The generation suffix ("jr", "sr", "ii", "iii", "iv") the words of a
// normalised name end with, if any.
std::optional<std::string> generationSuffix(const std::vector<std::string>& words);

}  // namespace corvane::Normalizer
