// Removes the dated folders of runs that the retention policy no longer needs,
// and the document bodies in Files that no remaining run names.
//
// A run is marked retired before its folder is touched, so a crash mid-way
// leaves a retired row that the next sweep finishes (retiredRuns). A folder
// that cannot be removed is unmarked and reported; the run just finished and a
// run whose row could not be marked are never removed. The sweep never follows
// a symbolic link: a link inside a dated folder is removed as a link, and a
// dated folder that is itself a link loses only the link.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "backup/backup_location.hpp"
#include "backup/backup_store.hpp"
#include "backup/retention.hpp"

namespace corvane {

class RetentionSweep {
 public:
  struct Outcome {
    std::vector<std::string> removed;  // folder names
    std::int64_t bytes = 0;            // freed, folders and reclaimed bodies
    std::vector<std::string> couldNotRemove;
    std::string problem;  // why the first folder that stayed could not be removed
    bool operator==(const Outcome&) const = default;
  };

  // Removes a whole folder tree without following links; throws
  // std::filesystem::filesystem_error when it cannot. Injected by tests.
  using Remover = std::function<void(const std::filesystem::path&)>;
  // Bytes of regular files under a path, not following links.
  using Measure = std::function<std::int64_t(const std::filesystem::path&)>;

  explicit RetentionSweep(BackupLocation location, Remover remover = removeTree,
                          Measure measure = bytesUnder);

  // Applies policy to the store's runs: removes what Retention::plan names
  // (never justFinished), finishes runs an earlier sweep left retired,
  // reclaims orphaned bodies, and records the outcome with justFinished when
  // there is one. Not thread-safe; the caller holds the org's BackupLock.
  Outcome apply(BackupStore& store, const Retention::Policy& policy,
                std::optional<std::int64_t> justFinished);

  // Bodies in Files (not its .partial folder) that no file version names, as
  // its current body or an earlier copy, are deleted; returns their bytes.
  std::int64_t reclaimFileBodies(BackupStore& store);

  // Adds outcome to the manifest.json of a dated folder (written before the
  // sweep ran). A manifest that is missing or cannot be rewritten is left as it is.
  static void noteInManifest(const std::filesystem::path& datedFolder, const Outcome& outcome);

  static void removeTree(const std::filesystem::path& path);
  static std::int64_t bytesUnder(const std::filesystem::path& path);

 private:
  // Removes one run's folder and forgets the run; false when the folder stays.
  bool removeRun(BackupStore& store, std::int64_t id, const std::string& folder, Outcome& outcome);

  BackupLocation location_;
  Remover remover_;
  Measure measure_;
};

}  // namespace corvane
