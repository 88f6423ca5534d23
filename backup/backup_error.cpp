#include "backup/backup_error.hpp"

#include <array>
#include <cstdio>

namespace corvane {

BackupError::BackupError(Kind kind, const std::string& sentence, std::string text,
                         std::int64_t needed, std::int64_t free)
    : UserFacingError(sentence),
      kind_(kind),
      text_(std::move(text)),
      needed_(needed),
      free_(free) {}

BackupError BackupError::anotherLogin(const std::string& owner) {
  return {Kind::anotherLogin,
          "This backup folder belongs to " + owner + ". Each login keeps its own backup, " +
              "so nothing here was changed.",
          owner};
}

BackupError BackupError::lowDiskSpace(std::int64_t needed, std::int64_t free) {
  return {Kind::lowDiskSpace,
          "The disk is almost full. At least " + byteCount(needed) + " must stay free " +
              "and only " + byteCount(free) + " is. Free up space and the backup " +
              "carries on where it stopped.",
          {},
          needed,
          free};
}

BackupError BackupError::badResponse(const std::string& text) {
  return {Kind::badResponse,
          "Salesforce sent an answer that could not be read (" + text + "). Try again later.",
          text};
}

BackupError BackupError::willNotFit(std::int64_t needed, std::int64_t free) {
  return {Kind::willNotFit,
          "This backup needs about " + byteCount(needed) + " and only " + byteCount(free) +
              " is free. Free up space or choose " +
              "another folder for this backup on a bigger disk. Nothing was copied yet.",
          {},
          needed,
          free};
}

BackupError BackupError::driveNotConnected(const std::string& name) {
  return {Kind::driveNotConnected,
          "The disk this backup is kept on, " + name + ", is not connected. Plug it in and " +
              "the backup carries on where it stopped. Nothing was written anywhere else.",
          name};
}

BackupError BackupError::demoMode() { return {Kind::demoMode, "Backups do not run in demo mode."}; }

BackupError BackupError::alreadyRunning() {
  return {Kind::alreadyRunning,
          "A backup of this org is already running. It will finish on its own."};
}

BackupError BackupError::signedOut() {
  return {Kind::signedOut,
          "Salesforce signed this login out. Log in again and the backup carries on where it "
          "stopped. Nothing is lost."};
}

std::string BackupError::byteCount(std::int64_t bytes) {
  if (bytes < 0) bytes = 0;
  if (bytes == 1) return "1 byte";
  if (bytes < 1000) return std::to_string(bytes) + " bytes";
  static constexpr std::array<const char*, 6> units{"kB", "MB", "GB", "TB", "PB", "EB"};
  double value = static_cast<double>(bytes) / 1000.0;
  std::size_t unit = 0;
  while (value >= 999.95 && unit + 1 < units.size()) {
    value /= 1000.0;
    ++unit;
  }
  std::array<char, 32> text{};
  if (value < 9.995 || (value < 99.95 && unit > 0))
    std::snprintf(text.data(), text.size(), "%.1f %s", value, units[unit]);
  else
    std::snprintf(text.data(), text.size(), "%.0f %s", value, units[unit]);
  std::string result = text.data();
  // "2.0 GB" reads better as "2 GB".
  if (auto dot = result.find(".0 "); dot != std::string::npos) result.erase(dot, 2);
  return result;
}

}  // namespace corvane
