#include "tools/orgsim/org_store.hpp"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <map>

#include "tools/orgsim/database.hpp"
#include "tools/orgsim/wire_values.hpp"

namespace corvane::orgsim {

namespace {

constexpr std::string_view kBase62 =
    "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr std::string_view kSuffixAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345";
constexpr std::string_view kInstance = "8d0";  // instance "8d" and the reserved character
constexpr std::int64_t kIdBlock = 1000;

std::optional<std::uint64_t> serialOf(std::string_view id) {
  if (id.size() < 15) return std::nullopt;
  std::uint64_t serial = 0;
  for (char c : id.substr(6, 9)) {
    auto digit = kBase62.find(c);
    if (digit == std::string_view::npos) return std::nullopt;
    serial = serial * 62 + digit;
  }
  return serial;
}

std::string md5Hex(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_md5(), nullptr);
  static constexpr char hex[] = "0123456789abcdef";
  std::string out;
  for (unsigned int i = 0; i < length; ++i) {
    out += hex[digest[i] >> 4];
    out += hex[digest[i] & 15];
  }
  return out;
}

std::string tableDefinition(const ObjectDef& object) {
  std::string sql = "CREATE TABLE IF NOT EXISTS " + quoteIdentifier(object.name) + " (";
  bool first = true;
  for (const auto& field : object.fields) {
    if (!field.stored()) continue;
    if (!first) sql += ", ";
    first = false;
    sql += quoteIdentifier(field.name);
    if (field.name == "Id") {
      sql += " TEXT PRIMARY KEY";
    } else if (!field.sqlExpression.empty()) {
      sql += " TEXT GENERATED ALWAYS AS (" + field.sqlExpression + ") VIRTUAL";
    } else {
      sql += " TEXT";
    }
  }
  sql += ", _deleted_at TEXT)";
  return sql;
}

std::vector<std::string> indexDefinitions(const ObjectDef& object) {
  std::vector<std::string> out;
  auto index = [&](const std::string& column) {
    out.push_back("CREATE INDEX IF NOT EXISTS " +
                  quoteIdentifier("_i_" + object.name + "_" + column) + " ON " +
                  quoteIdentifier(object.name) + " (" + quoteIdentifier(column) + ")");
  };
  for (const auto& field : object.fields) {
    if (field.name == "SystemModstamp" || field.name == "LastModifiedDate" ||
        field.name == "CreatedDate") {
      index(field.name);
    } else if (field.type == FieldType::Reference && field.name != "OwnerId" &&
               field.name != "CreatedById" && field.name != "LastModifiedById") {
      index(field.name);
    }
  }
  return out;
}

}  // namespace

// ---------------------------------------------------------------------------
// RecordIds

namespace RecordIds {

std::string suffix(std::string_view id15) {
  std::string out;
  for (int chunk = 0; chunk < 3; ++chunk) {
    int bits = 0;
    for (int i = 0; i < 5; ++i) {
      std::size_t at = static_cast<std::size_t>(chunk * 5 + i);
      char c = at < id15.size() ? id15[at] : '0';
      if (c >= 'A' && c <= 'Z') bits |= 1 << i;
    }
    out += kSuffixAlphabet[static_cast<std::size_t>(bits)];
  }
  return out;
}

std::string make(std::string_view keyPrefix, std::uint64_t serial) {
  std::string digits(9, '0');
  for (int i = 8; i >= 0 && serial > 0; --i) {
    digits[static_cast<std::size_t>(i)] = kBase62[serial % 62];
    serial /= 62;
  }
  std::string id15 = std::string(keyPrefix.substr(0, 3)) + std::string(kInstance) + digits;
  return id15 + suffix(id15);
}

bool isValid18(std::string_view id) {
  if (id.size() != 18) return false;
  for (char c : id.substr(0, 15)) {
    if (!std::isalnum(static_cast<unsigned char>(c))) return false;
  }
  return suffix(id.substr(0, 15)) == id.substr(15);
}

std::optional<std::string> normalize(std::string_view id) {
  if (id.size() == 18) {
    if (isValid18(id)) return std::string(id);
    // A case-insensitive match of a valid id keeps its own suffix; only the first
    // 15 characters are case-sensitive.
    std::string upperSuffix(id.substr(15));
    for (auto& c : upperSuffix) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    std::string id15(id.substr(0, 15));
    if (suffix(id15) == upperSuffix) return id15 + upperSuffix;
    return std::nullopt;
  }
  if (id.size() != 15) return std::nullopt;
  for (char c : id) {
    if (!std::isalnum(static_cast<unsigned char>(c))) return std::nullopt;
  }
  return std::string(id) + suffix(id);
}

}  // namespace RecordIds

