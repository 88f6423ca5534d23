// How well two values of one match field agree, as one of the levels of the
// probabilistic model (FellegiSunter::Level): exact, close, partial or
// different, or missing when either side is blank.
//
// The levels reuse the rule-based matcher's notions of closeness but keep
// the weaker resemblances apart instead of failing them, so that the model
// can learn how much each one tells:
// - names and text with letters: close at a Jaro-Winkler of 0.92 or more, the
//   same sound key or the same words in another order; partial at 0.80 or
//   more, a short form ("Ed" for "Edward", initials) or a shared word;
// - text of digits (dates, ids, postcodes): close within one edit (a typo or
//   two swapped digits), partial within two;
// - e-mail: close for the same inbox without +tags or one edit, partial for
//   the same local part at another domain or two edits;
// - phone: close when one number ends with the other (no area code),
//   partial within one edit.
// A field in exact mode is only ever exact or different (or close for the
// same inbox without +tags, as the rules allow).
//
// Pure functions, safe from any thread; no allocation for values of up to
// 64 bytes once the sound keys are given.
#pragma once

#include <string_view>

#include "dedupe/fellegi_sunter.hpp"
#include "dedupe/match_kind.hpp"

namespace corvane::FieldAgreement {

// A normalised value with its Phonetic::key (empty for kinds that use none).
struct Value {
  std::string_view text;
  std::string_view sound;
};

// Whether values of this kind are compared by their sound keys.
bool usesSound(MatchKind kind);

// The level of two values; the sound keys must be given for kinds that use them.
FellegiSunter::Level level(Value a, Value b, MatchKind kind, MatchMode mode, bool taggedEmail);

// The same, computing the sound keys itself.
FellegiSunter::Level level(std::string_view a, std::string_view b, MatchKind kind,
                           MatchMode mode, bool taggedEmail = false);

}  // namespace corvane::FieldAgreement
