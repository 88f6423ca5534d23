#include "backup/backup_store.hpp"

#include <algorithm>
#include <set>
#include <system_error>

#include <nlohmann/json.hpp>

#include "backup/backup_error.hpp"
#include "platform/file_error.hpp"

namespace corvane {

namespace {

constexpr const char* text = "TEXT NOT NULL DEFAULT ''";
constexpr const char* zero = "INTEGER NOT NULL DEFAULT 0";
constexpr const char* notCounted = "INTEGER NOT NULL DEFAULT -1";

struct Column {
  const char* name;
  const char* declaration;
  // How a database made before the column existed gains it; null for columns
  // every version had (keys).
  const char* added;
};

struct Table {
  const char* name;
  std::vector<Column> columns;
  const char* constraints;  // after the columns, or ""
  const char* options;      // after the closing parenthesis, or ""
};

const std::vector<Table>& tables() {
  static const std::vector<Table> all{
      {"sets", {{"key", "TEXT PRIMARY KEY", nullptr}, {"value", "TEXT NOT NULL", nullptr}}, "", ""},
      {"objects",
       {{"name", "TEXT PRIMARY KEY", nullptr},
        {"watermark_field", text, text},
        {"watermark", text, text},
        {"fields", text, text},
        {"needs_full", zero, zero},
        {"deleted_checked", text, text},
        {"unsupported_fields", text, text},
        {"unsupported_reason", text, text},
        {"unsupported_at", text, text},
        {"deleted_tried", text, text},
        {"get_deleted_refused", zero, zero}},
       "",
       ""},
      {"known_ids",
       {{"object", text, nullptr},
        {"id", text, nullptr},
        {"stamp", text, text},
        {"deleted", zero, zero},
        {"seen_run", zero, zero},
        {"check_run", zero, zero},
        {"deleted_run", zero, zero},
        {"deleted_at", text, text},
        {"how", text, text}},
       ", PRIMARY KEY (object, id)",
       " WITHOUT ROWID"},
      {"jobs",
       {{"run_id", "INTEGER NOT NULL", nullptr},
        {"seq", "INTEGER NOT NULL", nullptr},
        {"object", text, text},
        {"purpose", text, text},
        {"mode", text, text},
        {"operation", text, text},
        {"soql", "TEXT NOT NULL", text},
        {"fields", text, text},
        {"watermark_field", text, text},
        {"has_is_deleted", zero, zero},
        {"state", "TEXT NOT NULL DEFAULT 'pending'", text},
        {"reason", text, text},
        {"job_id", text, text},
        {"created_by", text, text},
        {"created_date", text, text},
        {"locator", text, text},
        {"csv_bytes", zero, zero},
        {"rows", zero, zero},
        {"deleted_rows", zero, zero},
        {"field_types", text, text},
        {"row_count", notCounted, notCounted},
        {"via", text, text}},
       ", PRIMARY KEY (run_id, seq)",
       ""},
      {"file_versions",
       {{"id", "TEXT PRIMARY KEY", nullptr},
        {"object", "TEXT NOT NULL", text},
        {"document_id", text, text},
        {"title", text, text},
        {"name_on_disk", text, text},
        {"size", zero, zero},
        {"checksum", text, text},
        // Versions stored before the column existed were the latest ones kept.
        {"is_latest", "INTEGER NOT NULL DEFAULT 1", "INTEGER NOT NULL DEFAULT 1"},
        {"stamp", text, text},
        {"downloaded", zero, zero},
        {"failure", text, text},
        {"deleted", zero, zero},
        {"attempts", zero, zero},
        {"skipped", zero, zero},
        {"skipped_run", zero, zero},
        {"earlier_copies", text, text}},
       "",
       ""},
      {"runs",
       {{"id", "INTEGER PRIMARY KEY", nullptr},
        {"folder", "TEXT NOT NULL", nullptr},
        {"kind", "TEXT NOT NULL", nullptr},
        {"stage", "TEXT NOT NULL DEFAULT 'plan'", text},
        {"started_at", "TEXT NOT NULL", nullptr},
        {"finished_at", text, text},
        {"server_now", text, text},
        {"result", text, text},
        {"message", text, text},
        {"records", zero, zero},
        {"deleted", zero, zero},
        {"files", zero, zero},
        {"files_waiting", zero, zero},
        {"bytes", zero, zero},
        {"api_requests", zero, zero},
        {"stops", zero, zero},
        {"retired", zero, zero},
        {"removed_folders", text, text},
        {"removed_bytes", zero, zero}},
       "",
       ""},
  };
  return all;
}

std::string createStatement(const Table& table) {
  std::string sql = std::string("CREATE TABLE IF NOT EXISTS ") + table.name + " (";
  bool first = true;
  for (const auto& column : table.columns) {
    if (!first) sql += ", ";
    first = false;
    sql += column.name;
    sql += ' ';
    sql += column.declaration;
  }
  sql += table.constraints;
  sql += ')';
  sql += table.options;
  return sql;
}

std::string jsonList(const std::vector<std::string>& names) { return nlohmann::json(names).dump(); }

// A JSON list of names; anything else (the empty default included) is none.
std::vector<std::string> namesFrom(std::string_view textValue) {
  if (textValue.empty()) return {};
  try {
    auto json = nlohmann::json::parse(textValue);
    if (!json.is_array()) return {};
    std::vector<std::string> names;
    for (const auto& item : json) {
      if (item.is_string()) names.push_back(item.get<std::string>());
    }
    return names;
  } catch (const nlohmann::json::exception&) {
    return {};
  }
}

std::string lowered(std::string value) {
  for (char& c : value) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return value;
}

constexpr const char* runColumns =
    "id, folder, kind, stage, started_at, finished_at, server_now, result, message, records, "
    "deleted, files, files_waiting, bytes, api_requests, stops, removed_folders, removed_bytes";

BackupStore::Run runFrom(const Statement& row) {
  BackupStore::Run run;
  run.id = row.columnInt(0);
  run.folder = row.columnText(1);
  run.kind = runKindFromText(row.columnView(2)).value_or(RunKind::full);
  run.stage = row.columnText(3);
  run.startedAt = row.columnText(4);
  run.finishedAt = row.columnText(5);
  run.serverNow = row.columnText(6);
  run.result = row.columnText(7);
  run.message = row.columnText(8);
  run.records = row.columnInt(9);
  run.deleted = row.columnInt(10);
  run.files = row.columnInt(11);
  run.filesWaiting = row.columnInt(12);
  run.bytes = row.columnInt(13);
  run.apiRequests = row.columnInt(14);
  run.stops = row.columnInt(15);
  run.removedFolders = namesFrom(row.columnView(16));
  run.removedBytes = row.columnInt(17);
  return run;
}

// A records job counts as complete when it is done, or skipped because there
// was nothing to copy; as left out when it failed or was skipped for any other
// reason. Pending and running jobs are neither.
const std::string completeCondition =
    std::string("(state = 'done' OR (state = 'skipped' AND reason IN ('") + noChangesReason +
    "', '" + noRecordsReason + "')))";
const std::string leftOutCondition =
    "(state = 'failed' OR (state = 'skipped' AND NOT " + completeCondition + "))";

}  // namespace

bool BackupStore::Run::isUsable() const {
  return isFinished() && result != RunResult::stopped && result != RunResult::gaveUp &&
         result != RunResult::failed;
}

std::vector<std::string> BackupStore::schema() {
  std::vector<std::string> statements;
  for (const auto& table : tables()) statements.push_back(createStatement(table));
  return statements;
}

BackupStore::BackupStore(BackupLocation location) : location_(std::move(location)) {
  const auto folder = location_.folder();
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) throw FileError(FileError::Kind::createFolder, folder, error.value());
  db_ = SQLiteDB::open(location_.databaseURL());
  db_->exec("PRAGMA synchronous=FULL");
  createSchema();
  addMissingColumns();
  checkOwner();
}

