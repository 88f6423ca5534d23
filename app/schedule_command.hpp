// `corvane backup sets` (list, add, remove), `corvane schedule status` and the
// headless backup tick started by `corvane --backup-tick`.
//
// Every change to the sets goes through BackupRegistry and then reconciles the
// hourly wake-up (launch agent or systemd user timer) with the sets.
#pragma once

#include <filesystem>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/orgs_command.hpp"
#include "backup/backup_progress.hpp"
#include "connections/salesforce_api.hpp"
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

// How a scheduled run reaches the orgs: the logins the CLI knows (listed at
// most once per tick) and a session for one of them. Tests point both at the
// sample org.
struct OrgAccess {
  std::function<std::vector<Org>()> logins;
  SalesforceAPI::Client::SessionSource session;
  // Receives the run's progress; may be empty.
  std::function<void(const BackupProgress&)> progress;
};

// Runs one due set through the backup engine, built as `corvane backup run`
// builds it (BackupCommand::makeRunner), with the set's options. A login the
// CLI no longer knows fails without starting a run; a run that ends
// incomplete fails with its own message.
SetRunner backupSetRunner(OrgAccess access);

// The headless tick with the real machine; returns the exit status.
int runBackupTick(SalesforceCLI& cli, const Setup& setup);

// Called when the program starts a command (never for the tick): brings the
// hourly wake-up in line with the sets. Cheap when nothing changed: it reads
// backup-sets.json and the installed file(s) and calls no service command.
// A home without backup-sets.json has never had a set, so nothing is done
// there, whatever is installed. Never throws: a failure is told on `err`.
void reconcileAtLaunch(const Setup& setup, std::ostream& err);

// `corvane schedule power-wait on|off`.
void setPowerWait(CommandContext& context, bool on);

}  // namespace corvane::ScheduleCommand
