#include "backup/backup_store.hpp"

#include <gtest/gtest.h>

#include "backup/backup_error.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

class BackupStoreTest : public ::testing::Test {
 protected:
  TemporaryFolder folder_;
  BackupLocation location{folder_.path(), "00D000000000001", "admin@example.com"};

  static std::vector<std::string> columnsOf(SQLiteDB& db, const std::string& table) {
    auto statement = db.prepare("SELECT name FROM pragma_table_info(?)");
    statement.bindText(1, table);
    std::vector<std::string> names;
    while (statement.step()) names.push_back(statement.columnText(0));
    return names;
  }
};

TEST_F(BackupStoreTest, ADatabaseFromAnEarlierVersionGainsItsMissingColumnsOnce) {
  std::filesystem::create_directories(location.folder());
  {
    auto old = SQLiteDB::open(location.databaseURL());
    old->exec(
        "CREATE TABLE runs (id INTEGER PRIMARY KEY, folder TEXT NOT NULL, kind TEXT NOT NULL, "
        "stage TEXT NOT NULL DEFAULT 'plan', started_at TEXT NOT NULL, result TEXT NOT NULL "
        "DEFAULT '');"
        "CREATE TABLE jobs (run_id INTEGER NOT NULL, seq INTEGER NOT NULL, object TEXT NOT NULL "
        "DEFAULT '', soql TEXT NOT NULL, PRIMARY KEY (run_id, seq));"
        "CREATE TABLE objects (name TEXT PRIMARY KEY, watermark TEXT NOT NULL DEFAULT '');"
        "INSERT INTO runs (folder, kind, stage, started_at, result) VALUES ('2024-05-01 1000', "
        "'full', 'done', '2024-05-01T10:00:00Z', 'complete');"
        "INSERT INTO jobs (run_id, seq, object, soql) VALUES (1, 1, 'Account', 'SELECT Id FROM "
        "Account');"
        "INSERT INTO objects (name, watermark) VALUES ('Account', '2024-05-01T10:00:00Z');");
  }
  std::size_t jobColumns = 0;
  {
    BackupStore store(location);
    auto& db = store.db();
    auto runColumns = columnsOf(db, "runs");
    for (const char* name : {"stops", "retired", "removed_folders", "removed_bytes"})
      EXPECT_NE(std::find(runColumns.begin(), runColumns.end(), name), runColumns.end()) << name;
    jobColumns = columnsOf(db, "jobs").size();
    EXPECT_EQ(db.scalarInt("SELECT row_count FROM jobs"), -1);
    EXPECT_EQ(db.scalarInt("SELECT get_deleted_refused FROM objects"), 0);
    auto runs = store.runs();
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0].stops, 0);
    EXPECT_TRUE(runs[0].isUsable());
    auto via = db.prepare("SELECT via, unsupported_fields FROM jobs JOIN objects");
    ASSERT_TRUE(via.step());
    EXPECT_EQ(via.columnText(0), "");
    EXPECT_EQ(via.columnText(1), "");
  }
  BackupStore again(location);
  EXPECT_EQ(columnsOf(again.db(), "jobs").size(), jobColumns);
  EXPECT_EQ(again.runs().size(), 1u);
}

