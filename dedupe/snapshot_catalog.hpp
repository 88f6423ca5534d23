// Where snapshot files live: <application support>/Corvane/Dedupe/<org id>/
// <object>-<stamp>.sqlite, each with SQLite's -wal and -shm companions.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "dedupe/snapshot_info.hpp"

namespace corvane::SnapshotCatalog {

// The folder of all snapshots (not created here).
std::filesystem::path base();
// One org's folder (not created here).
std::filesystem::path directory(std::string_view orgId);
// A new, unused file name for a download of objectName, in the org's folder,
// which is created (0700) when missing.
std::filesystem::path newURL(std::string_view orgId, std::string_view objectName);
// The org's snapshots, newest first. Files that cannot be read are left out.
std::vector<SnapshotInfo> snapshots(std::string_view orgId);
// Bytes used by the org's snapshots with their companions.
std::int64_t bytesUsed(std::string_view orgId);
// Removes a snapshot file and both companions. Throws FileError when a file
// exists but cannot be removed.
void remove(const std::filesystem::path& url);
// Letters, digits, "-", "_" and "." are kept; anything else becomes "_"; the
// result never starts with "." and is never empty.
std::string sanitize(std::string_view name);

}  // namespace corvane::SnapshotCatalog
