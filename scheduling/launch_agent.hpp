// The macOS per-user launch agent "com.veskar.corvane.backup".
#pragma once

#include <sys/types.h>

#include "scheduling/backup_scheduler.hpp"

namespace corvane {

namespace LaunchAgentPlist {
inline constexpr const char* label = "com.veskar.corvane.backup";
inline constexpr const char* fileName = "com.veskar.corvane.backup.plist";
inline constexpr const char* bundleIdentifier = "com.veskar.corvane";

// The XML property list: Label, ProgramArguments (path, "--backup-tick"),
// StartCalendarInterval {Minute}, ProcessType Background, LowPriorityIO,
// LimitLoadToSessionType Aqua, AssociatedBundleIdentifiers, and standard out
// and error to /dev/null.
std::string contents(const std::filesystem::path& executablePath, int minute);

// The program path and minute of a property list; none when it cannot be read.
struct Parsed {
  std::string executablePath;
  int minute = 0;
};
std::optional<Parsed> parse(std::string_view text);
}  // namespace LaunchAgentPlist

namespace SystemLaunchctl {
// Runs "/bin/launchctl" with the arguments; status and output.
ServiceCommandResult run(const std::vector<std::string>& arguments);
}  // namespace SystemLaunchctl

class LaunchAgentManager : public BackupScheduler {
 public:
  enum class Action { bootout, removePlist, writePlist, bootstrap };

  // folder: the user's LaunchAgents folder; userId: for "gui/<uid>".
  LaunchAgentManager(std::filesystem::path folder, uid_t userId, ServiceCommandRunner launchctl);

  // Refuses paths launchd could lose: translocated copies, disk images and
  // other disks, and paths that are not absolute. Throws SchedulerError.
  static void checkExecutableLocation(const std::filesystem::path& executablePath);

  Outcome reconcile(bool enabled, const std::filesystem::path& executablePath,
                    int minute) override;
  SchedulerState current(bool askLaunchd) override;
  std::string kindName() const override { return "launch agent"; }
  std::filesystem::path fileURL() const override { return folder_ / LaunchAgentPlist::fileName; }

  // Carries the actions out in order; the plist written is `contents`.
  void apply(const std::vector<Action>& actions, const std::string& contents);

  std::string domain() const;         // "gui/<uid>"
  std::string serviceTarget() const;  // "gui/<uid>/com.veskar.corvane.backup"

 private:
  std::filesystem::path folder_;
  uid_t userId_;
  ServiceCommandRunner launchctl_;
};

}  // namespace corvane
