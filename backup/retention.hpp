// Which older runs a backup keeps, and what the store tells retention about
// each run.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>

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

}  // namespace corvane::Retention
