#include "backup/retention_sweep.hpp"

#include <fstream>

#include <gtest/gtest.h>

#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

namespace fs = std::filesystem;

void writeFile(const fs::path& path, std::size_t bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << std::string(bytes, 'x');
}

class RetentionSweepTest : public ::testing::Test {
 protected:
  TemporaryFolder folder_;
  BackupLocation location{folder_.path() / "Backups", "00D000000000001", "admin@example.com"};
  BackupStore store{location};

  // A finished, complete run with a 100-byte CSV in its dated folder.
  std::int64_t addRun(const std::string& name, RunKind kind) {
    const auto id = store.insertRun(name, kind, "2026-01-01T00:00:00Z");
    store.db().exec(
        "UPDATE runs SET stage = 'done', result = 'complete' WHERE id = " + std::to_string(id) +
        "; INSERT INTO jobs (run_id, seq, object, purpose, soql, state, reason) "
        "VALUES (" +
        std::to_string(id) + ", 1, 'Account', 'records', 'q', 'done', '')");
    writeFile(location.folder() / name / "Account.csv", 100);
    return id;
  }

  std::vector<std::string> runFolders() {
    std::vector<std::string> names;
    for (const auto& run : store.runs()) names.push_back(run.folder);
    return names;
  }
};

TEST_F(RetentionSweepTest, KeepsTheLastThreeFullsWithTheirChangesAndReclaimsOrphanedBodies) {
  addRun("2026-01-01 0000", RunKind::full);
  addRun("2026-01-02 0000", RunKind::changes);
  addRun("2026-01-08 0000", RunKind::full);
  addRun("2026-01-09 0000", RunKind::changes);
  addRun("2026-01-15 0000", RunKind::full);
  addRun("2026-01-16 0000", RunKind::changes);
  const auto latest = addRun("2026-01-22 0000", RunKind::full);
  store.db().exec(
      "INSERT INTO file_versions (id, object, name_on_disk, size, earlier_copies) VALUES "
      "('068a', 'ContentVersion', 'a.pdf', 10, '[\"a older.pdf\"]')");
  writeFile(location.filesFolder() / "a.pdf", 10);
  writeFile(location.filesFolder() / "a older.pdf", 20);
  writeFile(location.filesFolder() / "gone.pdf", 30);
  writeFile(location.partialFolder() / "half.pdf", 40);

  RetentionSweep sweep(location);
  const auto outcome = sweep.apply(store, Retention::Policy::standard(), latest);

  EXPECT_EQ(outcome.removed, (std::vector<std::string>{"2026-01-01 0000", "2026-01-02 0000"}));
  EXPECT_EQ(outcome.bytes, 100 + 100 + 30);
  EXPECT_TRUE(outcome.couldNotRemove.empty());
  EXPECT_EQ(runFolders(),
            (std::vector<std::string>{"2026-01-08 0000", "2026-01-09 0000", "2026-01-15 0000",
                                      "2026-01-16 0000", "2026-01-22 0000"}));
  EXPECT_FALSE(fs::exists(location.folder() / "2026-01-01 0000"));
  EXPECT_TRUE(fs::exists(location.folder() / "2026-01-08 0000" / "Account.csv"));
  EXPECT_TRUE(fs::exists(location.filesFolder() / "a.pdf"));
  EXPECT_TRUE(fs::exists(location.filesFolder() / "a older.pdf"));
  EXPECT_FALSE(fs::exists(location.filesFolder() / "gone.pdf"));
  EXPECT_TRUE(fs::exists(location.partialFolder() / "half.pdf"));
  EXPECT_EQ(store.run(latest)->removedFolders, outcome.removed);
  EXPECT_EQ(store.run(latest)->removedBytes, outcome.bytes);

  // Nothing more to do a second time; keepLastFulls(0) never removes anything.
  EXPECT_TRUE(sweep.apply(store, Retention::Policy::standard(), latest).removed.empty());
  EXPECT_TRUE(sweep.apply(store, Retention::Policy{0}, latest).removed.empty());
  EXPECT_EQ(store.runs().size(), 5u);
}

