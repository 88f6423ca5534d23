// The entry points of `backup deleted`, `backup recycle-bin` and `backup
// eject`, shared by both faces: what the backups found deleted, which of those
// records are still in the org's Recycle Bin (and putting them back), and
// ejecting the disk that holds the backups. Blocking: callers run them on a
// worker thread. They print nothing.
#pragma once

#include <cstdint>
#include <stop_token>
#include <string>
#include <vector>

#include "backup/backup_location.hpp"
#include "backup/backup_volumes.hpp"
#include "backup/recycle_bin.hpp"
#include "connections/dedupe_transport.hpp"
#include "platform/task_progress.hpp"
#include "platform/user_facing_error.hpp"

namespace corvane {

class BackupKeepingError : public UserFacingError {
 public:
  enum class Kind {
    noBackupYet,          // the login has no backup database in the root
    notEjectable,         // the backups are not on a disk that can be ejected
    driveNotConnected,    // the disk that held them is not connected
    ejectWhileRunning,    // a run is writing to the disk
    ejectRefused,         // the system would not eject it
  };

  static BackupKeepingError noBackupYet(const BackupLocation& location);
  static BackupKeepingError notEjectable(const std::string& username);
  static BackupKeepingError driveNotConnected(const std::string& volume);
  static BackupKeepingError ejectWhileRunning(const std::string& volume);
  static BackupKeepingError ejectRefused(const std::string& volume, const std::string& because);

  Kind kind() const { return kind_; }

 private:
  BackupKeepingError(Kind kind, const std::string& sentence)
      : UserFacingError(sentence), kind_(kind) {}
  Kind kind_;
};

namespace BackupKeepingTask {

// The records the backups at location found deleted, oldest first: all, or
// only those of object (when not empty) deleted on or after since (a day
// "YYYY-MM-DD", when not empty). Throws BackupKeepingError::noBackupYet.
std::vector<RecycleBin::Deleted> deleted(const BackupLocation& location,
                                         const std::string& object, const std::string& since);

enum class Phase {
  findingDeleted,  // reading what the backups found deleted
  checking,        // asking the org, a batch at a time; done/total: ids
  puttingBack,     // putting back, a batch at a time; done/total: ids
  finished,
};
using Progress = TaskProgress<Phase>;
using ProgressHandler = TaskProgressHandler<Phase>;

struct RecycleBinRequest {
  std::string object;
  std::vector<std::string> ids;  // none: those the backups at location found deleted
  bool putBack = false;
};

struct RecycleBinResult {
  // The ids asked about: those given, or the ones the backups found deleted.
  std::size_t asked = 0;
  // Per id, in order (see RecycleBin::check and putBack). Shorter than asked
  // when a stop ended the task between batches.
  std::vector<RecycleBin::Outcome> outcomes;
  bool stopped = false;
};

// Asks which records are still in the Recycle Bin, and with putBack puts them
// back, a batch of RecycleBin::batchSize ids at a time; a stop is honoured
// between batches. Throws BackupKeepingError::noBackupYet (no ids given and no
// backup), RecycleBinError and the transport's errors.
RecycleBinResult recycleBin(DedupeTransport& transport, const BackupLocation& location,
                            const RecycleBinRequest& request, std::stop_token stop,
                            const ProgressHandler& onProgress = {});

// Ejects the disk that holds the backups at location, unless a run is writing
// to it. Returns the disk's name. Throws BackupKeepingError.
std::string eject(const BackupLocation& location, const BackupVolumes& volumes,
                  const CommandRunner& run);

}  // namespace BackupKeepingTask

}  // namespace corvane
