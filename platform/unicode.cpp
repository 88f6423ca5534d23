#include "platform/unicode.hpp"

#include <utf8proc.h>

#include <cstdlib>
#include <memory>

namespace corvane::Unicode {

namespace {

const auto* asBytes(std::string_view text) {
  return reinterpret_cast<const utf8proc_uint8_t*>(text.data());
}

// Replaces every invalid sequence with U+FFFD so that utf8proc_map, which
// refuses the whole input on one bad byte, can work on any text.
std::string repaired(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t offset = 0; offset < text.size();) {
    std::size_t length = 0;
    char32_t codePoint = decode(text, offset, length);
    if (codePoint == replacementCharacter && length == 1) {
      append(out, codePoint);
    } else {
      out.append(text.substr(offset, length));
    }
    offset += length;
  }
  return out;
}

std::string mapped(std::string_view text, int options) {
  if (text.empty()) return {};
  std::string valid = isValidUTF8(text) ? std::string(text) : repaired(text);
  utf8proc_uint8_t* result = nullptr;
  utf8proc_ssize_t length =
      utf8proc_map(asBytes(valid), static_cast<utf8proc_ssize_t>(valid.size()), &result,
                   static_cast<utf8proc_option_t>(options));
  if (length < 0) return valid;  // only on allocation failure; leave the text as it is
  std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owned(result, &std::free);
  return std::string(reinterpret_cast<const char*>(result), static_cast<std::size_t>(length));
}

utf8proc_category_t category(char32_t codePoint) {
  if (codePoint > 0x10FFFF) return UTF8PROC_CATEGORY_CN;
  return utf8proc_category(static_cast<utf8proc_int32_t>(codePoint));
}

}  // namespace

bool isValidUTF8(std::string_view text) {
  for (std::size_t offset = 0; offset < text.size();) {
    std::size_t length = 0;
    char32_t codePoint = decode(text, offset, length);
    if (codePoint == replacementCharacter && length == 1) {
      // U+FFFD itself is three bytes; a one-byte result means a bad sequence.
      return false;
    }
    offset += length;
  }
  return true;
}

char32_t decode(std::string_view text, std::size_t offset, std::size_t& length) {
  length = 0;
  if (offset >= text.size()) return replacementCharacter;
  utf8proc_int32_t codePoint = 0;
  utf8proc_ssize_t used = utf8proc_iterate(
      asBytes(text) + offset, static_cast<utf8proc_ssize_t>(text.size() - offset), &codePoint);
  if (used <= 0) {
    length = 1;
    return replacementCharacter;
  }
  length = static_cast<std::size_t>(used);
  return static_cast<char32_t>(codePoint);
}

void append(std::string& out, char32_t codePoint) {
  utf8proc_uint8_t buffer[4];
  if (!utf8proc_codepoint_valid(static_cast<utf8proc_int32_t>(codePoint))) {
    codePoint = replacementCharacter;
  }
  utf8proc_ssize_t length = utf8proc_encode_char(static_cast<utf8proc_int32_t>(codePoint), buffer);
  out.append(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(length));
}

std::string_view CharacterCursor::next() {
  if (atEnd()) return {};
  std::size_t start = offset_;
  std::size_t length = 0;
  char32_t current = decode(text_, offset_, length);
  offset_ += length;
  while (offset_ < text_.size()) {
    char32_t following = decode(text_, offset_, length);
    if (utf8proc_grapheme_break_stateful(static_cast<utf8proc_int32_t>(current),
                                         static_cast<utf8proc_int32_t>(following), &state_)) {
      break;
    }
    current = following;
    offset_ += length;
  }
  // The break state carries across a boundary only for the pair just tested;
  // starting the next character afresh keeps each call independent of the last.
  state_ = 0;
  return text_.substr(start, offset_ - start);
}

std::vector<std::size_t> characterBoundaries(std::string_view text) {
  std::vector<std::size_t> boundaries;
  CharacterCursor cursor(text);
  while (!cursor.atEnd()) {
    boundaries.push_back(cursor.offset());
    cursor.next();
  }
  boundaries.push_back(text.size());
  return boundaries;
}

std::size_t characterCount(std::string_view text) {
  std::size_t count = 0;
  CharacterCursor cursor(text);
  while (!cursor.atEnd()) {
    cursor.next();
    ++count;
  }
  return count;
}

std::string fold(std::string_view text) {
  return mapped(text, UTF8PROC_STABLE | UTF8PROC_COMPOSE | UTF8PROC_COMPAT | UTF8PROC_CASEFOLD |
                          UTF8PROC_STRIPMARK);
}

std::string lowercase(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t offset = 0; offset < text.size();) {
    std::size_t length = 0;
    char32_t codePoint = decode(text, offset, length);
    if (codePoint < 0x80) {
      char c = text[offset];
      out.push_back(c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c);
    } else {
      append(out, static_cast<char32_t>(utf8proc_tolower(static_cast<utf8proc_int32_t>(codePoint))));
    }
    offset += length;
  }
  return out;
}

bool isLetter(char32_t codePoint) {
  switch (category(codePoint)) {
    case UTF8PROC_CATEGORY_LU:
    case UTF8PROC_CATEGORY_LL:
    case UTF8PROC_CATEGORY_LT:
    case UTF8PROC_CATEGORY_LM:
    case UTF8PROC_CATEGORY_LO:
      return true;
    default:
      return false;
  }
}

bool isDecimalDigit(char32_t codePoint) { return category(codePoint) == UTF8PROC_CATEGORY_ND; }

bool isNumber(char32_t codePoint) {
  auto c = category(codePoint);
  return c == UTF8PROC_CATEGORY_ND || c == UTF8PROC_CATEGORY_NL || c == UTF8PROC_CATEGORY_NO;
}

bool isLetterOrDigit(char32_t codePoint) { return isLetter(codePoint) || isNumber(codePoint); }

bool isWhitespace(char32_t codePoint) {
  if (codePoint == '\t' || codePoint == '\n' || codePoint == '\v' || codePoint == '\f' ||
      codePoint == '\r' || codePoint == 0x85) {
    return true;
  }
  auto c = category(codePoint);
  return c == UTF8PROC_CATEGORY_ZS || c == UTF8PROC_CATEGORY_ZL || c == UTF8PROC_CATEGORY_ZP;
}

int digitValue(char32_t codePoint) {
  if (codePoint >= '0' && codePoint <= '9') return static_cast<int>(codePoint - '0');
  if (!isDecimalDigit(codePoint)) return -1;
  // Decimal digits come in runs of ten, zero first, and adjacent runs start
  // on a zero too; the distance from the run's start, modulo ten, is the value.
  char32_t start = codePoint;
  while (start > 0 && isDecimalDigit(start - 1)) --start;
  return static_cast<int>((codePoint - start) % 10);
}

}  // namespace corvane::Unicode
