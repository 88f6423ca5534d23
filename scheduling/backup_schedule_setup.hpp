// Keeps the hourly wake-up (launch agent or systemd timer) in step with the
// backup sets: installed while some set has a schedule, removed when none has,
// left alone while the sets cannot be read.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "scheduling/backup_registry.hpp"
#include "scheduling/backup_scheduler.hpp"

namespace corvane::BackupScheduleSetup {

// Where the tick minute is kept ("backupTickMinute" in the settings file).
struct Defaults {
  std::function<std::optional<int>()> tickMinute;
  std::function<void(int)> setTickMinute;
  // A random minute from 1 to 59.
  std::function<int()> randomMinute;

  static Defaults settings();
};

// The stored minute when it lies within 1-59; otherwise a new random one from
// 1 to 59, stored. Minute 0 is never used: on the hour every scheduled job of
// every machine starts, and Salesforce is busiest.
int tickMinute(const Defaults& defaults);

struct Result {
  enum class Kind { unchanged, installed, removed, setsUnreadable };
  Kind kind = Kind::unchanged;
  int minute = 0;
  // For setsUnreadable: the registry's sentence for the user.
  std::string message;
};

// Reads the wish from the registry and reconciles the scheduler. The demo
// never installs or removes anything. Throws SchedulerError from the scheduler.
Result reconcileAtLaunch(const BackupRegistry& registry, BackupScheduler& scheduler,
                         const Defaults& defaults, bool isDemo,
                         const std::filesystem::path& executablePath);

// This process's own executable, absolute; empty when it cannot be told.
std::filesystem::path currentExecutablePath();

}  // namespace corvane::BackupScheduleSetup
