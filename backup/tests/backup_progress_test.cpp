#include "backup/backup_progress.hpp"

#include <gtest/gtest.h>

namespace corvane {
namespace {

BackupProgress rows(std::int64_t count) {
  BackupProgress progress;
  progress.step = BackupProgress::Step::downloadingRecords;
  progress.object = "Account";
  progress.rows = count;
  return progress;
}

TEST(ProgressCoalescer, HoldsValuesOfTheSameStepThatComeTooSoonAndSendsANewStepAtOnce) {
  ProgressCoalescer coalescer;
  EXPECT_EQ(coalescer.accept(rows(1), 10.0), std::vector<BackupProgress>{rows(1)});
  EXPECT_TRUE(coalescer.accept(rows(2), 10.1).empty());
  EXPECT_TRUE(coalescer.isHoldingSomething());
  // A later value replaces the held one; after the interval it goes out.
  EXPECT_TRUE(coalescer.accept(rows(3), 10.12).empty());
  EXPECT_EQ(coalescer.accept(rows(4), 10.2), std::vector<BackupProgress>{rows(4)});
  EXPECT_FALSE(coalescer.isHoldingSomething());

  EXPECT_TRUE(coalescer.accept(rows(5), 10.25).empty());
  const auto manifest = BackupProgress::simple(BackupProgress::Step::writingManifest);
  EXPECT_EQ(coalescer.accept(manifest, 10.26), (std::vector<BackupProgress>{rows(5), manifest}));

  EXPECT_TRUE(coalescer.accept(manifest, 10.27).empty());
  EXPECT_EQ(coalescer.flush(10.28), std::vector<BackupProgress>{manifest});
  EXPECT_TRUE(coalescer.flush(10.29).empty());
}

TEST(BackupPace, EstimatesTimeLeftFromThePaceOfTheCurrentPhase) {
  BackupPace pace;
  auto at = [](std::int64_t records) {
    BackupProgress progress = rows(records);
    progress.totals.records = records;
    progress.totals.recordsExpected = 1000;
    return progress;
  };
  pace.update(at(0), 100);
  EXPECT_EQ(pace.text(), "");
  pace.update(at(100), 110);  // 10 records a second: 90 seconds left
  ASSERT_TRUE(pace.fraction());
  EXPECT_DOUBLE_EQ(*pace.fraction(), 0.1);
  EXPECT_EQ(pace.secondsRemaining(), 90);
  EXPECT_EQ(pace.text(), "about 2 minutes left");
  pace.update(at(950), 195);
  EXPECT_EQ(pace.text(), "less than a minute left");

  // Files start a phase of their own, measured from its start.
  BackupProgress files;
  files.step = BackupProgress::Step::downloadingFiles;
  files.done = 0;
  files.total = 10;
  pace.update(files, 200);
  EXPECT_EQ(pace.phase(), BackupPace::Phase::files);
  EXPECT_TRUE(pace.includesFiles());
  EXPECT_FALSE(pace.secondsRemaining());
}

TEST(BackupProgressText, NamesTheStepInTheRunsOwnWords) {
  EXPECT_EQ(progressText(BackupProgress::simple(BackupProgress::Step::starting)),
            "Starting the backup…");
  BackupProgress waiting;
  waiting.step = BackupProgress::Step::waitingForSalesforce;
  waiting.object = "Contact";
  waiting.index = 2;
  waiting.count = 5;
  EXPECT_EQ(progressText(waiting), "Waiting for Salesforce to prepare Contact (2 of 5)…");
}

}  // namespace
}  // namespace corvane
