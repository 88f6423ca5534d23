// Which older runs a backup keeps, and what the store tells retention about
// each run.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "backup/run_kind.hpp"

namespace corvane::Retention {

// Keep the last `keepLastFulls` full copies (and what they need), or everything
// when it is none. The standard is 3.
struct Policy {
  std::optional<int> keepLastFulls = 3;

  static Policy standard() { return Policy{3}; }
  static Policy keepEverything() { return Policy{std::nullopt}; }
  bool operator==(const Policy&) const = default;
};

// One run as retention sees it.
struct RunInfo {
  std::int64_t id = 0;
  std::string folder;
  RunKind kind = RunKind::full;
  bool finished = false;
  bool usable = false;
  // Objects whose records job completed, and all it planned; none when the run
  // planned no records jobs.
  std::optional<std::set<std::string>> completeObjects;
  std::optional<std::set<std::string>> plannedObjects;
  // Objects that were left out (failed or skipped for a reason other than "no changes").
  std::set<std::string> leftOutObjects;

  bool operator==(const RunInfo&) const = default;
};

// The ids of runs the policy no longer needs. Runs come oldest first
// (BackupStore::retentionRuns). The newest n full runs that are usable and
// complete (every planned object copied, none left out, save objects that no
// full run could copy) are kept, with every run
// after the oldest of them: changes runs build on it, and a full run that is
// usable but incomplete is kept beside the complete ones without counting
// towards n. Everything older is removable. With fewer than n such full runs, or
// with keepEverything or n < 1, nothing is.
std::set<std::int64_t> removable(const std::vector<RunInfo>& runs, const Policy& policy);

// The runs to remove now: removable, finished, and not `keeping` (the run that
// just finished). Oldest first.
std::vector<RunInfo> plan(const std::vector<RunInfo>& runs, const Policy& policy,
                          std::optional<std::int64_t> keeping);

// The objects that usable full runs planned or left out but none of them copied
// (refused by the Bulk API, not readable by this login): they cannot make one
// full run less complete than another.
std::set<std::string> neverCopied(const std::vector<RunInfo>& runs);

// A full run whose copy can be restored from on its own: every object it
// planned is copied, except those in neverCopied.
bool isCompleteFull(const RunInfo& run, const std::set<std::string>& neverCopied = {});

}  // namespace corvane::Retention
