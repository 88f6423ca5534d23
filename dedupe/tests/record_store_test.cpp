// The snapshot file: its layout, pages stored whole or not at all, older
// files brought up to date, and the look-ups the matcher and screens use.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "dedupe/record_store.hpp"
#include "dedupe/snapshot_catalog.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

using Incoming = RecordStore::Incoming;

RecordStore::Creation contactSnapshot(std::vector<std::string> extras = {"Title", "Department"}) {
  RecordStore::Creation creation;
  creation.orgId = "00D000000000001";
  creation.objectName = "Contact";
  creation.objectLabel = "Contact";
  creation.nameFieldLabel = "Full Name";
  creation.matchFields = {{"Name", "Full Name", MatchKind::personName, MatchMode::close},
                          {"Email", "Email", MatchKind::email, MatchMode::exact},
                          {"Phone", "Phone", MatchKind::phone, MatchMode::exact}};
  creation.extraFields = std::move(extras);
  creation.totalExpected = 3;
  creation.downloadedBy = "admin@sample.org";
  return creation;
}

Incoming row(std::string sfid, std::string name, std::string email, std::string phone,
             std::vector<std::string> extras = {"", ""}) {
  return {sfid, name, "2024-01-05T10:00:00.000Z", "2024-01-06T10:00:00.000Z",
          {name, email, phone}, std::move(extras)};
}

std::set<std::string> columnsOf(const std::filesystem::path& url) {
  auto db = SQLiteDB::open(url);
  auto statement = db->prepare("SELECT name FROM pragma_table_info('records')");
  std::set<std::string> columns;
  while (statement.step()) columns.insert(statement.columnText(0));
  return columns;
}

class RecordStoreTest : public ::testing::Test {
 protected:
  TemporaryFolder folder_;
  std::filesystem::path url_ = folder_.path() / "Contact.sqlite";
};

TEST_F(RecordStoreTest, ValueColumnsFollowTheFieldLists) {
  RecordStore::create(url_, contactSnapshot({}))->close();
  std::set<std::string> columns = columnsOf(url_);
  for (const char* name : {"m0", "n0", "m1", "n1", "m2", "n2", "enriched", "obj", "filled"}) {
    EXPECT_TRUE(columns.contains(name)) << name;
  }
  EXPECT_FALSE(columns.contains("m3"));
  EXPECT_FALSE(columns.contains("x0"));

  auto store = RecordStore::open(url_);
  SnapshotInfo info = store->info();
  EXPECT_EQ(info.matchFields, contactSnapshot().matchFields);
  EXPECT_TRUE(info.extraFields.empty());
  EXPECT_EQ(info.orgId, "00D000000000001");
  EXPECT_EQ(info.downloadedBy, "admin@sample.org");
  EXPECT_EQ(info.totalExpected, 3);
  EXPECT_FALSE(info.complete);
  EXPECT_EQ(store->meta("locator"), "");
  EXPECT_GT(info.fileBytes, 0);
  EXPECT_THROW(RecordStore::create(url_, contactSnapshot()), SQLiteError);
}

TEST_F(RecordStoreTest, IngestStoresRawAndNormalisedValuesWithTheNextLocator) {
  auto store = RecordStore::create(url_, contactSnapshot());
  store->ingest({row("003A", "Dr. Ann Lee", " Ann@Example.com ", "+1 (415) 555-0100", {"CEO", ""}),
                 row("003B", "", "", "", {"", ""})},
                "LOC2");
  EXPECT_EQ(store->meta("locator"), "LOC2");
  auto records = store->records({1, 2});
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].values[1], " Ann@Example.com ");
  EXPECT_EQ(records[0].extras, (std::vector<std::string>{"CEO", ""}));
  EXPECT_EQ(records[0].filledCount, 4);
  EXPECT_EQ(records[1].filledCount, 0);
  auto normalized = store->normalized({1});
  ASSERT_EQ(normalized.size(), 1u);
  EXPECT_EQ(normalized[0].second,
            (std::vector<std::string>{"ann lee", "ann@example.com", "4155550100"}));
  EXPECT_EQ(store->blankCounts(), (std::vector<std::int64_t>{1, 1, 1}));

  std::vector<Rid> seen;
  store->scanNormalized([&](Rid rid, const std::vector<std::string_view>& values) {
    seen.push_back(rid);
    EXPECT_EQ(values.size(), 3u);
  });
  EXPECT_EQ(seen, (std::vector<Rid>{1, 2}));
  store->markComplete();
  EXPECT_TRUE(store->info().complete);
  EXPECT_EQ(store->info().recordCount, 2);
}

