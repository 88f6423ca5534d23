// The generator's only source of randomness.
//
// Everything the generator makes is a pure function of the seed and of where the
// value is needed (which object, which record, which purpose). A record's values
// come from a RandomSource made for that record alone, so record 1,500,000 is the
// same whether or not the records before it were made, and two runs with the same
// seed give the same data byte for byte, on every platform (no std::
// distributions, whose results differ between standard libraries).
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace corvane::orgsim {

// A 64-bit mix of its inputs (SplitMix64 finaliser); stable across platforms.
std::uint64_t mix64(std::uint64_t value);
// A stable hash of a short text (FNV-1a then mixed), for naming streams.
std::uint64_t streamTag(std::string_view name);

// xoshiro256**: small, fast, and good enough for test data.
class RandomSource {
 public:
  explicit RandomSource(std::uint64_t seed);

  // The source for one record of one stream: independent of every other record.
  static RandomSource forRecord(std::uint64_t seed, std::uint64_t stream, std::uint64_t index);

  std::uint64_t next();
  // Uniform in [0, bound); bound 0 gives 0.
  std::uint64_t below(std::uint64_t bound);
  // Uniform in [low, high] (inclusive).
  std::int64_t between(std::int64_t low, std::int64_t high);
  // Uniform in [0, 1).
  double unit();
  // True with the given probability.
  bool chance(double probability);

  template <typename T>
  const T& pick(std::span<const T> items) {
    return items[static_cast<std::size_t>(below(items.size()))];
  }

 private:
  std::uint64_t state_[4];
};

// A bijection of [0, size) that scatters neighbours far apart: a small Feistel
// network over the next power of four, walking the cycle until it lands inside the
// range. Used to spread the members of a duplicate cluster over the whole id range
// without remembering anything per record.
class IndexPermutation {
 public:
  IndexPermutation(std::uint64_t seed, std::uint64_t size);

  std::uint64_t size() const { return size_; }
  std::uint64_t operator()(std::uint64_t index) const;

 private:
  std::uint64_t round(int round, std::uint64_t half) const;

  std::uint64_t size_;
  std::uint64_t keys_[4];
  int halfBits_ = 0;
};

}  // namespace corvane::orgsim
