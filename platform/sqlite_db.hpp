// A thin owner of one SQLite connection and its prepared statements, over
// SQLite's C interface.
//
// Every failure is a SQLiteError carrying SQLite's own message; its
// description is the sentence a user reads ("Local database error: ...").
// A connection is used by one thread at a time; callers that share one
// across threads guard it with their own mutex.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/user_facing_error.hpp"

struct sqlite3;
struct sqlite3_stmt;

namespace corvane {

class SQLiteError : public UserFacingError {
 public:
  enum class Kind { open, prepare, bind, step };

  static SQLiteError open(const std::string& text);
  static SQLiteError prepare(const std::string& text, const std::string& sql);
  static SQLiteError bind(const std::string& text);
  static SQLiteError step(const std::string& text);

  Kind kind() const { return kind_; }
  // SQLite's own message.
  const std::string& text() const { return text_; }
  // The statement that failed to prepare (empty for other kinds).
  const std::string& sql() const { return sql_; }

 private:
  SQLiteError(Kind kind, std::string text, std::string sql);
  Kind kind_;
  std::string text_;
  std::string sql_;
};

class SQLiteDB;

// One prepared statement. Parameters are numbered from 1, columns from 0.
// Text handed to bindText is copied by SQLite. Movable, not copyable; keeps
// its connection alive.
class Statement {
 public:
  Statement(Statement&& other) noexcept;
  Statement& operator=(Statement&& other) noexcept;
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement();

  Statement& bindText(int index, std::string_view value);
  Statement& bindBlob(int index, std::string_view bytes);
  Statement& bindInt(int index, std::int64_t value);
  Statement& bindDouble(int index, double value);
  Statement& bindNull(int index);
  // Text, or null when the optional is empty.
  Statement& bindOptionalText(int index, const std::optional<std::string>& value);

  // Runs to the next row: true when a row is ready, false when done.
  bool step();
  // Runs a statement that returns no rows (or ignores them) to its end.
  void run();
  // Makes the statement ready to run again, keeping or clearing bindings.
  void reset();
  void clearBindings();

  int columnCount() const;
  bool isNull(int column) const;
  std::int64_t columnInt(int column) const;
  double columnDouble(int column) const;
  // Valid until the next step, reset or destruction.
  std::string_view columnView(int column) const;
  std::string columnText(int column) const { return std::string(columnView(column)); }
  std::optional<std::string> columnOptionalText(int column) const;

  sqlite3_stmt* handle() const { return statement_; }

 private:
  friend class SQLiteDB;
  Statement(std::shared_ptr<SQLiteDB> db, sqlite3_stmt* statement);
  void check(int code) const;
  std::shared_ptr<SQLiteDB> db_;
  sqlite3_stmt* statement_ = nullptr;
};

class SQLiteDB : public std::enable_shared_from_this<SQLiteDB> {
 public:
  struct Options {
    bool readOnly = false;
    bool create = true;  // create the file when missing (ignored when read-only)
    // Permissions of a file this call creates.
    std::filesystem::perms createdPermissions =
        std::filesystem::perms::owner_read | std::filesystem::perms::owner_write;
    // How long a statement waits for another connection's lock.
    int busyTimeoutMilliseconds = 5000;
  };

  // Opens (or creates) the database file. Throws SQLiteError::open.
  static std::shared_ptr<SQLiteDB> open(const std::filesystem::path& path, Options options);
  static std::shared_ptr<SQLiteDB> open(const std::filesystem::path& path) {
    return open(path, Options{});
  }
  // A private database in memory, for tests and scratch work.
  static std::shared_ptr<SQLiteDB> openInMemory();

  SQLiteDB(const SQLiteDB&) = delete;
  SQLiteDB& operator=(const SQLiteDB&) = delete;
  ~SQLiteDB();

  // Runs one or more statements that return nothing. Throws SQLiteError::step.
  void exec(const std::string& sql);
  // Throws SQLiteError::prepare.
  Statement prepare(std::string_view sql);
  // The first column of the first row as an integer (0 when there is no row).
  std::int64_t scalarInt(std::string_view sql);

  std::int64_t lastInsertRowid() const;
  // Rows changed by the last INSERT, UPDATE or DELETE.
  std::int64_t changes() const;
  const std::filesystem::path& path() const { return path_; }
  sqlite3* handle() const { return db_; }

  // SQLite's message for the connection's last failure.
  std::string lastMessage() const;

 private:
  SQLiteDB(sqlite3* db, std::filesystem::path path) : db_(db), path_(std::move(path)) {}
  sqlite3* db_;
  std::filesystem::path path_;
};

// BEGIN IMMEDIATE on construction; rolled back on destruction unless
// commit() ran. Not nestable.
class Transaction {
 public:
  explicit Transaction(SQLiteDB& db);
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction();
  void commit();

 private:
  SQLiteDB& db_;
  bool done_ = false;
};

}  // namespace corvane
