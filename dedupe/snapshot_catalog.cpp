#include "dedupe/snapshot_catalog.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>

#include "dedupe/record_store.hpp"
#include "platform/app_support.hpp"
#include "platform/file_error.hpp"

namespace corvane::SnapshotCatalog {

namespace {

std::string stampNow() {
  std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  std::tm parts{};
  gmtime_r(&now, &parts);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y%m%d-%H%M%S", &parts);
  return buffer;
}

bool isSnapshotFile(const std::filesystem::path& path) {
  return path.extension() == ".sqlite";
}

}  // namespace

std::string sanitize(std::string_view name) {
  std::string out;
  out.reserve(name.size());
  for (char c : name) {
    bool keep = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                c == '-' || c == '_' || c == '.';
    out.push_back(keep ? c : '_');
  }
  if (out.empty() || out.front() == '.') out.insert(out.begin(), '_');
  return out;
}

std::filesystem::path base() { return AppSupport::folder() / "Dedupe"; }

std::filesystem::path directory(std::string_view orgId) { return base() / sanitize(orgId); }

std::filesystem::path newURL(std::string_view orgId, std::string_view objectName) {
  std::filesystem::path folder = directory(orgId);
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) throw FileError(FileError::Kind::createFolder, folder, error.value());
  std::filesystem::permissions(folder, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::replace, error);
  std::string stem = sanitize(objectName) + "-" + stampNow();
  std::filesystem::path url = folder / (stem + ".sqlite");
  for (int n = 2; std::filesystem::exists(url); ++n) {
    url = folder / (stem + "-" + std::to_string(n) + ".sqlite");
  }
  return url;
}

std::vector<SnapshotInfo> snapshots(std::string_view orgId) {
  std::vector<SnapshotInfo> out;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory(orgId), error)) {
    if (!entry.is_regular_file() || !isSnapshotFile(entry.path())) continue;
    try {
      out.push_back(RecordStore::open(entry.path())->info());
    } catch (const std::exception&) {
      // Not a snapshot, or one we cannot read: it is not listed.
    }
  }
  std::sort(out.begin(), out.end(), [](const SnapshotInfo& a, const SnapshotInfo& b) {
    if (a.downloadedAt != b.downloadedAt) return a.downloadedAt > b.downloadedAt;
    return a.url < b.url;
  });
  return out;
}

std::int64_t bytesUsed(std::string_view orgId) {
  std::int64_t total = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory(orgId), error)) {
    if (entry.is_regular_file() && isSnapshotFile(entry.path())) {
      total += snapshotFileBytes(entry.path());
    }
  }
  return total;
}

void remove(const std::filesystem::path& url) {
  for (const char* suffix : {"-wal", "-shm", ""}) {
    std::filesystem::path path = url.string() + suffix;
    std::error_code error;
    std::filesystem::remove(path, error);
    if (error && error.value() != ENOENT) {
      throw FileError(FileError::Kind::write, path, error.value());
    }
  }
}

}  // namespace corvane::SnapshotCatalog
