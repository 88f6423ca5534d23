// The small pieces of the backup folder: names, last-run.json, the manifest,
// the read-me and the activity log.
#include <gtest/gtest.h>

#include "backup/backup_activity_log.hpp"
#include "backup/backup_location.hpp"
#include "backup/last_run.hpp"
#include "backup/manifest.hpp"
#include "backup/read_me.hpp"
#include "platform/durable_file.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

TEST(BackupLocation, NamesFromTheOrgCannotLeaveTheRoot) {
  BackupLocation location{"/backups", "org:key", "a/b:c@x.com"};
  EXPECT_EQ(location.folder(), std::filesystem::path("/backups/org_key/a_b_c@x.com"));
  EXPECT_EQ(location.databaseURL(), location.folder() / "backup.sqlite");
  EXPECT_EQ(location.partialFolder(), location.folder() / "Files" / ".partial");
  EXPECT_EQ(BackupLocation({"/b", "..", ""}).folder(), std::filesystem::path("/b/_../_"));
}

TEST(BackupLocation, DefaultRootIsBackupsInTheApplicationSupportFolder) {
  TemporaryFolder home;
  ::setenv("CORVANE_HOME", home.path().c_str(), 1);
  EXPECT_EQ(BackupLocation::defaultRoot(), home.path() / "Backups");
  ::unsetenv("CORVANE_HOME");
}

TEST(LastRun, WritesSortedJSONAndReadsItBack) {
  TemporaryFolder folder;
  BackupLocation location{folder.path(), "org", "me"};
  std::filesystem::create_directories(location.folder());
  EXPECT_FALSE(LastRun::read(location));
  LastRun run;
  run.startedAt = "2024-05-01T10:00:00Z";
  run.kind = "full";
  run.bytes = 5'000'000'000;
  run.unusualDeletions = std::vector<DeletedCount>{{"Account", 120, 3, 1000}};
  run.write(location);
  EXPECT_EQ(LastRun::read(location), run);
  const auto text = Durable::readWhole(location.lastRunURL()).value();
  EXPECT_LT(text.find("\"bytes\""), text.find("\"deleted\""));
  EXPECT_EQ(text.find("removedBytes"), std::string::npos);
}

TEST(LastRun, AFileThatCannotBeReadIsNoLastRun) {
  TemporaryFolder folder;
  BackupLocation location{folder.path(), "org", "me"};
  std::filesystem::create_directories(location.folder());
  for (const char* text : {"", "{", "[]", "{\"startedAt\": 3}", "\xff\xfe"}) {
    Durable::writeWhole(location.lastRunURL(), text);
    EXPECT_FALSE(LastRun::read(location)) << text;
  }
  std::filesystem::remove(location.lastRunURL());
  std::filesystem::create_directory(location.lastRunURL());  // a folder in its place
  EXPECT_FALSE(LastRun::read(location));
}

TEST(Manifest, KeysComeInTheirFixedOrderAndReadBack) {
  TemporaryFolder folder;
  Manifest manifest;
  manifest.kind = RunKind::changes;
  manifest.username = "me@x.com";
  manifest.objects = {"Account"};
  manifest.deletionsByObject = {{"Account", 2, 1, 10, false}};
  manifest.objectsLeftOut = {{"Vote", "Salesforce does not allow this object to be read in bulk."}};
  manifest.write(folder.path());
  const auto text = Durable::readWhole(folder.path() / "manifest.json").value();
  std::size_t last = 0;
  for (const char* key :
       {"\"format\": 1", "\"kind\": \"changes\"", "\"username\"", "\"startedAt\"", "\"finishedAt\"",
        "\"result\"", "\"message\"", "\"objects\"", "\"deletions\"", "\"idChecksFailed\"",
        "\"files\"", "\"folder\": \"../Files\"", "\"objectsLeftOut\"", "\"retention\"",
        "\"note\""}) {
    const auto at = text.find(key);
    ASSERT_NE(at, std::string::npos) << key;
    EXPECT_GT(at, last) << key;
    last = at;
  }
  EXPECT_EQ(Manifest::read(folder.path()), manifest);
  Durable::writeWhole(folder.path() / "manifest.json", "{\"format\": 1, \"kind\": \"full\"}");
  EXPECT_FALSE(Manifest::read(folder.path()));
  EXPECT_FALSE(Manifest::read(folder.path() / "missing"));
}

TEST(ReadMe, IsWrittenByteForByte) {
  TemporaryFolder folder;
  ReadMe::write(folder.path());
  const auto text = Durable::readWhole(folder.path() / "READ ME.txt").value();
  EXPECT_EQ(text.rfind("WHAT IS IN THIS FOLDER\n\nEvery record", 0), 0u);
  EXPECT_NE(text.find("Data Import window in Corvane.\n\nWHERE THE DOCUMENTS ARE\n\n"),
            std::string::npos);
  const std::string ending =
      "\n\nTake the Files folder with it, or the documents will be missing.\n";
  EXPECT_EQ(text.substr(text.size() - ending.size()), ending);
  EXPECT_EQ(text.find('\r'), std::string::npos);
}

TEST(BackupActivityLog, KeepsTheNewestThousandLines) {
  BackupActivityLog log;
  for (int i = 1; i <= 1005; ++i) log.add("line " + std::to_string(i));
  auto lines = log.lines();
  ASSERT_EQ(lines.size(), BackupActivityLog::maximum);
  EXPECT_EQ(lines.front(), (BackupActivityLog::Line{6, "line 6"}));
  EXPECT_EQ(log.recent(2), (std::vector<std::string>{"line 1004", "line 1005"}));
  log.clear();
  log.add("again");
  EXPECT_EQ(log.recentLines(5), (std::vector<BackupActivityLog::Line>{{1006, "again"}}));
}

}  // namespace
}  // namespace corvane
