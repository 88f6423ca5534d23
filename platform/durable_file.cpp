#include "platform/durable_file.hpp"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace corvane {

namespace {

using Kind = FileError::Kind;

// fsync, or on macOS the full flush that reaches the platters.
int syncDescriptor(int fd) {
#ifdef __APPLE__
  if (::fcntl(fd, F_FULLFSYNC) == 0) return 0;
    // Not every file system supports F_FULLFSYNC (network volumes); fall back.
#endif
  int result;
  do {
    result = ::fsync(fd);
  } while (result != 0 && errno == EINTR);
  return result;
}

int openFile(const std::filesystem::path& path, int flags, mode_t mode) {
  int fd;
  do {
    fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) throw FileError(Kind::open, path, errno);
  return fd;
}

void writeAll(int fd, std::string_view data, const std::filesystem::path& path) {
  while (!data.empty()) {
    const ssize_t count = ::write(fd, data.data(), data.size());
    if (count < 0) {
      if (errno == EINTR) continue;
      throw FileError(Kind::write, path, errno);
    }
    data.remove_prefix(static_cast<std::size_t>(count));
  }
}

// Closes on scope exit unless released.
class FdCloser {
 public:
  explicit FdCloser(int fd) : fd_(fd) {}
  FdCloser(const FdCloser&) = delete;
  FdCloser& operator=(const FdCloser&) = delete;
  ~FdCloser() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }
  // Closes now, reporting the error that a deferred write may surface at close.
  int closeNow() {
    const int result = ::close(std::exchange(fd_, -1));
    return result == 0 || errno == EINTR ? 0 : errno;
  }

 private:
  int fd_;
};

std::filesystem::path folderOf(const std::filesystem::path& path) {
  return path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
}

// rename() that fails with EEXIST instead of replacing an existing `to`.
int renameExclusive(const std::filesystem::path& from, const std::filesystem::path& to) {
#ifdef __APPLE__
  if (::renamex_np(from.c_str(), to.c_str(), RENAME_EXCL) == 0) return 0;
  if (errno != ENOTSUP) return errno;
#else
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS && errno != ENOTSUP) return errno;
#endif
  // The file system cannot rename exclusively: a hard link cannot replace
  // anything, so link then unlink; where links are unsupported too (FAT), check
  // then rename, which is exclusive for a single writer.
  if (::link(from.c_str(), to.c_str()) == 0) {
    ::unlink(from.c_str());
    return 0;
  }
  if (errno == EEXIST) return EEXIST;
  struct stat existing {};
  if (::lstat(to.c_str(), &existing) == 0) return EEXIST;
  return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

}  // namespace

DurableFile DurableFile::open(const std::filesystem::path& path, mode_t mode) {
  return DurableFile(path, openFile(path, O_RDWR | O_CREAT, mode));
}

DurableFile::DurableFile(DurableFile&& other) noexcept
    : path_(std::move(other.path_)), fd_(std::exchange(other.fd_, -1)) {}

