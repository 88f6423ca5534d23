#include "dedupe/similarity.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace corvane::Similarity {

namespace {

constexpr std::size_t stackBytes = 64;

// A scratch array on the stack for short inputs, on the heap for long ones.
template <typename T>
class Scratch {
 public:
  explicit Scratch(std::size_t size, T fill = T{}) {
    if (size > stackBytes) {
      heap_ = std::make_unique<T[]>(size);
      data_ = heap_.get();
    } else {
      data_ = local_;
    }
    std::fill(data_, data_ + size, fill);
  }
  T& operator[](std::size_t index) { return data_[index]; }
  T* data() { return data_; }

 private:
  T local_[stackBytes + 1];
  std::unique_ptr<T[]> heap_;
  T* data_;
};

std::size_t commonPrefix(std::string_view a, std::string_view b, std::size_t limit) {
  std::size_t n = std::min({a.size(), b.size(), limit});
  std::size_t l = 0;
  while (l < n && a[l] == b[l]) ++l;
  return l;
}

#if defined(__SSE2__)

// Up to 16 bytes from p into a register, zero past n; reads no byte past
// p + n. n is 1 to 16.
inline __m128i loadUpTo16(const char* p, std::size_t n) {
  if (n >= 8) {
    std::uint64_t low, high;
    std::memcpy(&low, p, 8);
    std::memcpy(&high, p + n - 8, 8);  // overlaps low when n < 16
    high = n > 8 ? high >> (8 * (16 - n)) : 0;
    return _mm_set_epi64x(static_cast<long long>(high), static_cast<long long>(low));
  }
  if (n >= 4) {
    std::uint32_t low, high;
    std::memcpy(&low, p, 4);
    std::memcpy(&high, p + n - 4, 4);
    high = n > 4 ? high >> (8 * (8 - n)) : 0;
    return _mm_cvtsi64_si128(static_cast<long long>(low | std::uint64_t{high} << 32));
  }
  std::uint32_t value = 0;
  for (std::size_t k = 0; k < n; ++k)
    value |= std::uint32_t{static_cast<unsigned char>(p[k])} << (8 * k);
  return _mm_cvtsi32_si128(static_cast<int>(value));
}

// The positions in b (held in Chunks registers) of the bytes equal to c;
// positions past b's end may be set.
template <int Chunks>
inline std::uint64_t positionsOf(const __m128i* chunks, char c) {
  const __m128i wanted = _mm_set1_epi8(c);
  std::uint64_t equal =
      static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(chunks[0], wanted)));
  for (int k = 1; k < Chunks; ++k) {
    equal |= std::uint64_t{static_cast<std::uint32_t>(
                 _mm_movemask_epi8(_mm_cmpeq_epi8(chunks[k], wanted)))}
             << (16 * k);
  }
  return equal;
}

// Jaro for inputs of up to 64 bytes, bit-parallel: b sits in Chunks
// registers, so the bytes of b equal to a byte of a come from one compare per
// register; the window and the bytes of b already matched are bit sets, and
// a byte of a takes the lowest candidate, as the textbook loop would.
template <int Chunks>
double jaroShort(std::string_view a, std::string_view b, std::size_t range) {
  const std::size_t la = a.size();
  const std::size_t lb = b.size();
  __m128i chunks[Chunks];
  for (int k = 0; k < Chunks; ++k) {
    const std::size_t start = 16 * static_cast<std::size_t>(k);
    chunks[k] = loadUpTo16(b.data() + start, std::min<std::size_t>(16, lb - start));
  }
  const std::uint64_t all = lb == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << lb) - 1;
  // Positions past b count as taken already, so that none is ever matched.
  std::uint64_t taken = ~all;
  // Both inputs hold at most 64 bytes, so range <= 31: no shift reaches 64.
  std::uint64_t window = (std::uint64_t{2} << range) - 1;  // [0, range] for a[0]
  char matchedA[64];  // the matched bytes of a, in order
  std::size_t matches = 0;
  const auto match = [&](std::size_t i) {
    // Branch-free: whether a byte finds a partner is as good as random.
    const std::uint64_t candidates = positionsOf<Chunks>(chunks, a[i]) & window & ~taken;
    taken |= candidates & (~candidates + 1);  // the lowest one, or nothing
    matchedA[matches] = a[i];
    matches += candidates != 0;
  };
  std::size_t i = 0;
  for (const std::size_t growing = std::min(la, range); i < growing; ++i) {
    match(i);
    window = (window << 1) | 1;  // its start stays at 0 while i < range
  }
  for (; i < la; ++i) {
    match(i);
    window <<= 1;
  }
  if (matches == 0) return 0.0;

  // The matched bytes of b, in their order, against those of a in theirs.
  std::size_t outOfOrder = 0;
  std::size_t k = 0;
  for (std::uint64_t rest = taken & all; rest != 0; rest &= rest - 1) {
    outOfOrder += matchedA[k++] != b[static_cast<std::size_t>(__builtin_ctzll(rest))];
  }
  const double m = static_cast<double>(matches);
  const double t = static_cast<double>(outOfOrder) / 2.0;
  return (m / static_cast<double>(la) + m / static_cast<double>(lb) + (m - t) / m) / 3.0;
}

