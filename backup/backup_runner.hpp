// One backup of one org: plan, count, copy every object into a new dated
// folder (or carry on with the unfinished one), and write the run's summary files.
//
// Every page of rows is appended to its object's CSV through CommittedFile and
// then committed, with the job's position and the rows' ids, in one
// transaction of backup.sqlite. A run stopped at any moment (Ctrl-C, a crash,
// a lost connection) therefore resumes on the next run without a duplicated or
// lost row. run() blocks; objects are copied by up to objectsAtOnce threads
// whose store writes pass one at a time through one lock.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "backup/backup_config.hpp"
#include "backup/backup_progress.hpp"
#include "backup/backup_store.hpp"
#include "backup/run_summary.hpp"
#include "connections/backup_transport.hpp"
#include "platform/iso_time.hpp"

namespace corvane {

class CommittedFile;

// The disk a backup is written to, as far as the run cares.
struct BackupFileSystem {
  std::string typeName;
  std::filesystem::path mountPoint;
  std::optional<std::int64_t> maximumFileSize;  // none: no limit a backup could meet
  bool operator==(const BackupFileSystem&) const = default;
};

class BackupRunner {
 public:
  using FreeSpace = std::function<std::optional<std::int64_t>(const std::filesystem::path&)>;
  using FileSystemOf = std::function<std::optional<BackupFileSystem>(const std::filesystem::path&)>;
  using Now = std::function<SystemTime()>;
  using Progress = std::function<void(const BackupProgress&)>;
  using ShouldStop = std::function<bool()>;

  // One row of the jobs table.
  struct JobRow {
    std::int64_t seq = 0;
    std::string object;
    std::string purpose;  // "records" or "ids"
    std::string mode;
    std::string operation;
    std::string soql;
    std::vector<std::string> fields;
    std::vector<std::string> fieldTypes;
    std::string watermarkField;
    bool hasIsDeleted = false;
    std::string state;
    std::string reason;
    std::string jobId;
    std::string createdBy;
    std::string createdDate;
    std::string locator;
    std::int64_t csvBytes = 0;
    std::int64_t rows = 0;
    std::int64_t deletedRows = 0;
    std::int64_t rowCount = -1;
    std::string via;  // "rest" or "bulk"
    bool operator==(const JobRow&) const = default;
  };

  // What one page of rows does to known_ids.
  struct PageOp {
    enum class Kind { keep, gone, touch, check, doc };
    Kind kind = Kind::keep;
    std::string id;
    std::string stamp;
    bool operator==(const PageOp&) const = default;
  };

  // Running totals shared by the copying threads.
  class Tally {
   public:
    BackupProgress::Totals totals() const;
    void addRecords(std::int64_t records, std::int64_t bytes);
    void objectDone();
    void setPlanned(int objects, std::int64_t expected);
    std::int64_t recordBytes() const;

   private:
    mutable std::mutex mutex_;  // guards everything below
    BackupProgress::Totals totals_;
    std::int64_t recordBytes_ = 0;
  };

  BackupRunner(BackupTransport& transport, BackupConfig config, FreeSpace freeSpace,
               FileSystemOf fileSystem, std::chrono::milliseconds firstPollDelay, Now now,
               std::map<std::string, std::string> environment, Progress progress);

  // Checked between pages and objects; when it says so, the run ends as
  // stopped and the next run resumes it.
  void setShouldStop(ShouldStop shouldStop) { shouldStop_ = std::move(shouldStop); }

  // Takes one backup. Throws BackupError for failures of the whole run before
  // it could start (demo mode, another run holding the lock, another login's
  // folder, a copy that will not fit); everything later ends in the summary.
  RunSummary run(RunKind kind);

  // The file name of an object's CSV in a dated folder.
  static std::string csvName(const std::string& object);

 private:
  struct Context;
  class StopRun;

  void report(const BackupProgress& progress);
  void reportStep(BackupProgress::Step step);
  bool stopRequested() const;
  void plan(Context& context);
  void copyAll(Context& context);
  void copyObject(Context& context, JobRow job, int index, int count);
  void copyRest(Context& context, JobRow& job, CommittedFile& file, int index, int count);
  void copyBulk(Context& context, JobRow& job, std::unique_ptr<CommittedFile>& file, int index,
                int count);
  // Appends rows (without header) and commits the page; done marks the job done.
  void commitPage(Context& context, JobRow& job, CommittedFile& file,
                  std::string_view rows, const std::vector<PageOp>& ops, std::int64_t rowCount,
                  const std::string& locator, bool done, int index, int count);
  // Leaves a field Salesforce refused out of job (and its jobs row), remembers
  // it in objects.unsupported_fields and restarts the object's CSV. False when
  // the field is not one the job can do without.
  bool dropRefusedField(Context& context, JobRow& job, const std::string& field);
  // Records the bodies this run's copies describe and fetches the waiting ones.
  void downloadFiles(Context& context);
  RunSummary finish(Context& context, const std::string& stopMessage);

  BackupTransport& transport_;
  BackupConfig config_;
  FreeSpace freeSpace_;
  FileSystemOf fileSystem_;
  std::chrono::milliseconds firstPollDelay_;
  Now now_;
  std::map<std::string, std::string> environment_;
  Progress progress_;
  ShouldStop shouldStop_;
  std::mutex progressMutex_;  // guards coalescer_
  ProgressCoalescer coalescer_;
};

}  // namespace corvane