void BackupStore::createSchema() {
  for (const auto& table : tables()) db_->exec(createStatement(table));
}

void BackupStore::addMissingColumns() {
  auto names = db_->prepare("SELECT name FROM pragma_table_info(?)");
  for (const auto& table : tables()) {
    std::set<std::string, std::less<>> present;
    names.reset();
    names.bindText(1, table.name);
    while (names.step()) present.insert(names.columnText(0));
    for (const auto& column : table.columns) {
      if (column.added == nullptr || present.count(column.name) != 0) continue;
      db_->exec(std::string("ALTER TABLE ") + table.name + " ADD COLUMN " + column.name + " " +
                column.added);
    }
  }
}

void BackupStore::checkOwner() {
  auto owner = setting("username");
  if (!owner || owner->empty()) {
    setSetting("username", location_.username);
    return;
  }
  if (lowered(*owner) != lowered(location_.username)) throw BackupError::anotherLogin(*owner);
}

std::optional<std::string> BackupStore::setting(const std::string& key) {
  auto statement = db_->prepare("SELECT value FROM sets WHERE key = ?");
  statement.bindText(1, key);
  if (!statement.step()) return std::nullopt;
  return statement.columnText(0);
}

void BackupStore::setSetting(const std::string& key, const std::string& value) {
  db_->prepare(
         "INSERT INTO sets (key, value) VALUES (?, ?) ON CONFLICT(key) DO UPDATE SET value = "
         "excluded.value")
      .bindText(1, key)
      .bindText(2, value)
      .run();
}

