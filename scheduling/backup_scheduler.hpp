// What wakes the program once an hour for scheduled backups, behind one
// interface: the per-user launch agent on macOS, a systemd user timer on Linux.
// The rest of the program asks for reconcile() and reads current(); it never
// knows which one it has.
//
// Both start "<executable> --backup-tick" once an hour at the tick minute, and
// both only ever act through an injected command runner (launchctl, systemctl
// --user) and an injected folder, so tests never touch the real user's setup.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/user_facing_error.hpp"

namespace corvane {

// A failure to set the schedule up or take it down; what() is the sentence
// shown in the interactive program.
class SchedulerError : public UserFacingError {
 public:
  using UserFacingError::UserFacingError;
};

// The exit status and the combined output of one launchctl / systemctl call.
struct ServiceCommandResult {
  int status = 0;
  std::string output;
};
using ServiceCommandRunner =
    std::function<ServiceCommandResult(const std::vector<std::string>& arguments)>;

// What is installed.
struct SchedulerState {
  bool installed = false;                    // the file(s) are there
  std::optional<std::string> executablePath; // as the file names it
  std::optional<int> minute;                 // the tick minute in the file
  std::optional<bool> loaded;                // the service's own view, when asked
  bool operator==(const SchedulerState&) const = default;
};

class BackupScheduler {
 public:
  virtual ~BackupScheduler() = default;

  enum class Outcome { unchanged, installed, removed };

  // Makes what is installed match the wish: installed for executablePath at
  // `minute` (1-59) when enabled, gone when not. Throws SchedulerError, with
  // nothing half installed where it can be helped.
  virtual Outcome reconcile(bool enabled, const std::filesystem::path& executablePath,
                            int minute) = 0;
  // Reads the installed files; when askService, also asks the service.
  virtual SchedulerState current(bool askService) = 0;
  // "launch agent" or "systemd user timer".
  virtual std::string kindName() const = 0;
  // The file that holds the schedule.
  virtual std::filesystem::path fileURL() const = 0;

  // The one for this platform, with the real folders and commands. When the
  // environment variable CORVANE_SCHEDULER_FOLDER holds an absolute path, its
  // files go there instead and its service commands are only recorded, in
  // "service-commands.log" there: tests of the program use it so that nothing
  // is ever installed for the machine's user.
  static std::unique_ptr<BackupScheduler> forThisMachine();
};

}  // namespace corvane
