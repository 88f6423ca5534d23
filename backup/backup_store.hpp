// backup.sqlite: what every earlier run of one org's backup saw and did.
//
// One BackupStore owns one open connection. Opening brings a database made by
// any earlier version up to date (missing columns are added with their
// defaults) and checks that the folder belongs to the login opening it. Every
// commit is durable (synchronous=FULL), which is what lets a stopped run resume
// where it was. Not thread-safe: a run passes all its writes through one lock.
// Failures throw SQLiteError ("Local database error: ...").
//
// Tables (all columns TEXT NOT NULL DEFAULT '' unless noted):
//   sets          key/value settings of the backup ("username" is the owner).
//   objects       one row per object ever planned: watermark, field list,
//                 needs_full, deletion-check and refused-field state.
//   known_ids     every record id ever seen, with its watermark value and
//                 whether, when and how it was found deleted. Never deleted.
//   jobs          one row per query of a run (run_id, seq): plan, Salesforce-side
//                 job state and how far its CSV got (csv_bytes, rows).
//   file_versions one row per document version or attachment. Never deleted.
//   runs          one row per run.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "backup/backup_location.hpp"
#include "backup/retention.hpp"
#include "backup/run_kind.hpp"
#include "platform/sqlite_db.hpp"

namespace corvane {

// The texts a run leaves in runs.result.
namespace RunResult {
inline constexpr const char* complete = "complete";  // everything planned was copied
inline constexpr const char* partial = "partial";    // finished, some objects left out or failed
inline constexpr const char* stopped = "stopped";    // stopped; the next run resumes it
inline constexpr const char* gaveUp = "gaveUp";      // stopped too often; not resumed
inline constexpr const char* failed = "failed";      // ended by an error of the whole run
}  // namespace RunResult

// The texts of jobs.state.
namespace JobState {
inline constexpr const char* pending = "pending";
inline constexpr const char* running = "running";
inline constexpr const char* done = "done";
inline constexpr const char* failed = "failed";
inline constexpr const char* skipped = "skipped";
}  // namespace JobState

// The reasons a job is skipped with nothing left out: its object is complete.
inline constexpr const char* noChangesReason = "No changes since the last backup.";
inline constexpr const char* noRecordsReason = "There are no records to copy.";

class BackupStore {
 public:
  // One row of runs, in the table's order.
  struct Run {
    std::int64_t id = 0;
    std::string folder;  // the dated folder's name
    RunKind kind = RunKind::full;
    std::string stage;  // "plan", ..., "done"
    std::string startedAt;
    std::string finishedAt;
    std::string serverNow;
    std::string result;  // RunResult, empty while running
    std::string message;
    std::int64_t records = 0;
    std::int64_t deleted = 0;
    std::int64_t files = 0;
    std::int64_t filesWaiting = 0;
    std::int64_t bytes = 0;
    std::int64_t apiRequests = 0;
    std::int64_t stops = 0;
    std::vector<std::string> removedFolders;
    std::int64_t removedBytes = 0;

    // The run reached its end (stage 'done').
    bool isFinished() const { return stage == "done"; }
    // Finished, and its folder is a copy to rely on: not stopped, given up or failed.
    bool isUsable() const;
    bool operator==(const Run&) const = default;
  };

  struct FileVersion {
    std::string id;
    std::string object;  // "ContentVersion", "Attachment", ...
    std::string documentId;
    std::string title;
    std::string nameOnDisk;  // the body's name in the Files folder
    std::int64_t size = 0;
    std::string checksum;  // the MD5 digest Salesforce reports
    bool isLatest = true;
    bool downloaded = false;
    std::string failure;
    bool deleted = false;
    std::int64_t attempts = 0;
    bool skipped = false;
    std::vector<std::string> earlierCopies;  // names on disk of earlier bodies
    bool operator==(const FileVersion&) const = default;
  };

  struct Known {
    std::string stamp;  // the record's watermark value when last seen
    bool deleted = false;
    std::int64_t seenRun = 0;
    bool operator==(const Known&) const = default;
  };

  struct Deletion {
    std::string object;
    std::string id;
    std::string at;
    std::string how;  // "recycleBin", "purged", "missing"
    bool operator==(const Deletion&) const = default;
  };

