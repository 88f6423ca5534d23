#include "backup/backup_lock.hpp"

#include <cerrno>
#include <system_error>

#include "backup/backup_error.hpp"

namespace corvane {

BackupLock BackupLock::acquire(const std::filesystem::path& lockURL) {
  std::error_code error;
  std::filesystem::create_directories(lockURL.parent_path(), error);
  if (error) throw FileError(FileError::Kind::createFolder, lockURL.parent_path(), error.value());
  auto lock = FileLock::tryAcquire(lockURL);
  if (!lock) throw BackupError::alreadyRunning();
  return BackupLock(std::move(*lock));
}

bool BackupLock::isHeld(const std::filesystem::path& lockURL) {
  if (!std::filesystem::exists(lockURL)) return false;
  return FileLock::isHeld(lockURL);
}

}  // namespace corvane
