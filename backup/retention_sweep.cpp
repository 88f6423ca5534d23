#include "backup/retention_sweep.hpp"

#include <set>
#include <system_error>

#include "backup/manifest.hpp"

namespace corvane {

namespace fs = std::filesystem;

RetentionSweep::RetentionSweep(BackupLocation location, Remover remover, Measure measure)
    : location_(std::move(location)), remover_(std::move(remover)), measure_(std::move(measure)) {}

void RetentionSweep::noteInManifest(const fs::path& datedFolder, const Outcome& outcome) {
  auto manifest = Manifest::read(datedFolder);
  if (!manifest) return;
  manifest->retention.removed = outcome.removed;
  manifest->retention.bytesFreed = outcome.bytes;
  manifest->retention.couldNotRemove = outcome.couldNotRemove;
  try {
    manifest->write(datedFolder);
  } catch (const std::exception&) {
  }
}

void RetentionSweep::removeTree(const fs::path& path) {
  // remove_all removes a symbolic link itself, never what it points at.
  fs::remove_all(path);
}

std::int64_t RetentionSweep::bytesUnder(const fs::path& path) {
  std::error_code error;
  const auto status = fs::symlink_status(path, error);
  if (error) return 0;
  if (fs::is_regular_file(status)) {
    const auto size = fs::file_size(path, error);
    return error ? 0 : static_cast<std::int64_t>(size);
  }
  if (!fs::is_directory(status)) return 0;
  std::int64_t total = 0;
  // The iterator does not descend into linked folders unless told to.
  for (fs::recursive_directory_iterator
           it(path, fs::directory_options::skip_permission_denied, error),
       end;
       !error && it != end; it.increment(error)) {
    std::error_code entryError;
    if (it->is_regular_file(entryError) && !it->is_symlink(entryError)) {
      const auto size = it->file_size(entryError);
      if (!entryError) total += static_cast<std::int64_t>(size);
    }
  }
  return total;
}

bool RetentionSweep::removeRun(BackupStore& store, std::int64_t id, const std::string& folder,
                               Outcome& outcome) {
  const fs::path path = location_.folder() / BackupLocation::safeName(folder);
  std::error_code error;
  const bool present = fs::exists(fs::symlink_status(path, error));
  if (present) {
    const std::int64_t bytes = measure_(path);
    try {
      remover_(path);
    } catch (const std::exception& failure) {
      store.unmarkRetired(id);
      outcome.couldNotRemove.push_back(folder);
      if (outcome.problem.empty())
        outcome.problem =
            "The backup folder \"" + folder + "\" could not be removed: " + failure.what();
      return false;
    }
    outcome.bytes += bytes;
  }
  // A row whose folder is already gone is simply forgotten.
  store.forget(id);
  outcome.removed.push_back(folder);
  return true;
}

RetentionSweep::Outcome RetentionSweep::apply(BackupStore& store, const Retention::Policy& policy,
                                              std::optional<std::int64_t> justFinished) {
  Outcome outcome;

  // Runs an interrupted sweep marked retired but did not finish.
  for (const auto& [id, folder] : store.retiredRuns()) {
    if (justFinished && id == *justFinished) {
      store.unmarkRetired(id);
      continue;
    }
    removeRun(store, id, folder, outcome);
  }

  for (const auto& run : Retention::plan(store.retentionRuns(), policy, justFinished)) {
    try {
      store.markRetired(run.id);
    } catch (const std::exception&) {
      // Never remove a folder whose run row could not be marked.
      outcome.couldNotRemove.push_back(run.folder);
      if (outcome.problem.empty())
        outcome.problem = "The backup database could not mark \"" + run.folder + "\" for removal.";
      continue;
    }
    removeRun(store, run.id, run.folder, outcome);
  }

  outcome.bytes += reclaimFileBodies(store);
  if (justFinished) store.recordRemovals(*justFinished, outcome.removed, outcome.bytes);
  return outcome;
}

std::int64_t RetentionSweep::reclaimFileBodies(BackupStore& store) {
  const fs::path files = location_.filesFolder();
  std::error_code error;
  if (!fs::is_directory(fs::symlink_status(files, error))) return 0;

  std::set<std::string> needed;
  for (const auto& version : store.fileVersions()) {
    if (!version.nameOnDisk.empty()) needed.insert(version.nameOnDisk);
    needed.insert(version.earlierCopies.begin(), version.earlierCopies.end());
  }

  std::int64_t bytes = 0;
  for (fs::directory_iterator it(files, error), end; !error && it != end; it.increment(error)) {
    std::error_code entryError;
    const std::string name = it->path().filename().string();
    if (name == ".partial" || needed.count(name) != 0) continue;
    if (!it->is_regular_file(entryError) || it->is_symlink(entryError)) {
      // A stray link is removed as a link; folders are left alone.
      if (it->is_symlink(entryError)) fs::remove(it->path(), entryError);
      continue;
    }
    const auto size = it->file_size(entryError);
    if (entryError) continue;
    if (fs::remove(it->path(), entryError) && !entryError) bytes += static_cast<std::int64_t>(size);
  }
  return bytes;
}

}  // namespace corvane
