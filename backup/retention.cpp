#include "backup/retention.hpp"

namespace corvane::Retention {

bool isCompleteFull(const RunInfo& run) {
  if (run.kind != RunKind::full || !run.usable || !run.leftOutObjects.empty()) return false;
  if (!run.plannedObjects) return true;
  return run.completeObjects && *run.completeObjects == *run.plannedObjects;
}

std::set<std::int64_t> removable(const std::vector<RunInfo>& runs, const Policy& policy) {
  std::set<std::int64_t> result;
  if (!policy.keepLastFulls || *policy.keepLastFulls < 1) return result;
  const auto wanted = static_cast<std::size_t>(*policy.keepLastFulls);

  // Walk from the newest back to the n-th complete full run.
  std::size_t kept = 0;
  std::size_t oldestKept = runs.size();
  for (std::size_t index = runs.size(); index-- > 0;) {
    if (!isCompleteFull(runs[index])) continue;
    ++kept;
    if (kept == wanted) {
      oldestKept = index;
      break;
    }
  }
  if (kept < wanted) return result;
  for (std::size_t index = 0; index < oldestKept; ++index) result.insert(runs[index].id);
  return result;
}

std::vector<RunInfo> plan(const std::vector<RunInfo>& runs, const Policy& policy,
                          std::optional<std::int64_t> keeping) {
  const auto ids = removable(runs, policy);
  std::vector<RunInfo> result;
  for (const auto& run : runs) {
    if (ids.count(run.id) == 0 || !run.finished) continue;
    if (keeping && run.id == *keeping) continue;
    result.push_back(run);
  }
  return result;
}

}  // namespace corvane::Retention
