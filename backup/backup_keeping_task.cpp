#include "backup/backup_keeping_task.hpp"

#include <algorithm>
#include <memory>

#include "backup/backup_lock.hpp"
#include "backup/backup_store.hpp"
#include "backup/folder_access.hpp"

namespace corvane {

BackupKeepingError BackupKeepingError::noBackupYet(const BackupLocation& location) {
  return {Kind::noBackupYet, "There is no backup of " + location.username + " in " +
                                 location.root.string() +
                                 " yet, so nothing has been found deleted."};
}

BackupKeepingError BackupKeepingError::notEjectable(const std::string& username) {
  return {Kind::notEjectable, "The backups of " + username +
                                  " are not kept on a disk that can be ejected. Nothing was "
                                  "changed."};
}

BackupKeepingError BackupKeepingError::driveNotConnected(const std::string& volume) {
  return {Kind::driveNotConnected, BackupEjectText::notConnected(volume)};
}

BackupKeepingError BackupKeepingError::ejectWhileRunning(const std::string& volume) {
  return {Kind::ejectWhileRunning, BackupEjectText::refusedWhileRunning(volume)};
}

BackupKeepingError BackupKeepingError::ejectRefused(const std::string& volume,
                                                    const std::string& because) {
  return {Kind::ejectRefused, BackupEjectText::refused(volume, because)};
}

namespace BackupKeepingTask {

namespace {

// The login's backup database; refused when there is no backup yet.
std::unique_ptr<BackupStore> openExisting(const BackupLocation& location) {
  std::error_code error;
  if (!std::filesystem::exists(location.databaseURL(), error))
    throw BackupKeepingError::noBackupYet(location);
  return std::make_unique<BackupStore>(location);
}

}  // namespace

std::vector<RecycleBin::Deleted> deleted(const BackupLocation& location,
                                         const std::string& object, const std::string& since) {
  auto store = openExisting(location);
  std::string sql = "SELECT object, id, deleted_at, how FROM known_ids WHERE deleted = 1";
  if (!object.empty()) sql += " AND object = ?1";
  if (!since.empty()) sql += " AND deleted_at >= ?2";
  sql += " ORDER BY deleted_at, object, id";
  auto statement = store->db().prepare(sql);
  if (!object.empty()) statement.bindText(1, object);
  if (!since.empty()) statement.bindText(2, since);
  std::vector<RecycleBin::Deleted> found;
  while (statement.step()) {
    found.push_back({statement.columnText(0), statement.columnText(1), statement.columnText(2),
                     statement.columnText(3)});
  }
  return found;
}

RecycleBinResult recycleBin(DedupeTransport& transport, const BackupLocation& location,
                            const RecycleBinRequest& request, std::stop_token stop,
                            const ProgressHandler& onProgress) {
  std::vector<std::string> ids = request.ids;
  if (ids.empty()) {
    report(onProgress, Phase::findingDeleted);
    for (auto& deletion : deleted(location, request.object, {})) ids.push_back(deletion.id);
  }
  RecycleBinResult result;
  result.asked = ids.size();
  const Phase phase = request.putBack ? Phase::puttingBack : Phase::checking;
  const auto total = static_cast<std::int64_t>(ids.size());
  RecycleBin bin(transport);
  for (std::size_t from = 0; from < ids.size(); from += RecycleBin::batchSize) {
    if (stop.stop_requested()) {
      result.stopped = true;
      return result;
    }
    report(onProgress, phase, static_cast<std::int64_t>(from), total, request.object);
    const std::vector<std::string> batch(
        ids.begin() + static_cast<std::ptrdiff_t>(from),
        ids.begin() + static_cast<std::ptrdiff_t>(std::min(ids.size(), from + RecycleBin::batchSize)));
    auto outcomes =
        request.putBack ? bin.putBack(request.object, batch) : bin.check(request.object, batch);
    std::move(outcomes.begin(), outcomes.end(), std::back_inserter(result.outcomes));
  }
  report(onProgress, Phase::finished, total, total);
  return result;
}

std::string eject(const BackupLocation& location, const BackupVolumes& volumes,
                  const CommandRunner& run) {
  const auto volume = volumes.ejectableVolume(location.folder());
  if (!volume) {
    if (auto name = volumes.volumeName(location.folder());
        name && volumes.reach(location.folder()).kind == BackupFolderState::Kind::driveNotConnected)
      throw BackupKeepingError::driveNotConnected(*name);
    throw BackupKeepingError::notEjectable(location.username);
  }
  if (BackupLock::isHeld(location.lockURL()))
    throw BackupKeepingError::ejectWhileRunning(volume->name);
  const auto outcome = ejectVolume(*volume, run);
  if (outcome.kind == EjectOutcome::Kind::refused)
    throw BackupKeepingError::ejectRefused(volume->name, outcome.because);
  return volume->name;
}

}  // namespace BackupKeepingTask

}  // namespace corvane
