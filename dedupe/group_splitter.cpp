#include "dedupe/group_splitter.hpp"

#include <algorithm>
#include <cmath>
#include <deque>
#include <unordered_map>

#include "dedupe/disjoint_set.hpp"
#include "dedupe/matcher.hpp"
#include "dedupe/sorted_neighbourhood.hpp"

namespace corvane::GroupSplitter {
namespace {

struct Edge {
  std::uint32_t a;  // blob indexes
  std::uint32_t b;
  float s;
};

// Adjacency lists of the blobs over the edges scoring at least threshold.
std::vector<std::vector<std::uint32_t>> adjacency(std::uint32_t blobs,
                                                  const std::vector<Edge>& edges,
                                                  float threshold) {
  std::vector<std::vector<std::uint32_t>> next(blobs);
  for (const Edge& edge : edges) {
    if (edge.s < threshold) continue;
    next[edge.a].push_back(edge.b);
    next[edge.b].push_back(edge.a);
  }
  return next;
}

// Distances in links from start to every blob of nodes (UINT32_MAX: unreached).
std::vector<std::uint32_t> distances(const std::vector<std::vector<std::uint32_t>>& next,
                                     std::uint32_t start) {
  std::vector<std::uint32_t> distance(next.size(), UINT32_MAX);
  std::deque<std::uint32_t> queue{start};
  distance[start] = 0;
  while (!queue.empty()) {
    const std::uint32_t at = queue.front();
    queue.pop_front();
    for (const std::uint32_t to : next[at]) {
      if (distance[to] != UINT32_MAX) continue;
      distance[to] = distance[at] + 1;
      queue.push_back(to);
    }
  }
  return distance;
}

// The longest shortest path among nodes. Exact for up to 2,000 blobs; above
// that a double sweep, which gives a lower bound that is exact on the chains
// this is looking for.
int diameter(const std::vector<std::vector<std::uint32_t>>& next,
             const std::vector<std::uint32_t>& nodes) {
  if (nodes.size() < 2) return 0;
  const auto farthest = [&](std::uint32_t start, std::uint32_t& far) {
    const std::vector<std::uint32_t> distance = distances(next, start);
    std::uint32_t best = 0;
    far = start;
    for (const std::uint32_t node : nodes) {
      if (distance[node] != UINT32_MAX && distance[node] > best) {
        best = distance[node];
        far = node;
      }
    }
    return static_cast<int>(best);
  };
  std::uint32_t far = 0;
  if (nodes.size() > 2000) {
    farthest(nodes.front(), far);
    return farthest(far, far);
  }
  int best = 0;
  for (const std::uint32_t node : nodes) best = std::max(best, farthest(node, far));
  return best;
}

std::vector<std::vector<std::uint32_t>> components(
    const std::vector<std::vector<std::uint32_t>>& next, const std::vector<std::uint32_t>& nodes,
    std::vector<std::uint32_t>& seen, std::uint32_t mark) {
  std::vector<std::vector<std::uint32_t>> result;
  for (const std::uint32_t node : nodes) {
    if (seen[node] == mark) continue;
    std::vector<std::uint32_t> piece{node};
    seen[node] = mark;
    for (std::size_t i = 0; i < piece.size(); ++i) {
      for (const std::uint32_t to : next[piece[i]]) {
        if (seen[to] == mark) continue;
        seen[to] = mark;
        piece.push_back(to);
      }
    }
    result.push_back(std::move(piece));
  }
  return result;
}

}  // namespace

std::vector<double> schedule(const std::vector<double>& scores, int maxLevels) {
  if (maxLevels < 1) return {};
  std::vector<double> rounded;
  rounded.reserve(scores.size());
  for (const double score : scores) rounded.push_back(std::round(score * 10000.0) / 10000.0);
  std::sort(rounded.begin(), rounded.end());
  rounded.erase(std::unique(rounded.begin(), rounded.end()), rounded.end());
  if (!rounded.empty()) rounded.erase(rounded.begin());
  if (rounded.empty()) return {};
  const auto levels = static_cast<std::size_t>(maxLevels);
  if (rounded.size() <= levels) return rounded;
  std::vector<double> chosen;
  if (levels == 1) return {rounded.front()};
  for (std::size_t i = 0; i < levels; ++i) {
    const std::size_t at = (i * (rounded.size() - 1) + (levels - 1) / 2) / (levels - 1);
    chosen.push_back(rounded[std::min(at, rounded.size() - 1)]);
  }
  chosen.erase(std::unique(chosen.begin(), chosen.end()), chosen.end());
  return chosen;
}

Outcome repair(const std::vector<std::uint32_t>& members, const std::vector<MatchField>& fields,
               const std::vector<FlatColumn>& columns, Strictness strictness, int window,
               const std::vector<std::size_t>& closeIdx, const SplitSettings& settings,
               const std::function<bool()>& shouldCancel, const std::vector<bool>& taggedEmail) {
  Outcome outcome;
  const auto whole = [&](double weakestScore) {
    outcome.pieces = {Piece{members, weakestScore}};
    std::sort(outcome.pieces.front().members.begin(), outcome.pieces.front().members.end());
    return outcome;
  };

  // Members with identical values form one blob: nothing can tell them apart.
  std::vector<std::uint32_t> order = members;
  std::stable_sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
    for (const FlatColumn& column : columns) {
      const int c = column.value(a).compare(column.value(b));
      if (c != 0) return c < 0;
    }
    return false;
  });
  std::unordered_map<std::uint32_t, std::uint32_t> blobOf;
  std::vector<std::vector<std::uint32_t>> blobs;
  for (std::size_t i = 0; i < order.size(); ++i) {
    bool same = i > 0;
    for (std::size_t f = 0; same && f < columns.size(); ++f) {
      same = columns[f].value(order[i]) == columns[f].value(order[i - 1]);
    }
    if (!same) blobs.emplace_back();
    blobs.back().push_back(order[i]);
    blobOf[order[i]] = static_cast<std::uint32_t>(blobs.size() - 1);
  }
  outcome.blobCount = static_cast<int>(blobs.size());

  std::vector<Edge> edges;
  bool over = false;
  for (const Matcher::Pass& pass : Matcher::buildPassList(fields, closeIdx, taggedEmail)) {
    Matcher::forEachNeighbour(
        pass, columns[pass.fieldIndex], members, window, [&](std::uint32_t a, std::uint32_t b) {
          const std::uint32_t x = blobOf[a];
          const std::uint32_t y = blobOf[b];
          if (x == y) return true;
          ++outcome.comparisons;
          if (auto score = Matcher::pairScore(a, b, fields, columns, strictness, taggedEmail)) {
            if (static_cast<std::int64_t>(edges.size()) >= settings.edgeBudget) {
              over = true;
              return false;
            }
            edges.push_back({std::min(x, y), std::max(x, y), static_cast<float>(*score)});
          }
          return true;
        });
    if (over || (shouldCancel && shouldCancel())) break;
  }
  std::sort(edges.begin(), edges.end(), [](const Edge& l, const Edge& r) {
    return std::tie(l.a, l.b, r.s) < std::tie(r.a, r.b, l.s);
  });
  edges.erase(std::unique(edges.begin(), edges.end(),
                          [](const Edge& l, const Edge& r) { return l.a == r.a && l.b == r.b; }),
              edges.end());
  outcome.edgeCount = static_cast<std::int64_t>(edges.size());
  double lowest = 1.0;
  for (const Edge& edge : edges) lowest = std::min(lowest, static_cast<double>(edge.s));
  if (over) {
    outcome.tooBig = true;
    return whole(lowest);
  }

  const auto blobCount = static_cast<std::uint32_t>(blobs.size());
  std::vector<std::uint32_t> allBlobs(blobCount);
  for (std::uint32_t i = 0; i < blobCount; ++i) allBlobs[i] = i;
  outcome.diameter = diameter(adjacency(blobCount, edges, 0.0F), allBlobs);
  if (outcome.diameter <= settings.maxHops) return whole(lowest);

  std::vector<double> scores;
  scores.reserve(edges.size());
  for (const Edge& edge : edges) scores.push_back(edge.s);
  const std::vector<double> thresholds = schedule(scores, settings.maxLevels);

  // Pieces still to cut, as blob lists; final pieces collect in done.
  std::vector<std::vector<std::uint32_t>> open{allBlobs};
  std::vector<std::vector<std::uint32_t>> done;
  std::vector<std::uint32_t> seen(blobCount, 0);
  std::uint32_t mark = 0;
  for (const double threshold : thresholds) {
    if (open.empty()) break;
    // Compare in the edges' float precision so that a link scoring exactly
    // the threshold is kept.
    const auto next = adjacency(blobCount, edges, static_cast<float>(threshold - 0.00005));
    std::vector<std::vector<std::uint32_t>> still;
    for (const auto& piece : open) {
      for (auto& part : components(next, piece, seen, ++mark)) {
        std::size_t records = 0;
        for (const std::uint32_t blob : part) records += blobs[blob].size();
        if (static_cast<int>(records) <= settings.stopSize || diameter(next, part) <= settings.maxHops) {
          done.push_back(std::move(part));
        } else {
          still.push_back(std::move(part));
        }
      }
    }
    open = std::move(still);
  }
  for (auto& piece : open) done.push_back(std::move(piece));

  // The lowest link that still holds each piece together.
  std::vector<std::uint32_t> pieceOf(blobCount, 0);
  for (std::uint32_t p = 0; p < done.size(); ++p) {
    for (const std::uint32_t blob : done[p]) pieceOf[blob] = p;
  }
  std::vector<double> weakestOf(done.size(), 1.0);
  DisjointSet joined(blobCount);
  std::vector<Edge> byScore = edges;
  std::sort(byScore.begin(), byScore.end(), [](const Edge& l, const Edge& r) { return l.s > r.s; });
  for (const Edge& edge : byScore) {
    if (pieceOf[edge.a] != pieceOf[edge.b]) continue;
    if (joined.unite(edge.a, edge.b)) {
      weakestOf[pieceOf[edge.a]] = std::min(weakestOf[pieceOf[edge.a]], static_cast<double>(edge.s));
    }
  }
  for (std::size_t p = 0; p < done.size(); ++p) {
    Piece piece;
    for (const std::uint32_t blob : done[p]) {
      piece.members.insert(piece.members.end(), blobs[blob].begin(), blobs[blob].end());
    }
    std::sort(piece.members.begin(), piece.members.end());
    piece.weakest = weakestOf[p];
    outcome.pieces.push_back(std::move(piece));
  }
  std::sort(outcome.pieces.begin(), outcome.pieces.end(),
            [](const Piece& l, const Piece& r) { return l.members.front() < r.members.front(); });
  outcome.split = outcome.pieces.size() > 1;
  return outcome;
}

}  // namespace corvane::GroupSplitter
