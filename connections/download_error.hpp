// The ways a bulk download stops, in the words a user reads, and the phases
// a download reports to the screen while it runs.
#pragma once

#include <cstdint>
#include <string>

#include "platform/user_facing_error.hpp"

namespace corvane {

class DownloadError : public UserFacingError {
 public:
  enum class Kind {
    objectNotSupported,  // the platform cannot bulk-query this object
    jobFailed,           // the query job failed or was refused
    lowDiskSpace,        // not enough free space for what remains
    authExpired,         // the login's session is gone
    jobExpired,          // the job's results are no longer kept
    unexpectedColumns,   // a page's header does not list the asked columns
    unreadableReply,     // a job status or field-details reply could not be read
    resultsIncomplete,   // the job's results did not come whole
  };

  static DownloadError objectNotSupported(const std::string& platformText);
  static DownloadError jobFailed(const std::string& platformText);
  static DownloadError lowDiskSpace(std::int64_t needed, std::int64_t free);
  static DownloadError authExpired();
  static DownloadError jobExpired();
  static DownloadError unexpectedColumns();
  static DownloadError unreadableReply();
  // A results page came twice without saying whether more follow.
  static DownloadError pageWithoutLocator();
  // The pages held fewer or more rows than the job said it found.
  static DownloadError rowsNotAsCounted(std::int64_t counted, std::int64_t received);

  Kind kind() const { return kind_; }
  const std::string& platformText() const { return platformText_; }
  std::int64_t needed() const { return needed_; }
  std::int64_t free() const { return free_; }
  // A few words for a title, where the screen has room for one.
  std::string shortTitle() const;

 private:
  DownloadError(Kind kind, const std::string& sentence) : UserFacingError(sentence), kind_(kind) {}
  Kind kind_;
  std::string platformText_;
  std::int64_t needed_ = 0;
  std::int64_t free_ = 0;
};

// "12.3 MB": a byte count as the messages show it (decimal units).
std::string byteCountText(std::int64_t bytes);

// What a download is doing, for the screen.
struct DownloadPhase {
  enum class Kind { preparing, downloading, finished, paused };
  Kind kind = Kind::preparing;
  std::string text;          // preparing: what is happening; paused: the reason
  std::int64_t done = 0;     // downloading: records stored; finished, paused: records
  std::int64_t total = 0;    // downloading: records the org reported
  std::int64_t bytes = 0;    // downloading: bytes received so far

  static DownloadPhase preparing(std::string text) { return {Kind::preparing, std::move(text)}; }
  static DownloadPhase downloading(std::int64_t done, std::int64_t total, std::int64_t bytes) {
    return {Kind::downloading, {}, done, total, bytes};
  }
  static DownloadPhase finished(std::int64_t records) { return {Kind::finished, {}, records}; }
  static DownloadPhase paused(std::int64_t records, std::string reason) {
    return {Kind::paused, std::move(reason), records};
  }
  bool operator==(const DownloadPhase&) const = default;
};

// The screen's words for a stopped download.
inline constexpr const char* downloadStoppedText =
    "Download stopped. The records already saved stay on this Mac; press Resume to continue "
    "where it left off.";

// While the job is prepared.
inline constexpr const char* preparingText =
    "Salesforce is preparing your download \u2014 this can take a few minutes for large amounts "
    "of data. Nothing has been stored on this Mac yet.";

}  // namespace corvane
