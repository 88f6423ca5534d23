#include "tools/orgsim/generate/text_forms.hpp"

#include <array>
#include <cctype>
#include <vector>

namespace corvane::orgsim::TextForms {

namespace {

// A precomposed letter, its ASCII base, how German spells it out, and the
// combining mark that follows the base when decomposed (empty: none exists).
struct Accented {
  std::string_view composed;
  std::string_view base;
  std::string_view spelledOut;
  std::string_view mark;
};

constexpr std::string_view kAcute = "\u0301", kGrave = "\u0300", kCircumflex = "\u0302",
                           kTilde = "\u0303", kDiaeresis = "\u0308", kCedilla = "\u0327",
                           kCaron = "\u030C", kRing = "\u030A", kBreve = "\u0306";

constexpr Accented kAccented[] = {
    {"á", "a", "a", kAcute},      {"à", "a", "a", kGrave},      {"â", "a", "a", kCircumflex},
    {"ä", "a", "ae", kDiaeresis}, {"ã", "a", "a", kTilde},      {"å", "a", "aa", kRing},
    {"é", "e", "e", kAcute},      {"è", "e", "e", kGrave},      {"ê", "e", "e", kCircumflex},
    {"ë", "e", "e", kDiaeresis},  {"í", "i", "i", kAcute},      {"ì", "i", "i", kGrave},
    {"î", "i", "i", kCircumflex}, {"ï", "i", "i", kDiaeresis},  {"ó", "o", "o", kAcute},
    {"ò", "o", "o", kGrave},      {"ô", "o", "o", kCircumflex}, {"ö", "o", "oe", kDiaeresis},
    {"õ", "o", "o", kTilde},      {"ú", "u", "u", kAcute},      {"ù", "u", "u", kGrave},
    {"û", "u", "u", kCircumflex}, {"ü", "u", "ue", kDiaeresis}, {"ñ", "n", "n", kTilde},
    {"ç", "c", "c", kCedilla},    {"ř", "r", "r", kCaron},      {"š", "s", "s", kCaron},
    {"č", "c", "c", kCaron},      {"ž", "z", "z", kCaron},      {"ğ", "g", "g", kBreve},
    {"ś", "s", "s", kAcute},      {"ń", "n", "n", kAcute},      {"ý", "y", "y", kAcute},
    {"ễ", "e", "e", ""},          {"ị", "i", "i", ""},          {"ư", "u", "u", ""},
    {"ă", "a", "a", kBreve},      {"ı", "i", "i", ""},          {"ø", "o", "oe", ""},
    {"æ", "ae", "ae", ""},        {"ł", "l", "l", ""},          {"ß", "ss", "ss", ""},
    {"Á", "A", "A", kAcute},      {"É", "E", "E", kAcute},      {"Í", "I", "I", kAcute},
    {"Ó", "O", "O", kAcute},      {"Ú", "U", "U", kAcute},      {"Ä", "A", "Ae", kDiaeresis},
    {"Ö", "O", "Oe", kDiaeresis}, {"Ü", "U", "Ue", kDiaeresis}, {"Å", "A", "Aa", kRing},
    {"Ø", "O", "Oe", ""},         {"Æ", "AE", "Ae", ""},        {"Ł", "L", "L", ""},
    {"Ś", "S", "S", kAcute},      {"Č", "C", "C", kCaron},      {"Š", "S", "S", kCaron},
    {"Ž", "Z", "Z", kCaron},      {"Ñ", "N", "N", kTilde},      {"Ç", "C", "C", kCedilla},
    {"Î", "I", "I", kCircumflex}, {"Ó", "O", "O", kAcute},
};

const Accented* accentedAt(std::string_view text, std::size_t at) {
  for (const auto& entry : kAccented) {
    if (text.substr(at, entry.composed.size()) == entry.composed) return &entry;
  }
  return nullptr;
}

std::size_t sequenceLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if ((lead >> 5) == 0x6) return 2;
  if ((lead >> 4) == 0xE) return 3;
  if ((lead >> 3) == 0x1E) return 4;
  return 1;
}

// Typing mistakes land on ASCII letters and digits (names, house numbers, postcodes).
bool isAsciiLetter(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; }

constexpr std::array<std::string_view, 3> kKeyboardRows = {"qwertyuiop", "asdfghjkl", "zxcvbnm"};

}  // namespace

