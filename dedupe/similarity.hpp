// String scores for the matcher, on UTF-8 bytes (normalised text), 0 to 1.
//
// Built for the hot loop: no function here allocates for inputs of up to 64
// bytes; longer inputs take the flag arrays or rows the algorithm needs and
// nothing more. Pure functions, safe from any thread.
#pragma once

#include <string_view>

namespace corvane::Similarity {

// Jaro similarity: both empty or equal 1, one empty 0.
double jaro(std::string_view a, std::string_view b);

// Jaro plus a bonus of 0.1 per byte of common prefix (at most four) times the
// distance to 1, whatever the Jaro score.
double jaroWinkler(std::string_view a, std::string_view b);

// Dice coefficient of the multisets of adjacent byte pairs.
double bigramDice(std::string_view a, std::string_view b);

// jaroWinkler of the two texts with their blank-separated words sorted, so
// that word order does not count ("smith john" equals "john smith").
double tokenSortRatio(std::string_view a, std::string_view b);

// Whether the optimal-string-alignment distance (insert, delete, substitute,
// swap two adjacent bytes) between a and b is at most k.
bool withinEdits(std::string_view a, std::string_view b, int k);

// Whether the shorter text has at least minDigits bytes and the longer ends
// with it (a phone number with and without its area code).
bool suffixMatch(std::string_view a, std::string_view b, int minDigits);

}  // namespace corvane::Similarity
