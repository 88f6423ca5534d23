#include "backup/retention.hpp"

namespace corvane::Retention {

bool isCompleteFull(const RunInfo& run, const std::set<std::string>& neverCopied) {
  if (run.kind != RunKind::full || !run.usable) return false;
  for (const auto& object : run.leftOutObjects)
    if (neverCopied.count(object) == 0) return false;
  if (!run.plannedObjects) return true;
  if (!run.completeObjects) return false;
  for (const auto& object : *run.plannedObjects)
    if (run.completeObjects->count(object) == 0 && neverCopied.count(object) == 0) return false;
  return true;
}

std::set<std::string> neverCopied(const std::vector<RunInfo>& runs) {
  std::set<std::string> missed;
  std::set<std::string> copied;
  for (const auto& run : runs) {
    // A stopped run (no complete set) says nothing about what Salesforce refuses.
    if (run.kind != RunKind::full || !run.usable || !run.completeObjects) continue;
    copied.insert(run.completeObjects->begin(), run.completeObjects->end());
    missed.insert(run.leftOutObjects.begin(), run.leftOutObjects.end());
    if (run.plannedObjects)
      for (const auto& object : *run.plannedObjects)
        if (run.completeObjects->count(object) == 0) missed.insert(object);
  }
  std::set<std::string> result;
  for (const auto& object : missed)
    if (copied.count(object) == 0) result.insert(object);
  return result;
}

std::set<std::int64_t> removable(const std::vector<RunInfo>& runs, const Policy& policy) {
  std::set<std::int64_t> result;
  if (!policy.keepLastFulls || *policy.keepLastFulls < 1) return result;
  const auto wanted = static_cast<std::size_t>(*policy.keepLastFulls);
  const auto missed = neverCopied(runs);

  // Walk from the newest back to the n-th complete full run.
  std::size_t kept = 0;
  std::size_t oldestKept = runs.size();
  for (std::size_t index = runs.size(); index-- > 0;) {
    if (!isCompleteFull(runs[index], missed)) continue;
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
