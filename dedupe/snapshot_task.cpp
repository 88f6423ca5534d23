#include "dedupe/snapshot_task.hpp"

#include <cctype>

#include <nlohmann/json.hpp>

#include "connections/api_transport.hpp"
#include "dedupe/normalizer.hpp"
#include "dedupe/record_store.hpp"
#include "dedupe/snapshot_catalog.hpp"
#include "dedupe/snapshot_downloader.hpp"
#include "platform/number_text.hpp"
#include "platform/volume_info.hpp"

namespace corvane::SnapshotTask {

namespace {

bool sameName(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

struct FieldDetail {
  std::string name;
  std::string label;
  std::string type;
  std::string relationshipName;  // of a lookup: "Account" for AccountId
  std::string referenceTo;       // the first object a lookup points to
  std::string object;            // the object the field belongs to
};

struct ObjectDetail {
  std::string name;
  std::string label;
  std::string nameField = "Name";
  std::string nameFieldLabel = "Name";
  std::vector<FieldDetail> fields;

  const FieldDetail& field(const std::string& wanted) const {
    for (const FieldDetail& detail : fields) {
      if (sameName(detail.name, wanted)) return detail;
    }
    throw DedupeError::unknownField(name, wanted);
  }
};

ObjectDetail describe(SalesforceAPI::Client& api, const Org& org, const std::string& object) {
  nlohmann::json json = api.describe(object, org);
  ObjectDetail detail;
  try {
    detail.name = json.at("name").get<std::string>();
    detail.label = json.value("label", detail.name);
    for (const auto& field : json.at("fields")) {
      FieldDetail f{field.at("name").get<std::string>(), field.value("label", ""),
                    field.value("type", ""), {}, {}, detail.name};
      if (field.contains("relationshipName") && field["relationshipName"].is_string())
        f.relationshipName = field["relationshipName"].get<std::string>();
      if (field.contains("referenceTo") && field["referenceTo"].is_array() &&
          !field["referenceTo"].empty() && field["referenceTo"][0].is_string())
        f.referenceTo = field["referenceTo"][0].get<std::string>();
      if (field.value("nameField", false)) {
        detail.nameField = f.name;
        detail.nameFieldLabel = f.label;
      }
      detail.fields.push_back(std::move(f));
    }
  } catch (const nlohmann::json::exception&) {
    throw DownloadError::unreadableReply();
  }
  return detail;
}

// A field of the object, or of a record it looks up ("Account.Name" on a
// Contact: the name of its account), named as the query names it. One
// lookup deep; throws unknownField otherwise.
FieldDetail fieldOrPath(SalesforceAPI::Client& api, const Org& org, const ObjectDetail& detail,
                        const std::string& wanted) {
  const std::size_t dot = wanted.find('.');
  if (dot == std::string::npos) return detail.field(wanted);
  const std::string relationship = wanted.substr(0, dot);
  const std::string rest = wanted.substr(dot + 1);
  for (const FieldDetail& lookup : detail.fields) {
    if (lookup.relationshipName.empty() || lookup.referenceTo.empty() ||
        !sameName(lookup.relationshipName, relationship) || rest.find('.') != std::string::npos) {
      continue;
    }
    const ObjectDetail target = describe(api, org, lookup.referenceTo);
    FieldDetail field = target.field(rest);
    field.name = lookup.relationshipName + "." + field.name;
    // "Account Name" already says whose name it is; "Industry" does not.
    if (field.label.find(target.label) == std::string::npos)
      field.label = target.label + " " + field.label;
    return field;
  }
  throw DedupeError::unknownField(detail.name, wanted);
}

std::string orgIdOf(SalesforceAPI::Client& api, const Org& org) {
  if (org.orgId && !org.orgId->empty()) return *org.orgId;
  std::string id;
  api.queryStream("SELECT Id FROM Organization", org, [&id](SalesforceAPI::QueryPage page) {
    for (const auto& record : page.records) {
      const JSONLiteral* value = record.find("Id");
      if (value && value->asString()) id = *value->asString();
    }
    return false;
  });
  if (id.empty()) throw DownloadError::unreadableReply();
  return id;
}

BulkQueryRunner::Options withFreeSpace(BulkQueryRunner::Options runner,
                                       const std::filesystem::path& snapshot) {
  if (!runner.freeSpace) {
    std::filesystem::path folder = snapshot.parent_path();
    runner.freeSpace = [folder]() -> std::optional<std::int64_t> {
      try {
        return static_cast<std::int64_t>(VolumeInfo::freeBytes(folder));
      } catch (const std::exception&) {
        return std::nullopt;
      }
    };
  }
  return runner;
}

DownloadOutcome run(SalesforceAPI::Client& api, const Org& org, RecordStore& store,
                    const std::vector<SnapshotDownloader::Request>& requests,
                    const BulkQueryRunner::Options& runner, std::stop_token stop,
                    const DedupeProgressHandler& onProgress) {
  DedupeAPITransport transport(api, org);
  SnapshotDownloader downloader(transport, withFreeSpace(runner, store.url()));
  const auto report = [&onProgress](const DownloadPhase& phase) {
    if (!onProgress) return;
    using Phase = DedupeProgress::Phase;
    DedupeProgress progress;
    switch (phase.kind) {
      case DownloadPhase::Kind::preparing: progress.phase = Phase::preparing; break;
      case DownloadPhase::Kind::downloading: progress.phase = Phase::downloading; break;
      case DownloadPhase::Kind::finished: progress.phase = Phase::finished; break;
      case DownloadPhase::Kind::paused: progress.phase = Phase::paused; break;
    }
    progress.done = phase.done;
    progress.total = phase.total;
    progress.bytes = phase.bytes;
    progress.text = phase.text;
    onProgress(progress);
  };
  DownloadPhase result = downloader.download(requests, store, report,
                                             [&stop] { return stop.stop_requested(); });
  return {store.url(), result.done, result.kind == DownloadPhase::Kind::paused, false};
}

void announce(const DedupeProgressHandler& onProgress, const std::filesystem::path& snapshot,
              std::string text) {
  if (onProgress) {
    onProgress({DedupeProgress::Phase::starting, 0, 0, 0, snapshot.string(), std::move(text)});
  }
}

}  // namespace

MatchChoice parseMatchChoice(const std::string& text) {
  MatchChoice choice;
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (true) {
    std::size_t colon = text.find(':', start);
    parts.push_back(text.substr(start, colon == std::string::npos ? std::string::npos : colon - start));
    if (colon == std::string::npos) break;
    start = colon + 1;
  }
  if (parts.size() > 3 || parts[0].empty()) throw DedupeError::badMatchChoice(text);
  choice.field = parts[0];
  if (parts.size() >= 2) {
    choice.kind = matchKindFromRaw(parts[1]);
    if (!choice.kind) throw DedupeError::badMatchChoice(text);
  }
  if (parts.size() == 3) {
    choice.mode = matchModeFromRaw(parts[2]);
    if (!choice.mode) throw DedupeError::badMatchChoice(text);
  }
  return choice;
}

std::shared_ptr<RecordStore> open(const std::filesystem::path& snapshot) {
  try {
    return RecordStore::open(snapshot);
  } catch (const SQLiteError&) {
    throw DedupeError::notASnapshot(snapshot);
  }
}

DownloadOutcome download(SalesforceAPI::Client& api, const FindLogin& findLogin,
                         const std::string& login, const std::string& object,
                         const DownloadRequest& request, std::stop_token stop,
                         const DedupeProgressHandler& onProgress) {
  if (request.match.empty()) throw DedupeError::noMatchFields();
  const Org org = findLogin(login);
  ObjectDetail detail = describe(api, org, object);

  RecordStore::Creation creation;
  creation.orgId = orgIdOf(api, org);
  creation.objectName = detail.name;
  creation.objectLabel = detail.label;
  creation.nameFieldLabel = detail.nameFieldLabel;
  creation.downloadedBy = org.username;
  SnapshotDownloader::Request job;
  job.objectName = detail.name;
  job.nameField = detail.nameField;
  job.scope = request.scope;
  job.pageSize = request.pageSize;
  for (const MatchChoice& choice : request.match) {
    const FieldDetail field = fieldOrPath(api, org, detail, choice.field);
    MatchKind kind = choice.kind.value_or(Normalizer::guessKind(field.name, field.type, field.object));
    bool looseByDefault = kind == MatchKind::personName || kind == MatchKind::companyName;
    MatchMode mode = choice.mode.value_or(looseByDefault ? MatchMode::close : MatchMode::exact);
    creation.matchFields.push_back({field.name, field.label, kind, mode});
    job.matchFieldNames.push_back(field.name);
  }
  for (const std::string& name : request.extra) {
    const FieldDetail field = fieldOrPath(api, org, detail, name);
    creation.extraFields.push_back(field.name);
    job.extraFieldNames.push_back(field.name);
  }

  std::filesystem::path url = SnapshotCatalog::newURL(creation.orgId, detail.name);
  auto store = RecordStore::create(url, creation);
  announce(onProgress, url,
           "Downloading " + detail.label + " records from " + org.username + " into " +
               url.string());
  try {
    return run(api, org, *store, {job}, request.runner, stop, onProgress);
  } catch (...) {
    // A download that never got a job leaves nothing worth keeping.
    bool empty = store->meta("jobId").value_or("").empty() && store->recordCount() == 0;
    store->close();
    if (empty) SnapshotCatalog::remove(url);
    throw;
  }
}

DownloadOutcome resume(SalesforceAPI::Client& api, const FindLogin& findLogin,
                       const std::filesystem::path& snapshot, const std::string& login,
                       const BulkQueryRunner::Options& runner, std::stop_token stop,
                       const DedupeProgressHandler& onProgress) {
  std::shared_ptr<RecordStore> store = open(snapshot);
  SnapshotInfo info = store->info();
  std::string chosen = login.empty() ? info.downloadedBy : login;
  if (chosen.empty()) throw DedupeError::noLogin();
  const Org org = findLogin(chosen);
  if (!mayResume(snapshotOwner(info.downloadedBy, org.username))) {
    throw DedupeError::otherLogin(info.downloadedBy, org.username);
  }
  if (info.complete) return {snapshot, info.recordCount, false, true};
  announce(onProgress, snapshot,
           "Continuing the download of " + info.objectLabel + " after " +
               NumberText::grouped(info.recordCount) + " records");
  return run(api, org, *store, SnapshotDownloader::requestsFor(*store), runner, stop, onProgress);
}

Listing list(SalesforceAPI::Client& api, const FindLogin& findLogin, const std::string& login) {
  const Org org = findLogin(login);
  const std::string orgId = orgIdOf(api, org);
  Listing listing{org.username, SnapshotCatalog::snapshots(orgId), 0};
  if (!listing.snapshots.empty()) listing.bytesUsed = SnapshotCatalog::bytesUsed(orgId);
  return listing;
}

void remove(const std::filesystem::path& snapshot) {
  open(snapshot)->close();
  SnapshotCatalog::remove(snapshot);
}

}  // namespace corvane::SnapshotTask