double jaroShort(std::string_view a, std::string_view b, std::size_t range) {
  if (b.size() <= 16) return jaroShort<1>(a, b, range);
  if (b.size() <= 32) return jaroShort<2>(a, b, range);
  if (b.size() <= 48) return jaroShort<3>(a, b, range);
  return jaroShort<4>(a, b, range);
}

#else

// Jaro for inputs of up to 64 bytes, with the matched flags as bit sets and
// the positions of each byte of b looked up in a table of which only the
// entries for the bytes of a and b are written (and read), so that a call
// costs O(|a| + |b|).
double jaroShort(std::string_view a, std::string_view b, std::size_t range) {
  std::uint64_t positions[256];
  const std::size_t la = a.size();
  const std::size_t lb = b.size();
  for (std::size_t i = 0; i < la; ++i) positions[static_cast<unsigned char>(a[i])] = 0;
  for (std::size_t j = 0; j < lb; ++j) positions[static_cast<unsigned char>(b[j])] = 0;
  for (std::size_t j = 0; j < lb; ++j) {
    positions[static_cast<unsigned char>(b[j])] |= std::uint64_t{1} << j;
  }
  std::uint64_t matchedA = 0;
  std::uint64_t matchedB = 0;
  std::size_t matches = 0;
  for (std::size_t i = 0; i < la; ++i) {
    std::size_t low = i > range ? i - range : 0;
    std::size_t high = std::min(i + range + 1, lb);  // exclusive
    std::size_t width = high > low ? high - low : 0;
    std::uint64_t window = ((std::uint64_t{1} << width) - 1) << low;
    std::uint64_t candidates = positions[static_cast<unsigned char>(a[i])] & ~matchedB & window;
    std::uint64_t found = candidates != 0;
    matchedB |= candidates & (~candidates + 1);
    matchedA |= found << i;
    matches += found;
  }
  if (matches == 0) return 0.0;

  std::size_t outOfOrder = 0;
  std::uint64_t restA = matchedA;
  std::uint64_t restB = matchedB;
  while (restA != 0) {
    int i = __builtin_ctzll(restA);
    int j = __builtin_ctzll(restB);
    outOfOrder += a[static_cast<std::size_t>(i)] != b[static_cast<std::size_t>(j)];
    restA &= restA - 1;
    restB &= restB - 1;
  }
  const double m = static_cast<double>(matches);
  const double t = static_cast<double>(outOfOrder) / 2.0;
  return (m / static_cast<double>(la) + m / static_cast<double>(lb) + (m - t) / m) / 3.0;
}

#endif

}  // namespace

double jaro(std::string_view a, std::string_view b) {
  if (a.empty() && b.empty()) return 1.0;
  if (a.empty() || b.empty()) return 0.0;
  const std::size_t la = a.size();
  const std::size_t lb = b.size();
  const std::size_t longer = std::max(la, lb);
  const std::size_t range = longer / 2 >= 1 ? longer / 2 - 1 : 0;
  // Equal inputs come out at exactly 1 here: every byte matches its twin.
  if (la <= 64 && lb <= 64) return jaroShort(a, b, range);
  if (a == b) return 1.0;

  Scratch<bool> matchedA(la + 1, false);
  Scratch<bool> matchedB(lb + 1, false);
  std::size_t matches = 0;
  for (std::size_t i = 0; i < la; ++i) {
    std::size_t from = i > range ? i - range : 0;
    std::size_t to = std::min(i + range + 1, lb);
    for (std::size_t j = from; j < to; ++j) {
      if (!matchedB[j] && a[i] == b[j]) {
        matchedA[i] = true;
        matchedB[j] = true;
        ++matches;
        break;
      }
    }
  }
  if (matches == 0) return 0.0;

  std::size_t outOfOrder = 0;
  std::size_t j = 0;
  for (std::size_t i = 0; i < la; ++i) {
    if (!matchedA[i]) continue;
    while (!matchedB[j]) ++j;
    if (a[i] != b[j]) ++outOfOrder;
    ++j;
  }
  const double m = static_cast<double>(matches);
  const double t = static_cast<double>(outOfOrder) / 2.0;
  return (m / static_cast<double>(la) + m / static_cast<double>(lb) + (m - t) / m) / 3.0;
}

double jaroWinkler(std::string_view a, std::string_view b) {
  double j = jaro(a, b);
  if (!(j > 0.0)) return 0.0;
  double l = static_cast<double>(commonPrefix(a, b, 4));
  return j + l * 0.1 * (1.0 - j);
}

