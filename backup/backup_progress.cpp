#include "backup/backup_progress.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace corvane {

namespace {

std::string ofCount(int index, int count) { return fmt::format("({} of {})", index, count); }

}  // namespace

std::string progressText(const BackupProgress& p) {
  using Step = BackupProgress::Step;
  switch (p.step) {
    case Step::starting:
      return "Starting the backup…";
    case Step::askingWhatTheOrgHas:
      return "Asking Salesforce what this org holds…";
    case Step::countingRecords:
      return "Asking roughly how many records there are…";
    case Step::readingDescriptions:
      return fmt::format("Reading what each kind of record holds… ({} of {})", p.done, p.total);
    case Step::planned:
      return fmt::format("{} kinds of record to copy, {} fields, {} left out.", p.total, p.done,
                         p.rows);
    case Step::checkingForChanges:
      return fmt::format("Looking for what has changed… ({} of {}, {} changed)", p.done, p.total,
                         p.rows);
    case Step::countingWhatToCopy:
      return fmt::format("Counting the records in each kind… ({} of {})", p.done, p.total);
    case Step::waitingForSalesforce:
      return fmt::format("Waiting for Salesforce to prepare {} {}…", p.object,
                         ofCount(p.index, p.count));
    case Step::downloadingRecords:
      return p.expected ? fmt::format("Copying {} {}: {} of {} records", p.object,
                                      ofCount(p.index, p.count), p.rows, *p.expected)
                        : fmt::format("Copying {} {}: {} records", p.object,
                                      ofCount(p.index, p.count), p.rows);
    case Step::objectFinished:
      return fmt::format("Copied {} {}: {} records.", p.object, ofCount(p.index, p.count),
                         p.rows);
    case Step::objectSkipped:
      return fmt::format("Skipped {}: {}", p.object, p.why);
    case Step::findingDeletions:
      return fmt::format("Looking for records that were deleted… {} {}", p.object,
                         ofCount(p.index, p.count));
    case Step::checkingDeletions:
      return fmt::format("Checking deleted records of {} {}", p.object, ofCount(p.index, p.count));
    case Step::measuringFiles:
      return "Working out how much room the files need…";
    case Step::downloadingFiles:
      return fmt::format("Downloading files… ({} of {}) {}", p.done, p.total, p.object);
    case Step::writingDeletedList:
      return "Writing the list of deleted records…";
    case Step::writingFileList:
      return "Writing the list of files…";
    case Step::writingLinks:
      return "Writing which record each file belongs to…";
    case Step::writingManifest:
      return "Writing the summary of this backup…";
    case Step::tidyingOldBackups:
      return "Tidying up older backups…";
  }
  return {};
}

std::vector<BackupProgress> ProgressCoalescer::accept(const BackupProgress& progress, double at) {
  std::vector<BackupProgress> out;
  if (!lastStep_ || *lastStep_ != progress.step) {
    if (pending_) out.push_back(std::move(*pending_));
    pending_.reset();
    out.push_back(progress);
    lastStep_ = progress.step;
    lastSent_ = at;
    return out;
  }
  if (at - lastSent_ >= interval) {
    pending_.reset();
    out.push_back(progress);
    lastSent_ = at;
  } else {
    pending_ = progress;
  }
  return out;
}

std::vector<BackupProgress> ProgressCoalescer::flush(double at) {
  std::vector<BackupProgress> out;
  if (pending_) {
    out.push_back(std::move(*pending_));
    pending_.reset();
    lastSent_ = at;
  }
  return out;
}

void BackupPace::update(const BackupProgress& progress, double at) {
  using Step = BackupProgress::Step;
  const auto& totals = progress.totals;
  Phase phase = phase_;
  double work = 0;
  double whole = 0;
  if (progress.step == Step::downloadingRecords || progress.step == Step::objectFinished) {
    phase = Phase::records;
    work = static_cast<double>(totals.records);
    whole = static_cast<double>(totals.recordsExpected);
  } else if (progress.step == Step::downloadingFiles) {
    phase = Phase::files;
    includesFiles_ = true;
    work = static_cast<double>(progress.done);
    whole = static_cast<double>(progress.total);
  } else {
    return;
  }
  if (phase != phase_) {
    phase_ = phase;
    phaseStarted_ = at;
    workAtPhaseStart_ = work;
    secondsRemaining_.reset();
  }
  if (whole <= 0) {
    fraction_.reset();
    secondsRemaining_.reset();
    return;
  }
  fraction_ = std::clamp(work / whole, 0.0, 1.0);
  const double elapsed = at - phaseStarted_;
  const double doneInPhase = work - workAtPhaseStart_;
  // A pace measured over less than a few seconds says little.
  if (elapsed < 3 || doneInPhase <= 0) return;
  const double rate = doneInPhase / elapsed;
  secondsRemaining_ = static_cast<int>(std::ceil(std::max(0.0, whole - work) / rate));
}

std::string BackupPace::text() const {
  if (!secondsRemaining_) return {};
  const int seconds = *secondsRemaining_;
  if (seconds < 60) return "less than a minute left";
  const int minutes = (seconds + 59) / 60;
  if (minutes < 90) return fmt::format("about {} minute{} left", minutes, minutes == 1 ? "" : "s");
  const int hours = (minutes + 30) / 60;
  return fmt::format("about {} hours left", hours);
}

}  // namespace corvane
