#include "dedupe/keeper_rules.hpp"

#include <algorithm>

namespace corvane {

std::string_view rawValue(KeeperRule rule) {
  switch (rule) {
    case KeeperRule::oldest: return "oldest";
    case KeeperRule::newest: return "newest";
    case KeeperRule::mostComplete: return "mostComplete";
    case KeeperRule::recentlyUpdated: return "recentlyUpdated";
  }
  return "oldest";
}

std::optional<KeeperRule> keeperRuleFromRaw(std::string_view raw) {
  for (KeeperRule rule : allKeeperRules) {
    if (rawValue(rule) == raw) return rule;
  }
  return std::nullopt;
}

namespace KeeperRules {

std::string_view label(KeeperRule rule) {
  switch (rule) {
    case KeeperRule::oldest:
      return "The record created first stays. Usually the one other records already link to.";
    case KeeperRule::newest: return "The record created last stays.";
    case KeeperRule::mostComplete: return "The record with the most filled-in fields stays.";
    case KeeperRule::recentlyUpdated: return "The record changed most recently stays.";
  }
  return "";
}

namespace {

// Whether candidate beats best under the rule; equal records never do, so the
// first of equals stays.
bool better(const SnapshotRecord& candidate, const SnapshotRecord& best, KeeperRule rule) {
  switch (rule) {
    case KeeperRule::oldest: {
      constexpr std::string_view undated = "9999";
      std::string_view a = candidate.created.empty() ? undated : std::string_view(candidate.created);
      std::string_view b = best.created.empty() ? undated : std::string_view(best.created);
      return a < b;
    }
    case KeeperRule::newest: return candidate.created > best.created;
    case KeeperRule::mostComplete: return candidate.filledCount > best.filledCount;
    case KeeperRule::recentlyUpdated: return candidate.modified > best.modified;
  }
  return false;
}

}  // namespace

std::optional<std::size_t> keeperIndex(const std::vector<SnapshotRecord>& records,
                                       KeeperRule rule) {
  if (records.empty()) return std::nullopt;
  std::size_t best = 0;
  for (std::size_t i = 1; i < records.size(); ++i) {
    if (better(records[i], records[best], rule)) best = i;
  }
  return best;
}

std::vector<std::size_t> ranked(const std::vector<SnapshotRecord>& records, KeeperRule rule) {
  std::vector<std::size_t> order(records.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    return better(records[a], records[b], rule);
  });
  return order;
}

const SnapshotRecord* keeper(const std::vector<SnapshotRecord>& records, KeeperRule rule) {
  std::optional<std::size_t> index = keeperIndex(records, rule);
  return index ? &records[*index] : nullptr;
}

std::string why(const SnapshotRecord& keeper, KeeperRule rule, std::size_t /*groupSize*/) {
  switch (rule) {
    case KeeperRule::oldest:
      return "Kept because it was created first (" + displayDate(keeper.created) + ")";
    case KeeperRule::newest:
      return "Kept because it was created last (" + displayDate(keeper.created) + ")";
    case KeeperRule::mostComplete:
      return "Kept because it has the most filled-in fields (" +
             std::to_string(keeper.filledCount) + ")";
    case KeeperRule::recentlyUpdated:
      return "Kept because it was updated most recently (" + displayDate(keeper.modified) + ")";
  }
  return "";
}

std::string displayDate(std::string_view iso) {
  if (iso.empty()) return "no date";
  std::size_t t = iso.find('T');
  return std::string(iso.substr(0, t == std::string_view::npos ? iso.size() : t));
}

}  // namespace KeeperRules
}  // namespace corvane
