// What the org does to records: create, update, delete to the Recycle Bin,
// undelete, purge, merge, and the deletion log behind getDeleted.
//
// Every operation runs in one write transaction of the store and stamps what it
// changes with the org's clock (LastModifiedDate, SystemModstamp, deletion dates),
// as Salesforce does. Failures per record come back as Salesforce's status codes
// and messages (RecordError), never as exceptions; OrgStoreError is thrown only
// when the database itself fails. Thread-safe (the store serialises writes).
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/orgsim/org_store.hpp"

namespace corvane::orgsim {

// One error of one record, as the REST and SOAP APIs report it.
struct RecordError {
  std::string statusCode;  // REQUIRED_FIELD_MISSING, ENTITY_IS_DELETED, ...
  std::string message;
  std::vector<std::string> fields;

  bool operator==(const RecordError&) const = default;
};

struct SaveResult {
  std::string id;
  bool success = false;
  std::vector<RecordError> errors;
  // HTTP status a single-record REST call answers with when this failed.
  int httpStatus = 400;
  bool created = false;  // an upsert made a new record
};

struct MergeRequest {
  std::string objectName;  // the masterRecord's type
  std::string masterId;
  // Field values the kept record is to take, as text (null: clear the field).
  std::vector<std::pair<std::string, std::optional<std::string>>> fieldValues;
  std::vector<std::string> loserIds;
};

struct MergeOutcome {
  std::string id;  // the master
  bool success = false;
  std::vector<std::string> mergedRecordIds;
  std::vector<std::string> updatedRelatedIds;
  std::vector<RecordError> errors;
};

struct DeletedRecord {
  std::string id;
  std::string deletedDate;  // stored form, "...Z"
};

struct GetDeletedAnswer {
  std::vector<DeletedRecord> records;
  SystemTime earliestDateAvailable;
  SystemTime latestDateCovered;
};

// How long the Recycle Bin keeps a record and the deletion log an entry.
inline constexpr std::chrono::hours kRecycleBinRetention{24 * 15};

namespace OrgRecords {

// Creates one record from JSON field values (base64 fields hold base64 text).
// `userId` becomes CreatedById, LastModifiedById and (unless given) OwnerId.
// With `dryRun` nothing is written: the answer says whether it would succeed.
SaveResult create(OrgStore& store, const ObjectDef& object, const nlohmann::json& fields,
                  const std::string& userId, bool dryRun = false);

// Changes fields of a live record. With `force` (the admin interface) read-only
// stored fields may be set too, and given timestamps are kept.
SaveResult update(OrgStore& store, const ObjectDef& object, std::string_view id,
                  const nlohmann::json& fields, const std::string& userId, bool force = false,
                  bool dryRun = false);

// Salesforce's upsert: the live records whose external id field `key` holds
// `value` (letter case ignored, as for text external ids) decide: none, a new
// record with the key set (created); one, that record updated; more,
// MULTIPLE_CHOICES (HTTP 300). `fields` may repeat the key with the same value.
SaveResult upsert(OrgStore& store, const ObjectDef& object, const FieldDef& key,
                  const std::string& value, nlohmann::json fields, const std::string& userId,
                  bool dryRun = false);

// Moves a record to the Recycle Bin (IsDeleted, deletion date, deletion log).
SaveResult remove(OrgStore& store, std::string_view id, const std::string& userId,
                  bool dryRun = false);

// Puts a record in the Recycle Bin back.
SaveResult undelete(OrgStore& store, std::string_view id, const std::string& userId);

// Empties the Recycle Bin of these records (all of one object when `ids` is empty
// and objectName is given; everything when both are empty). Purged records leave
// the store and the deletion log; getDeleted's earliestDateAvailable moves past
// their deletion dates. Returns how many were purged.
std::int64_t purge(OrgStore& store, std::string_view objectName,
                   const std::vector<std::string>& ids);

// Purges what has been in the Recycle Bin longer than kRecycleBinRetention.
std::int64_t purgeExpired(OrgStore& store);

// Salesforce's merge(): see MergeRequest. At most two losers per request.
MergeOutcome merge(OrgStore& store, const MergeRequest& request, const std::string& userId);

// getDeleted for an object between two times. Throws RecordError-shaped
// GetDeletedRefused for the windows Salesforce refuses.
struct GetDeletedRefused {
  std::string errorCode;
  std::string message;
};
// Returns the answer, or the refusal.
std::variant<GetDeletedAnswer, GetDeletedRefused> getDeleted(OrgStore& store,
                                                             const ObjectDef& object,
                                                             SystemTime start, SystemTime end);

// The live record counts per object (for /limits/recordCount).
std::vector<std::pair<std::string, std::int64_t>> recordCounts(
    OrgStore& store, const std::vector<std::string>& objectNames);

}  // namespace OrgRecords

}  // namespace corvane::orgsim
