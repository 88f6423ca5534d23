// Normalisation, the phonetic key and the string scores on any bytes: no
// crash, scores within 0 to 1, symmetric, and withinEdits agreeing with
// itself for growing limits.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "dedupe/normalizer.hpp"
#include "dedupe/phonetic.hpp"
#include "dedupe/similarity.hpp"

using namespace corvane;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  std::size_t cut = input.find('\t');
  std::string_view a = input.substr(0, cut);
  std::string_view b = cut == std::string_view::npos ? std::string_view() : input.substr(cut + 1);
  for (MatchKind kind : {MatchKind::text, MatchKind::personName, MatchKind::companyName,
                         MatchKind::email, MatchKind::phone}) {
    std::string normalized = Normalizer::normalize(a, kind);
    if (kind != MatchKind::email && Normalizer::normalize(normalized, kind) != normalized &&
        kind != MatchKind::phone) {
      // Normalised text is a fixed point for the word-based kinds.
      std::abort();
    }
  }
  Phonetic::key(Normalizer::normalize(a, MatchKind::personName));
  for (double score : {Similarity::jaroWinkler(a, b), Similarity::bigramDice(a, b),
                       Similarity::tokenSortRatio(a, b)}) {
    if (!(score >= 0.0 && score <= 1.0 + 1e-12)) std::abort();
  }
  if (Similarity::jaro(a, b) != Similarity::jaro(b, a)) std::abort();
  bool within = false;
  for (int k = 0; k < 6; ++k) {
    bool now = Similarity::withinEdits(a, b, k);
    if (within && !now) std::abort();
    if (now != Similarity::withinEdits(b, a, k)) std::abort();
    within = now;
  }
  return 0;
}
