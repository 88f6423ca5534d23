// Sorting record positions by a byte key of each (a value, its reverse, its
// sound key), the first step of every sorted-neighbourhood walk. A key is
// read eight bytes at a time as a big-endian number, so that nearly all of
// the work is a radix sort of numbers held side by side in memory; only the
// records whose first eight bytes tie have their keys read again, eight bytes
// further on. Keys hold no zero bytes (normalised values never do).
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

namespace corvane::KeySort {

// A position with eight bytes of its key.
struct Keyed {
  std::uint64_t prefix;
  std::uint32_t id;
};

// Bytes [from, from + 8) of value as a big-endian number, zero-padded:
// ordering by it agrees with byte order over those bytes.
inline std::uint64_t prefixAt(std::string_view value, std::size_t from) {
  if (from >= value.size()) return 0;
  std::uint64_t word = 0;
  if (value.size() - from >= 8) {
    std::memcpy(&word, value.data() + from, 8);
  } else {
    std::memcpy(&word, value.data() + from, value.size() - from);
  }
  if constexpr (std::endian::native == std::endian::little) word = __builtin_bswap64(word);
  return word;
}

// Stable sort of entries by prefix. spare is scratch space, grown as needed.
void sortByPrefix(std::span<Keyed> entries, std::vector<Keyed>& spare);

namespace detail {

template <typename KeyOf>
void sortFrom(std::span<Keyed> run, std::size_t depth, KeyOf& keyOf, std::vector<Keyed>& spare) {
  sortByPrefix(run, spare);
  for (std::size_t i = 0; i < run.size();) {
    std::size_t end = i + 1;
    while (end < run.size() && run[end].prefix == run[i].prefix) ++end;
    if (end - i > 1) {
      const std::span<Keyed> tie = run.subspan(i, end - i);
      bool longer = false;
      for (const Keyed& entry : tie) longer = longer || keyOf(entry.id).size() > depth + 8;
      if (longer) {
        for (Keyed& entry : tie) entry.prefix = prefixAt(keyOf(entry.id), depth + 8);
        sortFrom(tie, depth + 8, keyOf, spare);
      }
    }
    i = end;
  }
}

}  // namespace detail

// Stable sort of ids by keyOf(id) in byte order (a key before any longer key
// it begins).
template <typename KeyOf>
void sortIds(std::vector<std::uint32_t>& ids, KeyOf&& keyOf) {
  std::vector<Keyed> entries;
  entries.reserve(ids.size());
  for (const std::uint32_t id : ids) entries.push_back({prefixAt(keyOf(id), 0), id});
  std::vector<Keyed> spare;
  detail::sortFrom(std::span<Keyed>(entries), 0, keyOf, spare);
  for (std::size_t i = 0; i < entries.size(); ++i) ids[i] = entries[i].id;
}

}  // namespace corvane::KeySort
