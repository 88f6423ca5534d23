// The journal that keeps a restore from creating a record twice.
//
// Every record a restore sends is written here, with the batch that carries
// it, before the request leaves (state "sent"), and its outcome after the
// reply has been read ("done" with the new id; "refused" with Salesforce's
// words when Salesforce turned the record down; "failed" when it was not
// written for another reason, such as a stop, and goes again). A restore that
// stops anywhere finds its records again by org and old id: done ones are
// never sent again, and a batch still "sent" is the one whose fate must be
// learned from the org first. The mapping old id -> new id outlives the run,
// so that later restores point their references at records an earlier one
// brought back, and the references a created record had to leave empty are
// kept so that a later restore of their records can fill them in.
//
// Besides records, two kinds of entry hang off a record: "link" (a further
// ContentDocumentLink of a document uploaded again; its old id is the
// document's and the record's 15-character ids run together) and "patch"
// (references of a record created earlier, filled in later; its old id is
// the record's). Their keys carry the action, so they never meet the record's own.
//
// One SQLite file in the application-support folder ("Restore/journal.sqlite"),
// created 0600, every change committed before the caller goes on. One thread
// at a time.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace corvane {

class SQLiteDB;

class RestoreJournal {
 public:
  struct Entry {
    std::string object;
    std::string oldId;
    std::string action;  // "undelete", "create", "update", "upload", "link", "patch"
    std::string state;   // "sent", "done", "refused", "failed"
    std::string newId;   // done: the record as it is now (the old id for undelete and update)
    std::string message;
    std::int64_t batch = 0;
    std::string sentAt;  // ISO 8601, UTC, the org's clock
    std::string sentBody;  // create: the record's fields as sent (JSON), for reconciling
    std::string jobId;     // the Bulk API ingest job that carries it; empty for collections
    // create: the references left empty, as a JSON object of field -> the old
    // id it pointed at; patch: those still empty once the patch is done.
    std::string emptied;
    bool operator==(const Entry&) const = default;
  };

  // Opens or creates the journal file (and its folder, 0700).
  explicit RestoreJournal(const std::filesystem::path& path);
  RestoreJournal(const RestoreJournal&) = delete;
  RestoreJournal& operator=(const RestoreJournal&) = delete;
  ~RestoreJournal();

  // "Restore/journal.sqlite" in the application-support folder.
  static std::filesystem::path standardPath();

  // The key of an entry: the 15-character old id for a record's own entry;
  // "link:" or "patch:" before it for the entries that hang off a record.
  static std::string keyOf(const std::string& action, const std::string& oldId);

  // The entry of oldId in the org (compared on the first 15 characters).
  std::optional<Entry> find(const std::string& org, const std::string& oldId) const;
  // Every entry of the org, by key.
  std::map<std::string, Entry> entries(const std::string& org) const;

  // A new batch number for the org.
  std::int64_t nextBatch(const std::string& org) const;

  // Records the entries as sent, in one transaction; call before the request leaves.
  void recordSending(const std::string& org, const std::vector<Entry>& entries);
  // Records outcomes (state, newId, message), in one transaction. A patch
  // that is done also leaves its emptied on the created record's entry.
  void recordOutcomes(const std::string& org, const std::vector<Entry>& entries);

 private:
  std::shared_ptr<SQLiteDB> db_;
};

}  // namespace corvane
