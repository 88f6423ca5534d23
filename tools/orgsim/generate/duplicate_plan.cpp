#include "tools/orgsim/generate/duplicate_plan.hpp"

#include <algorithm>

namespace corvane::orgsim {

DuplicatePlan::DuplicatePlan(std::uint64_t seed, std::string_view object, std::uint64_t records,
                             Options options)
    : seed_(seed),
      stream_(streamTag(std::string("clusters ") + std::string(object))),
      records_(records),
      options_(std::move(options)),
      permutation_(seed ^ stream_, records) {}

bool DuplicatePlan::sharedBlock(std::uint64_t block) const {
  if (block >= options_.sharedBlocks || options_.sharedChance <= 0) return false;
  return RandomSource::forRecord(seed_, options_.sharedStream, block).chance(options_.sharedChance);
}

ClusterMembership DuplicatePlan::membership(std::uint64_t index) const {
  ClusterMembership out;
  if (index >= records_) return out;
  std::uint64_t position = permutation_(index);
  std::uint64_t block = position / kBlockSize;
  int offset = static_cast<int>(position % kBlockSize);
  int length = static_cast<int>(std::min<std::uint64_t>(kBlockSize, records_ - block * kBlockSize));
  auto random = RandomSource::forRecord(seed_, stream_, block);
  int size = 0;
  bool shared = sharedBlock(block);
  if (shared) {
    // Both partners draw the same split from the shared stream.
    auto split = RandomSource::forRecord(seed_, options_.sharedStream ^ 0x73706c6974ULL, block);
    int total = static_cast<int>(split.between(2, 5));
    int first = static_cast<int>(split.between(1, total - 1));
    size = std::min(length, options_.sharedSide == 0 ? first : total - first);
  } else if (random.chance(options_.clusterChance)) {
    size = std::min(length, static_cast<int>(random.between(2, 5)));
    if (size < 2) size = 0;
  }
  if (offset >= size) return out;
  out.inCluster = true;
  out.shared = shared;
  out.block = block;
  out.member = offset;
  out.size = size;
  return out;
}

std::string DuplicatePlan::entity(const ClusterMembership& membership) const {
  return (membership.shared ? options_.sharedPrefix : options_.entityPrefix) +
         std::to_string(membership.block);
}

}  // namespace corvane::orgsim
