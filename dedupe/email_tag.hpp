// Plus-addressing: "jo+news@example.com" reaches the same inbox as
// "jo@example.com". Works on the bytes of normalised addresses, without
// building strings except for canonical. Pure functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "dedupe/flat_column.hpp"

namespace corvane::EmailTag {

// The score of two addresses that differ only in a plus-tag: below an exact
// match, above everything else.
inline constexpr double sameInboxScore = 0.99;

// Whether the part before the last "@" holds a "+" that is not its first byte
// and none of the bytes " , ; @ (quoted or odd local parts are left alone).
bool hasTag(std::string_view address);

// The local part without its tag; none when there is nothing to strip.
std::optional<std::string_view> strippedLocal(std::string_view local);

// The address with its tag removed (the address itself when it has none).
std::string canonical(std::string_view address);

// Whether two different addresses have the same canonical form.
bool sameInbox(std::string_view a, std::string_view b);

// Whether any value of the column has a tag.
bool columnHasTags(const FlatColumn& column);

}  // namespace corvane::EmailTag
