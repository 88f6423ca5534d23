#include "dedupe/key_sort.hpp"

#include <algorithm>
#include <array>
#include <utility>

namespace corvane::KeySort {

void sortByPrefix(std::span<Keyed> entries, std::vector<Keyed>& spare) {
  const std::size_t count = entries.size();
  if (count < 64) {
    std::stable_sort(entries.begin(), entries.end(),
                     [](const Keyed& a, const Keyed& b) { return a.prefix < b.prefix; });
    return;
  }
  // Least significant byte first; a byte the same in every entry needs no pass.
  std::array<std::array<std::size_t, 256>, 8> counts{};
  for (const Keyed& entry : entries) {
    for (std::size_t b = 0; b < 8; ++b) ++counts[b][(entry.prefix >> (8 * b)) & 0xFF];
  }
  if (spare.size() < count) spare.resize(count);
  Keyed* from = entries.data();
  Keyed* to = spare.data();
  for (std::size_t b = 0; b < 8; ++b) {
    std::array<std::size_t, 256>& bucket = counts[b];
    if (std::find(bucket.begin(), bucket.end(), count) != bucket.end()) continue;
    std::size_t start = 0;
    for (std::size_t& slot : bucket) start += std::exchange(slot, start);
    for (std::size_t i = 0; i < count; ++i) {
      const Keyed& entry = from[i];
      to[bucket[(entry.prefix >> (8 * b)) & 0xFF]++] = entry;
    }
    std::swap(from, to);
  }
  if (from != entries.data()) std::copy(from, from + count, entries.data());
}

}  // namespace corvane::KeySort
