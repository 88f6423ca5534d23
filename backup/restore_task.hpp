// The entry point of `backup restore`, shared by both faces: bringing deleted
// records, and old values of live ones, back from the backups.
//
// plan() reads the backups and asks the org what stands where; it writes
// nothing. run() plans the same way and then writes, batch by batch:
//   - records still in the Recycle Bin are undeleted (SOAP undelete, 200 ids a
//     call; they keep their Id);
//   - records gone from the bin are created again from the backup's CSV row,
//     createable fields only, parents before children, each reference to a
//     record restored now or by an earlier restore pointed at its new Id
//     (sObject Collections, 200 records a call, allOrNone=false);
//   - with fields, live records get those fields set back to the backup's values;
//   - with children, also the deleted records that pointed at the restored ones,
//     and the documents linked to them (uploaded again as ContentVersion with
//     FirstPublishLocationId, after an MD5 check of the body on disk, and
//     linked with a ContentDocumentLink to each other record restored);
//   - records created by an earlier restore with a reference left empty get
//     it filled in once the record it pointed at is restored.
// Every batch is in RestoreJournal before it is sent and after its reply is
// read, so a restore stopped anywhere resumes without creating anything twice.
// A record Salesforce refused is left alone by later restores unless
// retryFailed asks for it again.
//
// Blocking: callers run both on a worker thread. A stop is honoured between
// batches and while a Bulk API job is awaited (the next run reads that job's
// results). They print nothing.
#pragma once

#include <cstdint>
#include <filesystem>
#include <stop_token>
#include <string>
#include <vector>

#include "backup/backup_location.hpp"
#include "connections/backup_transport.hpp"
#include "platform/task_progress.hpp"
#include "platform/user_facing_error.hpp"

namespace corvane {

class RestoreError : public UserFacingError {
 public:
  enum class Kind {
    noBackupYet,         // the login has no backup database in the root
    noSuchFolder,        // --from names no usable backup folder
    nothingAsOf,         // no usable backup was taken by --as-of
    badAsOf,             // --as-of is not YYYY-MM-DD[THH:MM]
    unknownField,        // a --fields name the object does not have, or cannot update
    allowanceTooLow,     // the restore would leave less than a tenth of the API allowance
    unreadableReply,     // Salesforce answered something that could not be read
  };

  static RestoreError noBackupYet(const BackupLocation& location);
  static RestoreError noSuchFolder(const std::string& folder);
  static RestoreError nothingAsOf(const std::string& asOf);
  static RestoreError badAsOf(const std::string& asOf);
  static RestoreError unknownField(const std::string& object, const std::string& field);
  static RestoreError allowanceTooLow(std::int64_t needed, std::int64_t remaining,
                                      std::int64_t max);
  static RestoreError unreadableReply(const std::string& what);

  Kind kind() const { return kind_; }

 private:
  RestoreError(Kind kind, const std::string& sentence) : UserFacingError(sentence), kind_(kind) {}
  Kind kind_;
};

namespace RestoreTask {

struct Request {
  BackupLocation location;
  std::string object;
  bool deleted = false;            // every record of object the backups found deleted
  std::vector<std::string> ids;    // and/or these records
  std::vector<std::string> fields; // set these fields of live records back; create nothing
  bool withChildren = false;
  std::string from;   // a dated folder's name; empty: the newest usable backup
  std::string asOf;   // "YYYY-MM-DD" or "YYYY-MM-DDTHH:MM" (UTC); the newest backup by then
  std::filesystem::path journal;   // empty: RestoreJournal::standardPath()
  bool retryFailed = false;  // send again what Salesforce refused in an earlier run
};

struct FieldChange {
  std::string field;
  std::string from;  // the org's value now
  std::string to;    // the backup's value
  bool operator==(const FieldChange&) const = default;
};

// A value to send: the field, the backup's text, and how it goes in JSON.
struct FieldValue {
  enum class Literal { string, number, boolean, reference };
  std::string field;
  std::string text;
  Literal literal = Literal::string;
  bool operator==(const FieldValue&) const = default;
};

struct Record {
  enum class Action { undelete, create, update, skip };
  std::string object;
  std::string id;  // the id the backup knows
  Action action = Action::skip;
  std::string reason;                   // skip: why; otherwise a note, or empty
  std::vector<FieldChange> changes;     // update
  std::vector<std::string> unresolved;  // create: "Field (old id)" left empty
  std::vector<FieldValue> values;       // create and update: what is sent
  // create: the references left empty (their old targets); a patch: the
  // references it leaves empty still.
  std::vector<FieldValue> emptied;
  // update: the references of a record an earlier run created, pointed at
  // records restored since (newId is the record as it is now).
  bool patch = false;
  // A document, or a further link of one (object ContentDocumentLink, id the
  // document's old id): the record it is linked to (its old id).
  std::string parentId;
  std::string documentId;  // a document or a link: the ContentDocument's old id
  std::string file;      // a document: its body's name in the Files folder
  std::string checksum;  // a document: the MD5 digest the backup recorded
  int level = 0;         // creates: parents before children (lower first)

  // After run(): the record's id in the org now (created: the new one), and
  // "restored", "failed", "restoredEarlier", "failedEarlier" (refused by
  // Salesforce in an earlier run, skipped) or "notSent" (stopped before).
  std::string newId;
  std::string result;
  std::string message;
  bool operator==(const Record&) const = default;
};

std::string actionText(Record::Action action);

struct Plan {
  std::string folder;  // the dated folder the values come from
  std::vector<Record> records;  // in the order they are written
  // Records to write (not skipped).
  std::size_t toWrite() const;
};

enum class Phase {
  reading,     // the backups and the object's describe
  checking,    // which records are live, in the bin, gone
  resuming,    // learning what became of a batch sent before a stop
  undeleting,  // done/total: records written so far
  creating,
  updating,
  uploading,
  finished,
};
using Progress = TaskProgress<Phase>;
using ProgressHandler = TaskProgressHandler<Phase>;

// The plan, writing nothing. Throws RestoreError and the transport's errors.
Plan plan(BackupTransport& transport, const Request& request, std::stop_token stop = {},
          const ProgressHandler& onProgress = {});

struct Result {
  Plan plan;  // every record with its result
  std::size_t restored = 0;
  std::size_t failed = 0;
  std::size_t earlier = 0;  // restored by an earlier run
  std::size_t failedEarlier = 0;  // refused in an earlier run, left alone
  bool stopped = false;
  // Nothing was left to write: every record is live, skipped or restored earlier.
  bool nothingLeft() const { return plan.toWrite() == 0; }
  std::filesystem::path journal;
};

// Plans and writes. Refuses with RestoreError::allowanceTooLow before writing
// anything when the writes would leave less than a tenth of the org's daily
// API allowance. Throws RestoreError and the transport's errors; a batch
// whose reply was lost stays in the journal and is settled by the next run.
// planned: the plan of the same request made moments before (to show it, or
// to ask before writing), written as it is unless a batch of an earlier run
// had to be settled first, which may change it.
Result run(BackupTransport& transport, const Request& request, std::stop_token stop = {},
           const ProgressHandler& onProgress = {}, const Plan* planned = nullptr);

}  // namespace RestoreTask

}  // namespace corvane
