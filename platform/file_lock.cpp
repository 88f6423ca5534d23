#include "platform/file_lock.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace corvane {

std::optional<FileLock> FileLock::tryAcquire(const std::filesystem::path& path) {
  int fd;
  do {
    fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) throw FileError(FileError::Kind::open, path, errno);

  int result;
  do {
    result = ::flock(fd, LOCK_EX | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  if (result == 0) return FileLock(path, fd);

  const int error = errno;
  ::close(fd);
  if (error == EWOULDBLOCK) return std::nullopt;
  throw FileError(FileError::Kind::lock, path, error);
}

bool FileLock::isHeld(const std::filesystem::path& path) { return !tryAcquire(path).has_value(); }

FileLock::FileLock(FileLock&& other) noexcept
    : path_(std::move(other.path_)), fd_(std::exchange(other.fd_, -1)) {}

FileLock& FileLock::operator=(FileLock&& other) noexcept {
  if (this != &other) {
    release();
    path_ = std::move(other.path_);
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

FileLock::~FileLock() { release(); }

void FileLock::release() {
  // Closing the only descriptor of the open file releases the lock.
  if (fd_ >= 0) ::close(std::exchange(fd_, -1));
}

}  // namespace corvane
