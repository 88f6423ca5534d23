// Ways the same text gets written differently: typing mistakes, accents dropped
// or spelled out, accents stored decomposed, letter case.
//
// Everything works on UTF-8 and never cuts a multi-byte character in two: typing
// mistakes touch only ASCII letters and digits, the rest of the text passes through.
#pragma once

#include <string>
#include <string_view>

#include "tools/orgsim/generate/random_source.hpp"

namespace corvane::orgsim::TextForms {

enum class Typo {
  KeyboardNeighbour,  // "Smith" -> "Smitj"
  Transposition,      // "Smith" -> "Smtih"
  Deletion,           // "Smith" -> "Smth"
  Doubling,           // "Smith" -> "Smiith"
};

// One typing mistake of that kind, never on the first character. The text comes
// back unchanged when it has no place for one (too few ASCII letters or digits).
std::string withTypo(std::string_view text, Typo kind, RandomSource& random);
// One typing mistake of a kind chosen at random.
std::string withTypo(std::string_view text, RandomSource& random);

// A key next to `letter` on a US keyboard, in the same case (a digit: the
// digit beside it); other characters come back as they are.
char keyboardNeighbour(char letter, RandomSource& random);

// The text in ASCII: accented Latin letters lose their accents ("José" ->
// "Jose"), German ones may be spelled out ("Müller" -> "Mueller" when
// spellOutUmlauts), and characters with no ASCII form are dropped.
std::string asciiFolded(std::string_view text, bool spellOutUmlauts = false);

// The text with its accented letters stored decomposed: a base letter followed by
// a combining mark ("é" becomes "e" U+0301). Looks the same, compares different.
std::string decomposed(std::string_view text);

// True when the text holds a character that decomposed() changes.
bool hasDecomposable(std::string_view text);

// Letter case of ASCII letters only (other scripts are left alone).
std::string upper(std::string_view text);
std::string lower(std::string_view text);

// Letters and digits only, lower-cased ASCII: the text as a host or user name.
std::string slug(std::string_view text, bool spellOutUmlauts = false);

}  // namespace corvane::orgsim::TextForms
