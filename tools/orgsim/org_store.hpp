// The sample org's state folder: records, file bodies, the org's clock and identity.
//
// A state folder holds one SQLite database, DIR/org.sqlite (WAL), with one table per
// catalog object (named exactly as the object, one column per stored field, every
// value kept as text in Salesforce's wire form, null as SQL NULL) and the org's own
// tables, whose names begin with "_" (settings, id counters, file bodies, the
// deletion log, and what the server keeps: tokens, faults, the request log, jobs).
// Whatever is written here survives a restart of the server.
//
// Thread-safety: an OrgStore may be shared by many threads. Reads use pooled
// connections and run side by side; writes take one mutex, one transaction at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tools/orgsim/schema.hpp"

struct sqlite3;

namespace corvane::orgsim {

using SystemTime = std::chrono::system_clock::time_point;

class Database;

// Salesforce record ids: 15 case-sensitive characters (a 3-character key prefix,
// then the instance and a serial number in base 62), followed by the 3-character
// suffix that makes the id safe for case-insensitive comparison.
namespace RecordIds {

// The 3-character case-safe suffix of a 15-character id.
std::string suffix(std::string_view id15);

// An 18-character id for this key prefix and serial number (serial >= 1). Equal
// arguments give equal ids; different serials give different ids.
std::string make(std::string_view keyPrefix, std::uint64_t serial);

// True for 18 characters whose suffix matches their first 15.
bool isValid18(std::string_view id);

// The 18-character form of a 15- or 18-character id; none when it is neither a
// valid 18-character id nor 15 base-62 characters.
std::optional<std::string> normalize(std::string_view id);

}  // namespace RecordIds

// The date and time texts Salesforce writes.
namespace WireTime {

// "2024-01-05T10:00:00.000Z": the stored form, and the Bulk API's CSV form.
std::string dateTime(SystemTime time);
// "2024-01-05T10:00:00.000+0000": the REST JSON form.
std::string restDateTime(SystemTime time);
// "2024-01-05".
std::string date(SystemTime time);
// "Fri, 05 Jan 2024 10:00:00 GMT": the HTTP Date header.
std::string httpDate(SystemTime time);

// Reads "2024-01-05T10:00:00Z", with or without fractional seconds, with "Z" or an
// offset ("+0000", "+00:00", "-05:00"). None on anything else.
std::optional<SystemTime> parseDateTime(std::string_view text);
// Reads "2024-01-05" as midnight UTC.
std::optional<SystemTime> parseDate(std::string_view text);

// The stored datetime text turned into the REST form ("Z" becomes "+0000").
std::string storedToRest(std::string_view stored);

}  // namespace WireTime

class OrgStoreError : public std::runtime_error {
 public:
  enum class Kind {
    CannotOpen,     // value: the folder and SQLite's reason
    Database,       // value: SQLite's message
    UnknownObject,  // value: the object name
    UnknownField,   // value: "Object.Field"
    NotWritable,    // value: "Object.Field" (formula, compound, or the Id of an update)
    BadValue,       // value: "Object.Field: why"
    NotFound,       // value: the record id
  };

  OrgStoreError(Kind kind, std::string value);
  Kind kind() const { return kind_; }
  const std::string& value() const { return value_; }
  // The sentence shown to a person (also what what() returns).
  std::string description() const;

 private:
  Kind kind_;
  std::string value_;
};

// The org's own identity. A new state folder gets ids made from serial 1
// (RecordIds::make("00D", 1) and RecordIds::make("005", 1)) and the admin username
// "admin@sample.org"; whoever fills the folder writes the Organization row and the
// admin User row with these ids (or sets others first).
struct OrgIdentity {
  std::string orgId;        // 18 characters, prefix 00D
  std::string adminUserId;  // 18 characters, prefix 005
  std::string adminUsername;
  std::string orgName;

  bool operator==(const OrgIdentity&) const = default;
};

// A value for a field: text in wire form, or null.
using FieldValue = std::optional<std::string_view>;

class RecordWriter;

class OrgStore {
 public:
  // The database file inside a state folder.
  static std::filesystem::path databasePath(const std::filesystem::path& stateDir);

  // True when the folder holds a state database.
  static bool exists(const std::filesystem::path& stateDir);

  // Opens the state folder, creating it (0700) and its database (0600) with every
  // catalog table when missing. Throws OrgStoreError(CannotOpen).
  static std::unique_ptr<OrgStore> open(const std::filesystem::path& stateDir);

  ~OrgStore();
  OrgStore(const OrgStore&) = delete;
  OrgStore& operator=(const OrgStore&) = delete;

  const std::filesystem::path& folder() const { return folder_; }

  OrgIdentity identity() const;
  void setIdentity(const OrgIdentity& identity);

  // The org's clock: real time plus a persisted offset. Every timestamp the org
  // writes (CreatedDate, deletion dates, the Date header) comes from here.
  SystemTime now() const;
  std::chrono::milliseconds clockOffset() const;
  void setClock(SystemTime orgNow);
  void advanceClock(std::chrono::milliseconds by);

  // A new id for a record of this object, never given out before in this folder
  // (the counter is persisted). Throws UnknownObject for objects without a prefix.
  std::string newId(std::string_view objectName);

  // The next number of a named, persisted counter (starting at 1), for ids of
  // things that are not records (jobs, query cursors).
  std::int64_t nextSerial(const std::string& counter);

