#include "dedupe/normalizer.hpp"

#include <array>

#include "platform/unicode.hpp"

namespace corvane::Normalizer {

namespace {


constexpr std::array<std::string_view, 6> personTitles{"mr", "mrs", "ms", "miss", "dr", "prof"};
constexpr std::array<std::string_view, 3> postNominals{"md", "phd", "esq"};
constexpr std::array<std::string_view, 5> generationSuffixes{"jr", "sr", "ii", "iii", "iv"};
constexpr std::array<std::string_view, 15> legalForms{
    "inc", "incorporated", "llc", "llp", "lp", "ltd", "limited", "corp",
    "corporation", "co", "company", "plc", "pllc", "pc", "gmbh"};
constexpr std::array<std::string_view, 4> extensionMarkers{"extension", "ext", "x", "#"};
constexpr std::array<std::string_view, 3> nameFieldObjects{"contact", "lead", "user"};

template <std::size_t N>
bool isOneOf(std::string_view word, const std::array<std::string_view, N>& table) {
  for (std::string_view entry : table) {
    if (entry == word) return true;
  }
  return false;
}

bool isASCII(std::string_view text) {
  for (char c : text) {
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  }
  return true;
}

// Folds and keeps letters and digits, one blank for each run of anything else.
std::string foldedWords(std::string_view value) {
  std::string out;
  out.reserve(value.size());
  bool pendingBlank = false;
  if (isASCII(value)) {
    for (char c : value) {
      bool lower = c >= 'a' && c <= 'z';
      bool upper = c >= 'A' && c <= 'Z';
      bool digit = c >= '0' && c <= '9';
      if (!(lower || upper || digit)) {
        pendingBlank = !out.empty();
        continue;
      }
      if (pendingBlank) out.push_back(' ');
      pendingBlank = false;
      out.push_back(upper ? static_cast<char>(c - 'A' + 'a') : c);
    }
    return out;
  }
  std::string folded = Unicode::fold(value);
  std::string_view text(folded);
  for (std::size_t offset = 0; offset < text.size();) {
    std::size_t length = 0;
    char32_t codePoint = Unicode::decode(text, offset, length);
    if (Unicode::isLetterOrDigit(codePoint)) {
      if (pendingBlank) out.push_back(' ');
      pendingBlank = false;
      out.append(text.substr(offset, length));
    } else {
      pendingBlank = !out.empty();
    }
    offset += length;
  }
  return out;
}

// The blank-separated words of a normalised text, as a [first, last) window
// that can shrink from both ends without copying.
struct WordWindow {
  std::string_view text;
  std::size_t begin = 0;
  std::size_t end = 0;

