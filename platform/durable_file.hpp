// Writes that survive a crash or a power cut.
//
// "Durable" here means: when a call returns, the bytes (and, where a file was
// created, renamed or moved, the folder entry naming it) have been handed to the
// disk with fsync (F_FULLFSYNC on macOS, whose fsync stops at the drive's cache).
// Every failure throws FileError naming the path and the operating system's reason.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "platform/file_error.hpp"
#include "platform/iso_time.hpp"

namespace corvane {

// One file open for appending, for files that grow by steps and are cut back to
// a known good length after a crash. Closes the file on destruction.
// Not thread-safe; one writer per file.
class DurableFile {
 public:
  // Opens for reading and writing, creating the file with `mode` when missing.
  static DurableFile open(const std::filesystem::path& path, mode_t mode = 0600);

  DurableFile(DurableFile&& other) noexcept;
  DurableFile& operator=(DurableFile&& other) noexcept;
  DurableFile(const DurableFile&) = delete;
  DurableFile& operator=(const DurableFile&) = delete;
  ~DurableFile();

  const std::filesystem::path& path() const { return path_; }
  std::int64_t size() const;

  // Writes at the end. Not yet durable: call sync().
  void append(std::string_view data);
  // Cuts the file to `length` (or extends it with zeros) and syncs.
  void truncate(std::int64_t length);
  void sync();
  void close();

 private:
  DurableFile(std::filesystem::path path, int fd) : path_(std::move(path)), fd_(fd) {}
  std::filesystem::path path_;
  int fd_ = -1;
};

namespace Durable {

// The whole content of a file; none when it does not exist. Throws FileError
// (read) when it exists but cannot be read.
std::optional<std::string> readWhole(const std::filesystem::path& path);

// Writes `data` as the file's whole content in place (write, truncate, sync),
// creating it with `mode` when missing. Use replace() where a torn write must
// never be seen.
void writeWhole(const std::filesystem::path& path, std::string_view data, mode_t mode = 0600);

// Appends and syncs, creating the file with `mode` when missing.
void append(const std::filesystem::path& path, std::string_view data, mode_t mode = 0600);

// Cuts an existing file to `length` and syncs.
void truncate(const std::filesystem::path& path, std::int64_t length);

// Atomically makes `data` the content of `path`: a temporary file in the same
// folder is written and synced, renamed over the target, and the folder synced.
// A reader sees either the old content or the new one, never a mix, even after
// a crash. The file gets exactly `mode`. On failure the old file is untouched
// and no temporary file is left behind.
void replace(const std::filesystem::path& path, std::string_view data, mode_t mode = 0600);

// Renames `from` to `to` without ever overwriting: when `to` exists, " 2",
// " 3", ... is added before the extension until a free name is found. Returns
// the name used. Throws FileError (moveAside).
std::filesystem::path moveWithoutOverwriting(const std::filesystem::path& from,
                                             const std::filesystem::path& to);

// Moves a file that could not be read out of the way under a dated name in the
// same folder, "settings.json" becoming "settings-unreadable-2024-05-01 1000.json",
// so that a fresh file can be written without losing the old content.
std::filesystem::path moveAside(const std::filesystem::path& path, SystemTime now);

// Syncs a folder, so that entries created, renamed or removed in it persist.
// File systems that cannot sync a folder (some network and FAT drivers) are
// accepted silently.
void syncFolder(const std::filesystem::path& folder);

}  // namespace Durable

}  // namespace corvane
