// The Linux scheduler: a systemd user timer "corvane-backup.timer" that starts
// the oneshot service "corvane-backup.service" (ExecStart = the executable
// with --backup-tick) once an hour at the tick minute.
//
// Units live in the user's unit folder ($XDG_CONFIG_HOME/systemd/user, else
// ~/.config/systemd/user) and are driven with "systemctl --user". A tick that
// the machine was off or asleep for runs when it wakes (Persistent=true), as
// the launch agent does on macOS; the tick itself runs a missed slot once.
#pragma once

#include <optional>
#include <string>

#include "scheduling/backup_scheduler.hpp"

namespace corvane {

namespace SystemdUnits {
inline constexpr const char* serviceName = "corvane-backup.service";
inline constexpr const char* timerName = "corvane-backup.timer";

// With home, the service sets CORVANE_HOME to it, so that the tick reads the
// same backup sets as the program that installed it.
std::string service(const std::filesystem::path& executablePath,
                    const std::optional<std::string>& home = std::nullopt);
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
  // systemctl gets the arguments after "--user". home: the CORVANE_HOME the
  // tick is to run with, when the program runs with one.
  SystemdUserTimer(std::filesystem::path unitFolder, ServiceCommandRunner systemctl,
                   std::optional<std::string> home = std::nullopt);

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

  // Whether both unit files hold exactly what install would write.
  bool filesMatch(const std::filesystem::path& executablePath, int minute) const;

  std::filesystem::path unitFolder_;
  ServiceCommandRunner systemctl_;
  std::optional<std::string> home_;
};

}  // namespace corvane
