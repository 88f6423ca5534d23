#include "backup/restore_journal.hpp"

#include "platform/app_support.hpp"
#include "platform/sqlite_db.hpp"

namespace corvane {

namespace {

std::string key(const std::string& id) { return id.substr(0, 15); }

RestoreJournal::Entry entryOf(Statement& row) {
  return {row.columnText(0), row.columnText(1), row.columnText(2), row.columnText(3),
          row.columnText(4), row.columnText(5), row.columnInt(6),  row.columnText(7),
          row.columnText(8), row.columnText(9), row.columnText(10)};
}

constexpr const char* selectEntry =
    "SELECT object, old_id, action, state, new_id, message, batch, sent_at, sent_body, job_id, "
    "emptied FROM restored WHERE org = ?";

}  // namespace

RestoreJournal::RestoreJournal(const std::filesystem::path& path) {
  std::filesystem::create_directories(path.parent_path());
  std::filesystem::permissions(path.parent_path(), std::filesystem::perms::owner_all);
  db_ = SQLiteDB::open(path);
  db_->exec(
      "PRAGMA journal_mode=WAL;"
      "PRAGMA synchronous=FULL;"
      "CREATE TABLE IF NOT EXISTS restored(org TEXT NOT NULL, key TEXT NOT NULL, "
      "object TEXT NOT NULL, old_id TEXT NOT NULL, action TEXT NOT NULL, state TEXT NOT NULL, "
      "new_id TEXT NOT NULL DEFAULT '', message TEXT NOT NULL DEFAULT '', "
      "batch INTEGER NOT NULL DEFAULT 0, sent_at TEXT NOT NULL DEFAULT '', "
      "sent_body TEXT NOT NULL DEFAULT '', job_id TEXT NOT NULL DEFAULT '', "
      "PRIMARY KEY(org, key)) WITHOUT ROWID;");
  // Journals written before references were kept gain the column.
  auto columns = db_->prepare("SELECT 1 FROM pragma_table_info('restored') WHERE name = 'emptied'");
  if (!columns.step())
    db_->exec("ALTER TABLE restored ADD COLUMN emptied TEXT NOT NULL DEFAULT ''");
}

std::string RestoreJournal::keyOf(const std::string& action, const std::string& oldId) {
  if (action == "link") return "link:" + oldId;
  if (action == "patch") return "patch:" + key(oldId);
  return key(oldId);
}

RestoreJournal::~RestoreJournal() = default;

std::filesystem::path RestoreJournal::standardPath() {
  return AppSupport::folder() / "Restore" / "journal.sqlite";
}

std::optional<RestoreJournal::Entry> RestoreJournal::find(const std::string& org,
                                                         const std::string& oldId) const {
  auto row = db_->prepare(std::string(selectEntry) + " AND key = ?");
  row.bindText(1, org).bindText(2, key(oldId));
  if (!row.step()) return std::nullopt;
  return entryOf(row);
}

std::map<std::string, RestoreJournal::Entry> RestoreJournal::entries(const std::string& org) const {
  auto row = db_->prepare(selectEntry);
  row.bindText(1, org);
  std::map<std::string, Entry> found;
  while (row.step()) {
    auto entry = entryOf(row);
    found.emplace(keyOf(entry.action, entry.oldId), std::move(entry));
  }
  return found;
}

std::int64_t RestoreJournal::nextBatch(const std::string& org) const {
  auto row = db_->prepare("SELECT COALESCE(MAX(batch), 0) + 1 FROM restored WHERE org = ?");
  row.bindText(1, org);
  return row.step() ? row.columnInt(0) : 1;
}

void RestoreJournal::recordSending(const std::string& org, const std::vector<Entry>& entries) {
  Transaction transaction(*db_);
  auto insert = db_->prepare(
      "INSERT INTO restored(org, key, object, old_id, action, state, new_id, message, batch, "
      "sent_at, sent_body, job_id, emptied) VALUES(?, ?, ?, ?, ?, 'sent', '', '', ?, ?, ?, ?, ?) "
      "ON CONFLICT(org, key) DO UPDATE SET action = excluded.action, state = 'sent', "
      "new_id = '', message = '', batch = excluded.batch, sent_at = excluded.sent_at, "
      "sent_body = excluded.sent_body, job_id = excluded.job_id, emptied = excluded.emptied");
  for (const auto& entry : entries) {
    insert.reset();
    insert.bindText(1, org).bindText(2, keyOf(entry.action, entry.oldId)).bindText(3, entry.object);
    insert.bindText(4, entry.oldId).bindText(5, entry.action).bindInt(6, entry.batch);
    insert.bindText(7, entry.sentAt).bindText(8, entry.sentBody).bindText(9, entry.jobId);
    insert.bindText(10, entry.emptied).run();
  }
  transaction.commit();
}

void RestoreJournal::recordOutcomes(const std::string& org, const std::vector<Entry>& entries) {
  Transaction transaction(*db_);
  auto update = db_->prepare(
      "UPDATE restored SET state = ?, new_id = ?, message = ? WHERE org = ? AND key = ?");
  auto filled = db_->prepare("UPDATE restored SET emptied = ? WHERE org = ? AND key = ?");
  for (const auto& entry : entries) {
    update.reset();
    update.bindText(1, entry.state).bindText(2, entry.newId).bindText(3, entry.message);
    update.bindText(4, org).bindText(5, keyOf(entry.action, entry.oldId)).run();
    if (entry.action == "patch" && entry.state == "done") {
      filled.reset();
      filled.bindText(1, entry.emptied).bindText(2, org).bindText(3, key(entry.oldId)).run();
    }
  }
  transaction.commit();
}

}  // namespace corvane
