// A sound code for names, so that "Thompson" and "Tomson" can meet: a reduced
// set of Metaphone-style rules of this project's own. Upper-case output, no
// length limit. Pure functions, safe from any thread.
#pragma once

#include <string>
#include <string_view>

namespace corvane::Phonetic {

// The code of one word ("thompson" gives "0MPSN", "knight" "NKT").
std::string encode(std::string_view word);

// The codes of the blank-separated words of a normalised text; a word that
// holds anything but letters is kept as it is.
std::string key(std::string_view text);

}  // namespace corvane::Phonetic
