#include "query/soql_scan.hpp"

#include <utf8proc.h>

#include <algorithm>

#include "platform/unicode.hpp"

namespace corvane {

namespace {

char upperASCIIByte(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

bool isASCII(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// The byte length of the character that starts at offset. Two ASCII bytes
// always have a character boundary between them, except CR LF, so the common
// case needs no segmentation.
std::size_t characterLength(std::string_view text, std::size_t offset) {
  auto byte = static_cast<unsigned char>(text[offset]);
  if (byte < 0x80 && byte != '\r') {
    if (offset + 1 >= text.size() || static_cast<unsigned char>(text[offset + 1]) < 0x80) return 1;
  }
  Unicode::CharacterCursor cursor(text.substr(offset));
  std::size_t length = cursor.next().size();
  return length == 0 ? 1 : length;
}

// Upper-cases each code point by its simple mapping.
std::string uppercased(std::string_view text) {
  std::string out;
  for (std::size_t offset = 0; offset < text.size();) {
    std::size_t length = 0;
    char32_t codePoint = Unicode::decode(text, offset, length);
    Unicode::append(
        out, static_cast<char32_t>(utf8proc_toupper(static_cast<utf8proc_int32_t>(codePoint))));
    offset += length;
  }
  return out;
}

}  // namespace

SoqlScan::SoqlScan(std::string_view text) : text_(text) {
  bounds_.reserve(text.size());
  for (std::size_t offset = 0; offset < text.size();) {
    bounds_.push_back(offset);
    offset += characterLength(text, offset);
  }
  const std::size_t count = bounds_.size();
  depth_.resize(count);
  flags_.resize(count);
  ascii_.resize(count);
  upper_.resize(count);

  std::int32_t depth = 0;
  bool inLiteral = false;
  bool escaped = false;
  for (std::size_t i = 0; i < count; ++i) {
    std::string_view ch = character(i);
    std::uint8_t flags = 0;
    char c = '\0';
    if (ch.size() == 1 && static_cast<unsigned char>(ch[0]) < 0x80) {
      c = ch[0];
      ascii_[i] = c;
      upper_[i] = upperASCIIByte(c);
      if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_')
        flags |= kWord;
      if (c == ' ' || c == '\t' || c == '\n' || c == '\r') flags |= kSpace;
    } else if (ch == "\r\n") {
      flags |= kSpace;
    } else {
      std::size_t length = 0;
      char32_t first = Unicode::decode(ch, 0, length);
      if (Unicode::isLetterOrDigit(first)) flags |= kWord;
      if (length == ch.size()) {
        auto upper = utf8proc_toupper(static_cast<utf8proc_int32_t>(first));
        if (upper > 0 && upper < 0x80) upper_[i] = static_cast<char>(upper);
      }
    }

    if (!inLiteral) {
      if (c == '\'') {
        inLiteral = true;
        flags |= kLiteral | kLiteralStart;
      } else if (c == '(') {
        ++depth;
      }
      depth_[i] = depth;
      if (c == ')') depth = std::max(0, depth - 1);
    } else {
      flags |= kLiteral;
      depth_[i] = depth;
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '\'') {
        inLiteral = false;
        flags |= kLiteralEnd;
      }
    }
    flags_[i] = flags;
  }
}

std::string_view SoqlScan::character(std::size_t i) const {
  if (i >= bounds_.size()) return {};
  std::size_t end = i + 1 < bounds_.size() ? bounds_[i + 1] : text_.size();
  return std::string_view(text_).substr(bounds_[i], end - bounds_[i]);
}

std::vector<std::string> SoqlScan::chars() const {
  std::vector<std::string> out;
  out.reserve(size());
  for (std::size_t i = 0; i < size(); ++i) out.emplace_back(character(i));
  return out;
}

std::string SoqlScan::text(CharRange range) const {
  std::size_t end = std::min(range.end, size());
  std::size_t start = std::min(range.start, end);
  return text_.substr(byteOffset(start), byteOffset(end) - byteOffset(start));
}

std::size_t SoqlScan::characterOffset(std::size_t byteOffset) const {
  if (byteOffset >= text_.size()) return size();
  auto after = std::upper_bound(bounds_.begin(), bounds_.end(), byteOffset);
  return static_cast<std::size_t>(after - bounds_.begin()) - 1;
}

std::optional<std::size_t> SoqlScan::matchWord(std::string_view word, std::size_t offset) const {
  if (isASCII(word)) {
    if (offset > size() || word.size() > size() - offset) return std::nullopt;
    for (std::size_t k = 0; k < word.size(); ++k) {
      if (upper_[offset + k] != upperASCIIByte(word[k])) return std::nullopt;
    }
    return offset + word.size();
  }
  // A word with non-ASCII characters: compare the upper-cased characters.
  SoqlScan wordScan(word);
  if (offset > size() || wordScan.size() > size() - offset) return std::nullopt;
  for (std::size_t k = 0; k < wordScan.size(); ++k) {
    if (uppercased(character(offset + k)) != uppercased(wordScan.character(k))) return std::nullopt;
  }
  return offset + wordScan.size();
}

std::optional<std::size_t> SoqlScan::matchWholeWord(std::string_view word, std::size_t i) const {
  if (inLiteral(i)) return std::nullopt;
  if (i > 0 && isWordCharacter(i - 1)) return std::nullopt;
  auto end = matchWord(word, i);
  if (!end || isWordCharacter(*end)) return std::nullopt;
  return end;
}

std::optional<std::string> SoqlScan::lastClauseKeyword(
    std::size_t before, std::span<const std::string_view> among) const {
  if (before < 1) return std::nullopt;
  before = std::min(before, size());
  if (before < 1) return std::nullopt;
  const int limit = depth(before - 1);
  // The upper-cased first letter of each keyword, when ASCII, for a cheap first test.
  std::vector<char> firstLetters;
  firstLetters.reserve(among.size());
  for (std::string_view keyword : among) {
    bool ascii = !keyword.empty() && static_cast<unsigned char>(keyword[0]) < 0x80;
    firstLetters.push_back(ascii ? upperASCIIByte(keyword[0]) : '\0');
  }
  std::optional<std::string_view> found;
  for (std::size_t i = 0; i < before; ++i) {
    // Only word starts outside literals, not deeper than the cursor, can begin a keyword.
    if (depth_[i] > limit || (flags_[i] & kLiteral) || (i > 0 && (flags_[i - 1] & kWord))) continue;
    for (std::size_t k = 0; k < among.size(); ++k) {
      if (among[k].empty() || (firstLetters[k] != '\0' && upper_[i] != firstLetters[k])) continue;
      if (matchWholeWord(among[k], i)) {
        found = among[k];
        break;
      }
    }
  }
  if (!found) return std::nullopt;
  return std::string(*found);
}

std::optional<std::string> SoqlScan::identifier(std::string_view after) const {
  if (size() == 0 || after.empty()) return std::nullopt;
  const int limit = depth(size() - 1);
  const bool asciiStart = static_cast<unsigned char>(after[0]) < 0x80;
  const char first = upperASCIIByte(after[0]);
  for (std::size_t i = 0; i < size(); ++i) {
    if (depth_[i] > limit || (asciiStart && upper_[i] != first)) continue;
    auto end = matchWholeWord(after, i);
    if (!end) continue;
    std::size_t j = *end;
    while (j < size() && isSpace(j)) ++j;
    std::size_t start = j;
    while (j < size() && isWordCharacter(j)) ++j;
    if (j == start) return std::nullopt;
    return text(CharRange{start, j});
  }
  return std::nullopt;
}

const std::vector<std::string_view>& SoqlScan::clauseKeywords() {
  static const std::vector<std::string_view> keywords = {"SELECT",   "FROM",   "WHERE",    "WITH",
                                                         "GROUP BY", "HAVING", "ORDER BY", "LIMIT",
                                                         "OFFSET",   "FOR"};
  return keywords;
}

std::optional<std::map<std::string, CharRange>> SoqlScan::clauses() const {
  std::size_t first = 0;
  while (first < size() && isSpace(first)) ++first;
  if (!matchWholeWord("SELECT", first) || depth(first) != 0) return std::nullopt;

  struct Found {
    std::string_view keyword;
    std::size_t start;
    std::size_t end;
  };
  std::vector<Found> found;
  for (std::size_t i = first; i < size(); ++i) {
    if (depth_[i] != 0 || upper_[i] == '\0') continue;
    for (std::string_view keyword : clauseKeywords()) {
      if (upper_[i] != keyword[0]) continue;
      auto end = matchWholeWord(keyword, i);
      if (!end) continue;
      bool seen = std::any_of(found.begin(), found.end(),
                              [&](const Found& f) { return f.keyword == keyword; });
      if (!seen) found.push_back({keyword, i, *end});
      i = *end - 1;
      break;
    }
  }
  std::map<std::string, CharRange> result;
  for (std::size_t k = 0; k < found.size(); ++k) {
    std::size_t next = k + 1 < found.size() ? found[k + 1].start : size();
    result[std::string(found[k].keyword)] = CharRange{found[k].end, std::max(next, found[k].end)};
  }
  return result;
}

int SoqlScan::shallowestDepth(CharRange range) const {
  int shallowest = -1;
  for (std::size_t i = range.start; i < range.end; ++i) {
    if (inLiteral(i)) continue;
    if (shallowest < 0 || depth_[i] < shallowest) shallowest = depth_[i];
  }
  return shallowest < 0 ? depth(range.start) : shallowest;
}

std::vector<CharRange> SoqlScan::splitTopLevel(CharRange range, std::string_view separator) const {
  range.end = std::min(range.end, size());
  range.start = std::min(range.start, range.end);
  std::vector<CharRange> pieces;
  const int level = shallowestDepth(range);
  std::size_t pieceStart = range.start;
  for (std::size_t i = range.start; i < range.end; ++i) {
    if (inLiteral(i) || depth_[i] != level || character(i) != separator) continue;
    pieces.push_back({pieceStart, i});
    pieceStart = i + 1;
  }
  pieces.push_back({pieceStart, range.end});
  return pieces;
}

std::vector<CharRange> SoqlScan::splitTopLevelWord(CharRange range, std::string_view word) const {
  range.end = std::min(range.end, size());
  range.start = std::min(range.start, range.end);
  if (word.empty()) return {range};
  std::vector<CharRange> pieces;
  const int level = shallowestDepth(range);
  std::size_t pieceStart = range.start;
  for (std::size_t i = range.start; i < range.end; ++i) {
    if (depth_[i] != level) continue;
    auto end = matchWholeWord(word, i);
    if (!end || *end > range.end) continue;
    pieces.push_back({pieceStart, i});
    pieceStart = *end;
    i = *end - 1;
  }
  pieces.push_back({pieceStart, range.end});
  return pieces;
}

std::optional<SoqlScan::Literal> SoqlScan::literal(std::size_t containing) const {
  if (!inLiteral(containing)) return std::nullopt;
  std::size_t start = containing;
  while (start > 0 && !(flags_[start] & kLiteralStart)) --start;
  std::size_t j = start + 1;
  if (containing > j) j = containing;
  while (j < size() && !(flags_[j] & kLiteralEnd)) ++j;
  if (j < size()) return Literal{CharRange{start, j + 1}, true};
  return Literal{CharRange{start, size()}, false};
}

}  // namespace corvane
