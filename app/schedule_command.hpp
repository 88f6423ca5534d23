// `corvane backup sets` (list, add, remove), `corvane schedule status` and the
// headless backup tick started by `corvane --backup-tick`.
//
// Every change to the sets goes through BackupRegistry and then reconciles the
// hourly wake-up (launch agent or systemd user timer) with the sets.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/orgs_command.hpp"
#include "scheduling/backup_registry.hpp"
#include "scheduling/backup_schedule_setup.hpp"
#include "scheduling/backup_scheduler.hpp"
#include "scheduling/scheduled_backups.hpp"

namespace CLI {
class App;
}

namespace corvane::ScheduleCommand {

// The world the commands act on; tests point every part at their own folders.
struct Setup {
  std::filesystem::path registryDirectory;
  std::filesystem::path backupRoot;
  std::function<std::unique_ptr<BackupScheduler>()> scheduler;
  BackupScheduleSetup::Defaults defaults;
  std::filesystem::path executable;

  static Setup standard();
};

// Adds the commands to app (under "backup" where they belong there); when one
// is chosen, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

// "manual", "hourly", "daily HH:MM", "weekly DAY HH:MM" (DAY: Sun..Sat, the
// full English name, or 1-7 with 1 = Sunday). Throws SetArgumentError.
BackupSchedule parseSchedule(const std::vector<std::string>& words);

class SetArgumentError : public UserFacingError {
 public:
  using UserFacingError::UserFacingError;
};

struct SetArguments {
  std::string login;
  std::string root;
  std::vector<std::string> schedule;
  std::string fullEvery;
  std::optional<int> keep;
  bool keepEverything = false;
  bool files = false;
  bool allVersions = false;
  bool historyAndFeed = false;
  bool formulaFields = false;
  std::vector<std::string> extra;
  std::vector<std::string> exclude;
  std::vector<std::string> only;
};

void listSets(CommandContext& context, const Setup& setup);
void addSet(CommandContext& context, const Setup& setup, const SetArguments& arguments);
void removeSet(CommandContext& context, const Setup& setup, const std::string& login);
void status(CommandContext& context, const Setup& setup);

// The headless tick with the real machine; returns the exit status.
int runBackupTick(SalesforceCLI& cli, const Setup& setup);

}  // namespace corvane::ScheduleCommand