TEST_F(RecordStoreTest, AFailedPageStoresNothingAndKeepsTheLocator) {
  auto store = RecordStore::create(url_, contactSnapshot());
  store->ingest({row("003A", "Ann", "", "")}, "LOC2");
  {
    auto other = SQLiteDB::open(url_);
    other->exec(
        "CREATE TRIGGER refuse BEFORE INSERT ON records WHEN NEW.sfid = 'bad' "
        "BEGIN SELECT RAISE(ABORT, 'row refused'); END");
  }
  try {
    store->ingest({row("003B", "Bo", "", ""), row("bad", "X", "", "")}, "LOC3");
    FAIL() << "the page was stored";
  } catch (const SQLiteError& error) {
    EXPECT_EQ(std::string(error.what()), "Local database error: row refused");
  }
  EXPECT_EQ(store->recordCount(), 1);
  EXPECT_EQ(store->meta("locator"), "LOC2");
  // The statement is usable again afterwards.
  store->ingest({row("003B", "Bo", "", "")}, "LOC3");
  EXPECT_EQ(store->recordCount(), 2);
}

TEST_F(RecordStoreTest, OlderFileIsUpgradedWithEveryRowEnriched) {
  {
    auto db = SQLiteDB::open(url_);
    db->exec(
        "CREATE TABLE meta (key TEXT PRIMARY KEY, value TEXT);"
        "CREATE TABLE fields (pos INTEGER PRIMARY KEY, name TEXT, label TEXT, kind TEXT, mode "
        "TEXT, extra INTEGER);"
        "CREATE TABLE records (rid INTEGER PRIMARY KEY, sfid TEXT NOT NULL, name TEXT NOT NULL "
        "DEFAULT '', created TEXT NOT NULL DEFAULT '', modified TEXT NOT NULL DEFAULT '', filled "
        "INTEGER NOT NULL DEFAULT 0, m0 TEXT, n0 TEXT, x0 TEXT);"
        "INSERT INTO meta VALUES ('objectName', 'Account'), ('complete', '1');"
        "INSERT INTO fields VALUES (0, 'Name', 'Account Name', 'companyName', 'close', 0),"
        " (1, 'Industry', 'Industry', 'text', 'exact', 1);"
        "INSERT INTO records (sfid, name, m0, n0, x0) VALUES ('001A', 'Acme', 'Acme', 'acme', 'x'),"
        " ('001B', 'Acme Inc', 'Acme Inc', 'acme', NULL);");
  }
  auto store = RecordStore::open(url_);
  EXPECT_TRUE(store->unenriched({1, 2}).empty());
  EXPECT_FALSE(store->isMultiObject());
  EXPECT_TRUE(store->exclusions().empty());
  EXPECT_EQ(store->info().downloadedBy, "");
  EXPECT_TRUE(store->info().complete);
  EXPECT_EQ(store->extraFields(), (std::vector<std::string>{"Industry"}));
  EXPECT_EQ(store->records({2})[0].object, "");

  // A new file starts rows without extras as not yet enriched.
  std::filesystem::path fresh = folder_.path() / "fresh.sqlite";
  auto created = RecordStore::create(fresh, contactSnapshot());
  created->ingest({row("003A", "Ann", "", "", {}), row("003B", "Bo", "", "", {"VP", ""})}, "null");
  EXPECT_EQ(created->unenriched({1, 2}), (std::vector<Rid>{1}));
  created->enrich({0}, {{1, {"CFO"}}});
  EXPECT_TRUE(created->unenriched({1, 2}).empty());
  auto enriched = created->records({1})[0];
  EXPECT_EQ(enriched.extras[0], "CFO");
  EXPECT_EQ(enriched.filledCount, 2);
}

TEST_F(RecordStoreTest, CommonValuesBreakTiesAlphabetically) {
  auto store = RecordStore::create(url_, contactSnapshot());
  store->ingest({row("1", "Zoe", "", ""), row("2", "Zoe", "", ""), row("3", "Amy", "", ""),
                 row("4", "Amy", "", ""), row("5", "Bob", "", ""), row("6", "", "", "")},
                "null");
  EXPECT_EQ(store->commonValues(0, 10),
            (std::vector<ValueCount>{{"amy", 2}, {"zoe", 2}, {"bob", 1}}));
  EXPECT_EQ(store->commonValues(0, 1), (std::vector<ValueCount>{{"amy", 2}}));
  EXPECT_TRUE(store->commonValues(7, 10).empty());
}

