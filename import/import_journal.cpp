#include "import/import_journal.hpp"

#include "platform/app_support.hpp"
#include "platform/sqlite_db.hpp"

namespace corvane {

namespace {

std::string joinRows(const std::vector<std::size_t>& rows) {
  std::string text;
  for (std::size_t row : rows) {
    if (!text.empty()) text += ',';
    text += std::to_string(row);
  }
  return text;
}

std::vector<std::size_t> splitRows(std::string_view text) {
  std::vector<std::size_t> rows;
  std::size_t value = 0;
  bool any = false;
  for (char c : text) {
    if (c == ',') {
      if (any) rows.push_back(value);
      value = 0;
      any = false;
    } else if (c >= '0' && c <= '9') {
      value = value * 10 + static_cast<std::size_t>(c - '0');
      any = true;
    }
  }
  if (any) rows.push_back(value);
  return rows;
}

}  // namespace

ImportJournal::ImportJournal(const std::filesystem::path& path) {
  std::filesystem::create_directories(path.parent_path());
  db_ = SQLiteDB::open(path);
  db_->exec(
      "PRAGMA journal_mode=WAL;"
      "PRAGMA synchronous=FULL;"
      "CREATE TABLE IF NOT EXISTS runs(id INTEGER PRIMARY KEY, key TEXT NOT NULL, login TEXT, "
      "object TEXT, operation TEXT, source TEXT, started_at TEXT, finished_at TEXT);"
      "CREATE INDEX IF NOT EXISTS runs_key ON runs(key);"
      "CREATE TABLE IF NOT EXISTS batches(run_id INTEGER NOT NULL, number INTEGER NOT NULL, "
      "rows TEXT NOT NULL, state TEXT NOT NULL, sent_at TEXT, job_id TEXT, "
      "PRIMARY KEY(run_id, number));"
      "CREATE TABLE IF NOT EXISTS outcomes(run_id INTEGER NOT NULL, row INTEGER NOT NULL, "
      "batch INTEGER NOT NULL, success INTEGER NOT NULL, record_id TEXT, message TEXT, "
      "created INTEGER NOT NULL DEFAULT 0, PRIMARY KEY(run_id, row));");
}

ImportJournal::~ImportJournal() = default;

std::filesystem::path ImportJournal::standardPath() {
  return AppSupport::folder() / "Import" / "journal.sqlite";
}

ImportJournal::Run ImportJournal::begin(const std::string& key, const std::string& login,
                                        const std::string& object, const std::string& operation,
                                        const std::string& source, const std::string& startedAt) {
  Statement find =
      db_->prepare("SELECT id FROM runs WHERE key = ? AND finished_at IS NULL ORDER BY id DESC");
  find.bindText(1, key);
  if (find.step()) return Run{find.columnInt(0), true};
  Statement insert = db_->prepare(
      "INSERT INTO runs(key, login, object, operation, source, started_at) VALUES(?,?,?,?,?,?)");
  insert.bindText(1, key).bindText(2, login).bindText(3, object).bindText(4, operation);
  insert.bindText(5, source).bindText(6, startedAt).run();
  return Run{db_->lastInsertRowid(), false};
}

std::optional<std::string> ImportJournal::finishedAt(const std::string& key) const {
  Statement find = db_->prepare(
      "SELECT finished_at FROM runs WHERE key = ? AND finished_at IS NOT NULL ORDER BY id DESC");
  find.bindText(1, key);
  if (!find.step()) return std::nullopt;
  return find.columnOptionalText(0);
}

std::vector<JournalBatch> ImportJournal::batches(std::int64_t run) const {
  Statement select = db_->prepare(
      "SELECT number, rows, state, sent_at, job_id FROM batches WHERE run_id = ? ORDER BY number");
  select.bindInt(1, run);
  std::vector<JournalBatch> list;
  while (select.step()) {
    JournalBatch batch;
    batch.number = static_cast<int>(select.columnInt(0));
    batch.rows = splitRows(select.columnView(1));
    batch.state =
        select.columnView(2) == "done" ? JournalBatch::State::done : JournalBatch::State::sent;
    batch.sentAt = select.columnOptionalText(3).value_or("");
    batch.jobId = select.columnOptionalText(4).value_or("");
    list.push_back(std::move(batch));
  }
  return list;
}

void ImportJournal::recordSending(std::int64_t run, const JournalBatch& batch) {
  Statement insert = db_->prepare(
      "INSERT INTO batches(run_id, number, rows, state, sent_at, job_id) VALUES(?,?,?,'sent',?,?) "
      "ON CONFLICT(run_id, number) DO UPDATE SET rows = excluded.rows, state = 'sent', "
      "sent_at = excluded.sent_at, job_id = excluded.job_id");
  insert.bindInt(1, run).bindInt(2, batch.number).bindText(3, joinRows(batch.rows));
  insert.bindText(4, batch.sentAt).bindText(5, batch.jobId).run();
}

void ImportJournal::recordOutcome(std::int64_t run, int batch,
                                  const std::vector<RowOutcome>& outcomes) {
  Transaction transaction(*db_);
  Statement insert = db_->prepare(
      "INSERT OR REPLACE INTO outcomes(run_id, row, batch, success, record_id, message, "
      "created) VALUES(?,?,?,?,?,?,?)");
  for (const auto& outcome : outcomes) {
    insert.reset();
    insert.bindInt(1, run).bindInt(2, static_cast<std::int64_t>(outcome.row)).bindInt(3, batch);
    insert.bindInt(4, outcome.success ? 1 : 0).bindText(5, outcome.recordId);
    insert.bindText(6, outcome.message).bindInt(7, outcome.created ? 1 : 0).run();
  }
  Statement done =
      db_->prepare("UPDATE batches SET state = 'done' WHERE run_id = ? AND number = ?");
  done.bindInt(1, run).bindInt(2, batch).run();
  transaction.commit();
}

std::vector<RowOutcome> ImportJournal::outcomes(std::int64_t run) const {
  Statement select = db_->prepare(
      "SELECT row, success, record_id, message, created FROM outcomes WHERE run_id = ? "
      "ORDER BY row");
  select.bindInt(1, run);
  std::vector<RowOutcome> list;
  while (select.step()) {
    list.push_back({static_cast<std::size_t>(select.columnInt(0)), select.columnInt(1) != 0,
                    select.columnOptionalText(2).value_or(""),
                    select.columnOptionalText(3).value_or(""), select.columnInt(4) != 0});
  }
  return list;
}

void ImportJournal::finish(std::int64_t run, const std::string& finishedAt) {
  Statement update = db_->prepare("UPDATE runs SET finished_at = ? WHERE id = ?");
  update.bindText(1, finishedAt).bindInt(2, run).run();
}

}  // namespace corvane
