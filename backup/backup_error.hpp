// The failures of a backup as a whole, each with the sentence a user reads.
//
// Failures of one object (a page Salesforce could not send, a file too big for
// the disk) are not BackupErrors: they are recorded on the object's job and the
// run goes on without it.
#pragma once

#include <cstdint>
#include <string>

#include "platform/user_facing_error.hpp"

namespace corvane {

class BackupError : public UserFacingError {
 public:
  enum class Kind {
    anotherLogin,
    lowDiskSpace,
    badResponse,
    willNotFit,
    driveNotConnected,
    demoMode,
    alreadyRunning,
    signedOut,
  };

  // The folder was made for owner, another username.
  static BackupError anotherLogin(const std::string& owner);
  // Fewer than `needed` bytes would stay free; `free` are free now.
  static BackupError lowDiskSpace(std::int64_t needed, std::int64_t free);
  static BackupError badResponse(const std::string& text);
  // The copy needs `needed` bytes (floor included); `free` are free.
  static BackupError willNotFit(std::int64_t needed, std::int64_t free);
  // name is the disk's name as the user knows it.
  static BackupError driveNotConnected(const std::string& name);
  static BackupError demoMode();
  static BackupError alreadyRunning();
  static BackupError signedOut();

  // "512 bytes", "1.5 MB", "12 GB": decimal units, as disks are sold and as the
  // system's own windows count them.
  static std::string byteCount(std::int64_t bytes);

  Kind kind() const { return kind_; }
  // The username of anotherLogin, the text of badResponse, the disk of
  // driveNotConnected; empty otherwise.
  const std::string& text() const { return text_; }
  // The byte counts of lowDiskSpace and willNotFit; 0 otherwise.
  std::int64_t needed() const { return needed_; }
  std::int64_t free() const { return free_; }

 private:
  BackupError(Kind kind, const std::string& sentence, std::string text = {},
              std::int64_t needed = 0, std::int64_t free = 0);
  Kind kind_;
  std::string text_;
  std::int64_t needed_;
  std::int64_t free_;
};

}  // namespace corvane
