// The sorted-neighbourhood walk shared by the matcher and the group splitter.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "dedupe/flat_column.hpp"
#include "dedupe/matcher.hpp"

namespace corvane::Matcher {

// The first eight bytes of a value as a big-endian number: ordering by it
// agrees with byte order, so most comparisons of a sort need no memory walk.
inline std::uint64_t sortPrefix(std::string_view value) {
  std::uint64_t prefix = 0;
  for (std::size_t i = 0; i < 8; ++i) {
    prefix <<= 8;
    if (i < value.size()) prefix |= static_cast<unsigned char>(value[i]);
  }
  return prefix;
}

// Stable sort of ids by their values in keys (byte order).
template <typename KeyOf>
inline void sortByKey(std::vector<std::uint32_t>& ids, KeyOf&& keyOf) {
  struct Entry {
    std::uint64_t prefix;
    std::uint32_t id;
  };
  std::vector<Entry> entries;
  entries.reserve(ids.size());
  for (const std::uint32_t id : ids) entries.push_back({sortPrefix(keyOf(id)), id});
  std::stable_sort(entries.begin(), entries.end(), [&](const Entry& x, const Entry& y) {
    if (x.prefix != y.prefix) return x.prefix < y.prefix;
    const std::string_view a = keyOf(x.id);
    const std::string_view b = keyOf(y.id);
    if (a.size() <= 8 && b.size() <= 8) return a.size() < b.size();
    return a < b;
  });
  for (std::size_t i = 0; i < entries.size(); ++i) ids[i] = entries[i].id;
}

// Visits each member with its next `window` members in the order of the
// pass's key; members with a blank key take no part.
template <typename Visit>
inline void forEachNeighbour(const Pass& pass, const FlatColumn& column,
                             const std::vector<std::uint32_t>& members, int window,
                             Visit&& visit) {
  std::vector<std::uint32_t> order;
  order.reserve(members.size());
  if (!pass.derive) {
    for (const std::uint32_t m : members) {
      if (!column.value(m).empty()) order.push_back(m);
    }
    sortByKey(order, [&](std::uint32_t id) { return column.value(id); });
  } else {
    FlatColumn keys;
    keys.offsets.reserve(members.size() + 1);
    std::vector<std::uint32_t> owner;
    owner.reserve(members.size());
    for (const std::uint32_t m : members) {
      const std::string_view value = column.value(m);
      if (value.empty()) continue;
      std::string key = pass.derive(value);
      if (key.empty()) continue;
      keys.append(key);
      owner.push_back(m);
    }
    std::vector<std::uint32_t> index(owner.size());
    for (std::uint32_t i = 0; i < index.size(); ++i) index[i] = i;
    sortByKey(index, [&](std::uint32_t id) { return keys.value(id); });
    for (const std::uint32_t i : index) order.push_back(owner[i]);
  }
  const std::size_t span = static_cast<std::size_t>(std::max(window, 1));
  for (std::size_t i = 0; i < order.size(); ++i) {
    const std::size_t end = std::min(order.size(), i + 1 + span);
    for (std::size_t j = i + 1; j < end; ++j) {
      if (!visit(order[i], order[j])) return;
    }
  }
}

}  // namespace corvane::Matcher
