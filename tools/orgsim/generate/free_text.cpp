#include "tools/orgsim/generate/free_text.hpp"

#include <cctype>

#include "tools/orgsim/generate/word_lists.hpp"

namespace corvane::orgsim::FreeText {

std::string sentence(RandomSource& random) {
  std::string out;
  auto count = random.between(3, 12);
  for (std::int64_t i = 0; i < count; ++i) {
    if (i > 0) out += ' ';
    out += random.pick(WordLists::words());
  }
  out[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(out[0])));
  out += '.';
  return out;
}

std::string note(RandomSource& random, std::size_t maxLength) {
  std::string out;
  auto sentences = random.chance(0.02) ? random.between(80, 400) : random.between(1, 4);
  for (std::int64_t i = 0; i < sentences; ++i) {
    std::string s = sentence(random);
    if (random.chance(0.35)) {
      // A comma inside the sentence.
      auto blank = s.find(' ', s.size() / 2);
      if (blank != std::string::npos) s.insert(blank, 1, ',');
    }
    if (random.chance(0.12)) {
      auto blank = s.find(' ');
      if (blank != std::string::npos) s.insert(blank + 1, "\"urgent\" ");
    }
    if (random.chance(0.08)) s.append(" ").append(random.pick(WordLists::emoji()));
    if (random.chance(0.05)) s.append(" ").append(random.pick(WordLists::foreignPhrases()));
    if (random.chance(0.02)) s += "\tref:\t" + std::to_string(random.between(1000, 99999));
    if (i > 0) {
      double r = random.unit();
      out += r < 0.15 ? "\n" : r < 0.2 ? "\r\n" : r < 0.23 ? "\n\n" : " ";
    }
    out += s;
    if (out.size() >= maxLength) break;
  }
  return truncated(std::move(out), maxLength);
}

std::string decimal(RandomSource& random, int integerDigits, int scale) {
  std::string whole, part;
  double r = random.unit();
  if (r < 0.01) {
    whole = std::string(static_cast<std::size_t>(integerDigits), '9');
    part = std::string(static_cast<std::size_t>(scale), '9');
  } else if (r < 0.02 && scale > 0) {
    whole.assign(1, '0');
    part = std::string(static_cast<std::size_t>(scale - 1), '0') + "1";
  } else {
    auto digits = random.between(1, std::max(1, integerDigits * 2 / 3));
    whole = std::to_string(random.between(1, 9));
    for (std::int64_t i = 1; i < digits; ++i) whole += static_cast<char>('0' + random.below(10));
    for (int i = 0; i < scale; ++i) part += static_cast<char>('0' + random.below(10));
  }
  return part.empty() ? whole : whole + "." + part;
}

std::string truncated(std::string text, std::size_t maxBytes) {
  if (text.size() <= maxBytes) return text;
  std::size_t cut = maxBytes;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  text.resize(cut);
  return text;
}

}  // namespace corvane::orgsim::FreeText
