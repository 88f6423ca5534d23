#include "tools/orgsim/database.hpp"

#include <sqlite3.h>

#include "tools/orgsim/org_store.hpp"

namespace corvane::orgsim {

namespace {

[[noreturn]] void fail(sqlite3* db, std::string_view context) {
  std::string message = db != nullptr ? sqlite3_errmsg(db) : "out of memory";
  if (!context.empty()) message += " (" + std::string(context.substr(0, 200)) + ")";
  throw OrgStoreError(OrgStoreError::Kind::Database, message);
}

}  // namespace

Statement::Statement(sqlite3* db, std::string_view sql) : db_(db) {
  if (sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &stmt_, nullptr) !=
      SQLITE_OK) {
    fail(db, sql);
  }
}

Statement::Statement(Statement&& other) noexcept : db_(other.db_), stmt_(other.stmt_) {
  other.stmt_ = nullptr;
}

Statement& Statement::operator=(Statement&& other) noexcept {
  if (this != &other) {
    sqlite3_finalize(stmt_);
    db_ = other.db_;
    stmt_ = other.stmt_;
    other.stmt_ = nullptr;
  }
  return *this;
}

Statement::~Statement() { sqlite3_finalize(stmt_); }

Statement& Statement::bind(int index, std::string_view text) {
  if (sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()),
                        SQLITE_TRANSIENT) != SQLITE_OK) {
    fail(db_, "bind");
  }
  return *this;
}

Statement& Statement::bindOptional(int index, const std::optional<std::string_view>& text) {
  return text ? bind(index, *text) : bindNull(index);
}

Statement& Statement::bind(int index, std::int64_t value) {
  if (sqlite3_bind_int64(stmt_, index, value) != SQLITE_OK) fail(db_, "bind");
  return *this;
}

Statement& Statement::bindBlob(int index, std::string_view bytes) {
  if (sqlite3_bind_blob64(stmt_, index, bytes.data(), bytes.size(), SQLITE_TRANSIENT) !=
      SQLITE_OK) {
    fail(db_, "bind");
  }
  return *this;
}

Statement& Statement::bindNull(int index) {
  if (sqlite3_bind_null(stmt_, index) != SQLITE_OK) fail(db_, "bind");
  return *this;
}

Statement& Statement::bindStatic(int index, std::string_view text) {
  if (sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC) !=
      SQLITE_OK) {
    fail(db_, "bind");
  }
  return *this;
}

bool Statement::step() {
  int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  std::string sql = sqlite3_sql(stmt_) != nullptr ? sqlite3_sql(stmt_) : "";
  sqlite3_reset(stmt_);
  fail(db_, sql);
}

void Statement::run() {
  while (step()) {
  }
}

void Statement::reset() {
  sqlite3_reset(stmt_);
  sqlite3_clear_bindings(stmt_);
}

int Statement::columns() const { return sqlite3_column_count(stmt_); }

bool Statement::isNull(int column) const {
  return sqlite3_column_type(stmt_, column) == SQLITE_NULL;
}

std::string_view Statement::text(int column) const {
  auto* data = sqlite3_column_text(stmt_, column);
  int size = sqlite3_column_bytes(stmt_, column);
  if (data == nullptr) return {};
  return {reinterpret_cast<const char*>(data), static_cast<std::size_t>(size)};
}

std::optional<std::string_view> Statement::optionalText(int column) const {
  if (isNull(column)) return std::nullopt;
  return text(column);
}

std::int64_t Statement::integer(int column) const { return sqlite3_column_int64(stmt_, column); }

double Statement::real(int column) const { return sqlite3_column_double(stmt_, column); }

std::string_view Statement::columnName(int column) const {
  const char* name = sqlite3_column_name(stmt_, column);
  return name != nullptr ? name : "";
}

Database::Database(const std::filesystem::path& file, bool readOnly) {
  int flags = readOnly ? SQLITE_OPEN_READONLY : (SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
  flags |= SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(file.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
    std::string message = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close(db_);
    db_ = nullptr;
    throw OrgStoreError(OrgStoreError::Kind::CannotOpen, file.string() + ": " + message);
  }
  sqlite3_busy_timeout(db_, 30000);
  sqlite3_extended_result_codes(db_, 1);
  if (!readOnly) exec("PRAGMA journal_mode=WAL");
  exec("PRAGMA synchronous=NORMAL");
  exec("PRAGMA foreign_keys=OFF");
  exec("PRAGMA cache_size=-32000");
}

Database::~Database() { sqlite3_close_v2(db_); }

void Database::exec(std::string_view sql) {
  std::string text(sql);
  char* error = nullptr;
  if (sqlite3_exec(db_, text.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
    std::string message = error != nullptr ? error : "unknown error";
    sqlite3_free(error);
    throw OrgStoreError(OrgStoreError::Kind::Database, message + " (" + text.substr(0, 200) + ")");
  }
}

Statement Database::prepare(std::string_view sql) { return Statement(db_, sql); }

std::int64_t Database::scalarInt(std::string_view sql, std::int64_t fallback) {
  Statement statement(db_, sql);
  return statement.step() && !statement.isNull(0) ? statement.integer(0) : fallback;
}

std::int64_t Database::lastInsertRowId() const { return sqlite3_last_insert_rowid(db_); }

int Database::changes() const { return sqlite3_changes(db_); }

std::string quoteIdentifier(std::string_view name) {
  std::string out = "\"";
  for (char c : name) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
  return out;
}

}  // namespace corvane::orgsim
