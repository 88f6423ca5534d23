// Which records of an object are several records of one real-world thing.
//
// The records of an object are laid out in blocks of eight logical positions.
// A block either holds one cluster (its first two to five positions are the same
// person or company) followed by ordinary records, or ordinary records only. A
// fixed permutation then maps each record's place in the id range to a logical
// position, so the members of a cluster are scattered across the ids as real
// duplicates are (created months apart by different people), and yet any
// record's cluster is known in constant time without remembering anything.
//
// People can be duplicated across objects: a "shared" block of the Contact plan
// and the block with the same number in the Lead plan form one cluster (the same
// person entered as a Contact and again as a Lead). Both plans agree on which
// blocks are shared because they draw that from the same stream.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/orgsim/generate/random_source.hpp"

namespace corvane::orgsim {

struct ClusterMembership {
  bool inCluster = false;
  bool shared = false;      // the cluster spans this object and its partner
  std::uint64_t block = 0;  // names the cluster (with the plan's entity prefix)
  int member = 0;           // 0 is the record the others are variants of
  int size = 0;             // members in this object
};

class DuplicatePlan {
 public:
  struct Options {
    // Chance that a block holds a cluster (of 2 to 5 records).
    double clusterChance = 0.3;
    // Entity names are this prefix followed by the block number.
    std::string entityPrefix;
    // Cross-object clusters: the stream both partner plans read, the number of
    // blocks they have in common, the chance a common block is shared, and the
    // entity prefix of shared clusters. No sharing when sharedBlocks is 0.
    std::uint64_t sharedStream = 0;
    std::uint64_t sharedBlocks = 0;
    double sharedChance = 0;
    std::string sharedPrefix;
    // Which partner this plan is (0 or 1): a shared cluster of two to five
    // records is split between the two, at least one on each side.
    int sharedSide = 0;
  };

  static constexpr std::uint64_t kBlockSize = 8;

  DuplicatePlan(std::uint64_t seed, std::string_view object, std::uint64_t records,
                Options options);

  static std::uint64_t blocksFor(std::uint64_t records) {
    return (records + kBlockSize - 1) / kBlockSize;
  }

  std::uint64_t records() const { return records_; }

  // The cluster of record `index` (0-based place in the id range).
  ClusterMembership membership(std::uint64_t index) const;

  // The ground-truth name of the cluster a member belongs to.
  std::string entity(const ClusterMembership& membership) const;

  // Whether block `block` is a shared one; the same answer in both partner plans.
  bool sharedBlock(std::uint64_t block) const;

 private:
  std::uint64_t seed_;
  std::uint64_t stream_;
  std::uint64_t records_;
  Options options_;
  IndexPermutation permutation_;
};

}  // namespace corvane::orgsim
