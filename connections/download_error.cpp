#include "connections/download_error.hpp"

#include <fmt/format.h>

namespace corvane {

DownloadError DownloadError::objectNotSupported(const std::string& platformText) {
  DownloadError error(Kind::objectNotSupported,
                      "Salesforce cannot prepare a bulk download for this object. " + platformText);
  error.platformText_ = platformText;
  return error;
}

DownloadError DownloadError::jobFailed(const std::string& platformText) {
  DownloadError error(Kind::jobFailed, "Salesforce could not prepare the download: " + platformText);
  error.platformText_ = platformText;
  return error;
}

DownloadError DownloadError::lowDiskSpace(std::int64_t needed, std::int64_t free) {
  DownloadError error(Kind::lowDiskSpace, "Not enough disk space: this download needs about " +
                                              byteCountText(needed) + " and only " +
                                              byteCountText(free) +
                                              " is free. Free up space or match on fewer fields.");
  error.needed_ = needed;
  error.free_ = free;
  return error;
}

DownloadError DownloadError::authExpired() {
  return DownloadError(Kind::authExpired,
                       "Salesforce signed you out. Log in again, then press Resume \u2014 nothing "
                       "downloaded so far is lost.");
}

DownloadError DownloadError::jobExpired() {
  return DownloadError(Kind::jobExpired,
                       "This download paused more than a week ago and Salesforce no longer has "
                       "it. Starting fresh is required.");
}

DownloadError DownloadError::unexpectedColumns() {
  return DownloadError(Kind::unexpectedColumns,
                       "Salesforce sent columns that do not match what was asked for. Nothing was "
                       "stored from this page.");
}

DownloadError DownloadError::pageWithoutLocator() {
  return DownloadError(Kind::resultsIncomplete,
                       "Salesforce sent a page of results twice without saying whether more "
                       "follow, so this download could not be finished. Nothing after that page "
                       "was stored; try again later.");
}

DownloadError DownloadError::rowsNotAsCounted(std::int64_t counted, std::int64_t received) {
  return DownloadError(Kind::resultsIncomplete,
                       fmt::format("Salesforce said this download holds {} records but sent {}, "
                                   "so it is not complete; try again later.",
                                   counted, received));
}

DownloadError DownloadError::unreadableReply() {
  return DownloadError(Kind::unreadableReply,
                       "Salesforce returned field details that could not be read.");
}

std::string DownloadError::shortTitle() const {
  switch (kind_) {
    case Kind::authExpired:
      return "Salesforce signed you out";
    case Kind::lowDiskSpace:
      return "Disk space ran low";
    case Kind::jobExpired:
      return "Download expired";
    default:
      return "Download failed";
  }
}

std::string byteCountText(std::int64_t bytes) {
  if (bytes < 1000) return fmt::format("{} bytes", bytes);
  const char* units[] = {"KB", "MB", "GB", "TB", "PB"};
  double value = static_cast<double>(bytes) / 1000.0;
  std::size_t unit = 0;
  while (value >= 999.95 && unit + 1 < std::size(units)) {
    value /= 1000.0;
    ++unit;
  }
  return fmt::format("{:.1f} {}", value, units[unit]);
}

}  // namespace corvane
