// Document and attachment bodies: which ones the backup knows of (the
// file_versions table of backup.sqlite) and fetching one into the org's shared
// Files folder.
//
// A body is first streamed into Files/.partial, checked against the size and
// the MD5 digest Salesforce reports, made durable, and only then renamed to its
// name in Files. A stop at any moment therefore leaves either the whole, checked
// body under its name or nothing there; what is left in .partial is overwritten
// by the next try.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "backup/backup_location.hpp"
#include "connections/backup_transport.hpp"
#include "platform/sqlite_db.hpp"

namespace corvane::FileDownload {

// One body, as a copied row of ContentVersion, Attachment or Document describes it.
struct Body {
  std::string id;
  std::string object;
  std::string documentId;  // ContentVersion.ContentDocumentId; empty for the others
  std::string title;
  std::string extension;
  std::string checksum;    // the MD5 digest Salesforce reports (ContentVersion only)
  std::string stamp;       // when the row last changed
  std::int64_t size = -1;  // -1: not reported
  bool isLatest = true;
  bool operator==(const Body&) const = default;
};

// A body still to fetch (a row of file_versions).
struct Pending {
  std::string id;
  std::string object;
  std::string nameOnDisk;
  std::string checksum;
  std::int64_t size = 0;
  std::int64_t attempts = 0;
  bool operator==(const Pending&) const = default;
};

// The objects whose rows describe bodies: ContentVersion, Attachment, Document.
bool hasBodies(std::string_view object);
// The REST path of a body ("/sobjects/ContentVersion/068.../VersionData").
std::string bodyPath(std::string_view object, std::string_view id);

// The bodies an object's CSV (header first) describes. Rows without an Id are
// passed over. Throws BackupCSV's error when the data cannot be read.
std::vector<Body> bodiesIn(std::string_view object, std::string_view csv);

// Adds bodies to file_versions, or updates what is known of them. A body that
// changed (another checksum; without one, another size or stamp) gets a new
// name on disk and is fetched again; the name of its earlier copy goes to
// earlier_copies, because older backups still list it. Call inside a transaction.
void record(SQLiteDB& db, const std::vector<Body>& bodies);

// Bodies not yet downloaded, not given up and not deleted, by object then id;
// with latestOnly, only the latest version of each document.
std::vector<Pending> pending(SQLiteDB& db, bool latestOnly);

// Marks downloaded bodies whose file is no longer in filesFolder as not
// downloaded, so that they are fetched again.
void forgetMissingBodies(SQLiteDB& db, const std::filesystem::path& filesFolder);

// The lowercase hexadecimal MD5 digest of a file. Throws FileError.
std::string md5Hex(const std::filesystem::path& file);

// What came of one fetch.
struct Fetched {
  // How a fetch that kept nothing counts against the body.
  enum class Failure {
    none,       // stored, or a refusal that counts as one try
    onTheWay,   // dropped, reset, timed out or a 5xx: never a try
    final,      // Salesforce says the body is gone or not for this login: given up at once
  };
  bool stored = false;
  std::int64_t bytes = 0;
  std::string failure;  // why the body was not kept, when it was not
  Failure kind = Failure::none;
};

// A body given up on, and why.
struct GivenUp {
  std::string id;
  std::string nameOnDisk;
  std::string reason;
  bool operator==(const GivenUp&) const = default;
};

// Fetches one body into location's Files folder as body.nameOnDisk. A body
// whose size or digest differs from what Salesforce reported is not kept
// (failure says so; a body cut short is a failure on the way). The
// transport's failures and FileError propagate.
Fetched fetch(BackupTransport& transport, const BackupLocation& location, const Pending& body);

// Marks one fetch in file_versions: downloaded, or attempts raised with the
// failure, and given up (skipped) once attempts reach maxAttempts or at once
// for a final failure. A failure on the way keeps only its reason.
// Returns true when the body is given up now.
bool recordFetch(SQLiteDB& db, const Pending& body, const Fetched& fetched, int maxAttempts,
                 std::int64_t runId);

// Makes bodies given up by runs other than runId wanted again.
void retryGivenUp(SQLiteDB& db, std::int64_t runId);

// The bodies given up on and not deleted, by object then id.
std::vector<GivenUp> givenUp(SQLiteDB& db);

}  // namespace corvane::FileDownload
