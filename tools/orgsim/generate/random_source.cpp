#include "tools/orgsim/generate/random_source.hpp"

namespace corvane::orgsim {

namespace {

__extension__ using Unsigned128 = unsigned __int128;

std::uint64_t rotateLeft(std::uint64_t value, int bits) {
  return (value << bits) | (value >> (64 - bits));
}

}  // namespace

std::uint64_t mix64(std::uint64_t value) {
  value += 0x9e3779b97f4a7c15ULL;
  value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9ULL;
  value = (value ^ (value >> 27)) * 0x94d049bb133111ebULL;
  return value ^ (value >> 31);
}

std::uint64_t streamTag(std::string_view name) {
  std::uint64_t hash = 0xcbf29ce484222325ULL;
  for (unsigned char c : name) {
    hash ^= c;
    hash *= 0x100000001b3ULL;
  }
  return mix64(hash);
}

RandomSource::RandomSource(std::uint64_t seed) {
  std::uint64_t s = seed;
  for (auto& word : state_) {
    s = mix64(s);
    word = s;
  }
  if ((state_[0] | state_[1] | state_[2] | state_[3]) == 0) state_[0] = 1;
}

RandomSource RandomSource::forRecord(std::uint64_t seed, std::uint64_t stream,
                                     std::uint64_t index) {
  return RandomSource(mix64(seed ^ mix64(stream + mix64(index))));
}

std::uint64_t RandomSource::next() {
  std::uint64_t result = rotateLeft(state_[1] * 5, 7) * 9;
  std::uint64_t t = state_[1] << 17;
  state_[2] ^= state_[0];
  state_[3] ^= state_[1];
  state_[1] ^= state_[2];
  state_[0] ^= state_[3];
  state_[2] ^= t;
  state_[3] = rotateLeft(state_[3], 45);
  return result;
}

std::uint64_t RandomSource::below(std::uint64_t bound) {
  if (bound == 0) return 0;
  // Multiply-shift: unbiased enough for test data, and the same everywhere.
  return static_cast<std::uint64_t>((static_cast<Unsigned128>(next()) * bound) >> 64);
}

std::int64_t RandomSource::between(std::int64_t low, std::int64_t high) {
  if (high <= low) return low;
  return low + static_cast<std::int64_t>(below(static_cast<std::uint64_t>(high - low) + 1));
}

double RandomSource::unit() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }

bool RandomSource::chance(double probability) { return unit() < probability; }

IndexPermutation::IndexPermutation(std::uint64_t seed, std::uint64_t size) : size_(size) {
  RandomSource keys(seed ^ 0x5bd1e9955bd1e995ULL);
  for (auto& key : keys_) key = keys.next();
  // The smallest even number of bits whose range holds `size`.
  int bits = 2;
  while (bits < 62 && (std::uint64_t{1} << bits) < size) bits += 2;
  halfBits_ = bits / 2;
}

std::uint64_t IndexPermutation::round(int r, std::uint64_t half) const {
  return mix64(half ^ keys_[r]) & ((std::uint64_t{1} << halfBits_) - 1);
}

std::uint64_t IndexPermutation::operator()(std::uint64_t index) const {
  if (size_ <= 1) return 0;
  const std::uint64_t mask = (std::uint64_t{1} << halfBits_) - 1;
  std::uint64_t value = index;
  // The range is at most four times the size, so the walk is short on average.
  do {
    std::uint64_t left = value >> halfBits_;
    std::uint64_t right = value & mask;
    for (int r = 0; r < 4; ++r) {
      std::uint64_t next = left ^ round(r, right);
      left = right;
      right = next;
    }
    value = (left << halfBits_) | right;
  } while (value >= size_);
  return value;
}

}  // namespace corvane::orgsim