double bigramDice(std::string_view a, std::string_view b) {
  if (a == b) return 1.0;
  if (a.size() < 2 || b.size() < 2) return 0.0;
  const std::size_t na = a.size() - 1;
  const std::size_t nb = b.size() - 1;
  Scratch<std::uint16_t> pairsA(na);
  Scratch<std::uint16_t> pairsB(nb);
  auto pair = [](std::string_view s, std::size_t i) {
    return static_cast<std::uint16_t>(static_cast<unsigned char>(s[i]) << 8 |
                                      static_cast<unsigned char>(s[i + 1]));
  };
  for (std::size_t i = 0; i < na; ++i) pairsA[i] = pair(a, i);
  for (std::size_t i = 0; i < nb; ++i) pairsB[i] = pair(b, i);
  std::sort(pairsA.data(), pairsA.data() + na);
  std::sort(pairsB.data(), pairsB.data() + nb);
  std::size_t common = 0;
  for (std::size_t i = 0, j = 0; i < na && j < nb;) {
    if (pairsA[i] < pairsB[j]) {
      ++i;
    } else if (pairsB[j] < pairsA[i]) {
      ++j;
    } else {
      ++common;
      ++i;
      ++j;
    }
  }
  return 2.0 * static_cast<double>(common) / static_cast<double>(na + nb);
}

namespace {

std::string sortedWords(std::string_view text) {
  std::vector<std::string_view> words;
  for (std::size_t start = 0; start < text.size();) {
    std::size_t blank = text.find(' ', start);
    if (blank == std::string_view::npos) blank = text.size();
    if (blank > start) words.push_back(text.substr(start, blank - start));
    start = blank + 1;
  }
  std::sort(words.begin(), words.end());
  std::string joined;
  joined.reserve(text.size());
  for (std::string_view word : words) {
    if (!joined.empty()) joined.push_back(' ');
    joined.append(word);
  }
  return joined;
}

}  // namespace

double tokenSortRatio(std::string_view a, std::string_view b) {
  return jaroWinkler(sortedWords(a), sortedWords(b));
}

bool withinEdits(std::string_view a, std::string_view b, int k) {
  if (k < 0) return false;
  const std::size_t n = a.size();
  const std::size_t m = b.size();
  const std::size_t limit = static_cast<std::size_t>(k);
  if (n == 0) return m <= limit;
  if (m == 0) return n <= limit;
  if ((n > m ? n - m : m - n) > limit) return false;
  if (n <= 255 && m <= 255) {
    // Each edit changes the counts of the bytes by at most two (a swap by
    // none), so counts that differ by more than 2k rule the pair out before
    // any row is computed; this is most pairs. Bytes share 32 counters, which
    // can only make the difference smaller.
    std::int16_t counts[32] = {};
    for (const char c : a) ++counts[static_cast<unsigned char>(c) & 31];
    for (const char c : b) --counts[static_cast<unsigned char>(c) & 31];
    std::size_t differ = 0;
    for (const std::int16_t count : counts) differ += static_cast<std::size_t>(count < 0 ? -count : count);
    if (differ > 2 * limit) return false;
  }

  const int over = k + 1;  // any cost above k; values are capped here
  Scratch<int> row0(m + 1, over);
  Scratch<int> row1(m + 1, over);
  Scratch<int> row2(m + 1, over);
  int* twoBack = row0.data();
  int* previous = row1.data();
  int* current = row2.data();
  for (std::size_t j = 0; j <= std::min(m, limit); ++j) previous[j] = static_cast<int>(j);

  for (std::size_t i = 1; i <= n; ++i) {
    const std::size_t low = i > limit ? i - limit : 1;
    const std::size_t high = std::min(m, i + limit);
    current[0] = i <= limit ? static_cast<int>(i) : over;
    if (low > 1) current[low - 1] = over;
    int best = current[0];
    for (std::size_t j = low; j <= high; ++j) {
      int cost = a[i - 1] == b[j - 1] ? 0 : 1;
      int value = std::min({previous[j] + 1, current[j - 1] + 1, previous[j - 1] + cost});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        value = std::min(value, twoBack[j - 2] + 1);
      }
      value = std::min(value, over);
      current[j] = value;
      best = std::min(best, value);
    }
    if (high < m) current[high + 1] = over;
    if (best > k) return false;
    int* recycled = twoBack;
    twoBack = previous;
    previous = current;
    current = recycled;
  }
  return previous[m] <= k;
}

bool suffixMatch(std::string_view a, std::string_view b, int minDigits) {
  std::string_view shorter = a.size() <= b.size() ? a : b;
  std::string_view longer = a.size() <= b.size() ? b : a;
  if (minDigits < 0) minDigits = 0;
  return shorter.size() >= static_cast<std::size_t>(minDigits) && longer.ends_with(shorter);
}

}  // namespace corvane::Similarity
