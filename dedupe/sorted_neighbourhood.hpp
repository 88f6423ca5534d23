// The sorted-neighbourhood walk shared by the matcher and the group splitter.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "dedupe/flat_column.hpp"
#include "dedupe/matcher.hpp"

namespace corvane::Matcher {

// Visits each member with its next `window` members in the order of the
// pass's key; members with a blank key take no part.
template <typename Visit>
inline void forEachNeighbour(const Pass& pass, const FlatColumn& column,
                      const std::vector<std::uint32_t>& members, int window, Visit&& visit) {
  std::vector<std::uint32_t> order;
  order.reserve(members.size());
  if (!pass.derive) {
    for (const std::uint32_t m : members) {
      if (!column.value(m).empty()) order.push_back(m);
    }
    std::stable_sort(order.begin(), order.end(), [&](std::uint32_t x, std::uint32_t y) {
      return column.value(x) < column.value(y);
    });
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
    std::stable_sort(index.begin(), index.end(), [&](std::uint32_t x, std::uint32_t y) {
      return keys.value(x) < keys.value(y);
    });
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