  // How one run's records jobs stand.
  struct RunObjects {
    std::int64_t runId = 0;
    std::int64_t planned = 0;
    std::int64_t complete = 0;  // done, or skipped because nothing was new
    std::int64_t leftOut = 0;   // failed, or skipped for another reason
    bool operator==(const RunObjects&) const = default;
  };

  // Creates the org's folder and the database when missing, sets
  // synchronous=FULL, creates and updates the schema. The first login to open
  // a folder becomes its owner; another username (compared without regard to
  // case) is refused with BackupError::anotherLogin, and nothing is changed.
  explicit BackupStore(BackupLocation location);
  static std::shared_ptr<BackupStore> open(BackupLocation location) {
    return std::make_shared<BackupStore>(std::move(location));
  }

  BackupStore(const BackupStore&) = delete;
  BackupStore& operator=(const BackupStore&) = delete;

  const BackupLocation& location() const { return location_; }
  // The connection, for the run's own statements and transactions.
  SQLiteDB& db() { return *db_; }
  void close() { db_.reset(); }

  // Settings (table sets).
  std::optional<std::string> setting(const std::string& key);
  void setSetting(const std::string& key, const std::string& value);

  // Every run not retired, oldest first.
  std::vector<Run> runs();
  std::optional<Run> run(std::int64_t id);
  // The dated folder of a run (its name made safe).
  std::filesystem::path runFolder(const Run& run) const;

  // Known ids of object; deleted ones only when asked.
  std::int64_t knownCount(const std::string& object, bool includeDeleted = false);
  std::optional<Known> known(const std::string& object, const std::string& id);
  // (object, live ids), most first, then by name.
  std::vector<std::pair<std::string, std::int64_t>> heldCounts();
  // What a run found deleted, by object then id.
  std::vector<Deletion> deletions(std::int64_t run);

  // Every file version, by object then id.
  std::vector<FileVersion> fileVersions();

  // What retention removed for this run.
  void recordRemovals(std::int64_t run, const std::vector<std::string>& folders,
                      std::int64_t bytes);
  // (id, folder) of runs marked retired, oldest first.
  std::vector<std::pair<std::int64_t, std::string>> retiredRuns();
  void markRetired(std::int64_t run);
  void unmarkRetired(std::int64_t run);
  // Deletes the run's jobs, then the run, in one transaction.
  void forget(std::int64_t run);

  // One row of objects: what earlier runs left for the next one.
  struct ObjectState {
    std::string name;
    std::string watermarkField;
    std::string watermark;            // the highest watermark value copied so far
    std::vector<std::string> fields;  // the field list last copied
    bool needsFull = false;
    std::string deletedChecked;
    std::vector<std::string> unsupportedFields;
    std::string unsupportedReason;
    std::string unsupportedAt;
    std::string deletedTried;
    bool getDeletedRefused = false;
    bool operator==(const ObjectState&) const = default;
  };
  // None for an object never planned.
  std::optional<ObjectState> objectState(const std::string& name);
  // After an object is copied: its watermark and field list, needs_full = 0,
  // and the refused fields forgotten (the next plan tries them again).
  void storeWatermark(const std::string& object, const std::string& watermarkField,
                      const std::string& watermark, const std::vector<std::string>& fields);
  // Fields Salesforce refused in a query of object, why, and when; later plans
  // leave them out until the next watermark is stored.
  void recordUnsupported(const std::string& object, const std::vector<std::string>& fields,
                         const std::string& reason, const std::string& at);

  // Per run not retired that has records jobs, oldest first.
  std::vector<RunObjects> objectsPerRun();
  // Every run not retired as retention sees it, oldest first.
  std::vector<Retention::RunInfo> retentionRuns();

  // ---- For the run ----

  // A new run in stage 'plan'; returns its id.
  std::int64_t insertRun(const std::string& folder, RunKind kind, const std::string& startedAt);
  void setStage(std::int64_t run, const std::string& stage);
  // Marks object to be copied whole by the next run.
  void markNeedsFull(const std::string& object);

  // The SQL definitions this version creates, table by table, for tests and tools.
  static std::vector<std::string> schema();

 private:
  void createSchema();
  void addMissingColumns();
  void checkOwner();

  BackupLocation location_;
  std::shared_ptr<SQLiteDB> db_;
};

}  // namespace corvane