TEST_F(RecordStoreTest, SearchTakesTheUsersTextLiterally) {
  auto store = RecordStore::create(url_, contactSnapshot());
  store->ingest({row("1", "100% Cotton", "", ""), row("2", "1000 Cotton", "", ""),
                 row("3", "a_b", "", ""), row("4", "axb", "", ""), row("5", "c:\\temp", "", ""),
                 row("6", "plain", "", "", {"", "Marketing"})},
                "null");
  EXPECT_EQ(store->searchRids("0%"), (std::vector<Rid>{1}));
  EXPECT_EQ(store->searchRids("a_b"), (std::vector<Rid>{3}));
  EXPECT_EQ(store->searchRids("\\t"), (std::vector<Rid>{5}));
  EXPECT_EQ(store->searchRids("MARKET"), (std::vector<Rid>{6}));
  EXPECT_EQ(store->searchRids("'); DROP TABLE records; --"), std::vector<Rid>{});
  EXPECT_EQ(store->recordCount(), 6);
}

TEST_F(RecordStoreTest, ExclusionsAndMultiObjectSlots) {
  RecordStore::Creation creation = contactSnapshot();
  creation.objects = {{"Contact", "Contact", {"Name", "Email", "Phone"}, {"Title", ""}},
                      {"Lead", "Lead", {"Name", "Email", "MobilePhone"}, {"Title", ""}},
                      {"Account", "Account", {"Name", "", "Phone"}, {"", ""}}};
  auto store = RecordStore::create(url_, creation);
  EXPECT_TRUE(store->isMultiObject());
  store->ingest({row("003A", "Ann", "", "")}, "L1", "Contact");
  store->ingest({row("00QA", "Ann", "", "")}, "null", "Lead");
  EXPECT_EQ(std::get<2>(store->sfidsAndKinds({2})[0]), "Lead");
  // Account's Name is a company name where Contact's is a person's.
  EXPECT_EQ(store->shiftedKinds(), std::set<MatchKind>{MatchKind::personName});
  store->setMeta("slotsAligned", "1");
  EXPECT_EQ(RecordStore::open(url_)->objects(), creation.objects);
  EXPECT_TRUE(RecordStore::open(url_)->slotsAligned());

  store->exclude({{1, "003A"}, {2, "00QA"}});
  store->exclude({{1, "003A"}});
  EXPECT_EQ(store->exclusions().size(), 2u);
  store->clearAllExclusions();
  EXPECT_TRUE(store->exclusions().empty());
}

TEST(SnapshotOwner, ResumeOnlyForTheSameOrAnUnrecordedLogin) {
  EXPECT_EQ(snapshotOwner("Admin@Sample.org", "admin@sample.org"), SnapshotOwner::thisLogin);
  EXPECT_EQ(snapshotOwner("", "admin@sample.org"), SnapshotOwner::notRecorded);
  EXPECT_EQ(snapshotOwner("other@sample.org", "admin@sample.org"), SnapshotOwner::anotherLogin);
  EXPECT_TRUE(mayResume(SnapshotOwner::notRecorded));
  EXPECT_FALSE(mayResume(SnapshotOwner::anotherLogin));
}

TEST(SnapshotCatalog, ListsAndRemovesAnOrgsSnapshots) {
  TemporaryFolder home;
  ::setenv("CORVANE_HOME", home.path().c_str(), 1);
  EXPECT_EQ(SnapshotCatalog::sanitize("../x y"), "_.._x_y");
  EXPECT_EQ(SnapshotCatalog::sanitize(""), "_");
  auto first = SnapshotCatalog::newURL("00D/1", "My Object__c");
  EXPECT_EQ(first.parent_path(), SnapshotCatalog::base() / "00D_1");
  RecordStore::create(first, contactSnapshot())->close();
  auto second = SnapshotCatalog::newURL("00D/1", "My Object__c");
  EXPECT_NE(first, second);
  RecordStore::Creation later = contactSnapshot();
  later.downloadedAt = "2099-01-01T00:00:00.000Z";
  RecordStore::create(second, later)->ingest({row("1", "Ann", "", "")}, "null");
  std::ofstream(first.parent_path() / "notes.sqlite") << "not a database";

  auto listed = SnapshotCatalog::snapshots("00D/1");
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0].url, second);
  EXPECT_EQ(listed[0].recordCount, 1);
  std::int64_t usedBefore = SnapshotCatalog::bytesUsed("00D/1");
  EXPECT_GT(usedBefore, 0);

  SnapshotCatalog::remove(second);
  EXPECT_LT(SnapshotCatalog::bytesUsed("00D/1"), usedBefore);
  EXPECT_FALSE(std::filesystem::exists(second));
  EXPECT_FALSE(std::filesystem::exists(second.string() + "-wal"));
  EXPECT_EQ(SnapshotCatalog::snapshots("00D/1").size(), 1u);
  ::unsetenv("CORVANE_HOME");
}

}  // namespace
}  // namespace corvane
