#include "platform/sqlite_db.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

TEST(SQLiteDB, CreatesItsFileOwnerOnlyAndKeepsEmptyTextApartFromNull) {
  TemporaryFolder folder;
  auto path = folder.path() / "state.sqlite";
  auto db = SQLiteDB::open(path);
  struct stat info {};
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  db->exec("CREATE TABLE t (a TEXT, b INTEGER)");
  auto insert = db->prepare("INSERT INTO t (a, b) VALUES (?, ?)");
  insert.bindText(1, "").bindInt(2, 1).run();
  insert.reset();
  insert.bindNull(1).bindInt(2, 2).run();
  insert.reset();
  insert.bindText(1, std::string_view("nul\0byte", 8)).bindInt(2, 3).run();
  EXPECT_EQ(db->scalarInt("SELECT count(*) FROM t WHERE a IS NULL"), 1);
  EXPECT_EQ(db->scalarInt("SELECT count(*) FROM t WHERE a = ''"), 1);

  auto select = db->prepare("SELECT a FROM t WHERE b = 3");
  ASSERT_TRUE(select.step());
  EXPECT_EQ(select.columnView(0).size(), 8u);
  EXPECT_FALSE(select.step());
}

TEST(SQLiteDB, FailuresCarrySQLitesOwnMessageInTheUsersSentence) {
  auto db = SQLiteDB::openInMemory();
  try {
    db->prepare("SELECT * FROM missing_table");
    FAIL();
  } catch (const SQLiteError& error) {
    EXPECT_EQ(error.kind(), SQLiteError::Kind::prepare);
    EXPECT_EQ(error.description(), "Local database error: no such table: missing_table");
    EXPECT_EQ(error.sql(), "SELECT * FROM missing_table");
  }
  db->exec("CREATE TABLE u (id INTEGER PRIMARY KEY, v TEXT NOT NULL)");
  auto insert = db->prepare("INSERT INTO u (v) VALUES (?)");
  insert.bindNull(1);
  EXPECT_THROW(insert.run(), SQLiteError);

  TemporaryFolder folder;
  try {
    SQLiteDB::open(folder.path() / "no" / "such" / "folder.sqlite");
    FAIL();
  } catch (const SQLiteError& error) {
    EXPECT_EQ(error.kind(), SQLiteError::Kind::open);
    EXPECT_EQ(error.description().rfind("Could not open the local data file: ", 0), 0u);
  }
}

TEST(SQLiteDB, TransactionRollsBackUnlessCommitted) {
  auto db = SQLiteDB::openInMemory();
  db->exec("CREATE TABLE t (v INTEGER)");
  {
    Transaction transaction(*db);
    db->exec("INSERT INTO t VALUES (1)");
  }
  EXPECT_EQ(db->scalarInt("SELECT count(*) FROM t"), 0);
  {
    Transaction transaction(*db);
    db->exec("INSERT INTO t VALUES (1)");
    transaction.commit();
  }
  EXPECT_EQ(db->scalarInt("SELECT count(*) FROM t"), 1);
}

TEST(SQLiteDB, StatementKeepsItsConnectionAlive) {
  Statement statement = [] {
    auto db = SQLiteDB::openInMemory();
    return db->prepare("SELECT 42");
  }();
  ASSERT_TRUE(statement.step());
  EXPECT_EQ(statement.columnInt(0), 42);
}

}  // namespace
}  // namespace corvane
