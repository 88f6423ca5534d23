#include "platform/sqlite_db.hpp"

#include <sqlite3.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <system_error>

namespace corvane {

SQLiteError::SQLiteError(Kind kind, std::string text, std::string sql)
    : UserFacingError(kind == Kind::open ? "Could not open the local data file: " + text
                                         : "Local database error: " + text),
      kind_(kind),
      text_(std::move(text)),
      sql_(std::move(sql)) {}

SQLiteError SQLiteError::open(const std::string& text) { return {Kind::open, text, {}}; }
SQLiteError SQLiteError::prepare(const std::string& text, const std::string& sql) {
  return {Kind::prepare, text, sql};
}
SQLiteError SQLiteError::bind(const std::string& text) { return {Kind::bind, text, {}}; }
SQLiteError SQLiteError::step(const std::string& text) { return {Kind::step, text, {}}; }

// ---- SQLiteDB ----

std::shared_ptr<SQLiteDB> SQLiteDB::open(const std::filesystem::path& path, Options options) {
  int flags = SQLITE_OPEN_NOMUTEX;
  if (options.readOnly) {
    flags |= SQLITE_OPEN_READONLY;
  } else {
    flags |= SQLITE_OPEN_READWRITE;
    if (options.create) flags |= SQLITE_OPEN_CREATE;
  }
  std::error_code ignored;
  bool existed = std::filesystem::exists(path, ignored);
  // Create the file ourselves first, so that it never exists with wider
  // permissions than asked, not even for a moment.
  if (!existed && !options.readOnly && options.create) {
    mode_t mode = static_cast<mode_t>(options.createdPermissions);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd >= 0) ::close(fd);
  }
  sqlite3* db = nullptr;
  int code = sqlite3_open_v2(path.c_str(), &db, flags, nullptr);
  if (code != SQLITE_OK) {
    std::string message = db ? sqlite3_errmsg(db) : sqlite3_errstr(code);
    sqlite3_close_v2(db);
    throw SQLiteError::open(message + " (" + path.string() + ")");
  }
  sqlite3_extended_result_codes(db, 1);
  sqlite3_busy_timeout(db, options.busyTimeoutMilliseconds);
  return std::shared_ptr<SQLiteDB>(new SQLiteDB(db, path));
}

std::shared_ptr<SQLiteDB> SQLiteDB::openInMemory() {
  sqlite3* db = nullptr;
  int code = sqlite3_open_v2(":memory:", &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  if (code != SQLITE_OK) {
    std::string message = db ? sqlite3_errmsg(db) : sqlite3_errstr(code);
    sqlite3_close_v2(db);
    throw SQLiteError::open(message);
  }
  return std::shared_ptr<SQLiteDB>(new SQLiteDB(db, ":memory:"));
}

SQLiteDB::~SQLiteDB() { sqlite3_close_v2(db_); }

std::string SQLiteDB::lastMessage() const { return sqlite3_errmsg(db_); }

void SQLiteDB::exec(const std::string& sql) {
  char* error = nullptr;
  int code = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error);
  if (code != SQLITE_OK) {
    std::string message = error ? error : sqlite3_errstr(code);
    sqlite3_free(error);
    throw SQLiteError::step(message);
  }
}

Statement SQLiteDB::prepare(std::string_view sql) {
  sqlite3_stmt* statement = nullptr;
  int code = sqlite3_prepare_v2(db_, sql.data(), static_cast<int>(sql.size()), &statement, nullptr);
  if (code != SQLITE_OK) {
    sqlite3_finalize(statement);
    throw SQLiteError::prepare(lastMessage(), std::string(sql));
  }
  return Statement(shared_from_this(), statement);
}

std::int64_t SQLiteDB::scalarInt(std::string_view sql) {
  Statement statement = prepare(sql);
  if (!statement.step()) return 0;
  return statement.columnInt(0);
}

std::int64_t SQLiteDB::lastInsertRowid() const { return sqlite3_last_insert_rowid(db_); }
std::int64_t SQLiteDB::changes() const { return sqlite3_changes64(db_); }

// ---- Statement ----

Statement::Statement(std::shared_ptr<SQLiteDB> db, sqlite3_stmt* statement)
    : db_(std::move(db)), statement_(statement) {}

Statement::Statement(Statement&& other) noexcept
    : db_(std::move(other.db_)), statement_(other.statement_) {
  other.statement_ = nullptr;
}

Statement& Statement::operator=(Statement&& other) noexcept {
  if (this != &other) {
    sqlite3_finalize(statement_);
    db_ = std::move(other.db_);
    statement_ = other.statement_;
    other.statement_ = nullptr;
  }
  return *this;
}

Statement::~Statement() { sqlite3_finalize(statement_); }

void Statement::check(int code) const {
  if (code != SQLITE_OK) throw SQLiteError::bind(db_->lastMessage());
}

Statement& Statement::bindText(int index, std::string_view value) {
  // A non-null pointer even for empty text, so that "" binds as '' and not NULL.
  check(sqlite3_bind_text64(statement_, index, value.empty() ? "" : value.data(), value.size(),
                            SQLITE_TRANSIENT, SQLITE_UTF8));
  return *this;
}

Statement& Statement::bindBlob(int index, std::string_view bytes) {
  check(sqlite3_bind_blob64(statement_, index, bytes.empty() ? "" : bytes.data(), bytes.size(),
                            SQLITE_TRANSIENT));
  return *this;
}

Statement& Statement::bindInt(int index, std::int64_t value) {
  check(sqlite3_bind_int64(statement_, index, value));
  return *this;
}

Statement& Statement::bindDouble(int index, double value) {
  check(sqlite3_bind_double(statement_, index, value));
  return *this;
}

Statement& Statement::bindNull(int index) {
  check(sqlite3_bind_null(statement_, index));
  return *this;
}

Statement& Statement::bindOptionalText(int index, const std::optional<std::string>& value) {
  return value ? bindText(index, *value) : bindNull(index);
}

bool Statement::step() {
  int code = sqlite3_step(statement_);
  if (code == SQLITE_ROW) return true;
  if (code == SQLITE_DONE) return false;
  std::string message = db_->lastMessage();
  sqlite3_reset(statement_);
  throw SQLiteError::step(message);
}

void Statement::run() {
  while (step()) {
  }
}

void Statement::reset() { sqlite3_reset(statement_); }
void Statement::clearBindings() { sqlite3_clear_bindings(statement_); }

int Statement::columnCount() const { return sqlite3_column_count(statement_); }

bool Statement::isNull(int column) const {
  return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

std::int64_t Statement::columnInt(int column) const {
  return sqlite3_column_int64(statement_, column);
}

double Statement::columnDouble(int column) const {
  return sqlite3_column_double(statement_, column);
}

std::string_view Statement::columnView(int column) const {
  const auto* text = sqlite3_column_text(statement_, column);
  int length = sqlite3_column_bytes(statement_, column);
  if (!text) return {};
  return {reinterpret_cast<const char*>(text), static_cast<std::size_t>(length)};
}

std::optional<std::string> Statement::columnOptionalText(int column) const {
  if (isNull(column)) return std::nullopt;
  return columnText(column);
}

// ---- Transaction ----

Transaction::Transaction(SQLiteDB& db) : db_(db) { db_.exec("BEGIN IMMEDIATE"); }

Transaction::~Transaction() {
  if (!done_) {
    try {
      db_.exec("ROLLBACK");
    } catch (const SQLiteError&) {
      // The transaction may already have been rolled back by SQLite itself.
    }
  }
}

void Transaction::commit() {
  db_.exec("COMMIT");
  done_ = true;
}

}  // namespace corvane
