// A duplicate snapshot: one SQLite file holding the records of one object (or
// several) with the raw and normalised values of their match fields, the
// extra fields, the Bulk API locator of the next page to fetch, and the
// records the user marked "not a duplicate".
//
// A page is stored whole or not at all, together with the locator that
// follows it, so that a stopped download resumes exactly where it was.
// Every SQLite failure is a SQLiteError ("Local database error: ...").
// One thread at a time; WAL mode lets other connections read meanwhile.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "dedupe/match_kind.hpp"
#include "dedupe/snapshot_info.hpp"
#include "platform/sqlite_db.hpp"

namespace corvane {

using Rid = std::int32_t;

// One stored record as read back.
struct SnapshotRecord {
  Rid rid = 0;
  std::string sfid;
  std::string name;
  std::string created;
  std::string modified;
  std::int64_t filledCount = 0;
  std::vector<std::string> values;  // raw match values, one per match field
  std::vector<std::string> extras;  // one per extra field
  std::string object;               // empty in a single-object snapshot
  bool operator==(const SnapshotRecord&) const = default;
};

class RecordStore {
 public:
  // One object of a multi-object snapshot: for each match-field slot (and
  // extra slot) the field of this object that fills it, empty where none.
  struct SnapshotObject {
    std::string name;
    std::string label;
    std::vector<std::string> sources;
    std::vector<std::string> extraSources;
    bool operator==(const SnapshotObject&) const = default;
  };

  // One parsed row before storing. Raw values; normalised while stored.
  // extras may be left empty: the record is then stored as not yet enriched.
  struct Incoming {
    std::string sfid;
    std::string name;
    std::string created;
    std::string modified;
    std::vector<std::string> values;
    std::vector<std::string> extras;
  };

  struct Creation {
    std::string orgId;
    std::string objectName;
    std::string objectLabel;
    std::string nameFieldLabel;
    std::vector<MatchField> matchFields;
    std::vector<std::string> extraFields;
    std::int64_t totalExpected = 0;
    std::vector<SnapshotObject> objects;
    std::string downloadedBy;
    std::string downloadedAt;  // ISO 8601; now when empty
  };

  // Makes a new snapshot file (which must not exist yet), created 0600.
  static std::shared_ptr<RecordStore> create(const std::filesystem::path& url,
                                             const Creation& creation);
  // Opens an existing file, bringing older layouts up to date.
  static std::shared_ptr<RecordStore> open(const std::filesystem::path& url);

  RecordStore(const RecordStore&) = delete;
  RecordStore& operator=(const RecordStore&) = delete;
  ~RecordStore();

  const std::vector<MatchField>& matchFields() const { return matchFields_; }
  const std::vector<std::string>& extraFields() const { return extraFields_; }
  const std::vector<SnapshotObject>& objects() const { return objects_; }
  bool isMultiObject() const { return objects_.size() > 1; }
  bool slotsAligned() const { return slotsAligned_; }
  const std::filesystem::path& url() const { return url_; }

  // Stores one page and the locator of the next page in one transaction.
  // object names the rows' object in a multi-object snapshot (else empty).
  void ingest(const std::vector<Incoming>& page, std::string_view locator,
              std::string_view object = {});
  void markComplete();
  void setMeta(std::string_view key, std::string_view value);
  std::optional<std::string> meta(std::string_view key);

  SnapshotInfo info();
  std::int64_t recordCount();

  // Calls visit(rid, normalised values) for every record in rid order.
  void scanNormalized(const std::function<void(Rid, const std::vector<std::string_view>&)>& visit);
  // Calls visit(rid, raw value) of the extra field in slot for every record
  // in rid order.
  void scanExtra(std::size_t slot, const std::function<void(Rid, std::string_view)>& visit);

  std::vector<SnapshotRecord> records(const std::vector<Rid>& rids);
  std::vector<std::pair<Rid, std::string>> sfids(const std::vector<Rid>& rids);
  // The rids of the records with these Salesforce Ids (each rid with its Id,
  // in rid order); Ids not in the snapshot are left out.
  std::vector<std::pair<Rid, std::string>> ridsOf(const std::vector<std::string>& sfids);
  // rid, sfid and object name.
  std::vector<std::tuple<Rid, std::string, std::string>> sfidsAndKinds(const std::vector<Rid>& rids);
  std::vector<std::pair<Rid, std::vector<std::string>>> normalized(const std::vector<Rid>& rids);

  // The most common non-empty normalised values of a match field; equal
  // counts in ascending text order.
  std::vector<ValueCount> commonValues(std::size_t fieldIndex, int limit);
  // For each match field, how many records have an empty normalised value.
  std::vector<std::int64_t> blankCounts();
  // The records whose Id, name, match or extra values contain text, taken
  // literally (% _ and \ match themselves).
  std::vector<Rid> searchRids(std::string_view text);

  // Records the user marked "not a duplicate".
  void exclude(const std::vector<std::pair<Rid, std::string>>& records);
  std::vector<std::pair<Rid, std::string>> exclusions();
  void clearAllExclusions();

  // Which of rids still lack their extra fields.
  std::vector<Rid> unenriched(const std::vector<Rid>& among);
  struct Enrichment {
    Rid rid = 0;
    std::vector<std::string> values;  // one per slot in extraSlots
  };
  // Writes fetched extra values into the given extra slots and marks the
  // records enriched, in one transaction.
  void enrich(const std::vector<std::size_t>& extraSlots, const std::vector<Enrichment>& rows);

  // In a multi-object snapshot, the kinds of the match slots that different
  // objects fill with fields of different kinds.
  std::set<MatchKind> shiftedKinds() const;

  void close();

 private:
  RecordStore(std::filesystem::path url, std::shared_ptr<SQLiteDB> db);
  void configure();
  void upgrade();
  void readLayout();
  Statement& insertStatement();
  std::string ridList(const std::vector<Rid>& rids) const;

  std::filesystem::path url_;
  std::shared_ptr<SQLiteDB> db_;
  std::vector<MatchField> matchFields_;
  std::vector<std::string> extraFields_;
  std::vector<SnapshotObject> objects_;
  bool slotsAligned_ = false;
  std::optional<Statement> insert_;  // kept prepared during a download
};

// The size of a snapshot file with its -wal and -shm companions.
std::int64_t snapshotFileBytes(const std::filesystem::path& url);

}  // namespace corvane
