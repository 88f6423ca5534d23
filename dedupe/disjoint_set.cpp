#include "dedupe/disjoint_set.hpp"

#include <numeric>

namespace corvane {

DisjointSet::DisjointSet(std::uint32_t count) : parent_(count), size_(count, 1) {
  std::iota(parent_.begin(), parent_.end(), 0U);
}

std::uint32_t DisjointSet::find(std::uint32_t x) {
  while (parent_[x] != x) {
    parent_[x] = parent_[parent_[x]];
    x = parent_[x];
  }
  return x;
}

bool DisjointSet::unite(std::uint32_t a, std::uint32_t b) {
  std::uint32_t ra = find(a);
  std::uint32_t rb = find(b);
  if (ra == rb) return false;
  if (size_[ra] < size_[rb]) std::swap(ra, rb);
  parent_[rb] = ra;
  size_[ra] += size_[rb];
  return true;
}

std::vector<std::vector<std::uint32_t>> DisjointSet::groups() {
  const auto count = static_cast<std::uint32_t>(parent_.size());
  std::vector<std::uint32_t> slot(count, UINT32_MAX);
  std::vector<std::vector<std::uint32_t>> result;
  for (std::uint32_t x = 0; x < count; ++x) {
    const std::uint32_t root = find(x);
    if (slot[root] == UINT32_MAX) {
      slot[root] = static_cast<std::uint32_t>(result.size());
      result.emplace_back();
    }
    result[slot[root]].push_back(x);
  }
  return result;
}

}  // namespace corvane