// ---------------------------------------------------------------------------
// WireTime

namespace WireTime {

namespace {

struct Parts {
  int year, month, day, hour, minute, second, millis;
};

Parts split(SystemTime time) {
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
  auto seconds = static_cast<std::time_t>(ms >= 0 ? ms / 1000 : (ms - 999) / 1000);
  int millis = static_cast<int>(ms - static_cast<std::int64_t>(seconds) * 1000);
  std::tm tm{};
  gmtime_r(&seconds, &tm);
  return {tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, millis};
}

bool digits(std::string_view text, std::size_t at, std::size_t count, int& out) {
  if (at + count > text.size()) return false;
  out = 0;
  for (std::size_t i = at; i < at + count; ++i) {
    if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
    out = out * 10 + (text[i] - '0');
  }
  return true;
}

std::optional<SystemTime> fromParts(int year, int month, int day, int hour, int minute, int second,
                                    int millis, int offsetMinutes) {
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) {
    return std::nullopt;
  }
  std::chrono::year_month_day ymd{std::chrono::year(year),
                                  std::chrono::month(static_cast<unsigned>(month)),
                                  std::chrono::day(static_cast<unsigned>(day))};
  if (!ymd.ok()) return std::nullopt;
  auto time = std::chrono::sys_days(ymd) + std::chrono::hours(hour) +
              std::chrono::minutes(minute - offsetMinutes) + std::chrono::seconds(second) +
              std::chrono::milliseconds(millis);
  return SystemTime(std::chrono::duration_cast<SystemTime::duration>(time.time_since_epoch()));
}

}  // namespace

std::string dateTime(SystemTime time) {
  auto p = split(time);
  char buffer[96];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", p.year, p.month,
                p.day, p.hour, p.minute, p.second, p.millis);
  return buffer;
}

std::string restDateTime(SystemTime time) { return storedToRest(dateTime(time)); }

std::string date(SystemTime time) { return dateTime(time).substr(0, 10); }

std::string httpDate(SystemTime time) {
  static constexpr const char* days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                           "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  auto seconds = std::chrono::system_clock::to_time_t(time);
  std::tm tm{};
  gmtime_r(&seconds, &tm);
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%s, %02d %s %04d %02d:%02d:%02d GMT", days[tm.tm_wday],
                tm.tm_mday, months[tm.tm_mon], tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec);
  return buffer;
}

std::optional<SystemTime> parseDateTime(std::string_view text) {
  int year, month, day, hour, minute, second;
  if (text.size() < 20 || !digits(text, 0, 4, year) || text[4] != '-' ||
      !digits(text, 5, 2, month) || text[7] != '-' || !digits(text, 8, 2, day) ||
      (text[10] != 'T' && text[10] != 't') || !digits(text, 11, 2, hour) || text[13] != ':' ||
      !digits(text, 14, 2, minute) || text[16] != ':' || !digits(text, 17, 2, second)) {
    return std::nullopt;
  }
  std::size_t at = 19;
  int millis = 0;
  if (at < text.size() && text[at] == '.') {
    ++at;
    int scale = 100;
    std::size_t start = at;
    while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) {
      millis += (text[at] - '0') * scale;
      scale /= 10;
      ++at;
    }
    if (at == start) return std::nullopt;
  }
  int offset = 0;
  std::string_view zone = text.substr(at);
  if (zone == "Z" || zone == "z") {
    offset = 0;
  } else if (zone.size() == 5 || zone.size() == 6) {
    int sign = zone[0] == '+' ? 1 : zone[0] == '-' ? -1 : 0;
    int hours, minutes;
    std::size_t minuteAt = zone.size() == 6 ? 4 : 3;
    if (sign == 0 || !digits(zone, 1, 2, hours) || (zone.size() == 6 && zone[3] != ':') ||
        !digits(zone, minuteAt, 2, minutes)) {
      return std::nullopt;
    }
    offset = sign * (hours * 60 + minutes);
  } else {
    return std::nullopt;
  }
  return fromParts(year, month, day, hour, minute, second, millis, offset);
}

