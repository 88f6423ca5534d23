// Unicode text helpers on UTF-8 bytes, through utf8proc: decoding one code
// point at a time, user-perceived characters (grapheme clusters), folding
// for comparison, and character classes.
//
// Nothing here throws on bad input: invalid bytes decode as U+FFFD one byte
// at a time, so every byte of any input belongs to exactly one character.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::Unicode {

inline constexpr char32_t replacementCharacter = 0xFFFD;

// True when text is well-formed UTF-8 (no overlong forms, no surrogates).
bool isValidUTF8(std::string_view text);

// Decodes the code point that starts at text[offset] and returns it; `length`
// receives how many bytes it took (at least 1 while offset < text.size()).
// An invalid sequence gives U+FFFD with length 1.
char32_t decode(std::string_view text, std::size_t offset, std::size_t& length);

// Appends the UTF-8 encoding of codePoint (U+FFFD for invalid values).
void append(std::string& out, char32_t codePoint);

// The byte offsets at which the user-perceived characters of text start,
// plus text.size() at the end: boundaries[i]..boundaries[i+1] is character i.
// "e\u0301", "\r\n", a flag or a family emoji are each one character.
std::vector<std::size_t> characterBoundaries(std::string_view text);

// The number of user-perceived characters.
std::size_t characterCount(std::string_view text);

// Walks the user-perceived characters of a text without allocating.
class CharacterCursor {
 public:
  explicit CharacterCursor(std::string_view text) : text_(text) {}
  // The byte offset of the next character's start (text.size() at the end).
  std::size_t offset() const { return offset_; }
  bool atEnd() const { return offset_ >= text_.size(); }
  // Moves past one character and returns its bytes (empty at the end).
  std::string_view next();

 private:
  std::string_view text_;
  std::size_t offset_ = 0;
  std::int32_t state_ = 0;
};

// Folds text for comparison: case-insensitive (full case folding),
// diacritic-insensitive (marks removed after canonical decomposition) and
// width-insensitive (compatibility forms: full-width letters, ligatures),
// recomposed in NFC. Invalid bytes become U+FFFD.
std::string fold(std::string_view text);

// Lower-cases text (simple per-code-point mapping), leaving all else alone.
std::string lowercase(std::string_view text);

// Character classes by Unicode general category.
bool isLetter(char32_t codePoint);        // L*
bool isDecimalDigit(char32_t codePoint);  // Nd
bool isNumber(char32_t codePoint);        // N*
bool isLetterOrDigit(char32_t codePoint); // L* or N*
bool isWhitespace(char32_t codePoint);    // Zs, Zl, Zp and the ASCII controls \t \n \v \f \r, U+0085

// The value 0-9 of a decimal digit of any script (Nd), or -1 for anything else.
int digitValue(char32_t codePoint);

}  // namespace corvane::Unicode
