// last-run.json: what the app's screens show about an org's latest backup
// without opening its database.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "backup/backup_location.hpp"
#include "backup/deleted_count.hpp"

namespace corvane {

struct LastRun {
  std::string startedAt;  // ISO 8601
  std::string finishedAt;
  std::string kind;    // "full" or "changes"
  std::string result;  // as in runs.result
  std::string message;
  std::int64_t records = 0;
  std::int64_t deleted = 0;
  std::int64_t files = 0;
  std::int64_t filesWaiting = 0;
  std::int64_t bytes = 0;
  std::string folder;  // the dated folder's name
  std::optional<std::vector<std::string>> removedBackups;
  std::optional<std::int64_t> removedBytes;
  std::optional<std::vector<DeletedCount>> unusualDeletions;

  // None when the file is missing or cannot be read as a last run, never an error.
  static std::optional<LastRun> read(const BackupLocation& location);
  static std::optional<LastRun> parse(std::string_view text);

  // The JSON text: keys are the field names, sorted, pretty-printed; absent
  // optional fields are left out.
  std::string json() const;
  // Replaces last-run.json atomically (0600). Throws FileError.
  void write(const BackupLocation& location) const;

  bool operator==(const LastRun&) const = default;
};

}  // namespace corvane