std::optional<SystemTime> parseDate(std::string_view text) {
  int year, month, day;
  if (text.size() != 10 || !digits(text, 0, 4, year) || text[4] != '-' ||
      !digits(text, 5, 2, month) || text[7] != '-' || !digits(text, 8, 2, day)) {
    return std::nullopt;
  }
  return fromParts(year, month, day, 0, 0, 0, 0, 0);
}

std::string storedToRest(std::string_view stored) {
  if (!stored.empty() && stored.back() == 'Z') {
    return std::string(stored.substr(0, stored.size() - 1)) + "+0000";
  }
  return std::string(stored);
}

}  // namespace WireTime

// ---------------------------------------------------------------------------
// OrgStoreError

OrgStoreError::OrgStoreError(Kind kind, std::string value)
    : std::runtime_error(""), kind_(kind), value_(std::move(value)) {
  static_cast<std::runtime_error&>(*this) = std::runtime_error(description());
}

std::string OrgStoreError::description() const {
  switch (kind_) {
    case Kind::CannotOpen:
      return "The sample org's state could not be opened: " + value_;
    case Kind::Database:
      return "The sample org's database failed: " + value_;
    case Kind::UnknownObject:
      return "The sample org has no object named " + value_ + ".";
    case Kind::UnknownField:
      return "The sample org has no field named " + value_ + ".";
    case Kind::NotWritable:
      return "The field " + value_ + " is set by the org itself and cannot be written.";
    case Kind::BadValue:
      return "A value does not fit its field: " + value_;
    case Kind::NotFound:
      return "The sample org has no record with the id " + value_ + ".";
  }
  return value_;
}

// ---------------------------------------------------------------------------
// OrgStore

struct OrgStore::Pool {
  std::filesystem::path file;
  mutable std::mutex mutex;  // guards idle
  mutable std::vector<std::unique_ptr<Database>> idle;
  // Id counters: the next serial per key prefix and the end of the block reserved
  // in the database. Guarded by OrgStore::writeMutex_.
  std::map<std::string, std::pair<std::int64_t, std::int64_t>> counters;
  std::atomic<std::int64_t> clockOffsetMs{0};
};

std::filesystem::path OrgStore::databasePath(const std::filesystem::path& stateDir) {
  return stateDir / "org.sqlite";
}

bool OrgStore::exists(const std::filesystem::path& stateDir) {
  std::error_code error;
  return std::filesystem::is_regular_file(databasePath(stateDir), error);
}

OrgStore::OrgStore(std::filesystem::path folder)
    : folder_(std::move(folder)), pool_(std::make_unique<Pool>()) {}

OrgStore::~OrgStore() = default;