char keyboardNeighbour(char letter, RandomSource& random) {
  static constexpr std::string_view kDigits = "1234567890";
  if (auto at = kDigits.find(letter); at != std::string_view::npos) {
    if (at == 0) return kDigits[1];
    if (at + 1 == kDigits.size()) return kDigits[at - 1];
    return kDigits[random.chance(0.5) ? at - 1 : at + 1];
  }
  bool isUpper = std::isupper(static_cast<unsigned char>(letter)) != 0;
  char lowerLetter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
  for (std::size_t row = 0; row < kKeyboardRows.size(); ++row) {
    auto at = kKeyboardRows[row].find(lowerLetter);
    if (at == std::string_view::npos) continue;
    // Left and right on the same row, and the keys above and below.
    std::vector<char> near;
    if (at > 0) near.push_back(kKeyboardRows[row][at - 1]);
    if (at + 1 < kKeyboardRows[row].size()) near.push_back(kKeyboardRows[row][at + 1]);
    if (row > 0 && at < kKeyboardRows[row - 1].size()) near.push_back(kKeyboardRows[row - 1][at]);
    if (row + 1 < kKeyboardRows.size() && at < kKeyboardRows[row + 1].size()) {
      near.push_back(kKeyboardRows[row + 1][at]);
    }
    char chosen = near[static_cast<std::size_t>(random.below(near.size()))];
    return isUpper ? static_cast<char>(std::toupper(static_cast<unsigned char>(chosen))) : chosen;
  }
  return letter;
}

std::string withTypo(std::string_view text, Typo kind, RandomSource& random) {
  // Places that can take the mistake: ASCII letters after the first character.
  std::vector<std::size_t> places;
  for (std::size_t i = 1; i < text.size(); ++i) {
    if (!isAsciiLetter(text[i])) continue;
    if (kind == Typo::Transposition &&
        (i + 1 >= text.size() || !isAsciiLetter(text[i + 1]) || text[i] == text[i + 1])) {
      continue;
    }
    places.push_back(i);
  }
  std::size_t letters = 0;
  for (char c : text) letters += isAsciiLetter(c) ? 1 : 0;
  if (places.empty() || (kind == Typo::Deletion && letters < 4)) return std::string(text);
  std::size_t at = places[static_cast<std::size_t>(random.below(places.size()))];
  std::string out(text);
  switch (kind) {
    case Typo::KeyboardNeighbour:
      out[at] = keyboardNeighbour(out[at], random);
      break;
    case Typo::Transposition:
      std::swap(out[at], out[at + 1]);
      break;
    case Typo::Deletion:
      out.erase(at, 1);
      break;
    case Typo::Doubling:
      out.insert(at, 1, out[at]);
      break;
  }
  return out;
}

std::string withTypo(std::string_view text, RandomSource& random) {
  return withTypo(text, static_cast<Typo>(random.below(4)), random);
}

std::string asciiFolded(std::string_view text, bool spellOutUmlauts) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    unsigned char c = static_cast<unsigned char>(text[at]);
    if (c < 0x80) {
      out += static_cast<char>(c);
      ++at;
      continue;
    }
    if (const Accented* entry = accentedAt(text, at)) {
      out += spellOutUmlauts ? entry->spelledOut : entry->base;
      at += entry->composed.size();
      continue;
    }
    at += sequenceLength(c);  // no ASCII form: dropped
  }
  return out;
}

std::string decomposed(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 8);
  for (std::size_t at = 0; at < text.size();) {
    const Accented* entry =
        static_cast<unsigned char>(text[at]) >= 0x80 ? accentedAt(text, at) : nullptr;
    if (entry != nullptr && !entry->mark.empty()) {
      out += entry->base;
      out += entry->mark;
      at += entry->composed.size();
      continue;
    }
    std::size_t length = sequenceLength(static_cast<unsigned char>(text[at]));
    out += text.substr(at, length);
    at += length;
  }
  return out;
}

bool hasDecomposable(std::string_view text) { return decomposed(text) != text; }

std::string upper(std::string_view text) {
  std::string out(text);
  for (auto& c : out) {
    if (static_cast<unsigned char>(c) < 0x80) {
      c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
  }
  return out;
}

std::string lower(std::string_view text) {
  std::string out(text);
  for (auto& c : out) {
    if (static_cast<unsigned char>(c) < 0x80) {
      c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
  }
  return out;
}

std::string slug(std::string_view text, bool spellOutUmlauts) {
  std::string out;
  for (char c : asciiFolded(text, spellOutUmlauts)) {
    if (std::isalnum(static_cast<unsigned char>(c))) {
      out += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
  }
  return out;
}

}  // namespace corvane::orgsim::TextForms
