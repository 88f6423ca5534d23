// Notices records that disappeared from the org since the backup last saw
// them, and records how each was learned.
//
// Per object, in this order of preference:
//   getDeleted  one request: Salesforce's delete log between the last check
//               and the run's server time. Salesforce keeps about 15 days of it;
//               when it answers that its log starts later than the start asked
//               for (earliestDateAvailable), the gap cannot be trusted and the
//               object falls back to comparing ids.
//   compareIds  an id job reads every current id (check_run = this run); every
//               known live id it did not touch is gone. A run that copied the
//               object whole has touched every live id already (seen_run) and
//               needs no id job.
//   notYet      checked less than purgeCheckInterval ago.
// Ids Salesforce names as deleted are recorded `recycleBin`; ids that are
// simply gone are `missing`, or `purged` when Salesforce said it had purged its
// log for the time in between (an earliestDateAvailable after the start, or a
// refusal of the window). A deleted ContentDocument takes its versions
// with it. Every object's outcome is committed before the next object starts,
// so a stopped run that resumes checks only what is left.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "backup/backup_config.hpp"
#include "backup/backup_store.hpp"
#include "backup/deleted_count.hpp"
#include "backup/manifest.hpp"
#include "connections/backup_transport.hpp"
#include "platform/iso_time.hpp"

namespace corvane {

class DeletionFinder {
 public:
  enum class How { recycleBin, purged, missing };
  static std::string_view toText(How how);

  struct Check {
    enum class Kind { getDeleted, notYet, compareIds };
    Kind kind = Kind::notYet;
    SystemTime start{};  // getDeleted only
    SystemTime end{};

    static Check getDeleted(SystemTime start, SystemTime end) {
      return {Kind::getDeleted, start, end};
    }
    static Check notYet() { return {}; }
    static Check compareIds() { return {Kind::compareIds, {}, {}}; }
    bool operator==(const Check&) const = default;
  };

  struct Deleted {
    std::string id;
    std::string deletedDate;  // as Salesforce wrote it
    bool operator==(const Deleted&) const = default;
  };

  struct GetDeletedAnswer {
    std::vector<Deleted> records;
    std::optional<SystemTime> earliestDateAvailable;
    std::optional<SystemTime> latestDateCovered;
    bool operator==(const GetDeletedAnswer&) const = default;
  };

  struct Answer {
    enum class Kind { answer, notPermitted, refused };
    Kind kind = Kind::answer;
    GetDeletedAnswer answer;
    std::string reason;  // Salesforce's words, when refused
    // The refusal concerned the time span asked for (too many ids, a bad
    // window), not the object: the object may ask again next time.
    bool aboutTheWindow = false;
    bool operator==(const Answer&) const = default;
  };

  struct Options {
    std::string apiVersion = "62.0";
    double purgeCheckInterval = 24 * 60 * 60;
    int maxIdJobsPerRun = 20;
    // Id jobs of objects with more records than this run in bulk.
    int restThreshold = 10'000;
    int bulkPageSize = 50'000;
    std::chrono::milliseconds firstPollDelay{500};

    // The limits a run's configuration sets.
    static Options of(const BackupConfig& config, std::chrono::milliseconds firstPollDelay);
  };

  // One object the run asks about. Only objects whose records are complete in
  // this run are asked about.
  struct Target {
    std::string object;
    // This run read every live record of the object (a full or whole copy).
    bool copiedWhole = false;
    std::int64_t rowCount = -1;  // the run's count, to choose REST or bulk
  };

  struct Failure {
    std::string object;
    std::string reason;
    bool operator==(const Failure&) const = default;
  };

  struct Outcome {
    std::int64_t found = 0;         // records marked deleted by this call
    std::vector<Failure> failed;    // objects whose check failed; tried again next run
    std::vector<std::string> waiting;  // objects whose id job waits for a later run
  };

  // (step is findingDeletions or checkingDeletions, object, index from 1, count)
  using Progress = std::function<void(bool comparing, const std::string& object, int index,
                                      int count)>;
  using ShouldStop = std::function<bool()>;

  // Salesforce's delete log covers about this much time before now.
  static constexpr std::chrono::hours window{15 * 24};

  // storeLock guards every write to store; serverNow is the run's time on the
  // org's clock, the end of every window asked for.
  DeletionFinder(BackupTransport& transport, BackupStore& store, std::recursive_mutex& storeLock,
                 std::int64_t runId, SystemTime serverNow, Options options);

  // The interval rule for an object whose records this run did not read
  // whole. heldBefore: the store held live ids of it before this run.
  static Check check(const std::optional<BackupStore::ObjectState>& state, SystemTime serverNow,
                     double purgeCheckInterval, bool heldBefore);

  // GET sobjects/OBJ/deleted for [start, end). A 403 is notPermitted, any
  // other 4xx refused; anything else (no answer, 5xx, a body that is not a
  // get-deleted answer) throws.
  Answer getDeleted(const std::string& object, SystemTime start, SystemTime end);
  // Throws std::invalid_argument when body is not a get-deleted answer.
  static GetDeletedAnswer parseAnswer(std::string_view body);

  // Checks each target in order. Stops early (returning what was done) when
  // shouldStop says so; the rest is checked when the run resumes.
  Outcome findAll(const std::vector<Target>& targets, const Progress& progress,
                  const ShouldStop& shouldStop);

  // The objects whose records jobs in run are complete, in job order: a done
  // job in mode full or whole, or one skipped because the object has no
  // records, read the object whole; one skipped for having no changes did not.
  static std::vector<Target> targetsOf(BackupStore& store, std::int64_t run);

 private:
  // Marks the given live ids deleted; returns how many were live.
  std::int64_t markDeleted(const std::string& object, const std::vector<Deleted>& records,
                           How how);
  // Marks every known live id that this run neither copied nor touched.
  std::int64_t markUntouched(const std::string& object, How how, bool needsIdJobTouch);
  // ContentVersion rows of documents deleted by this run follow them.
  void cascadeDocuments();
  // Reads every current id of object into check_run; false when the id-job
  // budget of this run is spent.
  bool runIdJob(const Target& target, const ShouldStop& shouldStop);
  void finishObject(const std::string& object, SystemTime checkedUntil, bool compared,
                    bool refusedNow);
  int idJobsStarted();

  BackupTransport& transport_;
  BackupStore& store_;
  std::recursive_mutex& storeLock_;
  std::int64_t runId_;
  SystemTime serverNow_;
  std::string serverNowText_;
  Options options_;
};

// What one run found deleted, as its summary, manifest and last-run.json say it.
struct DeletionReport {
  std::int64_t deleted = 0;
  std::vector<DeletedCount> counts;   // by object
  std::vector<DeletedCount> unusual;  // those a person should look at
  std::vector<DeletionFinder::Failure> failed;

  // heldBefore: live ids per object when the run began (taken before it
  // copied anything); without it, what is held now and what was found deleted.
  static DeletionReport of(BackupStore& store, std::int64_t run,
                           std::vector<DeletionFinder::Failure> failed,
                           const std::optional<std::map<std::string, std::int64_t>>& heldBefore =
                               std::nullopt);
  // "Deleted records could not be checked for: ..." or empty when none failed.
  std::string failureMessage() const;
  // deletionCount, deletionsByObject and idChecksFailed.
  void fill(Manifest& manifest) const;
};

}  // namespace corvane