std::unique_ptr<OrgStore> OrgStore::open(const std::filesystem::path& stateDir) {
  std::error_code error;
  std::filesystem::create_directories(stateDir, error);
  if (error) {
    throw OrgStoreError(OrgStoreError::Kind::CannotOpen,
                        stateDir.string() + ": " + error.message());
  }
  std::filesystem::permissions(stateDir, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::replace, error);
  auto file = databasePath(stateDir);
  bool fresh = !std::filesystem::exists(file);
  if (fresh) {
    int fd = ::open(file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    if (fd < 0) {
      throw OrgStoreError(OrgStoreError::Kind::CannotOpen, file.string() + ": cannot create");
    }
    ::close(fd);
  }
  std::unique_ptr<OrgStore> store(new OrgStore(stateDir));
  store->pool_->file = file;
  store->writer_ = std::make_unique<Database>(file);
  auto& db = *store->writer_;
  db.exec("BEGIN IMMEDIATE");
  try {
    db.exec(
        "CREATE TABLE IF NOT EXISTS _settings (key TEXT PRIMARY KEY, value TEXT NOT NULL);"
        "CREATE TABLE IF NOT EXISTS _id_counters (prefix TEXT PRIMARY KEY, "
        "  reserved INTEGER NOT NULL);"
        "CREATE TABLE IF NOT EXISTS _bodies (object TEXT NOT NULL, id TEXT NOT NULL, "
        "  data BLOB NOT NULL, UNIQUE (object, id));"
        "CREATE TABLE IF NOT EXISTS _deletions (object TEXT NOT NULL, id TEXT NOT NULL, "
        "  deleted_at TEXT NOT NULL, purged INTEGER NOT NULL DEFAULT 0, PRIMARY KEY (object, id));"
        "CREATE INDEX IF NOT EXISTS _deletions_by_time ON _deletions (object, deleted_at);"
        // What the server keeps: sessions, fault rules, the request log, the API
        // allowance per minute, and Bulk API query jobs.
        "CREATE TABLE IF NOT EXISTS _tokens (token TEXT PRIMARY KEY, user_id TEXT NOT NULL, "
        "  username TEXT NOT NULL, expires_at TEXT NOT NULL);"
        "CREATE TABLE IF NOT EXISTS _faults (id INTEGER PRIMARY KEY, rule TEXT NOT NULL, "
        "  remaining INTEGER NOT NULL);"
        "CREATE TABLE IF NOT EXISTS _requests (seq INTEGER PRIMARY KEY, at TEXT NOT NULL, "
        "  method TEXT NOT NULL, path TEXT NOT NULL, query TEXT, status INTEGER, "
        "  username TEXT, fault TEXT, millis INTEGER);"
        "CREATE TABLE IF NOT EXISTS _api_calls (minute INTEGER PRIMARY KEY, calls INTEGER NOT "
        "NULL);"
        "CREATE TABLE IF NOT EXISTS _jobs (id TEXT PRIMARY KEY, info TEXT NOT NULL, "
        "  created_at TEXT NOT NULL);");
    for (const auto& object : Schema::objects()) {
      db.exec(tableDefinition(object));
      for (const auto& sql : indexDefinitions(object)) db.exec(sql);
    }
    // Counters never fall behind the ids already present, whoever made them.
    for (const auto& object : Schema::objects()) {
      if (object.keyPrefix.empty()) continue;
      // A range on the primary key (not LIKE) so that this reads one index entry.
      auto statement = db.prepare("SELECT MAX(\"Id\") FROM " + quoteIdentifier(object.name) +
                                  " WHERE \"Id\" >= ? AND \"Id\" < ?");
      std::string stem = object.keyPrefix + std::string(kInstance);
      statement.bind(1, stem).bind(2, stem + "~");
      std::int64_t next = 1;
      if (statement.step() && !statement.isNull(0)) {
        next = static_cast<std::int64_t>(serialOf(statement.text(0)).value_or(0)) + 1;
      }
      auto stored = db.prepare("SELECT reserved FROM _id_counters WHERE prefix = ?");
      stored.bind(1, object.keyPrefix);
      if (stored.step()) next = std::max(next, stored.integer(0));
      store->pool_->counters[object.keyPrefix] = {next, next};
    }
    auto offset = db.prepare("SELECT value FROM _settings WHERE key = 'clockOffsetMs'");
    if (offset.step()) store->pool_->clockOffsetMs = std::stoll(std::string(offset.text(0)));
    if (fresh || !store->setting("orgId")) {
      OrgIdentity identity;
      identity.orgId = store->newIdLocked(db, "00D");
      identity.adminUserId = store->newIdLocked(db, "005");
      identity.adminUsername = "admin@sample.org";
      identity.orgName = "Sample Org";
      auto put = db.prepare("INSERT OR REPLACE INTO _settings (key, value) VALUES (?, ?)");
      for (auto [key, value] : {std::pair{"orgId", identity.orgId},
                                {"adminUserId", identity.adminUserId},
                                {"adminUsername", identity.adminUsername},
                                {"orgName", identity.orgName}}) {
        put.reset();
        put.bind(1, key).bind(2, value).run();
      }
    }
    db.exec("COMMIT");
  } catch (...) {
    db.exec("ROLLBACK");
    throw;
  }
  return store;
}

std::int64_t OrgStore::nextSerialLocked(Database& db, const std::string& key) {
  auto found = pool_->counters.find(key);
  if (found == pool_->counters.end()) {
    auto stored = db.prepare("SELECT reserved FROM _id_counters WHERE prefix = ?");
    stored.bind(1, key);
    std::int64_t next = stored.step() ? stored.integer(0) : 1;
    found = pool_->counters.emplace(key, std::pair{next, next}).first;
  }
  auto& [next, reserved] = found->second;
  if (next >= reserved) {
    reserved = next + kIdBlock;
    auto put = db.prepare("INSERT OR REPLACE INTO _id_counters (prefix, reserved) VALUES (?, ?)");
    put.bind(1, key).bind(2, reserved).run();
  }
  return next++;
}

std::string OrgStore::newIdLocked(Database& db, const std::string& keyPrefix) {
  return RecordIds::make(keyPrefix, static_cast<std::uint64_t>(nextSerialLocked(db, keyPrefix)));
}

std::string OrgStore::newId(std::string_view objectName) {
  const ObjectDef* object = Schema::object(objectName);
  if (object == nullptr || object->keyPrefix.empty()) {
    throw OrgStoreError(OrgStoreError::Kind::UnknownObject, std::string(objectName));
  }
  std::string id;
  write([&](Database& db) { id = newIdLocked(db, object->keyPrefix); });
  return id;
}

std::int64_t OrgStore::nextSerial(const std::string& counter) {
  std::int64_t serial = 0;
  write([&](Database& db) { serial = nextSerialLocked(db, "#" + counter); });
  return serial;
}

OrgIdentity OrgStore::identity() const {
  OrgIdentity identity;
  identity.orgId = setting("orgId").value_or("");
  identity.adminUserId = setting("adminUserId").value_or("");
  identity.adminUsername = setting("adminUsername").value_or("admin@sample.org");
  identity.orgName = setting("orgName").value_or("Sample Org");
  return identity;
}

void OrgStore::setIdentity(const OrgIdentity& identity) {
  setSetting("orgId", identity.orgId);
  setSetting("adminUserId", identity.adminUserId);
  setSetting("adminUsername", identity.adminUsername);
  setSetting("orgName", identity.orgName);
}

SystemTime OrgStore::now() const {
  return std::chrono::time_point_cast<std::chrono::milliseconds>(std::chrono::system_clock::now()) +
         clockOffset();
}

std::chrono::milliseconds OrgStore::clockOffset() const {
  return std::chrono::milliseconds(pool_->clockOffsetMs.load());
}

void OrgStore::setClock(SystemTime orgNow) {
  auto offset = std::chrono::duration_cast<std::chrono::milliseconds>(
      orgNow - std::chrono::system_clock::now());
  pool_->clockOffsetMs = offset.count();
  setSetting("clockOffsetMs", std::to_string(offset.count()));
}

void OrgStore::advanceClock(std::chrono::milliseconds by) {
  pool_->clockOffsetMs += by.count();
  setSetting("clockOffsetMs", std::to_string(pool_->clockOffsetMs.load()));
}

std::optional<std::string> OrgStore::setting(std::string_view key) const {
  auto lease = read();
  auto statement = lease->prepare("SELECT value FROM _settings WHERE key = ?");
  statement.bind(1, key);
  if (!statement.step()) return std::nullopt;
  return std::string(statement.text(0));
}

void OrgStore::setSetting(std::string_view key, std::string_view value) {
  write([&](Database& db) {
    db.prepare("INSERT OR REPLACE INTO _settings (key, value) VALUES (?, ?)")
        .bind(1, key)
        .bind(2, value)
        .run();
  });
}

std::int64_t OrgStore::count(std::string_view objectName, bool includeDeleted) const {
  const ObjectDef* object = Schema::object(objectName);
  if (object == nullptr) {
    throw OrgStoreError(OrgStoreError::Kind::UnknownObject, std::string(objectName));
  }
  std::string sql = "SELECT COUNT(*) FROM " + quoteIdentifier(object->name);
  if (!includeDeleted && object->has("IsDeleted")) sql += " WHERE \"IsDeleted\" = 'false'";
  auto lease = read();
  return lease->scalarInt(sql);
}

std::optional<std::int64_t> OrgStore::bodySize(std::string_view objectName,
                                               std::string_view id) const {
  auto lease = read();
  auto statement = lease->prepare("SELECT length(data) FROM _bodies WHERE object = ? AND id = ?");
  statement.bind(1, objectName).bind(2, id);
  if (!statement.step()) return std::nullopt;
  return statement.integer(0);
}

std::optional<std::string> OrgStore::body(std::string_view objectName, std::string_view id) const {
  std::string out;
  bool found = streamBody(objectName, id, 0, 1 << 20, [&](std::string_view piece) {
    out.append(piece);
    return true;
  });
  if (!found) return std::nullopt;
  return out;
}

bool OrgStore::streamBody(std::string_view objectName, std::string_view id, std::size_t offset,
                          std::size_t chunkBytes,
                          const std::function<bool(std::string_view piece)>& sink) const {
  auto lease = read();
  auto statement = lease->prepare("SELECT rowid FROM _bodies WHERE object = ? AND id = ?");
  statement.bind(1, objectName).bind(2, id);
  if (!statement.step()) return false;
  sqlite3_int64 rowid = statement.integer(0);
  statement.reset();
  sqlite3_blob* blob = nullptr;
  if (sqlite3_blob_open(lease->handle(), "main", "_bodies", "data", rowid, 0, &blob) != SQLITE_OK) {
    sqlite3_blob_close(blob);
    return false;
  }
  std::size_t size = static_cast<std::size_t>(sqlite3_blob_bytes(blob));
  std::string buffer(std::max<std::size_t>(chunkBytes, 1), '\0');
  bool ok = true;
  if (offset == 0 && size == 0) ok = sink({});
  for (std::size_t at = offset; ok && at < size;) {
    std::size_t n = std::min(buffer.size(), size - at);
    if (sqlite3_blob_read(blob, buffer.data(), static_cast<int>(n), static_cast<int>(at)) !=
        SQLITE_OK) {
      ok = false;
      break;
    }
    ok = sink(std::string_view(buffer.data(), n));
    at += n;
  }
  sqlite3_blob_close(blob);
  return ok;
}

OrgStore::Lease OrgStore::read() const {
  std::unique_ptr<Database> db;
  {
    std::lock_guard lock(pool_->mutex);
    if (!pool_->idle.empty()) {
      db = std::move(pool_->idle.back());
      pool_->idle.pop_back();
    }
  }
  if (!db) db = std::make_unique<Database>(pool_->file);
  return Lease(pool_.get(), std::move(db));
}

void OrgStore::write(const std::function<void(Database& db)>& work) {
  std::lock_guard lock(writeMutex_);
  writer_->exec("BEGIN IMMEDIATE");
  try {
    work(*writer_);
    writer_->exec("COMMIT");
  } catch (...) {
    try {
      writer_->exec("ROLLBACK");
    } catch (...) {
    }
    throw;
  }
}

OrgStore::Lease::Lease(const OrgStore::Pool* pool, std::unique_ptr<Database> db)
    : pool_(pool), db_(std::move(db)) {}

OrgStore::Lease::Lease(Lease&& other) noexcept : pool_(other.pool_), db_(std::move(other.db_)) {}

OrgStore::Lease::~Lease() {
  if (!db_) return;
  std::lock_guard lock(pool_->mutex);
  if (pool_->idle.size() < 16) pool_->idle.push_back(std::move(db_));
}

// ---------------------------------------------------------------------------
// RecordWriter

struct RecordWriter::Plan {
  const ObjectDef* object = nullptr;
  // For each value position of insert(): the catalog field.
  std::vector<const FieldDef*> given;
  // The columns of the INSERT statement, in order, and where each one's value
  // comes from: an index into `given`, or -1 for a default.
  std::vector<const FieldDef*> columns;
  std::vector<int> source;
  int bodyPosition = -1;  // index into `given` of the body field
  int idColumn = -1, deletedColumn = -1, modstampColumn = -1, checksumColumn = -1, sizeColumn = -1,
      caseNumberColumn = -1, deletedAtColumn = -1;
  Statement insert;
  Statement insertBody;
  Statement insertDeletion;
  std::string adminUserId;
};

RecordWriter OrgStore::writer(std::string_view objectName, std::vector<std::string> fields,
                              int rowsPerTransaction) {
  const ObjectDef* object = Schema::object(objectName);
  if (object == nullptr) {
    throw OrgStoreError(OrgStoreError::Kind::UnknownObject, std::string(objectName));
  }
  auto plan = std::make_unique<RecordWriter::Plan>();
  plan->object = object;
  for (const auto& name : fields) {
    const FieldDef* field = object->field(name);
    if (field == nullptr) {
      throw OrgStoreError(OrgStoreError::Kind::UnknownField, object->name + "." + name);
    }
    bool writable = field->stored() || field->type == FieldType::Base64;
    if (!writable || !field->sqlExpression.empty() || field->autoNumber) {
      throw OrgStoreError(OrgStoreError::Kind::NotWritable, object->name + "." + field->name);
    }
    if (field->type == FieldType::Base64) {
      plan->bodyPosition = static_cast<int>(plan->given.size());
    }
    plan->given.push_back(field);
  }
  std::string columns, marks;
  for (const auto& field : object->fields) {
    if (!field.stored() || !field.sqlExpression.empty()) continue;
    int source = -1;
    for (std::size_t i = 0; i < plan->given.size(); ++i) {
      if (plan->given[i] == &field) source = static_cast<int>(i);
    }
    int column = static_cast<int>(plan->columns.size());
    if (field.name == "Id") plan->idColumn = column;
    if (field.name == "IsDeleted") plan->deletedColumn = column;
    if (field.name == "SystemModstamp") plan->modstampColumn = column;
    if (object->name == "ContentVersion" && field.name == "Checksum") plan->checksumColumn = column;
    if ((object->name == "ContentVersion" && field.name == "ContentSize") ||
        field.name == "BodyLength") {
      plan->sizeColumn = column;
    }
    if (field.autoNumber) plan->caseNumberColumn = column;
    plan->columns.push_back(&field);
    plan->source.push_back(source);
    if (!columns.empty()) {
      columns += ", ";
      marks += ", ";
    }
    columns += quoteIdentifier(field.name);
    marks += "?";
  }
  plan->deletedAtColumn = static_cast<int>(plan->columns.size());
  columns += ", _deleted_at";
  marks += ", ?";
  plan->adminUserId = identity().adminUserId;
  {
    std::lock_guard lock(writeMutex_);
    plan->insert = writer_->prepare("INSERT INTO " + quoteIdentifier(object->name) + " (" +
                                    columns + ") VALUES (" + marks + ")");
    plan->insertBody =
        writer_->prepare("INSERT OR REPLACE INTO _bodies (object, id, data) VALUES (?, ?, ?)");
    plan->insertDeletion = writer_->prepare(
        "INSERT OR REPLACE INTO _deletions (object, id, deleted_at, purged) VALUES (?, ?, ?, 0)");
  }
  return RecordWriter(*this, std::move(plan), rowsPerTransaction);
}

RecordWriter::RecordWriter(OrgStore& store, std::unique_ptr<Plan> plan, int rowsPerTransaction)
    : store_(&store),
      plan_(std::move(plan)),
      rowsPerTransaction_(std::max(1, rowsPerTransaction)) {}

RecordWriter::RecordWriter(RecordWriter&& other) noexcept
    : store_(other.store_),
      plan_(std::move(other.plan_)),
      rowsPerTransaction_(other.rowsPerTransaction_),
      pending_(other.pending_),
      rows_(other.rows_),
      lock_(std::move(other.lock_)) {
  other.pending_ = 0;
}

RecordWriter::~RecordWriter() {
  if (!plan_) return;
  // Statements go before the lock is given up: they belong to the write connection.
  if (lock_.owns_lock()) {
    try {
      store_->writer_->exec("ROLLBACK");
    } catch (...) {
    }
  }
  std::unique_lock<std::mutex> guard;
  if (!lock_.owns_lock()) guard = std::unique_lock(store_->writeMutex_);
  plan_.reset();
}

void RecordWriter::beginIfNeeded() {
  if (lock_.owns_lock()) return;
  lock_ = std::unique_lock(store_->writeMutex_);
  try {
    store_->writer_->exec("BEGIN IMMEDIATE");
  } catch (...) {
    lock_.unlock();
    throw;
  }
}

std::string RecordWriter::insert(std::initializer_list<FieldValue> values) {
  return insert(std::span<const FieldValue>(values.begin(), values.size()));
}

std::string RecordWriter::insert(const std::vector<std::optional<std::string>>& values) {
  std::vector<FieldValue> views;
  views.reserve(values.size());
  for (const auto& value : values) {
    views.push_back(value ? FieldValue(*value) : std::nullopt);
  }
  return insert(std::span<const FieldValue>(views));
}

std::string RecordWriter::insert(std::span<const FieldValue> values) {
  auto& plan = *plan_;
  const auto& object = *plan.object;
  if (values.size() != plan.given.size()) {
    throw OrgStoreError(OrgStoreError::Kind::BadValue,
                        object.name + ": " + std::to_string(values.size()) + " values for " +
                            std::to_string(plan.given.size()) + " fields");
  }
  beginIfNeeded();
  Database& db = *store_->writer_;
  std::string now = WireTime::dateTime(store_->now());
  std::string id;
  std::optional<std::string_view> body;
  if (plan.bodyPosition >= 0) body = values[static_cast<std::size_t>(plan.bodyPosition)];

  // Normalised texts must live until the statement has run.
  std::vector<std::string> owned(plan.columns.size());
  std::vector<std::optional<std::string_view>> bound(plan.columns.size());
  for (std::size_t c = 0; c < plan.columns.size(); ++c) {
    const FieldDef& field = *plan.columns[c];
    int source = plan.source[c];
    std::optional<std::string_view> value;
    if (source >= 0) value = values[static_cast<std::size_t>(source)];
    if (value && value->empty()) value.reset();  // Salesforce keeps no empty texts
    if (value) {
      auto normalized = WireValues::normalize(field, *value);
      if (!normalized) {
        throw OrgStoreError(OrgStoreError::Kind::BadValue, object.name + "." + field.name + ": \"" +
                                                               std::string(value->substr(0, 80)) +
                                                               "\" is not a valid " +
                                                               std::string(typeName(field.type)));
      }
      if (normalized->size() != value->size() || *normalized != *value) {
        owned[c] = std::move(*normalized);
        value = owned[c];
      }
      bound[c] = value;
      continue;
    }
    // Filled the way the org fills a new record.
    const std::string& name = field.name;
    if (static_cast<int>(c) == plan.idColumn) {
      if (object.keyPrefix.empty()) {
        throw OrgStoreError(OrgStoreError::Kind::BadValue, object.name + ".Id: required");
      }
      owned[c] = store_->newIdLocked(db, object.keyPrefix);
    } else if (name == "CreatedDate" || name == "LastModifiedDate" || name == "SystemModstamp") {
      owned[c] = now;
    } else if (name == "CreatedById" || name == "LastModifiedById" || name == "OwnerId") {
      owned[c] = plan.adminUserId;
    } else if (static_cast<int>(c) == plan.checksumColumn && body) {
      owned[c] = md5Hex(*body);
    } else if (static_cast<int>(c) == plan.sizeColumn && body) {
      owned[c] = std::to_string(body->size());
    } else if (static_cast<int>(c) == plan.caseNumberColumn) {
      owned[c] = std::to_string(store_->nextSerialLocked(db, object.name + "." + name));
      owned[c].insert(0, owned[c].size() < 8 ? 8 - owned[c].size() : 0, '0');
    } else if (!field.defaultValue.empty()) {
      owned[c] = field.defaultValue;
    } else {
      continue;  // null
    }
    bound[c] = owned[c];
  }
  id = std::string(*bound[static_cast<std::size_t>(plan.idColumn)]);
  bool deleted = plan.deletedColumn >= 0 &&
                 bound[static_cast<std::size_t>(plan.deletedColumn)] == std::string_view("true");
  std::string deletedAt;
  if (deleted) {
    deletedAt = plan.modstampColumn >= 0 && bound[static_cast<std::size_t>(plan.modstampColumn)]
                    ? std::string(*bound[static_cast<std::size_t>(plan.modstampColumn)])
                    : now;
  }

  auto& statement = plan.insert;
  statement.reset();
  for (std::size_t c = 0; c < bound.size(); ++c) {
    if (bound[c]) {
      statement.bindStatic(static_cast<int>(c) + 1, *bound[c]);
    } else {
      statement.bindNull(static_cast<int>(c) + 1);
    }
  }
  if (deleted) {
    statement.bindStatic(plan.deletedAtColumn + 1, deletedAt);
  } else {
    statement.bindNull(plan.deletedAtColumn + 1);
  }
  try {
    statement.run();
  } catch (const OrgStoreError& error) {
    throw OrgStoreError(OrgStoreError::Kind::BadValue,
                        object.name + " " + id + ": " + error.value());
  }
  if (body) {
    plan.insertBody.reset();
    plan.insertBody.bind(1, object.name).bind(2, id).bindBlob(3, *body).run();
  }
  if (deleted) {
    plan.insertDeletion.reset();
    plan.insertDeletion.bind(1, object.name).bind(2, id).bind(3, deletedAt).run();
  }
  ++rows_;
  if (++pending_ >= rowsPerTransaction_) commit();
  return id;
}

void RecordWriter::commit() {
  if (!lock_.owns_lock()) return;
  plan_->insert.reset();
  plan_->insertBody.reset();
  plan_->insertDeletion.reset();
  store_->writer_->exec("COMMIT");
  pending_ = 0;
  lock_.unlock();
}

}  // namespace corvane::orgsim