std::vector<BackupStore::Run> BackupStore::runs() {
  auto statement = db_->prepare(std::string("SELECT ") + runColumns +
                                " FROM runs WHERE retired = 0 ORDER BY id");
  std::vector<Run> all;
  while (statement.step()) all.push_back(runFrom(statement));
  return all;
}

std::optional<BackupStore::Run> BackupStore::run(std::int64_t id) {
  auto statement = db_->prepare(std::string("SELECT ") + runColumns + " FROM runs WHERE id = ?");
  statement.bindInt(1, id);
  if (!statement.step()) return std::nullopt;
  return runFrom(statement);
}

std::filesystem::path BackupStore::runFolder(const Run& run) const {
  return location_.folder() / BackupLocation::safeName(run.folder);
}

std::int64_t BackupStore::knownCount(const std::string& object, bool includeDeleted) {
  std::string sql = "SELECT COUNT(*) FROM known_ids WHERE object = ?";
  if (!includeDeleted) sql += " AND deleted = 0";
  auto statement = db_->prepare(sql);
  statement.bindText(1, object);
  return statement.step() ? statement.columnInt(0) : 0;
}

std::optional<BackupStore::Known> BackupStore::known(const std::string& object,
                                                     const std::string& id) {
  auto statement =
      db_->prepare("SELECT stamp, deleted, seen_run FROM known_ids WHERE object = ? AND id = ?");
  statement.bindText(1, object).bindText(2, id);
  if (!statement.step()) return std::nullopt;
  return Known{statement.columnText(0), statement.columnInt(1) != 0, statement.columnInt(2)};
}

std::vector<std::pair<std::string, std::int64_t>> BackupStore::heldCounts() {
  auto statement = db_->prepare(
      "SELECT object, COUNT(*) FROM known_ids WHERE deleted = 0 GROUP BY object ORDER BY "
      "COUNT(*) DESC, object");
  std::vector<std::pair<std::string, std::int64_t>> counts;
  while (statement.step()) counts.emplace_back(statement.columnText(0), statement.columnInt(1));
  return counts;
}

std::vector<BackupStore::Deletion> BackupStore::deletions(std::int64_t run) {
  auto statement = db_->prepare(
      "SELECT object, id, deleted_at, how FROM known_ids WHERE deleted = 1 AND deleted_run = ? "
      "ORDER BY object, id");
  statement.bindInt(1, run);
  std::vector<Deletion> found;
  while (statement.step()) {
    found.push_back({statement.columnText(0), statement.columnText(1), statement.columnText(2),
                     statement.columnText(3)});
  }
  return found;
}

