// An advisory, exclusive, whole-file lock that keeps two processes (or two
// parts of one process) from doing the same work at once.
//
// The lock file is opened read-write, created with mode 0600 when missing, and
// closed on exec, so a child process never inherits the lock. The lock belongs
// to the open file, not to the process: a second tryAcquire of the same path in
// the same process is refused too. It ends when the owner is destroyed or
// released, or when the process ends in any way; the file itself is never removed.
#pragma once

#include <filesystem>
#include <optional>

#include "platform/file_error.hpp"

namespace corvane {

class FileLock {
 public:
  // The lock, or none when it is held elsewhere. Never waits. Throws FileError
  // (open) when the file cannot be opened or created, (lock) when the file
  // system refuses locks altogether.
  static std::optional<FileLock> tryAcquire(const std::filesystem::path& path);

  // True when someone else holds the lock at this moment (tries it and lets go).
  static bool isHeld(const std::filesystem::path& path);

  FileLock(FileLock&& other) noexcept;
  FileLock& operator=(FileLock&& other) noexcept;
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  ~FileLock();

  const std::filesystem::path& path() const { return path_; }
  bool isOwned() const { return fd_ >= 0; }
  // Lets go now; the destructor then does nothing.
  void release();

 private:
  FileLock(std::filesystem::path path, int fd) : path_(std::move(path)), fd_(fd) {}
  std::filesystem::path path_;
  int fd_ = -1;
};

}  // namespace corvane
