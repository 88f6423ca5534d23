// What one backup run did: the runner's result, shown at its end and stored
// with the run.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "backup/deleted_count.hpp"
#include "backup/run_kind.hpp"

namespace corvane {

struct RunSummary {
  std::int64_t runId = 0;
  RunKind kind = RunKind::full;
  std::filesystem::path folder;
  std::string result;  // RunResult
  std::string message;
  std::int64_t records = 0;
  std::int64_t deleted = 0;
  std::int64_t filesDownloaded = 0;
  std::int64_t filesWaiting = 0;
  std::int64_t apiRequests = 0;
  std::vector<std::string> removedBackups;
  std::int64_t removedBytes = 0;
  std::vector<DeletedCount> unusualDeletions;

  // Whether the run ended with every planned object copied or accounted for.
  bool succeeded() const;
  // One JSON object, keys as the field names, pretty-printed.
  std::string json() const;
  // A few lines for a person.
  std::string text() const;

  bool operator==(const RunSummary&) const = default;
};

}  // namespace corvane
