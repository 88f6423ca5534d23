// A thin owner of one SQLite connection and its prepared statements.
//
// Errors become OrgStoreError(Database) carrying SQLite's own message. Neither
// class is thread-safe: a connection is used by one thread at a time (the store's
// pool hands them out).
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace corvane::orgsim {

class Statement {
 public:
  Statement() = default;
  Statement(sqlite3* db, std::string_view sql);
  Statement(Statement&& other) noexcept;
  Statement& operator=(Statement&& other) noexcept;
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement();

  // Parameters count from 1. Text is copied by SQLite (SQLITE_TRANSIENT) unless
  // bindStatic is used, which requires the bytes to outlive the next step().
  Statement& bind(int index, std::string_view text);
  Statement& bindOptional(int index, const std::optional<std::string_view>& text);
  Statement& bind(int index, std::int64_t value);
  Statement& bindBlob(int index, std::string_view bytes);
  Statement& bindNull(int index);
  Statement& bindStatic(int index, std::string_view text);

  // True when a row is ready; false when done. Throws on failure.
  bool step();
  // Runs to completion, ignoring rows.
  void run();
  void reset();  // resets and clears bindings

  int columns() const;
  bool isNull(int column) const;
  // The column's bytes; valid until the next step/reset.
  std::string_view text(int column) const;
  std::optional<std::string_view> optionalText(int column) const;
  std::int64_t integer(int column) const;
  double real(int column) const;
  std::string_view columnName(int column) const;

  sqlite3_stmt* handle() const { return stmt_; }

 private:
  sqlite3* db_ = nullptr;
  sqlite3_stmt* stmt_ = nullptr;
};

class Database {
 public:
  // Opens (or creates) the file with WAL journaling, synchronous=NORMAL and a busy
  // timeout, so readers and the one writer wait for each other rather than fail.
  explicit Database(const std::filesystem::path& file, bool readOnly = false);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  void exec(std::string_view sql);
  Statement prepare(std::string_view sql);
  // The first column of the first row as an integer, or `fallback` without rows.
  std::int64_t scalarInt(std::string_view sql, std::int64_t fallback = 0);
  std::int64_t lastInsertRowId() const;
  int changes() const;

  sqlite3* handle() const { return db_; }

 private:
  sqlite3* db_ = nullptr;
};

// `"name"` with inner quotes doubled: a safe SQL identifier.
std::string quoteIdentifier(std::string_view name);

}  // namespace corvane::orgsim
