// The entry points for a login's snapshots: downloading an object's records
// into a new snapshot, continuing a paused download, listing and deleting.
//
// A download runs through a Bulk API 2.0 query job into a new snapshot file
// under the application-support folder. A stop request pauses it between
// pages: what is stored stays, consistent, and resume continues from the
// first page not stored. Each call blocks and prints nothing.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "connections/bulk_query_runner.hpp"
#include "connections/salesforce_api.hpp"
#include "dedupe/dedupe_error.hpp"
#include "dedupe/dedupe_task.hpp"
#include "dedupe/match_kind.hpp"
#include "dedupe/snapshot_info.hpp"

namespace corvane {

class RecordStore;

namespace SnapshotTask {

// One field to compare: the field, and the kind and mode when chosen.
struct MatchChoice {
  std::string field;
  std::optional<MatchKind> kind;
  std::optional<MatchMode> mode;
  bool operator==(const MatchChoice&) const = default;
};
// "Email", "Name:personName", "Name:personName:close". Throws badMatchChoice.
MatchChoice parseMatchChoice(const std::string& text);

struct DownloadRequest {
  std::vector<MatchChoice> match;
  std::vector<std::string> extra;
  std::optional<std::string> scope;  // a SOQL condition
  int pageSize = 50'000;
  BulkQueryRunner::Options runner;
};

struct DownloadOutcome {
  std::filesystem::path snapshot;
  std::int64_t records = 0;      // stored in the snapshot
  bool stopped = false;          // paused by a stop request; resume continues it
  bool alreadyComplete = false;  // resume: there was nothing left to download
};

// Downloads object's records for the login into a new snapshot. The fields
// are checked against the object's describe before anything is made; a
// download that fails before Salesforce accepted its job leaves no file.
// Throws DedupeError (noMatchFields, unknownField), DownloadError and the
// errors of findLogin, the store and the transport.
DownloadOutcome download(SalesforceAPI::Client& api, const FindLogin& findLogin,
                         const std::string& login, const std::string& object,
                         const DownloadRequest& request, std::stop_token stop,
                         const DedupeProgressHandler& onProgress = {});

// Continues a paused download. login: the login to continue with; empty
// means the one that started it, and no other may. runner: the job runner's
// settings (the rest of the request is the snapshot's own).
DownloadOutcome resume(SalesforceAPI::Client& api, const FindLogin& findLogin,
                       const std::filesystem::path& snapshot, const std::string& login,
                       const BulkQueryRunner::Options& runner, std::stop_token stop,
                       const DedupeProgressHandler& onProgress = {});

struct Listing {
  std::string username;  // the login's
  std::vector<SnapshotInfo> snapshots;  // newest first
  std::int64_t bytesUsed = 0;           // by all of them, companions included
};
// The snapshots of the login's org.
Listing list(SalesforceAPI::Client& api, const FindLogin& findLogin, const std::string& login);

// Deletes a snapshot with its companions. Throws notASnapshot.
void remove(const std::filesystem::path& snapshot);

// Opens a snapshot. Throws notASnapshot when the file is not one.
std::shared_ptr<RecordStore> open(const std::filesystem::path& snapshot);

}  // namespace SnapshotTask

}  // namespace corvane
