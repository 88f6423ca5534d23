// Reads from the org what a merge is about to change, for the undo journal:
// the kept record's writable fields, the other records' whole rows, and the
// child records that Salesforce moves to the kept record when it merges.
//
// Also the few queries the undo itself needs (records by Id, with or without
// the Recycle Bin). Every call blocks; transport failures pass through.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "connections/dedupe_transport.hpp"
#include "dedupe/undo_journal.hpp"

namespace corvane::UndoCapture {

// One kind of child record a merge moves: the child object and its reference
// to the merged object. recreate names the fields a child is created again
// with when the reference cannot be changed once set (empty: it is updated);
// sameWhen, the fields that tell that such a copy already exists.
struct ChildRelation {
  std::string object;
  std::string field;
  std::vector<std::string> recreate;
  std::vector<std::string> sameWhen;
  bool discovered = false;  // found in the org's describe, not one of childRelations
};

// The children of a merged Account, Contact or Lead; none for other objects.
const std::vector<ChildRelation>& childRelations(std::string_view object);

// Every kind of child record a merge of an object moves that an undo can put
// back: childRelations, and each other child relationship the org's describe
// lists whose reference can be changed and filtered on (child Accounts, a
// custom object's lookup, ...). Histories, feeds, shares and change events
// are left out: a merge does not move them. Each object is described once
// and its answer kept for later calls.
class ChildKinds {
 public:
  explicit ChildKinds(DedupeTransport& transport) : transport_(transport) {}

  // Throws UndoError::unreadableReply for a describe that cannot be read,
  // and passes transport failures through; an object or child that this
  // login may not describe is left out.
  const std::vector<ChildRelation>& of(const std::string& object);

 private:
  std::optional<nlohmann::json> describe(const std::string& object);

  DedupeTransport& transport_;
  std::map<std::string, std::vector<ChildRelation>> kinds_;
};

// The first 15 characters of an Id: the same record whatever its case-safe suffix.
std::string idKey(std::string_view id);

// Every record of a SOQL query, every page ("queryAll" with the Recycle Bin).
// Throws PreflightError::unreadableReply for a reply that is not a page of records.
std::vector<nlohmann::json> queryRecords(DedupeTransport& transport, const std::string& soql,
                                         bool withDeleted = false);

// Queries "SELECT <fields> FROM object WHERE <field> IN (ids)" in slices of ids.
std::vector<nlohmann::json> recordsWhere(DedupeTransport& transport, const std::string& object,
                                         const std::vector<std::string>& fields,
                                         const std::string& field,
                                         const std::vector<std::string>& ids,
                                         bool withDeleted = false);

// The object's fields the describe lists: writable ones, or every one a query
// can select.
std::vector<std::string> fieldsOf(DedupeTransport& transport, const std::string& object,
                                  bool writableOnly);

// A JSON value as text; "" for null.
std::string valueText(const nlohmann::json& value);

// One group about to be merged or deleted.
struct Pending {
  std::int64_t groupId = 0;
  std::string object;
  std::string action;  // "merge" or "delete"
  std::string keeper;
  std::vector<std::string> losers;
};

// What the org holds now for each group (one query per object and kind of
// child for all the groups together), ready for UndoJournal::recordBefore.
// kinds: the kinds of child to look for, kept across calls (none: described
// afresh).
std::vector<UndoGroup> capture(DedupeTransport& transport, const std::vector<Pending>& pending,
                               const std::string& now, ChildKinds* kinds = nullptr);

// One record about to be updated (a tag, or gaps filled in): the values
// written, field by field.
struct PendingUpdate {
  std::int64_t groupId = 0;
  std::string object;
  std::string keeper;  // the group's kept record; empty for records already there
  std::string sfid;
  std::map<std::string, std::string> written;
};

// The journal entries of updates, one group per group number (action
// "update"): each record's values of the fields written, as the org holds
// them now, beside the values the update writes (UndoRecord::fields).
std::vector<UndoGroup> captureUpdates(DedupeTransport& transport,
                                      const std::vector<PendingUpdate>& updates,
                                      const std::string& now);

// The SystemModstamp of each record, by idKey.
std::map<std::string, std::string> stamps(DedupeTransport& transport, const std::string& object,
                                          const std::vector<std::string>& ids);

}  // namespace corvane::UndoCapture