TEST_F(BackupStoreTest, AFreshDatabaseHasTheWholeSchemaAndFullSync) {
  BackupStore store(location);
  EXPECT_EQ(store.db().scalarInt("PRAGMA synchronous"), 2);  // FULL
  EXPECT_EQ(columnsOf(store.db(), "runs").size(), 19u);
  EXPECT_EQ(columnsOf(store.db(), "jobs").size(), 22u);
  EXPECT_EQ(columnsOf(store.db(), "known_ids").size(), 9u);
  EXPECT_EQ(columnsOf(store.db(), "file_versions").size(), 16u);
  EXPECT_EQ(columnsOf(store.db(), "objects").size(), 11u);
  EXPECT_EQ(
      std::filesystem::status(location.databaseURL()).permissions() & std::filesystem::perms::all,
      std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(BackupStoreTest, AFolderKeptForAnotherLoginIsRefusedUnchanged) {
  { BackupStore store(location); }
  BackupLocation sameCase = location;
  sameCase.username = "ADMIN@example.com";
  EXPECT_NO_THROW(BackupStore{sameCase});
  // "a/b" and "a:b" share one folder name; the second is not let in.
  BackupLocation other = location;
  other.username = "admin@example.com:other";
  BackupLocation clash = location;
  clash.username = "admin@example.com/other";
  ASSERT_EQ(other.folder(), clash.folder());
  { BackupStore first(other); }
  try {
    BackupStore second(clash);
    FAIL() << "opened another login's folder";
  } catch (const BackupError& error) {
    EXPECT_EQ(error.kind(), BackupError::Kind::anotherLogin);
    EXPECT_STREQ(error.what(),
                 "This backup folder belongs to admin@example.com:other. Each login keeps its own "
                 "backup, so nothing here was changed.");
  }
}

TEST_F(BackupStoreTest, KnownIdsDeletionsAndFileVersionsReadBackInOrder) {
  BackupStore store(location);
  store.db().exec(
      "INSERT INTO known_ids (object, id, stamp, seen_run) VALUES ('Account', 'a1', 's1', 1), "
      "('Account', 'a2', 's2', 1), ('Contact', 'c1', 's3', 1);"
      "INSERT INTO known_ids (object, id, deleted, deleted_run, deleted_at, how) VALUES "
      "('Contact', 'c3', 1, 2, '2024-05-02T00:00:00Z', 'missing'), ('Account', 'a9', 1, 2, "
      "'2024-05-02T00:00:00Z', 'recycleBin'), ('Account', 'a8', 1, 3, '', 'purged');"
      "INSERT INTO file_versions (id, object, name_on_disk, size, earlier_copies) VALUES "
      "('068b', 'ContentVersion', 'b.pdf', 5, '[\"old b.pdf\"]'), ('00P1', 'Attachment', "
      "'x', 1, ''), ('068a', 'ContentVersion', 'a.pdf', 7, '');");
  EXPECT_EQ(store.knownCount("Account"), 2);
  EXPECT_EQ(store.knownCount("Account", true), 4);
  EXPECT_EQ(store.known("Account", "a1"), (BackupStore::Known{"s1", false, 1}));
  EXPECT_FALSE(store.known("Account", "zz"));
  EXPECT_EQ(store.heldCounts(),
            (std::vector<std::pair<std::string, std::int64_t>>{{"Account", 2}, {"Contact", 1}}));
  auto found = store.deletions(2);
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0],
            (BackupStore::Deletion{"Account", "a9", "2024-05-02T00:00:00Z", "recycleBin"}));
  EXPECT_EQ(found[1].id, "c3");
  auto versions = store.fileVersions();
  ASSERT_EQ(versions.size(), 3u);
  EXPECT_EQ(versions[0].id, "00P1");
  EXPECT_EQ(versions[1].id, "068a");
  EXPECT_TRUE(versions[1].isLatest);
  EXPECT_EQ(versions[2].earlierCopies, std::vector<std::string>{"old b.pdf"});
}

