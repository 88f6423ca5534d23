// A forgiving scanner of SOQL text, shared by the editor's completion and by
// the query builder that reads a hand-written query back into its clauses.
//
// It knows only two things about every user-perceived character: how deeply
// it is nested in parentheses, and whether it lies inside a single-quoted
// literal. It never fails and never throws: unbalanced parentheses clamp the
// depth at 0, and an unclosed literal runs to the end of the text.
//
// Every offset and range here counts user-perceived characters (grapheme
// clusters), not bytes: "é", "\r\n" and a family emoji are one character each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

// A half-open range of character offsets.
struct CharRange {
  std::size_t start = 0;
  std::size_t end = 0;

  std::size_t length() const { return end > start ? end - start : 0; }
  bool operator==(const CharRange&) const = default;
};

class SoqlScan {
 public:
  // The range of one single-quoted literal, quotes included, and whether its
  // closing quote exists (an unclosed literal runs to the end of the text).
  struct Literal {
    CharRange range;
    bool closed = false;
    bool operator==(const Literal&) const = default;
  };

  // Scans text once. Invalid UTF-8 bytes count as one character each.
  explicit SoqlScan(std::string_view text);

  // The number of characters.
  std::size_t size() const { return depth_.size(); }
  // Character i's bytes; empty past the end.
  std::string_view character(std::size_t i) const;
  // Every character, each as its own string.
  std::vector<std::string> chars() const;
  // The parenthesis depth recorded for character i: "(" records the raised
  // depth, ")" the depth before it closes. 0 past the end.
  int depth(std::size_t i) const { return i < depth_.size() ? depth_[i] : 0; }
  const std::vector<std::int32_t>& depths() const { return depth_; }
  // True for every character of a single-quoted literal, both quotes included.
  bool inLiteral(std::size_t i) const { return i < flags_.size() && (flags_[i] & kLiteral); }

  // The characters of a range joined into a string; the range is clamped to the text.
  std::string text(CharRange range) const;
  // The whole text.
  const std::string& text() const { return text_; }

  // The offset just past `word` when the text at `offset` matches it,
  // comparing upper-cased characters one by one; none when it does not match
  // or would run past the end. A two-word keyword matches only with exactly
  // one blank between its words.
  std::optional<std::size_t> matchWord(std::string_view word, std::size_t offset) const;

  // The keyword of `among` (returned as spelled there) that starts last before
  // `before`, outside literals, not deeper than the character before `before`,
  // starting and ending a word. None when `before` < 1 or nothing matches.
  std::optional<std::string> lastClauseKeyword(std::size_t before,
                                               std::span<const std::string_view> among) const;

  // The identifier (letters, digits and "_") that follows the first top-level,
  // whole-word occurrence of `after`, past any blanks and line breaks.
  std::optional<std::string> identifier(std::string_view after) const;

  // The clause keywords a SELECT query splits on, in their order.
  static const std::vector<std::string_view>& clauseKeywords();

  // For a SELECT query: each top-level clause keyword that occurs (first
  // occurrence) mapped to the range of its body, from just past the keyword to
  // the start of the next clause keyword or the end of the text. None when the
  // text does not start (after blanks) with SELECT.
  std::optional<std::map<std::string, CharRange>> clauses() const;

  // Splits range at every occurrence of the one-character `separator` that
  // lies outside literals at the range's own depth (its shallowest depth).
  // Pieces exclude the separators; empty pieces are kept.
  std::vector<CharRange> splitTopLevel(CharRange range, std::string_view separator) const;

  // Splits range at every whole-word, case-insensitive occurrence of `word`
  // (such as "AND") outside literals at the range's own depth.
  std::vector<CharRange> splitTopLevelWord(CharRange range, std::string_view word) const;

  // The literal that character `containing` belongs to; none when it is not in one.
  std::optional<Literal> literal(std::size_t containing) const;

  // Character classes of character i, false past the end.
  // A letter or digit of any script, or "_": the characters of identifiers.
  bool isWordCharacter(std::size_t i) const { return i < flags_.size() && (flags_[i] & kWord); }
  // Blank, tab, line feed, carriage return or CR LF.
  bool isSpace(std::size_t i) const { return i < flags_.size() && (flags_[i] & kSpace); }
  // The character when it is one ASCII byte, else 0.
  char ascii(std::size_t i) const { return i < ascii_.size() ? ascii_[i] : '\0'; }
  // The upper-cased character when that is one ASCII byte, else 0.
  char upperASCII(std::size_t i) const { return i < upper_.size() ? upper_[i] : '\0'; }

  // The byte offset at which character i starts (the text's size at or past the end).
  std::size_t byteOffset(std::size_t i) const {
    return i < bounds_.size() ? bounds_[i] : text_.size();
  }
  // The character offset of a byte offset (the character that contains it).
  std::size_t characterOffset(std::size_t byteOffset) const;

 private:
  static constexpr std::uint8_t kLiteral = 1;
  static constexpr std::uint8_t kLiteralStart = 2;
  static constexpr std::uint8_t kLiteralEnd = 4;  // a closing quote
  static constexpr std::uint8_t kWord = 8;
  static constexpr std::uint8_t kSpace = 16;

  // Whether a whole-word match of word starts at i (outside literals).
  std::optional<std::size_t> matchWholeWord(std::string_view word, std::size_t i) const;
  int shallowestDepth(CharRange range) const;

  std::string text_;
  std::vector<std::size_t> bounds_;  // byte offset of each character's start
  std::vector<std::int32_t> depth_;
  std::vector<std::uint8_t> flags_;
  std::vector<char> ascii_;  // the character when it is one ASCII byte, else 0
  std::vector<char> upper_;  // its upper-cased form when that is one ASCII byte, else 0
};

}  // namespace corvane
