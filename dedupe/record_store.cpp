#include "dedupe/record_store.hpp"

#include <algorithm>
#include <chrono>

#include <nlohmann/json.hpp>

#include "dedupe/normalizer.hpp"
#include "platform/iso_time.hpp"

namespace corvane {

namespace {

std::string column(char prefix, std::size_t index) { return prefix + std::to_string(index); }

std::string encodeList(const std::vector<std::string>& list) { return nlohmann::json(list).dump(); }

std::vector<std::string> decodeList(std::string_view text) {
  auto json = nlohmann::json::parse(text, nullptr, false);
  std::vector<std::string> list;
  if (!json.is_array()) return list;
  for (const auto& item : json) list.push_back(item.is_string() ? item.get<std::string>() : "");
  return list;
}

std::string createScript(std::size_t matchCount, std::size_t extraCount) {
  std::string records =
      "CREATE TABLE records (rid INTEGER PRIMARY KEY, sfid TEXT NOT NULL, name TEXT NOT NULL "
      "DEFAULT '', created TEXT NOT NULL DEFAULT '', modified TEXT NOT NULL DEFAULT '', filled "
      "INTEGER NOT NULL DEFAULT 0, enriched INTEGER NOT NULL DEFAULT 0, obj TEXT NOT NULL DEFAULT "
      "''";
  for (std::size_t i = 0; i < matchCount; ++i) {
    records += ", " + column('m', i) + " TEXT, " + column('n', i) + " TEXT";
  }
  for (std::size_t j = 0; j < extraCount; ++j) records += ", " + column('x', j) + " TEXT";
  records += ");";
  return "CREATE TABLE meta (key TEXT PRIMARY KEY, value TEXT);\n"
         "CREATE TABLE fields (pos INTEGER PRIMARY KEY, name TEXT, label TEXT, kind TEXT, mode "
         "TEXT, extra INTEGER);\n" +
         records +
         "\nCREATE TABLE objects (pos INTEGER PRIMARY KEY, name TEXT, label TEXT, sources TEXT, "
         "extraSources TEXT);\n"
         "CREATE TABLE exclusions (rid INTEGER PRIMARY KEY, sfid TEXT NOT NULL, marked_at TEXT "
         "NOT NULL);";
}

bool isFilled(std::string_view value) {
  return value.find_first_not_of(" \t\r\n") != std::string_view::npos;
}

// A user's text as a LIKE pattern that matches it anywhere, taken literally.
std::string containsPattern(std::string_view text) {
  std::string pattern = "%";
  for (char c : text) {
    if (c == '%' || c == '_' || c == '\\') pattern.push_back('\\');
    pattern.push_back(c);
  }
  pattern.push_back('%');
  return pattern;
}

}  // namespace

std::int64_t snapshotFileBytes(const std::filesystem::path& url) {
  std::int64_t total = 0;
  for (const char* suffix : {"", "-wal", "-shm"}) {
    std::error_code error;
    auto size = std::filesystem::file_size(url.string() + suffix, error);
    if (!error) total += static_cast<std::int64_t>(size);
  }
  return total;
}

RecordStore::RecordStore(std::filesystem::path url, std::shared_ptr<SQLiteDB> db)
    : url_(std::move(url)), db_(std::move(db)) {}

RecordStore::~RecordStore() = default;

void RecordStore::configure() {
  db_->exec("PRAGMA journal_mode=WAL");
  db_->exec("PRAGMA synchronous=NORMAL");
}

std::shared_ptr<RecordStore> RecordStore::create(const std::filesystem::path& url,
                                                 const Creation& creation) {
  if (std::filesystem::exists(url)) {
    throw SQLiteError::open("a snapshot file already exists at " + url.string());
  }
  std::shared_ptr<RecordStore> store(new RecordStore(url, SQLiteDB::open(url)));
  store->configure();
  SQLiteDB& db = *store->db_;
  Transaction transaction(db);
  db.exec(createScript(creation.matchFields.size(), creation.extraFields.size()));

  std::string downloadedAt = creation.downloadedAt.empty()
                                 ? IsoTime::formatFractional(std::chrono::system_clock::now())
                                 : creation.downloadedAt;
  Statement meta = db.prepare("INSERT INTO meta (key, value) VALUES (?, ?)");
  const std::pair<const char*, std::string> entries[] = {
      {"orgId", creation.orgId},
      {"objectName", creation.objectName},
      {"objectLabel", creation.objectLabel},
      {"nameFieldLabel", creation.nameFieldLabel},
      {"downloadedAt", downloadedAt},
      {"totalExpected", std::to_string(creation.totalExpected)},
      {"complete", "0"},
      {"locator", ""},
      {"downloadedBy", creation.downloadedBy},
  };
  for (const auto& [key, value] : entries) {
    meta.bindText(1, key).bindText(2, value).run();
    meta.reset();
  }

  Statement fields =
      db.prepare("INSERT INTO fields (pos, name, label, kind, mode, extra) VALUES (?, ?, ?, ?, ?, ?)");
  std::int64_t pos = 0;
  for (const MatchField& field : creation.matchFields) {
    fields.bindInt(1, pos++).bindText(2, field.name).bindText(3, field.label);
    fields.bindText(4, rawValue(field.kind)).bindText(5, rawValue(field.mode)).bindInt(6, 0).run();
    fields.reset();
  }
  for (const std::string& name : creation.extraFields) {
    fields.bindInt(1, pos++).bindText(2, name).bindText(3, name);
    fields.bindText(4, "text").bindText(5, "exact").bindInt(6, 1).run();
    fields.reset();
  }

  Statement objects = db.prepare(
      "INSERT INTO objects (pos, name, label, sources, extraSources) VALUES (?, ?, ?, ?, ?)");
  pos = 0;
  for (const SnapshotObject& object : creation.objects) {
    objects.bindInt(1, pos++).bindText(2, object.name).bindText(3, object.label);
    objects.bindText(4, encodeList(object.sources)).bindText(5, encodeList(object.extraSources));
    objects.run();
    objects.reset();
  }
  transaction.commit();
  store->readLayout();
  return store;
}

std::shared_ptr<RecordStore> RecordStore::open(const std::filesystem::path& url) {
  if (!std::filesystem::exists(url)) {
    throw SQLiteError::open("no snapshot file at " + url.string());
  }
  SQLiteDB::Options options;
  options.create = false;
  std::shared_ptr<RecordStore> store(new RecordStore(url, SQLiteDB::open(url, options)));
  store->configure();
  store->upgrade();
  store->readLayout();
  return store;
}

void RecordStore::upgrade() {
  std::set<std::string> columns;
  Statement info = db_->prepare("SELECT name FROM pragma_table_info(?)");
  info.bindText(1, "records");
  while (info.step()) columns.insert(info.columnText(0));
  if (columns.empty()) throw SQLiteError::open("the file is not a duplicate snapshot (" + url_.string() + ")");
  if (!columns.contains("enriched")) {
    // Files from before enrichment hold every field they will ever have.
    db_->exec("ALTER TABLE records ADD COLUMN enriched INTEGER NOT NULL DEFAULT 1");
  }
  if (!columns.contains("obj")) db_->exec("ALTER TABLE records ADD COLUMN obj TEXT NOT NULL DEFAULT ''");
  db_->exec(
      "CREATE TABLE IF NOT EXISTS exclusions (rid INTEGER PRIMARY KEY, sfid TEXT NOT NULL, "
      "marked_at TEXT NOT NULL)");
  db_->exec(
      "CREATE TABLE IF NOT EXISTS objects (pos INTEGER PRIMARY KEY, name TEXT, label TEXT, "
      "sources TEXT, extraSources TEXT)");
}

void RecordStore::readLayout() {
  matchFields_.clear();
  extraFields_.clear();
  objects_.clear();
  Statement fields = db_->prepare("SELECT name, label, kind, mode, extra FROM fields ORDER BY pos");
  while (fields.step()) {
    if (fields.columnInt(4) != 0) {
      extraFields_.push_back(fields.columnText(0));
      continue;
    }
    MatchField field;
    field.name = fields.columnText(0);
    field.label = fields.columnText(1);
    field.kind = matchKindFromRaw(fields.columnView(2)).value_or(MatchKind::text);
    field.mode = matchModeFromRaw(fields.columnView(3)).value_or(MatchMode::exact);
    matchFields_.push_back(std::move(field));
  }
  Statement objects =
      db_->prepare("SELECT name, label, sources, extraSources FROM objects ORDER BY pos");
  while (objects.step()) {
    objects_.push_back({objects.columnText(0), objects.columnText(1),
                        decodeList(objects.columnView(2)), decodeList(objects.columnView(3))});
  }
  slotsAligned_ = meta("slotsAligned").value_or("") == "1";
}

Statement& RecordStore::insertStatement() {
  if (!insert_) {
    std::string columns = "sfid, name, created, modified, filled, enriched, obj";
    std::string values = "?, ?, ?, ?, ?, ?, ?";
    for (std::size_t i = 0; i < matchFields_.size(); ++i) {
      columns += ", " + column('m', i) + ", " + column('n', i);
      values += ", ?, ?";
    }
    for (std::size_t j = 0; j < extraFields_.size(); ++j) {
      columns += ", " + column('x', j);
      values += ", ?";
    }
    insert_.emplace(db_->prepare("INSERT INTO records (" + columns + ") VALUES (" + values + ")"));
  }
  return *insert_;
}

void RecordStore::ingest(const std::vector<Incoming>& page, std::string_view locator,
                         std::string_view object) {
  Statement& insert = insertStatement();
  const std::size_t matchCount = matchFields_.size();
  const std::size_t extraCount = extraFields_.size();
  Transaction transaction(*db_);
  std::string normalized;
  for (const Incoming& row : page) {
    std::int64_t filled = 0;
    insert.reset();
    insert.bindText(1, row.sfid).bindText(2, row.name).bindText(3, row.created);
    insert.bindText(4, row.modified);
    int index = 8;
    for (std::size_t i = 0; i < matchCount; ++i) {
      std::string_view raw = i < row.values.size() ? std::string_view(row.values[i]) : std::string_view();
      filled += isFilled(raw);
      insert.bindText(index++, raw);
      insert.bindText(index++, Normalizer::normalize(raw, matchFields_[i].kind));
    }
    bool enriched = extraCount == 0 || row.extras.size() == extraCount;
    for (std::size_t j = 0; j < extraCount; ++j) {
      if (j < row.extras.size()) {
        filled += isFilled(row.extras[j]);
        insert.bindText(index++, row.extras[j]);
      } else {
        insert.bindNull(index++);
      }
    }
    insert.bindInt(5, filled).bindInt(6, enriched ? 1 : 0).bindText(7, object);
    insert.run();
  }
  insert.reset();
  setMeta("locator", locator);
  transaction.commit();
}

void RecordStore::markComplete() { setMeta("complete", "1"); }

void RecordStore::setMeta(std::string_view key, std::string_view value) {
  Statement statement = db_->prepare("INSERT OR REPLACE INTO meta (key, value) VALUES (?, ?)");
  statement.bindText(1, key).bindText(2, value).run();
  if (key == "slotsAligned") slotsAligned_ = value == "1";
}

std::optional<std::string> RecordStore::meta(std::string_view key) {
  Statement statement = db_->prepare("SELECT value FROM meta WHERE key = ?");
  statement.bindText(1, key);
  if (!statement.step()) return std::nullopt;
  return statement.columnOptionalText(0);
}

std::int64_t RecordStore::recordCount() { return db_->scalarInt("SELECT COUNT(*) FROM records"); }

SnapshotInfo RecordStore::info() {
  SnapshotInfo info;
  info.orgId = meta("orgId").value_or("");
  info.objectName = meta("objectName").value_or("");
  info.objectLabel = meta("objectLabel").value_or("");
  info.nameFieldLabel = meta("nameFieldLabel").value_or("");
  info.matchFields = matchFields_;
  info.extraFields = extraFields_;
  info.downloadedAt = meta("downloadedAt").value_or("");
  try {
    info.totalExpected = std::stoll(meta("totalExpected").value_or("0"));
  } catch (const std::exception&) {
    info.totalExpected = 0;
  }
  info.recordCount = recordCount();
  info.complete = meta("complete").value_or("0") == "1";
  info.fileBytes = snapshotFileBytes(url_);
  info.url = url_;
  info.downloadedBy = meta("downloadedBy").value_or("");
  return info;
}

void RecordStore::scanNormalized(
    const std::function<void(Rid, const std::vector<std::string_view>&)>& visit) {
  std::string sql = "SELECT rid";
  for (std::size_t i = 0; i < matchFields_.size(); ++i) sql += ", " + column('n', i);
  sql += " FROM records ORDER BY rid";
  Statement scan = db_->prepare(sql);
  std::vector<std::string_view> values(matchFields_.size());
  while (scan.step()) {
    for (std::size_t i = 0; i < values.size(); ++i) values[i] = scan.columnView(static_cast<int>(i) + 1);
    visit(static_cast<Rid>(scan.columnInt(0)), values);
  }
}

void RecordStore::scanExtra(std::size_t slot,
                            const std::function<void(Rid, std::string_view)>& visit) {
  if (slot >= extraFields_.size()) return;
  Statement scan = db_->prepare("SELECT rid, " + column('x', slot) + " FROM records ORDER BY rid");
  while (scan.step()) visit(static_cast<Rid>(scan.columnInt(0)), scan.columnView(1));
}

std::string RecordStore::ridList(const std::vector<Rid>& rids) const {
  std::string list;
  for (Rid rid : rids) {
    if (!list.empty()) list.push_back(',');
    list += std::to_string(rid);
  }
  return list + ")";
}

std::vector<SnapshotRecord> RecordStore::records(const std::vector<Rid>& rids) {
  std::vector<SnapshotRecord> out;
  if (rids.empty()) return out;
  std::string sql = "SELECT rid, sfid, name, created, modified, filled, obj";
  for (std::size_t i = 0; i < matchFields_.size(); ++i) sql += ", " + column('m', i);
  for (std::size_t j = 0; j < extraFields_.size(); ++j) sql += ", " + column('x', j);
  sql += " FROM records WHERE rid IN (" + ridList(rids) + " ORDER BY rid";
  Statement select = db_->prepare(sql);
  while (select.step()) {
    SnapshotRecord record;
    record.rid = static_cast<Rid>(select.columnInt(0));
    record.sfid = select.columnText(1);
    record.name = select.columnText(2);
    record.created = select.columnText(3);
    record.modified = select.columnText(4);
    record.filledCount = select.columnInt(5);
    record.object = select.columnText(6);
    int index = 7;
    for (std::size_t i = 0; i < matchFields_.size(); ++i) record.values.push_back(select.columnText(index++));
    for (std::size_t j = 0; j < extraFields_.size(); ++j) record.extras.push_back(select.columnText(index++));
    out.push_back(std::move(record));
  }
  return out;
}

std::vector<std::pair<Rid, std::string>> RecordStore::sfids(const std::vector<Rid>& rids) {
  std::vector<std::pair<Rid, std::string>> out;
  if (rids.empty()) return out;
  Statement select =
      db_->prepare("SELECT rid, sfid FROM records WHERE rid IN (" + ridList(rids) + " ORDER BY rid");
  while (select.step()) out.emplace_back(static_cast<Rid>(select.columnInt(0)), select.columnText(1));
  return out;
}

std::vector<std::pair<Rid, std::string>> RecordStore::ridsOf(
    const std::vector<std::string>& sfids) {
  std::vector<std::pair<Rid, std::string>> out;
  if (sfids.empty()) return out;
  // One pass over the records against a temporary table of the Ids.
  db_->exec(
      "CREATE TEMP TABLE IF NOT EXISTS wanted_ids (sfid TEXT PRIMARY KEY); DELETE FROM wanted_ids");
  {
    Transaction transaction(*db_);
    Statement insert = db_->prepare("INSERT OR IGNORE INTO wanted_ids (sfid) VALUES (?)");
    for (const std::string& sfid : sfids) {
      insert.bindText(1, sfid).run();
      insert.reset();
    }
    transaction.commit();
  }
  Statement select = db_->prepare(
      "SELECT rid, sfid FROM records WHERE sfid IN (SELECT sfid FROM wanted_ids) ORDER BY rid");
  while (select.step())
    out.emplace_back(static_cast<Rid>(select.columnInt(0)), select.columnText(1));
  db_->exec("DELETE FROM wanted_ids");
  return out;
}

std::vector<std::tuple<Rid, std::string, std::string>> RecordStore::sfidsAndKinds(
    const std::vector<Rid>& rids) {
  std::vector<std::tuple<Rid, std::string, std::string>> out;
  if (rids.empty()) return out;
  Statement select = db_->prepare("SELECT rid, sfid, obj FROM records WHERE rid IN (" +
                                  ridList(rids) + " ORDER BY rid");
  while (select.step()) {
    out.emplace_back(static_cast<Rid>(select.columnInt(0)), select.columnText(1),
                     select.columnText(2));
  }
  return out;
}

std::vector<std::pair<Rid, std::vector<std::string>>> RecordStore::normalized(
    const std::vector<Rid>& rids) {
  std::vector<std::pair<Rid, std::vector<std::string>>> out;
  if (rids.empty()) return out;
  std::string sql = "SELECT rid";
  for (std::size_t i = 0; i < matchFields_.size(); ++i) sql += ", " + column('n', i);
  sql += " FROM records WHERE rid IN (" + ridList(rids) + " ORDER BY rid";
  Statement select = db_->prepare(sql);
  while (select.step()) {
    std::vector<std::string> values;
    for (std::size_t i = 0; i < matchFields_.size(); ++i) {
      values.push_back(select.columnText(static_cast<int>(i) + 1));
    }
    out.emplace_back(static_cast<Rid>(select.columnInt(0)), std::move(values));
  }
  return out;
}

std::vector<ValueCount> RecordStore::commonValues(std::size_t fieldIndex, int limit) {
  std::vector<ValueCount> out;
  if (fieldIndex >= matchFields_.size()) return out;
  std::string n = column('n', fieldIndex);
  Statement select = db_->prepare("SELECT " + n + ", COUNT(*) FROM records WHERE " + n +
                                  " <> '' GROUP BY " + n + " ORDER BY 2 DESC, 1 ASC LIMIT " +
                                  std::to_string(std::max(limit, 0)));
  while (select.step()) out.push_back({select.columnText(0), select.columnInt(1)});
  return out;
}

std::vector<std::int64_t> RecordStore::blankCounts() {
  std::vector<std::int64_t> out;
  for (std::size_t i = 0; i < matchFields_.size(); ++i) {
    std::string n = column('n', i);
    out.push_back(db_->scalarInt("SELECT COUNT(*) FROM records WHERE " + n + " IS NULL OR " + n +
                                 " = ''"));
  }
  return out;
}

std::vector<Rid> RecordStore::searchRids(std::string_view text) {
  std::vector<std::string> columns{"sfid", "name"};
  for (std::size_t i = 0; i < matchFields_.size(); ++i) columns.push_back(column('m', i));
  for (std::size_t j = 0; j < extraFields_.size(); ++j) columns.push_back(column('x', j));
  std::string sql = "SELECT rid FROM records WHERE ";
  for (std::size_t c = 0; c < columns.size(); ++c) {
    if (c > 0) sql += " OR ";
    sql += columns[c] + " LIKE ?1 ESCAPE '\\'";
  }
  sql += " ORDER BY rid";
  Statement select = db_->prepare(sql);
  select.bindText(1, containsPattern(text));
  std::vector<Rid> out;
  while (select.step()) out.push_back(static_cast<Rid>(select.columnInt(0)));
  return out;
}

void RecordStore::exclude(const std::vector<std::pair<Rid, std::string>>& records) {
  Transaction transaction(*db_);
  Statement insert =
      db_->prepare("INSERT OR REPLACE INTO exclusions (rid, sfid, marked_at) VALUES (?, ?, ?)");
  std::string now = IsoTime::formatFractional(std::chrono::system_clock::now());
  for (const auto& [rid, sfid] : records) {
    insert.bindInt(1, rid).bindText(2, sfid).bindText(3, now).run();
    insert.reset();
  }
  transaction.commit();
}

std::vector<std::pair<Rid, std::string>> RecordStore::exclusions() {
  std::vector<std::pair<Rid, std::string>> out;
  Statement select = db_->prepare("SELECT rid, sfid FROM exclusions");
  while (select.step()) out.emplace_back(static_cast<Rid>(select.columnInt(0)), select.columnText(1));
  return out;
}

void RecordStore::clearAllExclusions() { db_->exec("DELETE FROM exclusions"); }

std::vector<Rid> RecordStore::unenriched(const std::vector<Rid>& among) {
  std::vector<Rid> out;
  if (among.empty()) return out;
  Statement select = db_->prepare("SELECT rid FROM records WHERE enriched = 0 AND rid IN (" +
                                  ridList(among) + " ORDER BY rid");
  while (select.step()) out.push_back(static_cast<Rid>(select.columnInt(0)));
  return out;
}

void RecordStore::enrich(const std::vector<std::size_t>& extraSlots,
                         const std::vector<Enrichment>& rows) {
  std::string sql = "UPDATE records SET ";
  for (std::size_t slot : extraSlots) {
    if (slot >= extraFields_.size()) throw SQLiteError::bind("no extra field at position " + std::to_string(slot));
    sql += column('x', slot) + " = ?, ";
  }
  sql += "filled = filled + ?, enriched = 1 WHERE rid = ?";
  Transaction transaction(*db_);
  Statement update = db_->prepare(sql);
  for (const Enrichment& row : rows) {
    int index = 1;
    std::int64_t filled = 0;
    for (std::size_t k = 0; k < extraSlots.size(); ++k) {
      std::string_view value = k < row.values.size() ? std::string_view(row.values[k]) : std::string_view();
      filled += isFilled(value);
      update.bindText(index++, value);
    }
    update.bindInt(index, filled).bindInt(index + 1, row.rid).run();
    update.reset();
  }
  transaction.commit();
}

std::set<MatchKind> RecordStore::shiftedKinds() const {
  std::set<MatchKind> shifted;
  if (objects_.size() < 2) return shifted;
  for (std::size_t slot = 0; slot < matchFields_.size(); ++slot) {
    std::optional<MatchKind> seen;
    for (const SnapshotObject& object : objects_) {
      if (slot >= object.sources.size() || object.sources[slot].empty()) continue;
      MatchKind kind = Normalizer::guessKind(object.sources[slot], "", object.name);
      if (seen && *seen != kind) shifted.insert(matchFields_[slot].kind);
      seen = kind;
    }
  }
  return shifted;
}

void RecordStore::close() {
  insert_.reset();
  db_.reset();
}

}  // namespace corvane
