// The Linux scheduler: a systemd user timer "corvane-backup.timer" that starts
// the oneshot service "corvane-backup.service" (ExecStart = the executable
// with --backup-tick) once an hour at the tick minute.
//
// Units live in the user's unit folder ($XDG_CONFIG_HOME/systemd/user, else
// ~/.config/systemd/user) and are driven with "systemctl --user". A tick that
// the machine slept through is not repeated (Persistent=false): the next
// hourly tick catches up whatever is due anyway.
#pragma once

#include "scheduling/backup_scheduler.hpp"

namespace corvane {

namespace SystemdUnits {
inline constexpr const char* serviceName = "corvane-backup.service";
inline constexpr const char* timerName = "corvane-backup.timer";

std::string service(const std::filesystem::path& executablePath);
std::string timer(int minute);
// systemd's quoting of one command-line word: double quotes, with "\", '"'
// escaped, and "%" and "$" doubled so they are not expanded.
std::string quoted(std::string_view word);
}  // namespace SystemdUnits

namespace SystemSystemctl {
// Runs "systemctl --user" with the arguments; status and output.
ServiceCommandResult run(const std::vector<std::string>& arguments);
}  // namespace SystemSystemctl

class SystemdUserTimer : public BackupScheduler {
 public:
  // systemctl gets the arguments after "--user".
  SystemdUserTimer(std::filesystem::path unitFolder, ServiceCommandRunner systemctl);

  static std::filesystem::path standardUnitFolder();

  Outcome reconcile(bool enabled, const std::filesystem::path& executablePath,
                    int minute) override;
  SchedulerState current(bool askSystemd) override;
  std::string kindName() const override { return "systemd user timer"; }
  std::filesystem::path fileURL() const override { return unitFolder_ / SystemdUnits::timerName; }
  std::filesystem::path serviceURL() const { return unitFolder_ / SystemdUnits::serviceName; }

 private:
  void install(const std::filesystem::path& executablePath, int minute);
  void remove();

  std::filesystem::path unitFolder_;
  ServiceCommandRunner systemctl_;
};

}  // namespace corvane
