// The lock that keeps two runs of the same org's backup apart, across
// processes: a scheduled run and one started by hand never write at once.
#pragma once

#include <filesystem>

#include "platform/file_lock.hpp"

namespace corvane {

class BackupLock {
 public:
  // Locks lockURL (BackupLocation::lockURL), creating its folder and the file
  // (0600, closed on exec) when missing. Never waits: throws
  // BackupError::alreadyRunning when another run holds it, FileError when the
  // file cannot be made or locked at all. The file is never removed.
  static BackupLock acquire(const std::filesystem::path& lockURL);

  // Whether a run holds the lock now (tries it and lets go at once).
  static bool isHeld(const std::filesystem::path& lockURL);

  BackupLock(BackupLock&&) noexcept = default;
  BackupLock& operator=(BackupLock&&) noexcept = default;

  bool isOwned() const { return lock_.isOwned(); }
  // Lets go now; the destructor does it otherwise.
  void release() { lock_.release(); }

 private:
  explicit BackupLock(FileLock lock) : lock_(std::move(lock)) {}
  FileLock lock_;
};

}  // namespace corvane
