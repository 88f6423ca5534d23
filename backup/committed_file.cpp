#include "backup/committed_file.hpp"

#include <algorithm>
#include <string>

namespace corvane {

FileSizeLimitReached::FileSizeLimitReached(std::int64_t limit, std::int64_t wanted)
    : std::runtime_error("The file would grow to " + std::to_string(wanted) +
                         " bytes, past this disk's limit of " + std::to_string(limit) +
                         " bytes for one file."),
      limit_(limit),
      wanted_(wanted) {}

CommittedFile::CommittedFile(const std::filesystem::path& url, std::int64_t committedLength,
                             std::optional<std::int64_t> maximumSize)
    : file_(DurableFile::open(url)), maximumSize_(maximumSize) {
  const std::int64_t size = file_.size();
  const std::int64_t keep = std::clamp<std::int64_t>(committedLength, 0, size);
  if (keep < size) file_.truncate(keep);
  length_ = keep;
}

void CommittedFile::append(std::string_view data) {
  const std::int64_t wanted = length_ + static_cast<std::int64_t>(data.size());
  if (maximumSize_ && wanted > *maximumSize_) throw FileSizeLimitReached(*maximumSize_, wanted);
  try {
    file_.append(data);
  } catch (const FileError&) {
    // A write cut short leaves a torn row at the end; cut it off so that the
    // next append starts where the last whole one ended.
    try {
      file_.truncate(length_);
    } catch (const FileError&) {
      // The next open cuts it off instead.
    }
    throw;
  }
  length_ = wanted;
}

void CommittedFile::sync() { file_.sync(); }

void CommittedFile::close() { file_.close(); }

}  // namespace corvane
