// What a backup run reports while it works: one value per step, the running
// totals, and the coalescer that keeps a busy run from flooding the screen.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace corvane {

struct BackupProgress {
  struct Totals {
    std::int64_t records = 0;
    std::int64_t files = 0;
    std::int64_t bytes = 0;
    int objectsDone = 0;
    int objectsTotal = 0;
    std::int64_t recordsExpected = 0;
    bool operator==(const Totals&) const = default;
  };

  // The steps of a run, in the order they first appear.
  enum class Step {
    readingDescriptions,
    planned,
    checkingForChanges,
    countingWhatToCopy,
    waitingForSalesforce,
    downloadingRecords,
    objectFinished,
    objectSkipped,
    findingDeletions,
    checkingDeletions,
    downloadingFiles,
    starting,
    askingWhatTheOrgHas,
    countingRecords,
    measuringFiles,
    writingDeletedList,
    writingFileList,
    writingLinks,
    writingManifest,
    tidyingOldBackups,
  };

  Step step = Step::starting;
  // The payload of the step; which members count depends on it:
  //   readingDescriptions, checkingForChanges, countingWhatToCopy: done of total
  //     (changed or withRecords in `rows`);
  //   planned: kinds in `total`, fields in `done`, left out in `rows`;
  //   waitingForSalesforce: object, index of count, seconds in `done`;
  //   downloadingRecords, objectFinished: object, index of count, rows,
  //     expected, bytes;
  //   objectSkipped: object, why;
  //   findingDeletions, checkingDeletions: object, index of count;
  //   downloadingFiles: object (the file's name), done of total, bytes.
  std::string object;
  std::string why;
  int index = 0;
  int count = 0;
  std::int64_t done = 0;
  std::int64_t total = 0;
  std::int64_t rows = 0;
  std::optional<std::int64_t> expected;
  std::int64_t bytes = 0;
  Totals totals;

  bool operator==(const BackupProgress&) const = default;

  static BackupProgress simple(Step step) {
    BackupProgress progress;
    progress.step = step;
    return progress;
  }
};

// The line a person reads for a progress value ("Starting the backup…").
std::string progressText(const BackupProgress& progress);

// Holds back values of the same step that come quicker than `interval`, so
// that a run reporting every page reaches the screen a few times a second. A
// new step is always sent at once, after anything held. Not thread-safe.
class ProgressCoalescer {
 public:
  static constexpr double interval = 0.15;  // seconds

  // What to send now, oldest first. at is in seconds on any steady clock.
  std::vector<BackupProgress> accept(const BackupProgress& progress, double at);
  // What is still held.
  std::vector<BackupProgress> flush(double at);
  bool isHoldingSomething() const { return pending_.has_value(); }

 private:
  double lastSent_ = -1e300;
  std::optional<BackupProgress> pending_;
  std::optional<BackupProgress::Step> lastStep_;
};

// How far a run is and how long it may still take, from its totals. Records
// and files are separate phases; each phase's pace is measured from its own start.
class BackupPace {
 public:
  enum class Phase { none, records, files };

  // Takes in a value reported at `at` seconds.
  void update(const BackupProgress& progress, double at);

  std::optional<double> fraction() const { return fraction_; }
  std::optional<int> secondsRemaining() const { return secondsRemaining_; }
  bool includesFiles() const { return includesFiles_; }
  Phase phase() const { return phase_; }

  // "less than a minute left", "about 5 minutes left", "about 2 hours left";
  // empty when unknown.
  std::string text() const;

 private:
  std::optional<double> fraction_;
  std::optional<int> secondsRemaining_;
  bool includesFiles_ = false;
  Phase phase_ = Phase::none;
  double phaseStarted_ = 0;
  double workAtPhaseStart_ = 0;
};

}  // namespace corvane
