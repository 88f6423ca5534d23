#include "query/query_history.hpp"

#include <algorithm>

#include "platform/app_support.hpp"
#include "platform/sqlite_db.hpp"

namespace corvane {

namespace {

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) {
    return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  });
  return text;
}

// A LIKE pattern that matches text anywhere, with the pattern characters escaped.
std::string containing(const std::string& text) {
  std::string pattern = "%";
  for (char c : text) {
    if (c == '%' || c == '_' || c == '\\') pattern += '\\';
    pattern += c;
  }
  return pattern + "%";
}

SystemTime timeOf(const std::string& text) {
  return IsoTime::parseFractional(text).value_or(SystemTime{});
}

}  // namespace

QueryHistory::QueryHistory(const std::filesystem::path& file) {
  std::filesystem::create_directories(file.parent_path());
  db_ = SQLiteDB::open(file);
  db_->exec(
      "PRAGMA journal_mode=WAL;"
      "CREATE TABLE IF NOT EXISTS runs (id INTEGER PRIMARY KEY, username TEXT NOT NULL, "
      "soql TEXT NOT NULL, ran_at TEXT NOT NULL, row_count INTEGER NOT NULL, "
      "milliseconds INTEGER NOT NULL, error TEXT NOT NULL);"
      "CREATE INDEX IF NOT EXISTS runs_by_login ON runs (username, id);"
      "CREATE TABLE IF NOT EXISTS saved (username TEXT NOT NULL, name TEXT NOT NULL, "
      "soql TEXT NOT NULL, saved_at TEXT NOT NULL, PRIMARY KEY (username, name));");
}

QueryHistory::~QueryHistory() = default;

std::filesystem::path QueryHistory::standardFile() {
  return AppSupport::folder() / "Query History.sqlite";
}

std::int64_t QueryHistory::record(const Entry& entry) {
  std::lock_guard lock(mutex_);
  const std::string username = lower(entry.username);
  Transaction transaction(*db_);
  db_->prepare(
         "INSERT INTO runs (username, soql, ran_at, row_count, milliseconds, error) "
         "VALUES (?, ?, ?, ?, ?, ?)")
      .bindText(1, username)
      .bindText(2, entry.soql)
      .bindText(3, IsoTime::formatFractional(entry.ranAt))
      .bindInt(4, entry.rows)
      .bindInt(5, entry.milliseconds)
      .bindText(6, entry.error)
      .run();
  const std::int64_t id = db_->lastInsertRowid();
  db_->prepare(
         "DELETE FROM runs WHERE username = ? AND id <= (SELECT id FROM runs WHERE username = ? "
         "ORDER BY id DESC LIMIT 1 OFFSET ?)")
      .bindText(1, username)
      .bindText(2, username)
      .bindInt(3, maximumEntries)
      .run();
  transaction.commit();
  return id;
}

std::vector<QueryHistory::Entry> QueryHistory::entries(const std::string& username,
                                                       const std::string& search, int limit) {
  std::lock_guard lock(mutex_);
  auto statement = db_->prepare(
      "SELECT id, username, soql, ran_at, row_count, milliseconds, error FROM runs "
      "WHERE username = ? AND soql LIKE ? ESCAPE '\\' ORDER BY id DESC LIMIT ?");
  statement.bindText(1, lower(username)).bindText(2, containing(search)).bindInt(3, limit);
  std::vector<Entry> out;
  while (statement.step()) {
    Entry entry;
    entry.id = statement.columnInt(0);
    entry.username = statement.columnText(1);
    entry.soql = statement.columnText(2);
    entry.ranAt = timeOf(statement.columnText(3));
    entry.rows = statement.columnInt(4);
    entry.milliseconds = statement.columnInt(5);
    entry.error = statement.columnText(6);
    out.push_back(std::move(entry));
  }
  return out;
}

void QueryHistory::forget(std::int64_t id) {
  std::lock_guard lock(mutex_);
  db_->prepare("DELETE FROM runs WHERE id = ?").bindInt(1, id).run();
}

void QueryHistory::save(const Saved& saved) {
  std::lock_guard lock(mutex_);
  db_->prepare(
         "INSERT INTO saved (username, name, soql, saved_at) VALUES (?, ?, ?, ?) "
         "ON CONFLICT (username, name) DO UPDATE SET soql = excluded.soql, "
         "saved_at = excluded.saved_at")
      .bindText(1, lower(saved.username))
      .bindText(2, saved.name)
      .bindText(3, saved.soql)
      .bindText(4, IsoTime::formatFractional(saved.savedAt))
      .run();
}

std::vector<QueryHistory::Saved> QueryHistory::saved(const std::string& username) {
  std::lock_guard lock(mutex_);
  auto statement = db_->prepare(
      "SELECT username, name, soql, saved_at FROM saved WHERE username = ? "
      "ORDER BY name COLLATE NOCASE");
  statement.bindText(1, lower(username));
  std::vector<Saved> out;
  while (statement.step()) {
    out.push_back({statement.columnText(0), statement.columnText(1), statement.columnText(2),
                   timeOf(statement.columnText(3))});
  }
  return out;
}

void QueryHistory::removeSaved(const std::string& username, const std::string& name) {
  std::lock_guard lock(mutex_);
  db_->prepare("DELETE FROM saved WHERE username = ? AND name = ?")
      .bindText(1, lower(username))
      .bindText(2, name)
      .run();
}

}  // namespace corvane
