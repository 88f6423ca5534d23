// The sorted-neighbourhood walks shared by the matcher, the group splitter and
// the probabilistic linker.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "dedupe/flat_column.hpp"
#include "dedupe/key_sort.hpp"
#include "dedupe/matcher.hpp"

namespace corvane::Matcher {

// The members with a non-blank key, in the order of the pass's key.
inline std::vector<std::uint32_t> sortedOrder(const Pass& pass, const FlatColumn& column,
                                              const std::vector<std::uint32_t>& members) {
  std::vector<std::uint32_t> order;
  order.reserve(members.size());
  if (!pass.derive) {
    for (const std::uint32_t m : members) {
      if (!column.value(m).empty()) order.push_back(m);
    }
    KeySort::sortIds(order, [&](std::uint32_t id) { return column.value(id); });
    return order;
  }
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
  KeySort::sortIds(index, [&](std::uint32_t id) { return keys.value(id); });
  for (const std::uint32_t i : index) order.push_back(owner[i]);
  return order;
}

// Visits each member with its next `window` members in the order of the
// pass's key; members with a blank key take no part.
template <typename Visit>
inline void forEachNeighbour(const Pass& pass, const FlatColumn& column,
                             const std::vector<std::uint32_t>& members, int window,
                             Visit&& visit) {
  const std::vector<std::uint32_t> order = sortedOrder(pass, column, members);
  const std::size_t span = static_cast<std::size_t>(std::max(window, 1));
  for (std::size_t i = 0; i < order.size(); ++i) {
    const std::size_t end = std::min(order.size(), i + 1 + span);
    for (std::size_t j = i + 1; j < end; ++j) {
      if (!visit(order[i], order[j])) return;
    }
  }
}

// Runs task(0) .. task(count - 1) on up to maxScoringThreads threads (the
// machine's cores); the tasks must not depend on each other.
template <typename Task>
inline void runOnCores(std::size_t count, Task&& task);

// A pair of positions that scored, with its score.
struct ScoredPair {
  std::uint32_t a;
  std::uint32_t b;
  float score;
};

struct ScoredNeighbours {
  std::vector<ScoredPair> pairs;  // in the order of the walk
  std::int64_t scored = 0;        // pairs given to score (not skipped)
  bool stopped = false;
};

// The most threads that score the pairs of one walk (the machine's cores, up to this).
inline constexpr unsigned maxScoringThreads = 8;

// Scores each member of order with its next `span` members on up to
// maxScoringThreads threads, a chunk of the order at a time, and returns the
// pairs that scored in the order of the walk, whatever the threads' timing.
// skip(a, b) and score(a, b) (an optional score; none: no pair) are called
// from any thread at once; pairs skip says yes to are not scored. shouldStop
// is polled between chunks, never from two threads at once; once it says
// yes no further chunk starts. What readAhead names of the members a few
// steps ahead of the walk is asked of memory before they are compared: the
// order jumps all over the columns, and without it most of a walk's time is
// spent waiting on memory.
struct ReadAhead {
  std::span<const FlatColumn> columns;  // the values score reads
  std::span<const std::uint32_t> table;  // an entry per member that skip reads
};
template <typename Skip, typename Score, typename ShouldStop>
ScoredNeighbours scoreNeighbours(const std::vector<std::uint32_t>& order, std::size_t span,
                                 Skip&& skip, Score&& score, ShouldStop&& shouldStop,
                                 ReadAhead readAhead = {}) {
  // Two steps: a member's offsets first, its bytes once the offsets are in.
  constexpr std::size_t offsetsAhead = 32;
  constexpr std::size_t bytesAhead = 16;
  constexpr std::size_t chunkSize = 1 << 15;
  const std::size_t chunkCount = (order.size() + chunkSize - 1) / chunkSize;
  std::vector<std::vector<ScoredPair>> found(chunkCount);
  std::vector<std::int64_t> scored(chunkCount, 0);
  std::atomic<std::size_t> next{0};
  std::atomic<bool> stop{false};
  std::mutex polling;  // one call of shouldStop at a time
  const auto work = [&] {
    for (std::size_t c = next++; c < chunkCount && !stop; c = next++) {
      {
        const std::lock_guard lock(polling);
        if (shouldStop()) {
          stop = true;
          return;
        }
      }
      // Local until the chunk ends, so that threads share no cache lines.
      std::vector<ScoredPair> pairs;
      std::int64_t count = 0;
      const std::size_t to = std::min(order.size(), (c + 1) * chunkSize);
      for (std::size_t i = c * chunkSize; i < to; ++i) {
        if (const std::size_t k = i + span + offsetsAhead; k < order.size()) {
          for (const FlatColumn& column : readAhead.columns) {
            __builtin_prefetch(&column.offsets[order[k]]);
          }
          if (!readAhead.table.empty()) __builtin_prefetch(&readAhead.table[order[k]]);
        }
        if (const std::size_t k = i + span + bytesAhead; k < order.size()) {
          for (const FlatColumn& column : readAhead.columns) {
            // Both ends: a value may cross into a second cache line.
            const char* bytes = column.data.data();
            __builtin_prefetch(bytes + column.offsets[order[k]]);
            __builtin_prefetch(bytes + column.offsets[order[k] + 1] - 1);
          }
        }
        const std::size_t end = std::min(order.size(), i + 1 + span);
        for (std::size_t j = i + 1; j < end; ++j) {
          if (skip(order[i], order[j])) continue;
          ++count;
          if (const std::optional<float> s = score(order[i], order[j])) {
            pairs.push_back({order[i], order[j], *s});
          }
        }
      }
      found[c] = std::move(pairs);
      scored[c] = count;
    }
  };
  const unsigned threads = std::clamp(std::thread::hardware_concurrency(), 1U,
                                      static_cast<unsigned>(std::min<std::size_t>(
                                          maxScoringThreads, std::max<std::size_t>(chunkCount, 1))));
  {
    std::vector<std::jthread> helpers;
    for (unsigned t = 1; t < threads; ++t) helpers.emplace_back(work);
    work();
  }
  ScoredNeighbours result;
  result.stopped = stop;
  for (std::size_t c = 0; c < chunkCount; ++c) {
    result.scored += scored[c];
    result.pairs.insert(result.pairs.end(), found[c].begin(), found[c].end());
  }
  return result;
}

template <typename Task>
inline void runOnCores(std::size_t count, Task&& task) {
  std::atomic<std::size_t> next{0};
  const auto work = [&] {
    for (std::size_t i = next++; i < count; i = next++) task(i);
  };
  const unsigned threads = std::clamp(
      std::thread::hardware_concurrency(), 1U,
      static_cast<unsigned>(std::min<std::size_t>(maxScoringThreads, std::max<std::size_t>(count, 1))));
  std::vector<std::jthread> helpers;
  for (unsigned t = 1; t < threads; ++t) helpers.emplace_back(work);
  work();
}

}  // namespace corvane::Matcher