std::vector<BackupStore::FileVersion> BackupStore::fileVersions() {
  auto statement = db_->prepare(
      "SELECT id, object, document_id, title, name_on_disk, size, checksum, is_latest, "
      "downloaded, failure, deleted, attempts, skipped, earlier_copies FROM file_versions ORDER "
      "BY object, id");
  std::vector<FileVersion> versions;
  while (statement.step()) {
    FileVersion version;
    version.id = statement.columnText(0);
    version.object = statement.columnText(1);
    version.documentId = statement.columnText(2);
    version.title = statement.columnText(3);
    version.nameOnDisk = statement.columnText(4);
    version.size = statement.columnInt(5);
    version.checksum = statement.columnText(6);
    version.isLatest = statement.columnInt(7) != 0;
    version.downloaded = statement.columnInt(8) != 0;
    version.failure = statement.columnText(9);
    version.deleted = statement.columnInt(10) != 0;
    version.attempts = statement.columnInt(11);
    version.skipped = statement.columnInt(12) != 0;
    version.earlierCopies = namesFrom(statement.columnView(13));
    versions.push_back(std::move(version));
  }
  return versions;
}

void BackupStore::recordRemovals(std::int64_t run, const std::vector<std::string>& folders,
                                 std::int64_t bytes) {
  db_->prepare("UPDATE runs SET removed_folders = ?, removed_bytes = ? WHERE id = ?")
      .bindText(1, jsonList(folders))
      .bindInt(2, bytes)
      .bindInt(3, run)
      .run();
}

std::vector<std::pair<std::int64_t, std::string>> BackupStore::retiredRuns() {
  auto statement = db_->prepare("SELECT id, folder FROM runs WHERE retired = 1 ORDER BY id");
  std::vector<std::pair<std::int64_t, std::string>> retired;
  while (statement.step()) retired.emplace_back(statement.columnInt(0), statement.columnText(1));
  return retired;
}

void BackupStore::markRetired(std::int64_t run) {
  db_->prepare("UPDATE runs SET retired = 1 WHERE id = ?").bindInt(1, run).run();
}

void BackupStore::unmarkRetired(std::int64_t run) {
  db_->prepare("UPDATE runs SET retired = 0 WHERE id = ?").bindInt(1, run).run();
}

void BackupStore::forget(std::int64_t run) {
  Transaction transaction(*db_);
  db_->prepare("DELETE FROM jobs WHERE run_id = ?").bindInt(1, run).run();
  db_->prepare("DELETE FROM runs WHERE id = ?").bindInt(1, run).run();
  transaction.commit();
}

std::vector<BackupStore::RunObjects> BackupStore::objectsPerRun() {
  auto statement = db_->prepare(
      "SELECT run_id, COUNT(*), SUM(CASE WHEN " + completeCondition +
      " THEN 1 ELSE 0 END), SUM(CASE WHEN " + leftOutCondition +
      " THEN 1 ELSE 0 END) FROM jobs WHERE purpose = 'records' AND run_id IN (SELECT id FROM "
      "runs WHERE retired = 0) GROUP BY run_id ORDER BY run_id");
  std::vector<RunObjects> counts;
  while (statement.step()) {
    counts.push_back({statement.columnInt(0), statement.columnInt(1), statement.columnInt(2),
                      statement.columnInt(3)});
  }
  return counts;
}

std::vector<Retention::RunInfo> BackupStore::retentionRuns() {
  const auto all = runs();
  auto statement = db_->prepare("SELECT object, " + completeCondition + ", " + leftOutCondition +
                                " FROM jobs WHERE purpose = 'records' AND run_id = ? ORDER BY seq");
  std::vector<Retention::RunInfo> infos;
  for (const auto& run : all) {
    Retention::RunInfo info;
    info.id = run.id;
    info.folder = run.folder;
    info.kind = run.kind;
    info.finished = run.isFinished();
    info.usable = run.isUsable();
    statement.reset();
    statement.bindInt(1, run.id);
    while (statement.step()) {
      std::string object = statement.columnText(0);
      if (!info.plannedObjects) info.plannedObjects.emplace();
      if (!info.completeObjects) info.completeObjects.emplace();
      info.plannedObjects->insert(object);
      if (statement.columnInt(1) != 0) info.completeObjects->insert(object);
      if (statement.columnInt(2) != 0) info.leftOutObjects.insert(std::move(object));
    }
    // A stopped run is not complete, whatever its jobs say.
    if (run.result == RunResult::stopped) info.completeObjects.reset();
    infos.push_back(std::move(info));
  }
  return infos;
}