  explicit WordWindow(std::string_view t) : text(t), end(t.size()) {}
  bool empty() const { return begin >= end; }
  std::size_t wordCount() const {
    if (empty()) return 0;
    std::size_t count = 1;
    for (std::size_t i = begin; i < end; ++i) count += text[i] == ' ';
    return count;
  }
  std::string_view first() const {
    std::size_t blank = text.find(' ', begin);
    if (blank == std::string_view::npos || blank > end) blank = end;
    return text.substr(begin, blank - begin);
  }
  std::string_view last() const {
    std::size_t blank = text.rfind(' ', end - 1);
    std::size_t start = (blank == std::string_view::npos || blank < begin) ? begin : blank + 1;
    return text.substr(start, end - start);
  }
  void dropFirst() {
    begin += first().size() + 1;
    if (begin > end) begin = end;
  }
  void dropLast() {
    std::size_t size = last().size();
    end = end - size == begin ? begin : end - size - 1;
  }
  std::string str() const { return std::string(text.substr(begin, end - begin)); }
};

std::string withoutNameNoise(const std::string& words) {
  WordWindow window(words);
  while (!window.empty() && isOneOf(window.first(), personTitles)) window.dropFirst();
  while (!window.empty() && isOneOf(window.last(), postNominals)) window.dropLast();
  return window.begin == 0 && window.end == words.size() ? words : window.str();
}

std::string withoutCompanyNoise(const std::string& words) {
  WordWindow window(words);
  std::size_t count = window.wordCount();
  if (count >= 2 && window.first() == "the") {
    window.dropFirst();
    --count;
  }
  while (count >= 2 && isOneOf(window.last(), legalForms)) {
    window.dropLast();
    --count;
  }
  return window.begin == 0 && window.end == words.size() ? words : window.str();
}

bool isBlankOrBreak(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

std::string normalizedEmail(std::string_view value) {
  std::size_t begin = 0;
  std::size_t end = value.size();
  while (begin < end && isBlankOrBreak(value[begin])) ++begin;
  while (end > begin && isBlankOrBreak(value[end - 1])) --end;
  value = value.substr(begin, end - begin);
  if (!isASCII(value)) return Unicode::lowercase(value);
  std::string out(value);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

// Appends the value 0-9 of every decimal digit (of any script) in text.
std::string digitsOf(std::string_view text) {
  std::string digits;
  digits.reserve(text.size());
  for (std::size_t offset = 0; offset < text.size();) {
    unsigned char byte = static_cast<unsigned char>(text[offset]);
    if (byte < 0x80) {
      if (byte >= '0' && byte <= '9') digits.push_back(static_cast<char>(byte));
      ++offset;
      continue;
    }
    std::size_t length = 0;
    int value = Unicode::digitValue(Unicode::decode(text, offset, length));
    if (value >= 0) digits.push_back(static_cast<char>('0' + value));
    offset += length;
  }
  return digits;
}

bool isAllDigits(std::string_view text) {
  if (text.empty()) return false;
  for (std::size_t offset = 0; offset < text.size();) {
    std::size_t length = 0;
    if (Unicode::digitValue(Unicode::decode(text, offset, length)) < 0) return false;
    offset += length;
  }
  return true;
}

std::string normalizedPhone(std::string_view value) {
  std::string digits = digitsOf(stripExtension(value));
  if (digits.size() == 11 && digits[0] == '1') digits.erase(0, 1);
  return digits;
}

std::string lowercased(std::string_view text) {
  if (!isASCII(text)) return Unicode::lowercase(text);
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

}  // namespace

std::string normalize(std::string_view value, MatchKind kind) {
  switch (kind) {
    case MatchKind::text:
      return foldedWords(value);
    case MatchKind::personName:
      return withoutNameNoise(foldedWords(value));
    case MatchKind::companyName:
      return withoutCompanyNoise(foldedWords(value));
    case MatchKind::email:
      return normalizedEmail(value);
    case MatchKind::phone:
      return normalizedPhone(value);
  }
  return std::string(value);
}

std::string stripExtension(std::string_view value) {
  std::string lowered = lowercased(value);
  for (std::string_view marker : extensionMarkers) {
    std::size_t at = lowered.rfind(marker);
    if (at == std::string::npos) continue;
    std::string_view rest = std::string_view(lowered).substr(at + marker.size());
    std::size_t start = rest.find_first_not_of(" .:");
    if (start == std::string_view::npos) continue;
    if (isAllDigits(rest.substr(start))) {
      lowered.resize(at);
      break;
    }
  }
  return lowered;
}

MatchKind guessKind(std::string_view fieldName, std::string_view fieldType,
                    std::string_view objectName) {
  if (fieldType == "email") return MatchKind::email;
  if (fieldType == "phone") return MatchKind::phone;
  std::size_t dot = fieldName.rfind('.');
  std::string name = lowercased(dot == std::string_view::npos ? fieldName : fieldName.substr(dot + 1));
  auto contains = [&name](std::string_view part) { return name.find(part) != std::string::npos; };
  if (contains("phone") || contains("fax") || contains("mobile")) return MatchKind::phone;
  if (contains("email")) return MatchKind::email;
  if (!name.ends_with("name")) return MatchKind::text;
  std::string object = lowercased(objectName);
  if (isOneOf(std::string_view(object), nameFieldObjects) || contains("firstname") ||
      contains("lastname") || contains("contact")) {
    return MatchKind::personName;
  }
  return MatchKind::companyName;
}

std::optional<std::string> generationSuffix(const std::vector<std::string>& words) {
  if (words.empty() || !isOneOf(std::string_view(words.back()), generationSuffixes)) {
    return std::nullopt;
  }
  return words.back();
}

}  // namespace corvane::Normalizer
