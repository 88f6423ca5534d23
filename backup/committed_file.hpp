// Appends to a file that may have been cut short, or run on, by a crash.
//
// The length recorded in the database (jobs.csv_bytes) is the truth: on open,
// everything past it is dropped, so a page of rows is either wholly in the
// file and counted, or not there at all. Not thread-safe; one writer per file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "platform/durable_file.hpp"

namespace corvane {

// An append would make the file longer than its disk allows one file to be.
// Nothing was written.
class FileSizeLimitReached : public std::runtime_error {
 public:
  FileSizeLimitReached(std::int64_t limit, std::int64_t wanted);
  std::int64_t limit() const { return limit_; }
  std::int64_t wanted() const { return wanted_; }

 private:
  std::int64_t limit_;
  std::int64_t wanted_;
};

class CommittedFile {
 public:
  // Creates the file (0600) when missing, opens it for writing and cuts it to
  // committedLength. A file already shorter than that is left as it is (its
  // length is then what length() reports): bytes never appear from nowhere.
  // Throws FileError.
  CommittedFile(const std::filesystem::path& url, std::int64_t committedLength,
                std::optional<std::int64_t> maximumSize = std::nullopt);

  CommittedFile(const CommittedFile&) = delete;
  CommittedFile& operator=(const CommittedFile&) = delete;

  const std::filesystem::path& url() const { return file_.path(); }
  const std::optional<std::int64_t>& maximumSize() const { return maximumSize_; }
  // Bytes in the file: the committed length plus what was appended since.
  std::int64_t length() const { return length_; }

  // Writes at the end; not durable until sync(). Throws FileSizeLimitReached,
  // writing nothing, when the length after the write would pass maximumSize;
  // FileError when the disk refuses.
  void append(std::string_view data);
  // Hands everything appended to the disk. Call before recording length().
  void sync();
  void close();

 private:
  DurableFile file_;
  std::optional<std::int64_t> maximumSize_;
  std::int64_t length_ = 0;
};

}  // namespace corvane
