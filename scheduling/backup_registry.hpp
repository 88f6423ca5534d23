// backup-sets.json: every backup set, read by the interactive program and by
// the headless tick.
//
// The file is the only place where schedules live. A file that cannot be read
// is never overwritten: the next save first renames it to
// "backup-sets-unreadable-<ISO time with - for :>.json" beside it, so the
// user can recover it by hand. Each change reads, changes and replaces the
// whole file atomically, so a reader in another process never sees half a
// file. Not meant for concurrent writers in one process.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/iso_time.hpp"
#include "platform/user_facing_error.hpp"
#include "scheduling/backup_set.hpp"

namespace corvane {

class BackupRegistryFailure : public UserFacingError {
 public:
  enum class Kind { couldNotSetAside, couldNotWrite };
  explicit BackupRegistryFailure(Kind kind);
  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

// The notice "CorvaneBackupSetsChanged", posted after every save, on which open
// screens and the schedule reconciliation reload. Observers are called on the
// saving thread. Thread-safe.
namespace BackupSetsChanged {
inline constexpr const char* name = "CorvaneBackupSetsChanged";
using Observer = std::function<void()>;
// Returns a token for stopObserving.
std::uint64_t observe(Observer observer);
void stopObserving(std::uint64_t token);
void post();
}  // namespace BackupSetsChanged

// Whether the launch agent (or timer) is needed.
enum class ScheduleWish {
  none,       // no set has a schedule other than manual: remove the scheduler
  scheduled,  // some set runs by itself: install it
  unknown,    // the sets cannot be read: leave whatever is installed alone
};

class BackupRegistry {
 public:
  // The application-support folder (created when missing).
  static std::filesystem::path standardDirectory();
  static constexpr const char* fileName = "backup-sets.json";

  explicit BackupRegistry(std::filesystem::path directory = standardDirectory(),
                          std::function<SystemTime()> clock = [] {
                            return std::chrono::system_clock::now();
                          });

  std::filesystem::path fileURL() const { return directory_ / fileName; }

  struct Loaded {
    enum class State { missing, read, unreadable };
    State state = State::missing;
    std::vector<BackupSet> sets;  // empty unless read
    bool isUnreadable() const { return state == State::unreadable; }
  };
  // Never throws: a file that is there but cannot be read or decoded is
  // `unreadable`, which means "unknown", not "empty".
  Loaded load() const;

  // The sentence shown when the file cannot be read.
  std::string unreadableMessage() const;

  // Writes the whole list (sorted keys, pretty-printed, format 1) atomically
  // with mode 0600 and posts BackupSetsChanged. An existing unreadable file is
  // set aside first. Throws BackupRegistryFailure.
  void save(const std::vector<BackupSet>& sets) const;
  // Renames an unreadable file out of the way; false when that failed.
  bool setAside() const;

  // Each of these works on the file as read now; on an unreadable file they
  // start from an empty list (the unreadable one is set aside by save).
  std::vector<BackupSet> upsert(const BackupSet& set) const;
  std::vector<BackupSet> remove(const std::string& username) const;
  // Sets lastSuccessAt and saves; a username without a set, or an unreadable
  // file, changes nothing.
  void recordSuccess(const std::string& username, SystemTime at) const;

  ScheduleWish scheduleWish() const;

  // The JSON text of a list of sets, as save writes it.
  static std::string encode(const std::vector<BackupSet>& sets);
  // Throws on anything that is not a stored list of sets.
  static std::vector<BackupSet> decode(std::string_view text);

 private:
  std::filesystem::path directory_;
  std::function<SystemTime()> clock_;
};

}  // namespace corvane