TEST_F(RetentionSweepTest, AFolderThatCannotBeRemovedStaysListedWithItsRun) {
  addRun("2026-01-01 0000", RunKind::full);
  addRun("2026-01-02 0000", RunKind::full);
  const auto latest = addRun("2026-01-03 0000", RunKind::full);
  RetentionSweep sweep(location, [](const fs::path& path) {
    if (path.filename() == "2026-01-01 0000")
      throw fs::filesystem_error("remove_all", path,
                                 std::make_error_code(std::errc::permission_denied));
    RetentionSweep::removeTree(path);
  });
  const auto outcome = sweep.apply(store, Retention::Policy{1}, latest);
  EXPECT_EQ(outcome.removed, std::vector<std::string>{"2026-01-02 0000"});
  EXPECT_EQ(outcome.couldNotRemove, std::vector<std::string>{"2026-01-01 0000"});
  EXPECT_NE(outcome.problem.find("2026-01-01 0000"), std::string::npos);
  EXPECT_EQ(runFolders(), (std::vector<std::string>{"2026-01-01 0000", "2026-01-03 0000"}));
  EXPECT_TRUE(store.retiredRuns().empty());
  EXPECT_TRUE(fs::exists(location.folder() / "2026-01-01 0000" / "Account.csv"));
}

TEST_F(RetentionSweepTest, NeverFollowsALinkOutOfTheBackupFolderAndForgetsFoldersAlreadyGone) {
  const auto outside = folder_.path() / "Precious";
  writeFile(outside / "keep.txt", 50);
  addRun("2026-01-01 0000", RunKind::full);
  fs::create_directory_symlink(outside, location.folder() / "2026-01-01 0000" / "link");
  // A run whose dated folder is itself a link out.
  const auto linked = store.insertRun("2026-01-02 0000", RunKind::full, "2026-01-02T00:00:00Z");
  store.db().exec("UPDATE runs SET stage = 'done', result = 'complete' WHERE id = " +
                  std::to_string(linked));
  fs::create_directory_symlink(outside, location.folder() / "2026-01-02 0000");
  // A run whose folder someone already deleted.
  addRun("2026-01-03 0000", RunKind::full);
  fs::remove_all(location.folder() / "2026-01-03 0000");
  const auto latest = addRun("2026-01-04 0000", RunKind::full);

  const auto outcome = RetentionSweep(location).apply(store, Retention::Policy{1}, latest);
  EXPECT_EQ(outcome.removed,
            (std::vector<std::string>{"2026-01-01 0000", "2026-01-02 0000", "2026-01-03 0000"}));
  EXPECT_EQ(outcome.bytes, 100);  // the linked-to file is neither counted nor removed
  EXPECT_TRUE(fs::exists(outside / "keep.txt"));
  EXPECT_FALSE(fs::exists(fs::symlink_status(location.folder() / "2026-01-02 0000")));
  EXPECT_EQ(runFolders(), std::vector<std::string>{"2026-01-04 0000"});
}

TEST_F(RetentionSweepTest, TheRunJustFinishedIsNeverRemovedEvenWhenLeftRetired) {
  addRun("2026-01-01 0000", RunKind::full);
  const auto latest = addRun("2026-01-02 0000", RunKind::changes);
  store.markRetired(latest);  // as if an earlier sweep had stopped half-way
  const auto outcome = RetentionSweep(location).apply(store, Retention::Policy{1}, latest);
  EXPECT_TRUE(outcome.removed.empty());
  EXPECT_EQ(store.runs().size(), 2u);
  EXPECT_TRUE(fs::exists(location.folder() / "2026-01-02 0000" / "Account.csv"));
}

}  // namespace
}  // namespace corvane
