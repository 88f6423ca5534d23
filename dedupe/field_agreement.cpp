#include "dedupe/field_agreement.hpp"

#include <algorithm>
#include <array>
#include <string>

#include "dedupe/email_tag.hpp"
#include "dedupe/matcher.hpp"
#include "dedupe/phonetic.hpp"
#include "dedupe/similarity.hpp"

namespace corvane::FieldAgreement {
namespace {

using FellegiSunter::Level;

constexpr double closeSimilarity = 0.92;
constexpr double partialSimilarity = 0.80;

bool allDigits(std::string_view value) {
  return std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// The words of a value (at most 16; further words are ignored).
struct Words {
  std::array<std::string_view, 16> items;
  std::size_t count = 0;
};

Words words(std::string_view value) {
  Words result;
  std::size_t start = 0;
  while (start < value.size() && result.count < result.items.size()) {
    std::size_t end = value.find(' ', start);
    if (end == std::string_view::npos) end = value.size();
    if (end > start) result.items[result.count++] = value.substr(start, end - start);
    start = end + 1;
  }
  return result;
}

bool shareWord(const Words& a, const Words& b) {
  for (std::size_t i = 0; i < a.count; ++i) {
    if (a.items[i].size() < 2) continue;
    for (std::size_t j = 0; j < b.count; ++j) {
      if (a.items[i] == b.items[j]) return true;
    }
  }
  return false;
}

// jaroWinkler of the two values with their words sorted, built on the stack
// for short values.
double sortedWordsSimilarity(Words a, Words b, std::string_view rawA, std::string_view rawB) {
  constexpr std::size_t room = 128;
  if (rawA.size() >= room || rawB.size() >= room) return Similarity::tokenSortRatio(rawA, rawB);
  const auto join = [](Words& w, std::array<char, room>& buffer) {
    std::sort(w.items.begin(), w.items.begin() + static_cast<std::ptrdiff_t>(w.count));
    std::size_t size = 0;
    for (std::size_t i = 0; i < w.count; ++i) {
      if (size > 0) buffer[size++] = ' ';
      std::copy(w.items[i].begin(), w.items[i].end(), buffer.begin() + static_cast<std::ptrdiff_t>(size));
      size += w.items[i].size();
    }
    return std::string_view(buffer.data(), size);
  };
  std::array<char, room> left{};
  std::array<char, room> right{};
  return Similarity::jaroWinkler(join(a, left), join(b, right));
}

Level wordsLevel(Value a, Value b, MatchKind kind) {
  const double j = Similarity::jaroWinkler(a.text, b.text);
  if (j >= closeSimilarity) return Level::close;
  if (!a.sound.empty() && a.sound == b.sound) return Level::close;
  const Words left = words(a.text);
  const Words right = words(b.text);
  const bool several = left.count > 1 || right.count > 1;
  double sorted = j;
  if (several) sorted = std::max(sorted, sortedWordsSimilarity(left, right, a.text, b.text));
  if (sorted >= closeSimilarity) return Level::close;
  if (sorted >= partialSimilarity) return Level::partial;
  if (kind == MatchKind::companyName && a.text.size() < 64 && b.text.size() < 64 &&
      Similarity::bigramDice(a.text, b.text) >= partialSimilarity) {
    return Level::partial;
  }
  if (several && shareWord(left, right)) return Level::partial;
  if (kind == MatchKind::personName && Matcher::nameAbbreviationMatch(a.text, b.text, true)) {
    return Level::partial;
  }
  return Level::different;
}

Level digitsLevel(std::string_view a, std::string_view b) {
  if (Similarity::withinEdits(a, b, 1)) return Level::close;
  if (Similarity::withinEdits(a, b, 2)) return Level::partial;
  return Level::different;
}

std::string_view localPart(std::string_view address) {
  const auto at = address.rfind('@');
  return at == std::string_view::npos ? address : address.substr(0, at);
}

bool holdsPlus(std::string_view address) { return address.find('+') != std::string_view::npos; }

Level emailLevel(std::string_view a, std::string_view b, bool tagged) {
  // Two different addresses are the same inbox only when a tag is stripped.
  if (tagged && (holdsPlus(a) || holdsPlus(b)) && EmailTag::sameInbox(a, b)) return Level::close;
  // Most pairs are not within two edits: that one test settles them.
  if (Similarity::withinEdits(a, b, 2)) {
    return Similarity::withinEdits(a, b, 1) ? Level::close : Level::partial;
  }
  const std::string_view localA = localPart(a);
  if (!localA.empty() && localA == localPart(b)) return Level::partial;
  return Level::different;
}

Level phoneLevel(std::string_view a, std::string_view b) {
  if (Similarity::suffixMatch(a, b, Matcher::phoneSuffixDigits)) return Level::close;
  if (Similarity::withinEdits(a, b, 1)) return Level::partial;
  return Level::different;
}

}  // namespace

bool usesSound(MatchKind kind) {
  return kind == MatchKind::personName || kind == MatchKind::companyName ||
         kind == MatchKind::text;
}

Level level(Value a, Value b, MatchKind kind, MatchMode mode, bool taggedEmail) {
  if (a.text.empty() || b.text.empty()) return Level::missing;
  if (a.text == b.text) return Level::exact;
  if (mode == MatchMode::exact) {
    if (kind == MatchKind::email && taggedEmail && EmailTag::sameInbox(a.text, b.text)) {
      return Level::close;
    }
    return Level::different;
  }
  switch (kind) {
    case MatchKind::email:
      return emailLevel(a.text, b.text, taggedEmail);
    case MatchKind::phone:
      return phoneLevel(a.text, b.text);
    case MatchKind::text:
      if (allDigits(a.text) && allDigits(b.text)) return digitsLevel(a.text, b.text);
      return wordsLevel(a, b, kind);
    case MatchKind::personName:
    case MatchKind::companyName:
      return wordsLevel(a, b, kind);
  }
  return Level::different;
}

Level level(std::string_view a, std::string_view b, MatchKind kind, MatchMode mode,
            bool taggedEmail) {
  std::string soundA;
  std::string soundB;
  if (usesSound(kind)) {
    soundA = Phonetic::key(a);
    soundB = Phonetic::key(b);
  }
  return level(Value{a, soundA}, Value{b, soundB}, kind, mode, taggedEmail);
}

}  // namespace corvane::FieldAgreement
