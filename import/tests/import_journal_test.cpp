#include "import/import_journal.hpp"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

using State = JournalBatch::State;

TEST(ImportJournal, AStoppedRunIsFoundAgainWithItsBatchesAndOutcomes) {
  TemporaryFolder folder;
  std::filesystem::path path = folder.path() / "Import" / "journal.sqlite";
  std::int64_t run = 0;
  {
    ImportJournal journal(path);
    ImportJournal::Run first = journal.begin("k1", "ana@x", "Account", "insert", "a.csv", "t0");
    EXPECT_FALSE(first.resumed);
    run = first.id;
    journal.recordSending(run, {0, {0, 1, 3}, State::sent, "t1", ""});
    journal.recordOutcome(run, 0,
                          {{0, true, "001A", ""},
                           {1, true, "001B", ""},
                           {3, false, "", "Required fields are missing: [Name]"}});
    journal.recordSending(run, {1, {4, 5}, State::sent, "t2", ""});
    // Stopped here: batch 1 left without an outcome.
  }
  struct stat info {};
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  ImportJournal journal(path);
  ImportJournal::Run again = journal.begin("k1", "ana@x", "Account", "insert", "a.csv", "t9");
  EXPECT_TRUE(again.resumed);
  EXPECT_EQ(again.id, run);
  std::vector<JournalBatch> batches = journal.batches(run);
  ASSERT_EQ(batches.size(), 2u);
  EXPECT_EQ(batches[0], (JournalBatch{0, {0, 1, 3}, State::done, "t1", ""}));
  EXPECT_EQ(batches[1], (JournalBatch{1, {4, 5}, State::sent, "t2", ""}));
  EXPECT_EQ(journal.outcomes(run).at(2).message, "Required fields are missing: [Name]");

  EXPECT_FALSE(journal.begin("k2", "ana@x", "Account", "insert", "b.csv", "t9").resumed);
  journal.finish(run, "t10");
  EXPECT_FALSE(journal.begin("k1", "ana@x", "Account", "insert", "a.csv", "t11").resumed);
}

}  // namespace
}  // namespace corvane
