// The entry points of `backup sets`, `schedule status` and the headless
// backup tick, shared by both faces.
//
// Every change to the sets goes through BackupRegistry and then reconciles the
// hourly wake-up (launch agent or systemd user timer) with the sets; what that
// changed comes back as a notice for the user. Scheduled runs go through
// BackupTask, as `backup run` does. Blocking: callers run these on a worker
// thread. They print nothing.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "backup/backup_progress.hpp"
#include "connections/org.hpp"
#include "connections/salesforce_api.hpp"
#include "connections/salesforce_cli.hpp"
#include "platform/user_facing_error.hpp"
#include "scheduling/backup_registry.hpp"
#include "scheduling/backup_schedule_setup.hpp"
#include "scheduling/backup_scheduler.hpp"
#include "scheduling/scheduled_backups.hpp"

namespace corvane {

// A backup set that cannot be saved or removed as asked.
class BackupSetError : public UserFacingError {
 public:
  enum class Kind {
    badTime,        // not HH:MM
    badDay,         // not a day of the week
    badSchedule,    // not one of the schedule forms
    badFullEvery,   // not weekly, every4Weeks or never
    keepBoth,       // --keep and --keep-everything together
    keepTooFew,     // --keep below 1
    noSuchSet,      // no set for that login
    setsUnreadable, // backup-sets.json cannot be read
  };

  static BackupSetError badTime(const std::string& text);
  static BackupSetError badDay(const std::string& text);
  static BackupSetError badSchedule();
  static BackupSetError badFullEvery();
  static BackupSetError keepBoth();
  static BackupSetError keepTooFew();
  static BackupSetError noSuchSet(const std::string& login);
  static BackupSetError setsUnreadable(const BackupRegistry& registry);

  Kind kind() const { return kind_; }

 private:
  BackupSetError(Kind kind, const std::string& sentence)
      : UserFacingError(sentence), kind_(kind) {}
  Kind kind_;
};

namespace ScheduleTask {

// The world the tasks act on; tests point every part at their own folders.
struct Setup {
  std::filesystem::path registryDirectory;
  std::filesystem::path backupRoot;
  std::function<std::unique_ptr<BackupScheduler>()> scheduler;
  BackupScheduleSetup::Defaults defaults;
  std::filesystem::path executable;

  static Setup standard();
};

// The sets, in the registry's order. Throws BackupSetError::setsUnreadable.
std::vector<BackupSet> sets(const Setup& setup);

// "manual", "hourly", "daily HH:MM", "weekly DAY HH:MM" (DAY: Sun..Sat, the
// full English name, or 1-7 with 1 = Sunday), as words. Throws BackupSetError.
BackupSchedule parseSchedule(const std::vector<std::string>& words);

// A set as the user words it: the login, the schedule's words and the options.
struct SetRequest {
  std::string login;
  std::string root;                   // empty: the default backup root
  std::vector<std::string> schedule;  // see parseSchedule; empty: manual
  std::string fullEvery;              // weekly, every4Weeks or never; empty: the standard
  std::optional<int> keep;            // the last N full copies
  bool keepEverything = false;
  bool files = false;
  bool allVersions = false;
  bool historyAndFeed = false;
  bool formulaFields = false;
  std::vector<std::string> extra;
  std::vector<std::string> exclude;
  std::vector<std::string> only;
};

// The set a request asks for. Its words are checked first (BackupSetError),
// then the login is looked up with findLogin, which throws when it is unknown.
BackupSet newSet(const SetRequest& request,
                 const std::function<Org(const std::string& login)>& findLogin);

struct Saved {
  BackupSet set;      // as stored
  std::string notice;  // what changed in the wake-up, for the user; may be empty
};
// Saves the set (replacing one for the same username, keeping its creation
// time and last success), then reconciles the wake-up. Throws what the
// registry and the scheduler throw.
Saved saveSet(const Setup& setup, BackupSet set, SystemTime now);

struct Removed {
  std::string username;
  std::string notice;
};
// Removes the set of this username (any case); its backups stay. Throws
// BackupSetError (noSuchSet, setsUnreadable).
Removed removeSet(const Setup& setup, const std::string& login);

// What is installed to run scheduled backups, and how the last tick went.
struct Status {
  bool installed = false;
  std::string schedulerKind;  // "systemd user timer", "launch agent"
  std::filesystem::path schedulerFile;
  std::optional<std::string> executable;  // what the wake-up starts; none when unreadable
  std::optional<int> minute;              // the wake-up's minute; none when unreadable
  bool loaded = false;
  std::optional<int> tickMinute;  // the stored minute, when it is valid (1-59)
  ScheduleWish wish = ScheduleWish::none;
  std::string setsUnreadable;  // the registry's sentence when wish is unknown
  bool filesWaitForPower = false;
  std::optional<LastTick::Record> lastTick;
  // What scheduled runs had to say that the user has not seen yet, oldest first.
  std::vector<NoticeLedger::Notice> unseenNotices;

  // The sentence when the sets and what is installed disagree, else empty.
  std::string mismatch() const;
};
Status status(const Setup& setup);

// How a scheduled run reaches the orgs: the logins the CLI knows (listed at
// most once per tick) and a session for one of them. Tests point both at the
// sample org.
struct OrgAccess {
  std::function<std::vector<Org>()> logins;
  SalesforceAPI::Client::SessionSource session;
  // Receives the run's progress; may be empty.
  std::function<void(const BackupProgress&)> progress;
  // Ends the run under way cleanly (its next run resumes it).
  std::stop_token stop;
};

// Runs one due set through BackupTask with the set's options. A login the CLI
// no longer knows fails without starting a run; a run that ends incomplete
// fails with its own message.
SetRunner backupSetRunner(OrgAccess access);

// The headless tick with the real machine; returns the exit status. New
// notices go to notify.
int runBackupTick(SalesforceCLI& cli, const Setup& setup,
                  std::function<void(const std::string&)> notify);

// Called when the program starts a command (never for the tick): brings the
// hourly wake-up in line with the sets. Cheap when nothing changed: it reads
// backup-sets.json and the installed file(s) and calls no service command.
// A home without backup-sets.json has never had a set, so nothing is done
// there, whatever is installed. Never throws: returns what to tell the user
// (what changed, or what failed), or nothing.
std::string reconcileAtLaunch(const Setup& setup);

}  // namespace ScheduleTask

}  // namespace corvane