TEST_F(BackupStoreTest, RunsRetireAreForgottenAndReportTheirObjects) {
  BackupStore store(location);
  const auto first = store.insertRun("2024-05-01 1000", RunKind::full, "2024-05-01T10:00:00Z");
  const auto second = store.insertRun("2024-05-02 1000", RunKind::changes, "2024-05-02T10:00:00Z");
  store.db().exec(
      "UPDATE runs SET stage = 'done', result = 'complete' WHERE id = 1;"
      "UPDATE runs SET stage = 'done', result = 'stopped' WHERE id = 2;"
      "INSERT INTO jobs (run_id, seq, object, purpose, soql, state, reason) VALUES "
      "(1, 1, 'Account', 'records', 'q', 'done', ''),"
      "(1, 2, 'Contact', 'records', 'q', 'failed', 'Could not be saved: x'),"
      "(1, 3, 'Account', 'ids', 'q', 'done', ''),"
      "(2, 1, 'Account', 'records', 'q', 'skipped', 'No changes since the last backup.'),"
      "(2, 2, 'Lead', 'records', 'q', 'skipped', 'Salesforce would not describe this object.'),"
      "(2, 3, 'Task', 'records', 'q', 'running', '');");
  EXPECT_EQ(store.objectsPerRun(),
            (std::vector<BackupStore::RunObjects>{{first, 2, 1, 1}, {second, 3, 1, 1}}));
  auto infos = store.retentionRuns();
  ASSERT_EQ(infos.size(), 2u);
  EXPECT_TRUE(infos[0].usable);
  EXPECT_EQ(infos[0].completeObjects, (std::set<std::string>{"Account"}));
  EXPECT_EQ(infos[0].leftOutObjects, (std::set<std::string>{"Contact"}));
  EXPECT_FALSE(infos[1].usable);
  EXPECT_FALSE(infos[1].completeObjects);
  EXPECT_EQ(infos[1].plannedObjects, (std::set<std::string>{"Account", "Lead", "Task"}));

  store.recordRemovals(second, {"2024-04-01 1000"}, 1234);
  EXPECT_EQ(store.run(second)->removedFolders, std::vector<std::string>{"2024-04-01 1000"});
  EXPECT_EQ(store.run(second)->removedBytes, 1234);

  store.markRetired(first);
  EXPECT_EQ(store.runs().size(), 1u);
  EXPECT_EQ(store.retiredRuns(),
            (std::vector<std::pair<std::int64_t, std::string>>{{first, "2024-05-01 1000"}}));
  EXPECT_EQ(store.objectsPerRun().size(), 1u);
  store.unmarkRetired(first);
  EXPECT_EQ(store.runs().size(), 2u);
  store.forget(first);
  EXPECT_EQ(store.runs().size(), 1u);
  EXPECT_EQ(store.db().scalarInt("SELECT COUNT(*) FROM jobs WHERE run_id = 1"), 0);
  EXPECT_EQ(store.runFolder(*store.run(second)), location.folder() / "2024-05-02 1000");
}

TEST_F(BackupStoreTest, SettingsAreReplacedNotDuplicated) {
  BackupStore store(location);
  EXPECT_FALSE(store.setting("retention"));
  store.setSetting("retention", "3");
  store.setSetting("retention", "5");
  EXPECT_EQ(store.setting("retention"), "5");
  EXPECT_EQ(store.setting("username"), "admin@example.com");
}

}  // namespace
}  // namespace corvane

namespace corvane {
namespace {

TEST_F(BackupStoreTest, RefusedFieldsAreKeptUntilTheNextWatermark) {
  BackupStore store(location);
  EXPECT_FALSE(store.objectState("Account"));
  store.markNeedsFull("Account");
  store.recordUnsupported("Account", {"Secret__c"}, "No such column", "2024-05-01T10:00:00Z");
  auto state = store.objectState("Account").value();
  EXPECT_TRUE(state.needsFull);
  EXPECT_EQ(state.unsupportedFields, std::vector<std::string>{"Secret__c"});
  store.storeWatermark("Account", "SystemModstamp", "2024-05-02T00:00:00.000Z", {"Id", "Name"});
  state = store.objectState("Account").value();
  EXPECT_FALSE(state.needsFull);
  EXPECT_EQ(state.watermark, "2024-05-02T00:00:00.000Z");
  EXPECT_EQ(state.fields, (std::vector<std::string>{"Id", "Name"}));
  EXPECT_TRUE(state.unsupportedFields.empty());
  EXPECT_EQ(state.unsupportedReason, "");
  EXPECT_EQ(state.unsupportedAt, "");
}

}  // namespace
}  // namespace corvane
