// A disjoint-set forest over record positions 0..n-1: path halving on find,
// union by size (on equal sizes the second root goes under the first).
#pragma once

#include <cstdint>
#include <vector>

namespace corvane {

class DisjointSet {
 public:
  explicit DisjointSet(std::uint32_t count);

  std::uint32_t find(std::uint32_t x);
  // Joins the sets of a and b; returns false when they were already one.
  bool unite(std::uint32_t a, std::uint32_t b);
  std::uint32_t setSize(std::uint32_t x) { return size_[find(x)]; }
  // The member lists of all sets (singletons included), members ascending,
  // sets ordered by their smallest member.
  std::vector<std::vector<std::uint32_t>> groups();

 private:
  std::vector<std::uint32_t> parent_;
  std::vector<std::uint32_t> size_;
};

}  // namespace corvane
