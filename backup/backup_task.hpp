// The entry points of `backup plan`, `backup run` and `backup status`, shared
// by both faces.
//
// plan asks the org what it holds and what a full copy would take, writing
// nothing; run takes one backup through BackupRunner, measuring the real
// disk; status reads what the runs of a backup left behind. Blocking: callers
// run them on a worker thread. They print nothing.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "backup/backup_config.hpp"
#include "backup/backup_estimator.hpp"
#include "backup/backup_planner.hpp"
#include "backup/backup_progress.hpp"
#include "backup/backup_runner.hpp"
#include "backup/backup_store.hpp"
#include "backup/last_run.hpp"
#include "backup/run_summary.hpp"
#include "connections/backup_transport.hpp"
#include "platform/task_progress.hpp"
#include "platform/user_facing_error.hpp"

namespace corvane {

// A run that ended without a complete copy; its summary says how far it came.
class BackupIncomplete : public UserFacingError {
 public:
  explicit BackupIncomplete(const RunSummary& summary);
  bool stopped() const { return stopped_; }  // a stop request ended it: the next run resumes

 private:
  bool stopped_;
};

namespace BackupTask {

// A name and why it is not in the copy.
struct LeftOut {
  std::string name;
  std::string reason;
  bool operator==(const LeftOut&) const = default;
};

struct PlannedObject {
  BackupPlanner::ObjectPlan plan;
  std::optional<std::int64_t> records;  // none when Salesforce would not say
  std::vector<LeftOut> fieldsLeftOut;
  std::string via;  // "rest" or "bulk"
};

struct Survey {
  BackupLocation location;
  std::vector<PlannedObject> objects;
  std::vector<LeftOut> objectsLeftOut;
  std::int64_t freeSpaceFloor = 0;
  BackupEstimator::Estimate estimate;
};

enum class PlanPhase {
  listingObjects,   // the org's global describe
  countingRecords,  // record counts of the chosen objects
  describing,       // one object after the other; current: its name
  measuringFiles,   // the bytes of document bodies
  finished,
};
using PlanProgress = TaskProgress<PlanPhase>;
using PlanProgressHandler = TaskProgressHandler<PlanPhase>;

// Bytes free on the disk that holds a folder.
using FreeSpace = std::function<std::int64_t(const std::filesystem::path&)>;

// Asks the org what it holds and plans a full copy with config's options,
// through transport; writes nothing. Objects Salesforce will not describe are
// left out with the reason; other failures of the org (a signed-out login) are
// thrown. A stop is honoured between objects (TaskStopped).
Survey plan(BackupTransport& transport, const BackupConfig& config, const FreeSpace& freeSpace,
            std::stop_token stop, const PlanProgressHandler& onProgress = {});

// Bytes free on the disk that holds folder, or at its nearest existing parent.
std::int64_t freeSpaceOnDisk(const std::filesystem::path& folder);

// A runner for config through transport, measuring the real disk.
std::unique_ptr<BackupRunner> makeRunner(BackupTransport& transport, BackupConfig config,
                                         std::function<void(const BackupProgress&)> progress);

// Takes one backup (see BackupRunner::run). A stop request ends it cleanly
// between steps with result "stopped"; the next run carries on. Returns the
// summary whatever the result; throws BackupError when the run could not start.
RunSummary run(BackupTransport& transport, BackupConfig config, RunKind kind,
               std::stop_token stop,
               const std::function<void(const BackupProgress&)>& onProgress = {});

// What the runs of the backup at location left behind.
struct Status {
  std::optional<LastRun> last;        // none until a run has finished
  std::vector<BackupStore::Run> runs;  // oldest first; empty without a database
};
Status status(const BackupLocation& location);

}  // namespace BackupTask

}  // namespace corvane
