#include "backup/progress_line.hpp"

#include <gtest/gtest.h>

namespace corvane {
namespace {

BackupProgress copying(std::int64_t records, int done, int total) {
  BackupProgress progress;
  progress.step = BackupProgress::Step::downloadingRecords;
  progress.object = "Account";
  progress.index = 1;
  progress.count = total;
  progress.rows = records;
  progress.totals.records = records;
  progress.totals.objectsDone = done;
  progress.totals.objectsTotal = total;
  progress.totals.recordsExpected = 1'000'000;
  return progress;
}

TEST(ProgressLine, OnATerminalRedrawsOneLineWithCountsRateAndTimeLeft) {
  ProgressLine line(true);
  auto first = line.accept(copying(0, 0, 12), 0);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->rfind("\r\033[K", 0), 0u);
  EXPECT_EQ(first->find('\n'), std::string::npos);

  auto later = line.accept(copying(45'210, 3, 12), 10);
  ASSERT_TRUE(later);
  EXPECT_EQ(*later,
            "\r\033[K3/12 objects · 45,210 rows · 4,521 rows/s · about 4 minutes left · Copying "
            "Account (1 of 12): 45210 records")
      << *later;
  EXPECT_EQ(line.finish(), "\n");

  // A step that carries no totals still shows what the run has done.
  line.accept(BackupProgress::simple(BackupProgress::Step::writingFileList), 11);
  EXPECT_EQ(line.text(), "3/12 objects · 45,210 rows · Writing the list of files…");
}

TEST(ProgressLine, OffATerminalWritesAtMostOneLineEveryFiveSeconds) {
  ProgressLine line(false);
  EXPECT_EQ(line.finish(), "");
  auto first = line.accept(copying(10, 0, 2), 0);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->back(), '\n');
  EXPECT_EQ(first->find('\r'), std::string::npos);
  EXPECT_FALSE(line.accept(copying(20, 0, 2), 1));
  EXPECT_FALSE(line.accept(copying(30, 1, 2), 4.9));
  auto fifth = line.accept(copying(40, 1, 2), 5);
  ASSERT_TRUE(fifth);
  EXPECT_NE(fifth->find("1/2 objects · 40 rows"), std::string::npos) << *fifth;
  EXPECT_FALSE(line.accept(copying(50, 1, 2), 9));
}

TEST(ProgressLine, CountsDocumentsAndFitsTheTerminalWidth) {
  ProgressLine line(true, 40);
  BackupProgress files;
  files.step = BackupProgress::Step::downloadingFiles;
  files.object = "068000000000001 Quarterly report.pdf";
  files.done = 1;
  files.total = 20;
  files.totals.objectsDone = 12;
  files.totals.objectsTotal = 12;
  files.totals.records = 1;
  files.totals.files = 1;
  auto shown = line.accept(files, 0);
  ASSERT_TRUE(shown);
  EXPECT_EQ(line.text().rfind("12/12 objects · 1 row · 1 document · ", 0), 0u) << line.text();
  const std::string drawn = shown->substr(4);
  std::size_t characters = 0;
  for (unsigned char c : drawn) characters += (c & 0xC0) != 0x80;
  EXPECT_EQ(characters, 39u) << drawn;
  EXPECT_EQ(drawn.substr(drawn.size() - 3), "…");
}

}  // namespace
}  // namespace corvane