  // Starts a batched insert into one object. `fields` names the columns every row
  // will give, in order (any case; they are matched against the catalog). Throws
  // UnknownObject, UnknownField or NotWritable. See RecordWriter.
  RecordWriter writer(std::string_view objectName, std::vector<std::string> fields,
                      int rowsPerTransaction = 20000);

  // Rows of an object: live ones, or also those in the Recycle Bin.
  std::int64_t count(std::string_view objectName, bool includeDeleted = false) const;

  // The file body of a record (ContentVersion.VersionData, Attachment.Body,
  // Document.Body); none when the record has none.
  std::optional<std::string> body(std::string_view objectName, std::string_view id) const;
  // The size of that body in bytes, or none.
  std::optional<std::int64_t> bodySize(std::string_view objectName, std::string_view id) const;
  // Calls `sink` with the body in pieces of at most chunkBytes, without holding it
  // all in memory. Returns false when there is no body or the sink returned false.
  bool streamBody(std::string_view objectName, std::string_view id, std::size_t offset,
                  std::size_t chunkBytes,
                  const std::function<bool(std::string_view piece)>& sink) const;

  // A free-form setting of the org (persisted), such as "bulkDelayMs".
  std::optional<std::string> setting(std::string_view key) const;
  void setSetting(std::string_view key, std::string_view value);

  // The connection pool behind the store, for the query engine and the server's
  // own tables. Reads: borrow a connection; writes: run inside write().
  class Lease;
  Lease read() const;
  // Runs `work` inside one write transaction (BEGIN IMMEDIATE ... COMMIT), under the
  // store's write mutex; rolls back and rethrows when it throws.
  void write(const std::function<void(Database& db)>& work);

 private:
  explicit OrgStore(std::filesystem::path folder);
  friend class RecordWriter;
  // The next number of a persisted counter (an id key prefix, or an auto-number
  // field). The caller holds writeMutex_ and runs inside a write transaction.
  std::int64_t nextSerialLocked(Database& db, const std::string& key);
  std::string newIdLocked(Database& db, const std::string& keyPrefix);

  std::filesystem::path folder_;
  struct Pool;
  std::unique_ptr<Pool> pool_;
  mutable std::mutex writeMutex_;  // guards the write connection and every transaction on it
  std::unique_ptr<Database> writer_;
};

// A borrowed reading connection; goes back to the pool when destroyed.
class OrgStore::Lease {
 public:
  Lease(Lease&& other) noexcept;
  Lease& operator=(Lease&&) = delete;
  ~Lease();
  Database& db() const { return *db_; }
  Database* operator->() const { return db_.get(); }

 private:
  friend class OrgStore;
  Lease(const OrgStore::Pool* pool, std::unique_ptr<Database> db);
  const OrgStore::Pool* pool_;
  std::unique_ptr<Database> db_;
};

// Inserts many rows into one object quickly: one prepared statement, rows grouped
// into transactions of rowsPerTransaction (committed as each fills, so memory and
// the WAL stay small however many rows are written).
//
//   auto w = store.writer("Account", {"Name", "BillingCity", "CreatedDate"});
//   w.insert({"Acme", "Berlin", "2024-01-05T10:00:00.000Z"});
//   w.commit();
//
// Values are Salesforce wire text (see schema.hpp); a datetime may end in "Z" or
// "+0000" and is stored with "Z". The body field of ContentVersion, Attachment and
// Document (VersionData, Body) takes the raw body bytes, kept in the bodies table.
// Fields not named in `fields`, and named fields given as null, are filled where
// Salesforce would fill them: Id with newId(), IsDeleted "false", CreatedDate,
// LastModifiedDate and SystemModstamp with the org's clock, CreatedById,
// LastModifiedById and OwnerId with the admin user; ContentVersion's Checksum (MD5
// hex) and ContentSize, and Attachment's and Document's BodyLength, from the body.
// Formula fields are computed, never written. A row given with IsDeleted "true" is
// put in the Recycle Bin, deleted at its SystemModstamp (else now).
//
// One writer at a time per store holds the write mutex while a transaction is open;
// other writes wait for its next commit. Rows not yet committed when the writer is
// destroyed are rolled back: call commit() at the end. Not thread-safe itself.
class RecordWriter {
 public:
  RecordWriter(RecordWriter&& other) noexcept;
  RecordWriter& operator=(RecordWriter&&) = delete;
  ~RecordWriter();

  // Adds one row; `values` parallels the writer's fields. Returns the row's Id.
  // Throws OrgStoreError(BadValue) for a wrong number of values or a value that is
  // not valid for its type, and Database on SQLite failures.
  std::string insert(std::span<const FieldValue> values);
  std::string insert(std::initializer_list<FieldValue> values);
  std::string insert(const std::vector<std::optional<std::string>>& values);

  // Commits every row inserted so far.
  void commit();

  // Rows inserted through this writer so far.
  std::int64_t rows() const { return rows_; }

 private:
  friend class OrgStore;
  struct Plan;
  RecordWriter(OrgStore& store, std::unique_ptr<Plan> plan, int rowsPerTransaction);
  void beginIfNeeded();

  OrgStore* store_;
  std::unique_ptr<Plan> plan_;
  int rowsPerTransaction_;
  int pending_ = 0;
  std::int64_t rows_ = 0;
  std::unique_lock<std::mutex> lock_;  // held while a transaction is open
};

}  // namespace corvane::orgsim
