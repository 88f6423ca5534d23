// What a merge, delete or update changed, kept so that it can be undone.
//
// Before the apply sends a group's merges (or deletes) it writes here, in the
// snapshot file the plan came from, everything needed to put the group back:
// the kept record's writable fields as they were, every other record's whole
// row, and the child records the merge will move to the kept record (which
// reference they sat under, and on which record); before updates (a tag
// written into the other records, gaps filled in on the kept one), each
// updated record's values of the fields written. The write is committed
// with a full sync before the first call for the group leaves. After the
// calls, each record's outcome and the kept record's SystemModstamp are added,
// so that a later change to the kept record in Salesforce can be noticed.
//
// Each apply is numbered and keeps its entries apart: a later apply from the
// same snapshot whose groups reuse a number never replaces an entry whose
// calls left (or may have), so every apply can still be undone.
//
// The undo keeps its own progress per entry here too ("undoing", "undone"),
// so that a stopped undo run again finds what it had already finished.
// One connection per journal; one thread at a time.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace corvane {

class SQLiteDB;

struct UndoChild {
  std::string object;  // "Contact"
  std::string id;
  std::string field;   // the reference the merge moves: "AccountId"
  std::string parent;  // the record it belonged to before the merge
  // For a reference that cannot be changed once set (a document's link, a
  // campaign member, a note): the fields to create it again with, as a JSON
  // object. Empty when the reference is simply updated back.
  std::string recreate;
  bool operator==(const UndoChild&) const = default;
};

struct UndoRecord {
  std::string sfid;
  // Merge or delete: the whole row before, as a JSON object. Update: the
  // values of the fields written, before and as written:
  // {"before": {field: value}, "written": {field: text}}.
  std::string fields;
  // "sending" (journaled, no answer yet), "done", "failed", "unknown",
  // "notAttempted".
  std::string state = "sending";
  std::string message;
  bool operator==(const UndoRecord&) const = default;
};

struct UndoGroup {
  // The apply that journaled it (UndoJournal::beginApply): 0 for an entry
  // from before applies were numbered. appliedAt: when that apply began (for
  // apply 0, when the entry was journaled), ISO 8601, UTC.
  std::int64_t apply = 0;
  std::string appliedAt;
  std::int64_t groupId = 0;
  std::string object;
  std::string action;        // "merge", "delete" or "update" (a tag, gaps filled in)
  std::string keeper;        // the kept record's Id
  std::string keeperFields;  // merge: its writable fields before the merge, a JSON object
  std::string keeperStamp;   // its SystemModstamp after the group's merges
  std::vector<UndoRecord> losers;
  std::vector<UndoChild> children;
  std::string journaledAt;  // ISO 8601, UTC
  std::string undoState;    // "", "undoing" or "undone"
  std::string undoneAt;
  bool operator==(const UndoGroup&) const = default;

  // Some call for the group went through, or may have.
  bool applied() const;
};

class UndoJournal {
 public:
  // Opens the journal inside the snapshot file, adding its tables when missing
  // and bringing those of older versions to the numbered applies.
  explicit UndoJournal(const std::filesystem::path& snapshot);
  UndoJournal(const UndoJournal&) = delete;
  UndoJournal& operator=(const UndoJournal&) = delete;
  ~UndoJournal();

  // Numbers a new apply, begun at (ISO 8601, UTC): the entries it writes
  // are kept apart from those of every earlier apply.
  std::int64_t beginApply(const std::string& at);

  // Writes the apply's groups as they are before any call (every loser
  // "sending"), in one transaction. An earlier apply's entry is never changed,
  // but for one case: the same group (same number, kept record and other
  // records) none of whose calls has an answer noted is replaced. The caller
  // must have found every one of those records unchanged since the snapshot
  // (ResolutionPreflight), which shows that none of those calls went through:
  // a merge or delete removes the record.
  void recordBefore(std::int64_t apply, const std::vector<UndoGroup>& groups);
  // The outcome of the call for one record.
  void recordOutcome(std::int64_t apply, std::int64_t groupId, const std::string& sfid,
                     const std::string& state, const std::string& message);
  void recordKeeperStamp(std::int64_t apply, std::int64_t groupId, const std::string& stamp);
  // "undoing" before the undo of an entry sends anything, "undone" after.
  void recordUndoState(std::int64_t apply, std::int64_t groupId, const std::string& state,
                       const std::string& at);

  // Every entry, the newest apply's first, each apply's in group order.
  std::vector<UndoGroup> groups() const;
  // The lowest group number any apply journaled; 0 when there is none.
  std::int64_t lowestGroupId() const;

 private:
  void upgrade();

  std::shared_ptr<SQLiteDB> db_;
};

}  // namespace corvane