DurableFile& DurableFile::operator=(DurableFile&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    path_ = std::move(other.path_);
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

DurableFile::~DurableFile() {
  if (fd_ >= 0) ::close(fd_);
}

std::int64_t DurableFile::size() const {
  struct stat info {};
  if (::fstat(fd_, &info) != 0) throw FileError(Kind::inspect, path_, errno);
  return info.st_size;
}

void DurableFile::append(std::string_view data) {
  if (::lseek(fd_, 0, SEEK_END) < 0) throw FileError(Kind::write, path_, errno);
  writeAll(fd_, data, path_);
}

void DurableFile::truncate(std::int64_t length) {
  if (::ftruncate(fd_, static_cast<off_t>(length)) != 0) {
    throw FileError(Kind::truncate, path_, errno);
  }
  sync();
}

void DurableFile::sync() {
  if (syncDescriptor(fd_) != 0) throw FileError(Kind::sync, path_, errno);
}

void DurableFile::close() {
  if (fd_ < 0) return;
  const int result = ::close(std::exchange(fd_, -1));
  if (result != 0 && errno != EINTR) throw FileError(Kind::write, path_, errno);
}

namespace Durable {

std::optional<std::string> readWhole(const std::filesystem::path& path) {
  int fd;
  do {
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    if (errno == ENOENT) return std::nullopt;
    throw FileError(Kind::read, path, errno);
  }
  FdCloser closer(fd);
  std::string content;
  char buffer[65536];
  for (;;) {
    const ssize_t count = ::read(fd, buffer, sizeof buffer);
    if (count == 0) break;
    if (count < 0) {
      if (errno == EINTR) continue;
      throw FileError(Kind::read, path, errno);
    }
    content.append(buffer, static_cast<std::size_t>(count));
  }
  return content;
}

void writeWhole(const std::filesystem::path& path, std::string_view data, mode_t mode) {
  FdCloser fd(openFile(path, O_WRONLY | O_CREAT, mode));
  writeAll(fd.get(), data, path);
  if (::ftruncate(fd.get(), static_cast<off_t>(data.size())) != 0) {
    throw FileError(Kind::truncate, path, errno);
  }
  if (syncDescriptor(fd.get()) != 0) throw FileError(Kind::sync, path, errno);
  if (const int error = fd.closeNow()) throw FileError(Kind::write, path, error);
}

void append(const std::filesystem::path& path, std::string_view data, mode_t mode) {
  FdCloser fd(openFile(path, O_WRONLY | O_CREAT | O_APPEND, mode));
  writeAll(fd.get(), data, path);
  if (syncDescriptor(fd.get()) != 0) throw FileError(Kind::sync, path, errno);
  if (const int error = fd.closeNow()) throw FileError(Kind::write, path, error);
}

void truncate(const std::filesystem::path& path, std::int64_t length) {
  FdCloser fd(openFile(path, O_WRONLY, 0));
  if (::ftruncate(fd.get(), static_cast<off_t>(length)) != 0) {
    throw FileError(Kind::truncate, path, errno);
  }
  if (syncDescriptor(fd.get()) != 0) throw FileError(Kind::sync, path, errno);
}

void replace(const std::filesystem::path& path, std::string_view data, mode_t mode) {
  const std::filesystem::path folder = folderOf(path);
  // A dot name, so that a leftover from a crash stays out of the user's way.
  std::string pattern = (folder / ("." + path.filename().string() + ".new-XXXXXX")).string();
  const int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
  if (fd < 0) throw FileError(Kind::replace, path, errno);
  const std::filesystem::path temporary = pattern;
  FdCloser closer(fd);
  try {
    if (::fchmod(fd, mode) != 0) throw FileError(Kind::replace, path, errno);
    writeAll(fd, data, temporary);
    if (syncDescriptor(fd) != 0) throw FileError(Kind::sync, path, errno);
    if (const int error = closer.closeNow()) throw FileError(Kind::write, path, error);
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
      throw FileError(Kind::replace, path, errno);
    }
  } catch (...) {
    ::unlink(temporary.c_str());
    throw;
  }
  syncFolder(folder);
}

std::filesystem::path moveWithoutOverwriting(const std::filesystem::path& from,
                                             const std::filesystem::path& to) {
  const std::string stem = to.stem().string();
  const std::string extension = to.extension().string();
  std::filesystem::path candidate = to;
  // Bounded: a folder holding a thousand set-aside copies of one file has a
  // bigger problem than a name.
  for (int attempt = 2; attempt <= 1000; ++attempt) {
    const int error = renameExclusive(from, candidate);
    if (error == 0) {
      syncFolder(folderOf(candidate));
      if (folderOf(candidate) != folderOf(from)) syncFolder(folderOf(from));
      return candidate;
    }
    if (error != EEXIST) throw FileError(Kind::moveAside, from, error);
    candidate = to.parent_path() / (stem + " " + std::to_string(attempt) + extension);
  }
  throw FileError(Kind::moveAside, from, EEXIST);
}

std::filesystem::path moveAside(const std::filesystem::path& path, SystemTime now) {
  const std::string name =
      path.stem().string() + "-unreadable-" + IsoTime::folderStamp(now) + path.extension().string();
  return moveWithoutOverwriting(path, path.parent_path() / name);
}

void syncFolder(const std::filesystem::path& folder) {
  int fd;
  do {
    fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) throw FileError(Kind::sync, folder, errno);
  FdCloser closer(fd);
  if (syncDescriptor(fd) != 0 && errno != EINVAL && errno != ENOTSUP && errno != EBADF) {
    throw FileError(Kind::sync, folder, errno);
  }
}

}  // namespace Durable

}  // namespace corvane
