// What a snapshot file holds, as the screens and the `snapshots` command list
// it, and who made it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "dedupe/match_kind.hpp"

namespace corvane {

struct SnapshotInfo {
  std::string orgId;
  std::string objectName;
  std::string objectLabel;
  std::string nameFieldLabel;
  std::vector<MatchField> matchFields;
  std::vector<std::string> extraFields;
  std::string downloadedAt;  // ISO 8601, UTC
  std::int64_t totalExpected = 0;
  std::int64_t recordCount = 0;
  bool complete = false;
  std::int64_t fileBytes = 0;  // the file with its -wal and -shm companions
  std::filesystem::path url;
  std::string downloadedBy;  // the login that made it; empty in older files
  bool operator==(const SnapshotInfo&) const = default;
};

// Who made a snapshot, compared with the login in use now.
enum class SnapshotOwner { thisLogin, notRecorded, anotherLogin };

// Logins compare without regard to case, as the CLI's usernames do.
SnapshotOwner snapshotOwner(std::string_view downloadedBy, std::string_view currentLogin);

// A paused download may go on only under the login that started it, or when
// the file does not say who that was.
inline bool mayResume(SnapshotOwner owner) { return owner != SnapshotOwner::anotherLogin; }

}  // namespace corvane
