#include "dedupe/phonetic.hpp"

#include <utf8proc.h>

#include <vector>

#include "platform/unicode.hpp"

namespace corvane::Phonetic {

namespace {

bool isVowelLike(char32_t c) {
  return c == 'a' || c == 'e' || c == 'i' || c == 'o' || c == 'u' || c == 'y' || c == 'h' ||
         c == 'w';
}

bool isSoftener(char32_t c) { return c == 'e' || c == 'i' || c == 'y'; }

char32_t lowered(char32_t c) {
  if (c < 0x80) return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c;
  return static_cast<char32_t>(utf8proc_tolower(static_cast<utf8proc_int32_t>(c)));
}

char32_t uppered(char32_t c) {
  if (c < 0x80) return c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c;
  return static_cast<char32_t>(utf8proc_toupper(static_cast<utf8proc_int32_t>(c)));
}

bool isLetterWord(std::string_view word) {
  if (word.empty()) return false;
  for (std::size_t offset = 0; offset < word.size();) {
    std::size_t length = 0;
    if (!Unicode::isLetter(Unicode::decode(word, offset, length))) return false;
    offset += length;
  }
  return true;
}

}  // namespace

std::string encode(std::string_view word) {
  std::vector<char32_t> letters;
  letters.reserve(word.size());
  for (std::size_t offset = 0; offset < word.size();) {
    std::size_t length = 0;
    letters.push_back(lowered(Unicode::decode(word, offset, length)));
    offset += length;
  }
  if (letters.empty()) return {};

  if (letters.size() >= 2) {
    char32_t a = letters[0];
    char32_t b = letters[1];
    bool silentFirst = (a == 'k' && b == 'n') || (a == 'g' && b == 'n') ||
                       (a == 'w' && b == 'r') || (a == 'p' && b == 's');
    if (silentFirst || (a == 'w' && b == 'h')) {
      // "wh" becomes "w" + rest: dropping the h is dropping the second letter.
      letters.erase(silentFirst ? letters.begin() : letters.begin() + 1);
    } else if (a == 'x') {
      letters[0] = 's';
    }
  }

  std::vector<char32_t> code;
  code.reserve(letters.size() + 2);
  auto put = [&code](char32_t c) {
    if (code.empty() || code.back() != c) code.push_back(c);
  };
  for (std::size_t i = 0; i < letters.size(); ++i) {
    char32_t c = letters[i];
    char32_t next = i + 1 < letters.size() ? letters[i + 1] : U' ';
    bool skip = false;
    switch (c) {
      case 'c':
        if (next == 'h') {
          put('x');
          skip = true;
        } else {
          put(isSoftener(next) ? 's' : 'k');
        }
        break;
      case 'g':
        if (next == 'h') {
          put('k');
          skip = true;
        } else {
          put(isSoftener(next) ? 'j' : 'k');
        }
        break;
      case 'p':
      case 's':
      case 't':
        if (next == 'h') {
          put(c == 'p' ? U'f' : c == 's' ? U'x' : U'0');
          skip = true;
        } else {
          put(c);
        }
        break;
      case 'd':
        put('t');
        break;
      case 'q':
      case 'k':
        put('k');
        break;
      case 'x':
        put('k');
        put('s');
        break;
      case 'z':
        put('s');
        break;
      case 'v':
        put('f');
        break;
      case 'b':
      case 'f':
      case 'j':
      case 'l':
      case 'm':
      case 'n':
      case 'r':
        put(c);
        break;
      default:
        if (!isVowelLike(c)) {
          put(c);
        } else if (code.empty()) {
          put(c);
        }
        break;
    }
    if (skip) ++i;
  }

  std::string out;
  out.reserve(code.size());
  for (char32_t c : code) Unicode::append(out, uppered(c));
  return out;
}

std::string key(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  std::size_t start = 0;
  bool first = true;
  while (start <= text.size()) {
    std::size_t blank = text.find(' ', start);
    if (blank == std::string_view::npos) blank = text.size();
    std::string_view word = text.substr(start, blank - start);
    if (!word.empty()) {
      if (!first) out.push_back(' ');
      first = false;
      if (isLetterWord(word)) {
        out += encode(word);
      } else {
        out.append(word);
      }
    }
    start = blank + 1;
  }
  return out;
}

}  // namespace corvane::Phonetic