std::int64_t BackupStore::insertRun(const std::string& folder, RunKind kind,
                                    const std::string& startedAt) {
  db_->prepare("INSERT INTO runs (folder, kind, stage, started_at) VALUES (?, ?, 'plan', ?)")
      .bindText(1, folder)
      .bindText(2, toText(kind))
      .bindText(3, startedAt)
      .run();
  return db_->lastInsertRowid();
}

void BackupStore::setStage(std::int64_t run, const std::string& stage) {
  db_->prepare("UPDATE runs SET stage = ? WHERE id = ?").bindText(1, stage).bindInt(2, run).run();
}

std::optional<BackupStore::ObjectState> BackupStore::objectState(const std::string& name) {
  auto statement = db_->prepare(
      "SELECT name, watermark_field, watermark, fields, needs_full, deleted_checked, "
      "unsupported_fields, unsupported_reason, unsupported_at, deleted_tried, "
      "get_deleted_refused FROM objects WHERE name = ?");
  statement.bindText(1, name);
  if (!statement.step()) return std::nullopt;
  ObjectState state;
  state.name = statement.columnText(0);
  state.watermarkField = statement.columnText(1);
  state.watermark = statement.columnText(2);
  state.fields = namesFrom(statement.columnView(3));
  state.needsFull = statement.columnInt(4) != 0;
  state.deletedChecked = statement.columnText(5);
  state.unsupportedFields = namesFrom(statement.columnView(6));
  state.unsupportedReason = statement.columnText(7);
  state.unsupportedAt = statement.columnText(8);
  state.deletedTried = statement.columnText(9);
  state.getDeletedRefused = statement.columnInt(10) != 0;
  return state;
}

void BackupStore::storeWatermark(const std::string& object, const std::string& watermarkField,
                                 const std::string& watermark,
                                 const std::vector<std::string>& fields) {
  db_->prepare(
         "INSERT INTO objects (name, watermark_field, watermark, fields, needs_full) VALUES (?, "
         "?, ?, ?, 0) ON CONFLICT(name) DO UPDATE SET watermark_field = excluded.watermark_field, "
         "watermark = excluded.watermark, fields = excluded.fields, needs_full = 0, "
         "unsupported_fields = '', unsupported_reason = '', unsupported_at = ''")
      .bindText(1, object)
      .bindText(2, watermarkField)
      .bindText(3, watermark)
      .bindText(4, jsonList(fields))
      .run();
}

void BackupStore::recordUnsupported(const std::string& object,
                                    const std::vector<std::string>& fields,
                                    const std::string& reason, const std::string& at) {
  db_->prepare(
         "INSERT INTO objects (name, unsupported_fields, unsupported_reason, unsupported_at) "
         "VALUES (?, ?, ?, ?) ON CONFLICT(name) DO UPDATE SET unsupported_fields = "
         "excluded.unsupported_fields, unsupported_reason = excluded.unsupported_reason, "
         "unsupported_at = excluded.unsupported_at")
      .bindText(1, object)
      .bindText(2, jsonList(fields))
      .bindText(3, reason)
      .bindText(4, at)
      .run();
}

void BackupStore::markNeedsFull(const std::string& object) {
  db_->prepare(
         "INSERT INTO objects (name, needs_full) VALUES (?, 1) ON CONFLICT(name) DO UPDATE SET "
         "needs_full = 1")
      .bindText(1, object)
      .run();
}

}  // namespace corvane
