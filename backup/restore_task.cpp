#include "backup/restore_task.hpp"

#include <openssl/evp.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <map>
#include <functional>
#include <mutex>
#include <set>
#include <tuple>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "backup/backup_csv.hpp"
#include "backup/backup_rows.hpp"
#include "backup/backup_store.hpp"
#include "backup/file_download.hpp"
#include "backup/recycle_bin.hpp"
#include "backup/restore_journal.hpp"
#include "backup/safe_file_name.hpp"
#include "connections/api_allowance.hpp"
#include "connections/bulk_ingest_job.hpp"
#include "connections/server_time.hpp"
#include "connections/sobject_collection.hpp"
#include "platform/durable_file.hpp"
#include "platform/iso_time.hpp"

namespace corvane {

RestoreError RestoreError::noBackupYet(const BackupLocation& location) {
  return {Kind::noBackupYet, "There is no backup of " + location.username + " in " +
                                 location.root.string() + " yet, so there is nothing to restore from."};
}

RestoreError RestoreError::noSuchFolder(const std::string& folder) {
  return {Kind::noSuchFolder, "No finished backup is in the folder \"" + folder +
                                  "\". `corvane backup status` lists the backups and their folders."};
}

RestoreError RestoreError::nothingAsOf(const std::string& asOf) {
  return {Kind::nothingAsOf, "No finished backup was taken by " + asOf +
                                 " (UTC). Choose a later time, or leave --as-of out for the newest."};
}

RestoreError RestoreError::badAsOf(const std::string& asOf) {
  return {Kind::badAsOf, "\"" + asOf + "\" is not a time Corvane can read. Give it as "
                                       "YYYY-MM-DD or YYYY-MM-DDTHH:MM (UTC)."};
}

RestoreError RestoreError::unknownField(const std::string& object, const std::string& field) {
  return {Kind::unknownField, object + " has no field " + field +
                                  " that can be set. Name fields by their API names; nothing "
                                  "was changed."};
}

RestoreError RestoreError::allowanceTooLow(std::int64_t needed, std::int64_t remaining,
                                           std::int64_t max) {
  return {Kind::allowanceTooLow,
          fmt::format("This restore needs about {} API requests, and the org has {} of its {} "
                      "left today; that would leave less than a tenth. Nothing was written. Run "
                      "it again tomorrow, or restore fewer records at once.",
                      needed, remaining, max)};
}

RestoreError RestoreError::unreadableReply(const std::string& what) {
  return {Kind::unreadableReply,
          "Salesforce's answer to " + what + " could not be read. Nothing more was written; run "
          "the same restore again to go on."};
}

namespace RestoreTask {

std::string actionText(Record::Action action) {
  switch (action) {
    case Record::Action::undelete: return "undelete";
    case Record::Action::create: return "create";
    case Record::Action::update: return "update";
    case Record::Action::skip: return "skip";
  }
  return "skip";
}

std::size_t Plan::toWrite() const {
  return static_cast<std::size_t>(std::count_if(records.begin(), records.end(), [](const auto& r) {
    return r.action != Record::Action::skip;
  }));
}

namespace {

using Action = Record::Action;
using Json = nlohmann::json;

constexpr std::size_t batchSize = SObjectCollection::maxRecords;
// Creates of more records than this go through Bulk API ingest jobs, of at most bulkJobSize each.
constexpr std::size_t collectionsUpTo = 2000;
constexpr std::size_t bulkJobSize = 10'000;
// How far before a batch left the reconciling looks for what it created.
constexpr auto clockMargin = std::chrono::minutes(5);

std::string id15(std::string_view id) { return std::string(id.substr(0, 15)); }

bool sameText(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

// Whether text may be sent as a JSON number as it stands.
bool isNumberText(std::string_view text) {
  std::size_t at = 0;
  if (at < text.size() && text[at] == '-') ++at;
  const std::size_t digits = at;
  while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) ++at;
  if (at == digits) return false;
  if (at < text.size() && text[at] == '.') {
    ++at;
    const std::size_t fraction = at;
    while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) ++at;
    if (at == fraction) return false;
  }
  if (at < text.size() && (text[at] == 'e' || text[at] == 'E')) {
    ++at;
    if (at < text.size() && (text[at] == '+' || text[at] == '-')) ++at;
    const std::size_t exponent = at;
    while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) ++at;
    if (at == exponent) return false;
  }
  return at == text.size();
}

// A JSON value as the text a backup CSV holds for it.
std::string textOf(const Json& value) {
  if (value.is_null()) return {};
  if (value.is_string()) return value.get<std::string>();
  if (value.is_boolean()) return value.get<bool>() ? "true" : "false";
  return value.dump();
}

// Two values of one field compared as Salesforce means them: numbers by value,
// date-times to the second, booleans without regard to case.
bool sameValue(const std::string& a, const std::string& b, const std::string& type) {
  if (a == b) return true;
  if (a.empty() || b.empty()) return false;
  if (type == "int" || type == "double" || type == "currency" || type == "percent" ||
      type == "long") {
    if (isNumberText(a) && isNumberText(b)) return std::stod(a) == std::stod(b);
    return false;
  }
  if (type == "datetime" && a.size() >= 19 && b.size() >= 19) return a.substr(0, 19) == b.substr(0, 19);
  if (type == "boolean") return sameText(a, b);
  return false;
}

struct FieldInfo {
  std::string name;
  std::string type;
  bool createable = false;
  bool updateable = false;
  bool calculated = false;
  std::vector<std::string> referenceTo;
};

struct ObjectInfo {
  std::string name;
  std::vector<FieldInfo> fields;

  const FieldInfo* field(std::string_view name) const {
    for (const auto& f : fields)
      if (sameText(f.name, name)) return &f;
    return nullptr;
  }
};

ObjectInfo describe(DedupeTransport& transport, const std::string& object) {
  const Json reply =
      Json::parse(transport.send("GET", "sobjects/" + object + "/describe", {}, std::nullopt),
                  nullptr, false);
  if (!reply.is_object() || !reply.contains("fields") || !reply["fields"].is_array())
    throw RestoreError::unreadableReply("the description of " + object);
  ObjectInfo info{reply.value("name", object), {}};
  for (const auto& entry : reply["fields"]) {
    if (!entry.is_object()) continue;
    FieldInfo field;
    field.name = entry.value("name", "");
    field.type = entry.value("type", "");
    field.createable = entry.value("createable", false);
    field.updateable = entry.value("updateable", false);
    field.calculated = entry.value("calculated", false);
    if (auto targets = entry.find("referenceTo"); targets != entry.end() && targets->is_array())
      for (const auto& target : *targets)
        if (target.is_string()) field.referenceTo.push_back(target.get<std::string>());
    if (!field.name.empty()) info.fields.push_back(std::move(field));
  }
  return info;
}

// Key prefix -> object name, from the org's list of objects.
std::map<std::string, std::string> keyPrefixes(DedupeTransport& transport) {
  const Json reply = Json::parse(transport.send("GET", "sobjects", {}, std::nullopt), nullptr, false);
  std::map<std::string, std::string> prefixes;
  if (!reply.is_object() || !reply.contains("sobjects") || !reply["sobjects"].is_array())
    throw RestoreError::unreadableReply("the list of objects");
  for (const auto& entry : reply["sobjects"]) {
    if (!entry.is_object() || !entry.contains("keyPrefix") || !entry["keyPrefix"].is_string())
      continue;
    prefixes.emplace(entry["keyPrefix"].get<std::string>(), entry.value("name", ""));
  }
  return prefixes;
}

// Every record of a query, page after page.
void queryEach(DedupeTransport& transport, const std::string& resource, const std::string& soql,
               const std::function<void(const Json&)>& each) {
  std::string path = resource;
  QueryItems items{{"q", soql}};
  while (true) {
    const Json page = Json::parse(transport.send("GET", path, items, std::nullopt), nullptr, false);
    if (!page.is_object()) throw RestoreError::unreadableReply("a query");
    if (auto records = page.find("records"); records != page.end() && records->is_array())
      for (const auto& record : *records)
        if (record.is_object()) each(record);
    auto next = page.find("nextRecordsUrl");
    if (page.value("done", true) || next == page.end() || !next->is_string()) return;
    path = next->get<std::string>();
    items.clear();
  }
}

// "'a', 'b'" of ids, each reduced to the characters an id may hold.
std::string idList(const std::vector<std::string>& ids) {
  std::string text;
  for (const auto& id : ids) {
    std::string clean;
    for (char c : id)
      if (std::isalnum(static_cast<unsigned char>(c))) clean += c;
    text += text.empty() ? "'" : ", '";
    text += clean + "'";
  }
  return text;
}

// Calls each with slices of at most batchSize ids.
void inSlices(const std::vector<std::string>& ids,
              const std::function<void(const std::vector<std::string>&)>& each) {
  for (std::size_t from = 0; from < ids.size(); from += batchSize) {
    each(std::vector<std::string>(
        ids.begin() + static_cast<std::ptrdiff_t>(from),
        ids.begin() + static_cast<std::ptrdiff_t>(std::min(ids.size(), from + batchSize))));
  }
}

enum class Standing { live, inTheBin, gone };

// Where each id stands in the org, by 15-character id.
std::map<std::string, Standing> standing(DedupeTransport& transport, const std::string& object,
                                         const std::vector<std::string>& ids) {
  std::map<std::string, Standing> found;
  for (const auto& id : ids) found[id15(id)] = Standing::gone;
  inSlices(ids, [&](const std::vector<std::string>& slice) {
    queryEach(transport, "queryAll",
              "SELECT Id, IsDeleted FROM " + object + " WHERE Id IN (" + idList(slice) + ")",
              [&](const Json& record) {
                const bool deleted = record.value("IsDeleted", false);
                found[id15(textOf(record.value("Id", Json())))] =
                    deleted ? Standing::inTheBin : Standing::live;
              });
  });
  return found;
}

// Objects whose rows go with another record and are never restored on their own.
bool goesWithAnother(std::string_view object) {
  auto endsWith = [&](std::string_view end) {
    return object.size() >= end.size() && object.substr(object.size() - end.size()) == end;
  };
  return object == "ContentVersion" || object == "ContentDocument" ||
         object == "ContentDocumentLink" || endsWith("Share") || endsWith("History") ||
         endsWith("Feed");
}

// Whether Salesforce's error code means that the record itself is refused,
// so that sending it again as it is would fail again. A row lock or an
// error of Salesforce's own passes.
bool refusedForGood(std::string_view code) {
  if (code.empty()) return false;
  for (std::string_view passing : {"UNABLE_TO_LOCK_ROW", "UNKNOWN_EXCEPTION", "SERVER_UNAVAILABLE",
                                   "REQUEST_RUNNING_TOO_LONG", "REQUEST_LIMIT_EXCEEDED"})
    if (code.substr(0, passing.size()) == passing) return false;
  return true;
}

// A further link of a document: ContentDocumentLink with the record it links.
bool isLink(const Record& record) {
  return record.object == "ContentDocumentLink" && !record.parentId.empty();
}

// A link's old id in the journal: the document's and the record's 15-character ids.
std::string linkKey(const Record& link) { return id15(link.documentId) + id15(link.parentId); }

// The id a record has in the journal.
std::string journalId(const Record& record) {
  return isLink(record) ? linkKey(record) : record.id;
}

// The action a record's batch has in the journal.
std::string journalAction(const Record& record) {
  if (isLink(record)) return "link";
  if (record.patch) return "patch";
  if (record.object == "ContentVersion" && !record.parentId.empty()) return "upload";
  return actionText(record.action);
}

// Why a document is not uploaded: its body is not the one Salesforce had.
std::string damagedBody() {
  return "Its body in the Files folder does not match the checksum Salesforce gave for it.";
}

// The values an update of a live record writes, as the journal keeps them:
// {"Field": "text"}. A refused update is left alone until they change.
std::string updateText(const Record& record) {
  Json fields = Json::object();
  for (const auto& value : record.values) fields[value.field] = value.text;
  return fields.dump();
}

// References left empty, as the journal keeps them: {"Field": "old id"}.
std::string emptiedText(const Record& record) {
  if (record.emptied.empty()) return {};
  Json fields = Json::object();
  for (const auto& value : record.emptied) fields[value.field] = value.text;
  return fields.dump();
}

std::string orgKeyOf(const BackupLocation& location) {
  return location.orgKey + "/" + location.username;
}

// The usable run the values come from.
BackupStore::Run chosenRun(BackupStore& store, const Request& request) {
  std::optional<BackupStore::Run> chosen;
  std::optional<SystemTime> asOf;
  if (!request.asOf.empty()) {
    if (request.asOf.size() == 10) {
      if (auto day = IsoTime::parseDay(request.asOf)) asOf = *day + std::chrono::hours(24) - std::chrono::seconds(1);
    } else if (request.asOf.size() == 16) {
      asOf = IsoTime::parsePlain(request.asOf + ":00Z");
    }
    if (!asOf) throw RestoreError::badAsOf(request.asOf);
  }
  for (const auto& run : store.runs()) {
    if (!run.isUsable()) continue;
    if (!request.from.empty() && run.folder != request.from) continue;
    if (asOf) {
      auto started = IsoTime::parsePlain(run.startedAt);
      if (!started || *started > *asOf) continue;
    }
    chosen = run;  // runs come oldest first: the last one wins
  }
  if (!chosen) {
    if (!request.from.empty()) throw RestoreError::noSuchFolder(request.from);
    if (asOf) throw RestoreError::nothingAsOf(request.asOf);
    throw RestoreError::noBackupYet(request.location);
  }
  return *chosen;
}

std::vector<std::string> deletedIds(BackupStore& store, const std::string& object) {
  auto statement = store.db().prepare(
      "SELECT id FROM known_ids WHERE object = ? AND deleted = 1 ORDER BY deleted_at, id");
  statement.bindText(1, object);
  std::vector<std::string> ids;
  while (statement.step()) ids.push_back(statement.columnText(0));
  return ids;
}

// The literal a field's value goes out as.
FieldValue::Literal literalOf(const FieldInfo& field, const std::string& text) {
  const std::string& type = field.type;
  if (type == "reference") return FieldValue::Literal::reference;
  if (type == "boolean" && (sameText(text, "true") || sameText(text, "false")))
    return FieldValue::Literal::boolean;
  if ((type == "int" || type == "double" || type == "currency" || type == "percent" ||
       type == "long") &&
      isNumberText(text))
    return FieldValue::Literal::number;
  return FieldValue::Literal::string;
}

void appendValue(std::string& out, const FieldValue& value, const std::string& text) {
  if (text.empty()) {
    out += "null";
  } else if (value.literal == FieldValue::Literal::boolean) {
    out += sameText(text, "true") ? "true" : "false";
  } else if (value.literal == FieldValue::Literal::number) {
    out += text;
  } else {
    out += Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
  }
}

// Everything plan() learned that run() needs too.
struct Planner {
  BackupTransport& transport;
  const Request& request;
  RestoreJournal& journal;
  std::stop_token stop;
  const ProgressHandler& onProgress;

  std::unique_ptr<BackupStore> store;
  BackupStore::Run run;
  std::map<std::string, RestoreJournal::Entry> earlier;  // by 15-character old id
  std::map<std::string, ObjectInfo> described;
  Plan plan;

  // The id as the backup knows it: a 15-character id given by hand matches
  // the 18-character one the backup holds.
  std::string fullId(const std::string& id) {
    if (id.size() != 15) return id;
    auto statement = store->db().prepare(
        "SELECT id FROM known_ids WHERE object = ? AND substr(id, 1, 15) = ? LIMIT 1");
    statement.bindText(1, request.object).bindText(2, id);
    return statement.step() ? statement.columnText(0) : id;
  }

  const ObjectInfo& info(const std::string& object) {
    auto found = described.find(object);
    if (found == described.end()) found = described.emplace(object, describe(transport, object)).first;
    return found->second;
  }

  Plan make() {
    std::error_code error;
    if (!std::filesystem::exists(request.location.databaseURL(), error))
      throw RestoreError::noBackupYet(request.location);
    report(onProgress, Phase::reading, 0, 0, request.object);
    store = std::make_unique<BackupStore>(request.location);
    run = chosenRun(*store, request);
    plan.folder = run.folder;
    earlier = journal.entries(orgKeyOf(request.location));

    std::vector<std::string> ids;
    std::set<std::string> seen;
    auto add = [&](const std::string& id) {
      if (!id.empty() && seen.insert(id15(id)).second) ids.push_back(id);
    };
    for (const auto& id : request.ids) add(fullId(id));
    if (request.deleted)
      for (const auto& id : deletedIds(*store, request.object)) add(id);

    const ObjectInfo& main = info(request.object);
    if (!request.fields.empty()) {
      planUpdates(main, ids);
      return std::move(plan);
    }
    report(onProgress, Phase::checking, 0, static_cast<std::int64_t>(ids.size()), request.object);
    auto rows = BackupRows::lastKnown(*store, request.object, {ids.begin(), ids.end()}, run.id + 1);
    std::set<std::string> chosen;  // 15-character ids of records restored now or earlier
    classify(main, ids, rows, 0, chosen);
    if (request.withChildren) addChildren(chosen);
    resolveReferences();
    planPatches();
    order();
    if (request.withChildren) addDocuments();
    return std::move(plan);
  }

  // Records an earlier run created with references left empty get those
  // references pointed at the records they name, once those are restored
  // (by this plan, or by a run since).
  void planPatches() {
    std::set<std::string> restoredNow;
    for (const auto& record : plan.records)
      if (record.action == Action::undelete || record.action == Action::create)
        restoredNow.insert(id15(record.id));
    for (const auto& [key, entry] : earlier) {
      if (entry.action != "create" || entry.state != "done" || entry.emptied.empty()) continue;
      const Json emptied = Json::parse(entry.emptied, nullptr, false);
      if (!emptied.is_object()) continue;
      Record record;
      record.object = entry.object;
      record.id = entry.oldId;
      record.newId = entry.newId;
      record.patch = true;
      std::string fields;
      for (const auto& [field, target] : emptied.items()) {
        if (!target.is_string()) continue;
        const std::string text = target.get<std::string>();
        auto done = earlier.find(id15(text));
        const bool restored =
            restoredNow.count(id15(text)) ||
            (done != earlier.end() && done->second.state == "done" &&
             (done->second.action == "create" || done->second.action == "undelete"));
        FieldValue value{field, text, FieldValue::Literal::reference};
        if (!restored) {
          record.emptied.push_back(std::move(value));
          continue;
        }
        fields += (fields.empty() ? "" : ", ") + field;
        record.changes.push_back({field, "", text});
        record.values.push_back(std::move(value));
      }
      if (record.values.empty()) continue;
      auto patched = earlier.find(RestoreJournal::keyOf("patch", entry.oldId));
      if (!request.retryFailed && patched != earlier.end() && patched->second.state == "refused") {
        failedBefore(record, patched->second);
        record.changes.clear();
      } else {
        record.action = Action::update;
        record.reason = "It was restored as " + entry.newId + " with " + fields +
                        " left empty; the record that names is back now.";
      }
      plan.records.push_back(std::move(record));
    }
  }

  // One object's records: skip, undelete or create, by where each stands.
  void classify(const ObjectInfo& object, const std::vector<std::string>& ids,
                const std::map<std::string, BackupRows::Row>& rows, int level,
                std::set<std::string>& chosen) {
    throwIfStopped(stop);
    auto where = standing(transport, object.name, ids);
    for (const auto& id : ids) {
      Record record;
      record.object = object.name;
      record.id = id;
      record.level = level;
      auto done = earlier.find(id15(id));
      const Standing standingNow = where[id15(id)];
      auto refusedBefore = [&](const char* action) {
        return !request.retryFailed && done != earlier.end() && done->second.state == "refused" &&
               done->second.action == action;
      };
      if (done != earlier.end() && done->second.state == "done" && done->second.action == "create") {
        record.reason = "Restored earlier as " + done->second.newId + ".";
        record.newId = done->second.newId;
        record.result = "restoredEarlier";
        chosen.insert(id15(id));
      } else if (standingNow == Standing::live) {
        record.reason = "It is live in the org.";
        record.newId = id;
        if (done != earlier.end() && done->second.state == "done") {
          record.result = "restoredEarlier";
          chosen.insert(id15(id));
        }
      } else if (standingNow == Standing::inTheBin && refusedBefore("undelete")) {
        failedBefore(record, done->second);
        chosen.insert(id15(id));
      } else if (standingNow == Standing::inTheBin) {
        record.action = Action::undelete;
        chosen.insert(id15(id));
      } else {
        auto row = rows.find(id);
        if (row == rows.end()) {
          record.reason = "No backup up to " + plan.folder + " holds it.";
        } else if (refusedBefore("create")) {
          failedBefore(record, done->second);
          chosen.insert(id15(id));
        } else {
          record.action = Action::create;
          for (const auto& [name, text] : row->second) {
            const FieldInfo* field = object.field(name);
            if (field == nullptr || !field->createable || field->calculated || text.empty() ||
                field->type == "id" || field->type == "address" || field->type == "location" ||
                field->type == "base64")
              continue;
            record.values.push_back({field->name, text, literalOf(*field, text)});
          }
          chosen.insert(id15(id));
        }
      }
      plan.records.push_back(std::move(record));
    }
  }

  // Why a document's body in the Files folder cannot be uploaded as it
  // stands; empty when it can.
  std::string bodyProblem(const Record& record) const {
    if (record.checksum.empty()) return {};
    try {
      const auto path = request.location.filesFolder() / SafeFileName::clean(record.file);
      return sameText(FileDownload::md5Hex(path), record.checksum) ? std::string() : damagedBody();
    } catch (const std::exception& error) {
      return std::string("Its body in the Files folder could not be read: ") + error.what();
    }
  }

  // A record Salesforce refused in an earlier run, left alone.
  static void failedBefore(Record& record, const RestoreJournal::Entry& entry) {
    record.reason = "failed in an earlier run: " + entry.message;
    record.result = "failedEarlier";
    record.message = entry.message;
  }

  // Deleted records of other objects that pointed at the chosen ones, level by level.
  void addChildren(std::set<std::string>& chosen) {
    std::vector<std::string> objects;
    {
      auto statement = store->db().prepare(
          "SELECT DISTINCT object FROM known_ids WHERE deleted = 1 AND object != ? ORDER BY object");
      statement.bindText(1, request.object);
      while (statement.step()) {
        auto name = statement.columnText(0);
        if (!goesWithAnother(name)) objects.push_back(name);
      }
    }
    std::set<std::string> chosenObjects{request.object};
    for (int level = 1; level <= 3; ++level) {
      bool added = false;
      for (const auto& object : objects) {
        if (chosenObjects.count(object)) continue;
        throwIfStopped(stop);
        const ObjectInfo& child = info(object);
        std::vector<const FieldInfo*> pointers;
        for (const auto& field : child.fields)
          for (const auto& target : field.referenceTo)
            if (chosenObjects.count(target) && field.name != "OwnerId") {
              pointers.push_back(&field);
              break;
            }
        if (pointers.empty()) continue;
        const auto deleted = deletedIds(*store, object);
        auto rows = BackupRows::lastKnown(*store, object, {deleted.begin(), deleted.end()}, run.id + 1);
        std::vector<std::string> ids;
        for (const auto& id : deleted) {
          auto row = rows.find(id);
          if (row == rows.end()) continue;
          for (const auto* field : pointers) {
            auto value = row->second.find(field->name);
            if (value != row->second.end() && !value->second.empty() &&
                chosen.count(id15(value->second))) {
              ids.push_back(id);
              break;
            }
          }
        }
        if (ids.empty()) continue;
        classify(child, ids, rows, level, chosen);
        chosenObjects.insert(object);
        added = true;
      }
      if (!added) break;
    }
  }

  // Every reference of a record to create points at a live record, at one
  // restored now or earlier, or is left empty and reported.
  void resolveReferences() {
    std::set<std::string> restoredNow;  // undeleted or created by this plan
    for (const auto& record : plan.records)
      if (record.action == Action::undelete || record.action == Action::create)
        restoredNow.insert(id15(record.id));
    std::set<std::string> toCheck;
    for (const auto& record : plan.records)
      if (record.action == Action::create)
        for (const auto& value : record.values)
          if (value.literal == FieldValue::Literal::reference) {
            const auto key = id15(value.text);
            auto done = earlier.find(key);
            if (restoredNow.count(key) || (done != earlier.end() && done->second.state == "done"))
              continue;
            toCheck.insert(value.text);
          }
    std::set<std::string> live;      // 15-character ids found live
    std::set<std::string> users;     // 15-character ids of active users
    if (!toCheck.empty()) {
      const auto prefixes = keyPrefixes(transport);
      std::map<std::string, std::vector<std::string>> byObject;
      for (const auto& id : toCheck) {
        auto object = prefixes.find(id.substr(0, 3));
        if (object != prefixes.end()) byObject[object->second].push_back(id);
      }
      for (const auto& [object, ids] : byObject) {
        throwIfStopped(stop);
        inSlices(ids, [&](const std::vector<std::string>& slice) {
          std::string soql = "SELECT Id FROM " + object + " WHERE Id IN (" + idList(slice) + ")";
          if (object == "User")
            soql = "SELECT Id FROM User WHERE IsActive = true AND Id IN (" + idList(slice) + ")";
          try {
            queryEach(transport, "query", soql, [&](const Json& record) {
              const auto id = id15(textOf(record.value("Id", Json())));
              live.insert(id);
              if (object == "User") users.insert(id);
            });
          } catch (const RestoreError&) {
            throw;
          } catch (const std::exception&) {
            // An object the query cannot read: its ids are kept as they are,
            // and Salesforce says so per record if they are wrong.
            for (const auto& id : slice) live.insert(id15(id));
          }
        });
      }
    }
    for (auto& record : plan.records) {
      if (record.action != Action::create) continue;
      std::vector<FieldValue> kept;
      for (auto& value : record.values) {
        if (value.literal != FieldValue::Literal::reference) {
          kept.push_back(std::move(value));
          continue;
        }
        const auto key = id15(value.text);
        auto done = earlier.find(key);
        const bool restored =
            restoredNow.count(key) || (done != earlier.end() && done->second.state == "done");
        if (value.field == "OwnerId") {
          if (users.count(key) || restored) {
            kept.push_back(std::move(value));
          } else {
            if (!record.reason.empty()) record.reason += ' ';
            record.reason += "Its owner " + value.text +
                             " is not an active user; the org's default owner gets it.";
          }
          continue;
        }
        if (restored || live.count(key)) {
          kept.push_back(std::move(value));
        } else {
          record.unresolved.push_back(value.field + " (" + value.text + ")");
          record.emptied.push_back(std::move(value));
        }
      }
      record.values = std::move(kept);
    }
  }

  // Undeletes first (they keep their ids), then creates with parents before
  // children: by level, and within an object by how deep its own references go.
  void order() {
    std::map<std::string, std::size_t> createdAt;  // 15-character id -> index
    for (std::size_t at = 0; at < plan.records.size(); ++at)
      if (plan.records[at].action == Action::create) createdAt[id15(plan.records[at].id)] = at;
    std::vector<int> depth(plan.records.size(), 0);
    // References inside the set of records to create, followed to their roots.
    for (std::size_t at = 0; at < plan.records.size(); ++at) {
      if (plan.records[at].action != Action::create) continue;
      std::size_t current = at;
      std::set<std::size_t> visited{at};
      int steps = 0;
      for (bool moved = true; moved;) {
        moved = false;
        for (const auto& value : plan.records[current].values) {
          if (value.literal != FieldValue::Literal::reference) continue;
          auto parent = createdAt.find(id15(value.text));
          if (parent == createdAt.end() ||
              plan.records[parent->second].object != plan.records[current].object ||
              !visited.insert(parent->second).second)
            continue;
          current = parent->second;
          ++steps;
          moved = true;
          break;
        }
      }
      depth[at] = steps;
    }
    std::vector<std::size_t> indexes(plan.records.size());
    for (std::size_t at = 0; at < indexes.size(); ++at) indexes[at] = at;
    auto rank = [](Action action) {
      switch (action) {
        case Action::undelete: return 0;
        case Action::create: return 1;
        case Action::update: return 2;
        case Action::skip: return 3;
      }
      return 3;
    };
    std::stable_sort(indexes.begin(), indexes.end(), [&](std::size_t a, std::size_t b) {
      const auto& x = plan.records[a];
      const auto& y = plan.records[b];
      if (rank(x.action) != rank(y.action)) return rank(x.action) < rank(y.action);
      if (x.level != y.level) return x.level < y.level;
      return depth[a] < depth[b];
    });
    std::vector<Record> sorted;
    sorted.reserve(indexes.size());
    for (auto at : indexes) {
      sorted.push_back(std::move(plan.records[at]));
      sorted.back().level = sorted.back().level * 1000 + depth[at];
    }
    plan.records = std::move(sorted);
  }

  // The documents linked to records created again: their latest version, once each.
  void addDocuments() {
    std::set<std::string> created;
    for (const auto& record : plan.records)
      if (record.action == Action::create ||
          (record.result == "restoredEarlier" && record.newId != record.id))
        created.insert(id15(record.id));
    if (created.empty()) return;
    // Document id -> the records it is linked to (old ids), with the link's
    // ShareType and Visibility where the backup has them.
    struct Link {
      std::string record;
      std::string shareType;
      std::string visibility;
    };
    std::map<std::string, std::vector<Link>> documentRecords;
    std::set<std::pair<std::string, std::string>> linked;
    auto runs = store->runs();
    std::reverse(runs.begin(), runs.end());
    for (const auto& older : runs) {
      if (older.id > run.id || !older.isUsable()) continue;
      std::optional<std::string> data;
      try {
        data = Durable::readWhole(store->runFolder(older) / "FileLinks.csv");
      } catch (const std::exception&) {
        continue;
      }
      if (!data) continue;
      int shareTypeAt = -1;
      int visibilityAt = -1;
      try {
        BackupCSV::scan(
            *data,
            [&](const BackupCSV::Record& head) {
              for (std::size_t at = 0; at < head.fields.size(); ++at) {
                if (head.fields[at] == "ShareType") shareTypeAt = static_cast<int>(at);
                if (head.fields[at] == "Visibility") visibilityAt = static_cast<int>(at);
              }
            },
            [&](const BackupCSV::Record& link) {
              if (link.fields.size() < 2 || !created.count(id15(link.fields[1]))) return true;
              if (!linked.emplace(id15(link.fields[0]), id15(link.fields[1])).second) return true;
              auto cell = [&](int at) {
                return at >= 0 && static_cast<std::size_t>(at) < link.fields.size()
                           ? link.fields[static_cast<std::size_t>(at)]
                           : std::string();
              };
              documentRecords[link.fields[0]].push_back(
                  {link.fields[1], cell(shareTypeAt), cell(visibilityAt)});
              return true;
            });
      } catch (const BackupCSV::Unreadable&) {
      }
    }
    if (documentRecords.empty()) return;
    std::map<std::string, BackupStore::FileVersion> latest;  // by document id
    for (auto& version : store->fileVersions())
      if (version.object == "ContentVersion" && version.isLatest &&
          documentRecords.count(version.documentId))
        latest[version.documentId] = std::move(version);
    std::vector<Record> links;
    for (const auto& [document, records] : documentRecords) {
      auto version = latest.find(document);
      if (version == latest.end()) continue;
      Record record;
      record.object = "ContentVersion";
      record.id = version->second.id;
      record.parentId = records.front().record;
      record.documentId = document;
      record.file = version->second.nameOnDisk;
      record.checksum = version->second.checksum;
      record.level = 1'000'000;
      auto done = earlier.find(id15(record.id));
      if (done != earlier.end() && done->second.state == "done") {
        record.reason = "Uploaded earlier as " + done->second.newId + ".";
        record.newId = done->second.newId;
        record.result = "restoredEarlier";
      } else if (!version->second.downloaded) {
        record.reason = "Its body was never downloaded into the backup.";
      } else if (std::error_code missing; !std::filesystem::is_regular_file(
                     request.location.filesFolder() / SafeFileName::clean(record.file), missing)) {
        record.reason = "Its body is missing from the Files folder.";
      } else if (auto damaged = bodyProblem(record); !damaged.empty()) {
        record.reason = damaged;
      } else if (!request.retryFailed && done != earlier.end() && done->second.state == "refused") {
        failedBefore(record, done->second);
      } else {
        record.action = Action::create;
        record.values = {{"Title", version->second.title, FieldValue::Literal::string},
                         {"PathOnClient", SafeFileName::clean(version->second.nameOnDisk),
                          FieldValue::Literal::string}};
      }
      const bool uploaded = record.action == Action::create || record.result == "restoredEarlier";
      plan.records.push_back(std::move(record));
      if (!uploaded) continue;
      // The upload links the document to the first record; a link each for the others.
      for (std::size_t at = 1; at < records.size(); ++at) {
        Record link;
        link.object = "ContentDocumentLink";
        link.id = document;
        link.documentId = document;
        link.parentId = records[at].record;
        link.level = 1'000'001;
        link.values = {{"ContentDocumentId", document, FieldValue::Literal::reference},
                       {"LinkedEntityId", records[at].record, FieldValue::Literal::reference}};
        if (!records[at].shareType.empty())
          link.values.push_back({"ShareType", records[at].shareType, FieldValue::Literal::string});
        if (!records[at].visibility.empty())
          link.values.push_back({"Visibility", records[at].visibility, FieldValue::Literal::string});
        auto made = earlier.find(RestoreJournal::keyOf("link", linkKey(link)));
        if (made != earlier.end() && made->second.state == "done") {
          link.reason = "Linked earlier.";
          link.result = "restoredEarlier";
          link.values.clear();
        } else if (!request.retryFailed && made != earlier.end() && made->second.state == "refused") {
          failedBefore(link, made->second);
          link.values.clear();
        } else {
          link.action = Action::create;
          link.reason = "It links the document to " + link.parentId + " as well.";
        }
        links.push_back(std::move(link));
      }
    }
    for (auto& link : links) plan.records.push_back(std::move(link));
  }

  // --fields: live records get those fields back where they differ.
  void planUpdates(const ObjectInfo& object, const std::vector<std::string>& ids) {
    std::vector<const FieldInfo*> fields;
    for (const auto& name : request.fields) {
      const FieldInfo* field = object.field(name);
      if (field == nullptr || !field->updateable || field->calculated)
        throw RestoreError::unknownField(object.name, name);
      fields.push_back(field);
    }
    report(onProgress, Phase::checking, 0, static_cast<std::int64_t>(ids.size()), object.name);
    auto rows = BackupRows::lastKnown(*store, object.name, {ids.begin(), ids.end()}, run.id + 1);
    std::map<std::string, Json> now;  // 15-character id -> the org's record
    std::string list = "Id";
    for (const auto* field : fields) list += ", " + field->name;
    inSlices(ids, [&](const std::vector<std::string>& slice) {
      throwIfStopped(stop);
      queryEach(transport, "query",
                "SELECT " + list + " FROM " + object.name + " WHERE Id IN (" + idList(slice) + ")",
                [&](const Json& record) { now[id15(textOf(record.value("Id", Json())))] = record; });
    });
    for (const auto& id : ids) {
      Record record;
      record.object = object.name;
      record.id = id;
      auto live = now.find(id15(id));
      auto row = rows.find(id);
      auto done = earlier.find(id15(id));
      if (live == now.end()) {
        record.reason = "It is not live in the org; restore it without --fields first.";
      } else if (row == rows.end()) {
        record.reason = "No backup up to " + plan.folder + " holds it.";
      } else {
        for (const auto* field : fields) {
          auto backed = row->second.find(field->name);
          if (backed == row->second.end()) continue;  // the backup did not copy it
          std::string current;
          for (const auto& [name, value] : live->second.items())
            if (sameText(name, field->name)) current = textOf(value);
          if (sameValue(current, backed->second, field->type)) continue;
          record.changes.push_back({field->name, current, backed->second});
          record.values.push_back({field->name, backed->second, literalOf(*field, backed->second)});
        }
        if (record.changes.empty()) {
          record.reason = "Its values already match the backup.";
        } else if (!request.retryFailed && done != earlier.end() &&
                   done->second.action == "update" && done->second.state == "refused" &&
                   done->second.sentBody == updateText(record)) {
          failedBefore(record, done->second);
        } else {
          record.action = Action::update;
        }
      }
      plan.records.push_back(std::move(record));
    }
  }
};

std::string base64(std::string_view bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3), '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                     reinterpret_cast<const unsigned char*>(bytes.data()),
                                     static_cast<int>(bytes.size()));
  out.resize(static_cast<std::size_t>(length));
  return out;
}

// Writes the plan, batch by batch.
class Writer {
 public:
  Writer(BackupTransport& transport, const Request& request, RestoreJournal& journal,
         std::stop_token stop, const ProgressHandler& onProgress,
         std::chrono::system_clock::duration clockOffset)
      : transport_(transport),
        request_(request),
        journal_(journal),
        stop_(std::move(stop)),
        onProgress_(onProgress),
        org_(orgKeyOf(request.location)),
        clockOffset_(clockOffset) {
    for (const auto& [key, entry] : journal_.entries(org_))
      if (entry.state == "done" && entry.action != "link" && entry.action != "patch")
        newIds_[key] = entry.newId;
  }

  // Learns from the org what became of every batch sent before a stop whose
  // reply never arrived, and records it. True when there was such a batch.
  bool settle() {
    std::map<std::pair<std::string, std::int64_t>, std::vector<RestoreJournal::Entry>> batches;
    for (auto& [key, entry] : journal_.entries(org_))
      if (entry.state == "sent") batches[{entry.object, entry.batch}].push_back(entry);
    for (auto& [which, entries] : batches) {
      report(onProgress_, Phase::resuming, 0, static_cast<std::int64_t>(entries.size()), which.first);
      if (!entries.front().jobId.empty()) {
        // A stop while the job runs leaves it to the next run again.
        if (!finishJob(entries.front().jobId, entries)) throwIfStopped(stop_);
      } else if (entries.front().action == "create" || entries.front().action == "upload") {
        findCreated(which.first, entries);
      } else {
        for (auto& entry : entries) {
          entry.state = "failed";
          entry.message = "Sent before a stop without an answer; sent again.";
        }
      }
      journal_.recordOutcomes(org_, entries);
      for (const auto& entry : entries)
        if (entry.state == "done" && entry.action != "link" && entry.action != "patch")
          newIds_[id15(entry.oldId)] = entry.newId;
    }
    return !batches.empty();
  }

  void write(Result& result) {
    auto& records = result.plan.records;
    records_ = &records;
    const auto total = static_cast<std::int64_t>(result.plan.toWrite());
    const auto creates = std::count_if(records.begin(), records.end(), [](const Record& r) {
      return r.action == Action::create && r.parentId.empty();
    });
    const bool bulk = creates > static_cast<std::ptrdiff_t>(collectionsUpTo);
    std::int64_t done = 0;
    for (std::size_t from = 0; from < records.size();) {
      const Record& first = records[from];
      if (first.action == Action::skip) {
        ++from;
        continue;
      }
      std::size_t to = from;
      const bool upload = first.object == "ContentVersion" && !first.parentId.empty();
      const bool byBulk = bulk && first.parentId.empty() && first.action == Action::create;
      const std::size_t most = upload ? 1 : byBulk ? bulkJobSize : batchSize;
      while (to < records.size() && to - from < most &&
             records[to].action == first.action && records[to].object == first.object &&
             records[to].level == first.level)
        ++to;
      if (stop_.stop_requested()) {
        result.stopped = true;
        break;
      }
      std::vector<Record*> batch;
      for (std::size_t at = from; at < to; ++at) batch.push_back(&records[at]);
      const Phase phase = upload ? Phase::uploading
                          : first.action == Action::undelete ? Phase::undeleting
                          : first.action == Action::create   ? Phase::creating
                                                             : Phase::updating;
      report(onProgress_, phase, done, total, first.object);
      if (upload) {
        uploadDocument(*batch.front());
      } else if (isLink(first)) {
        link(batch);
      } else if (byBulk) {
        createByBulk(batch);
      } else if (first.action == Action::undelete) {
        undelete(batch);
      } else {
        save(batch);
      }
      done += static_cast<std::int64_t>(batch.size());
      from = to;
    }
    for (auto& record : records) {
      if (record.action != Action::skip && record.result.empty()) {
        record.result = "notSent";
        // A stop while the last batch's Bulk API job ran.
        if (stop_.stop_requested()) result.stopped = true;
      }
      if (record.result == "restored") ++result.restored;
      if (record.result == "failed") ++result.failed;
      if (record.result == "restoredEarlier") ++result.earlier;
      if (record.result == "failedEarlier") ++result.failedEarlier;
    }
    report(onProgress_, Phase::finished, done, total);
  }

 private:
  std::string now() const {
    return IsoTime::formatFractional(std::chrono::system_clock::now() + clockOffset_);
  }

  void sending(const std::vector<Record*>& batch, const std::string& action,
               const std::vector<std::string>& bodies, const std::string& jobId = {}) {
    const auto number = journal_.nextBatch(org_);
    const auto at = now();
    std::vector<RestoreJournal::Entry> entries;
    for (std::size_t i = 0; i < batch.size(); ++i)
      entries.push_back({batch[i]->object, journalId(*batch[i]), action, "sent", "", "", number,
                         at, i < bodies.size() ? bodies[i] : std::string(), jobId,
                         emptiedText(*batch[i])});
    journal_.recordSending(org_, entries);
  }

  void outcome(const std::vector<Record*>& batch, const std::string& action) {
    std::vector<RestoreJournal::Entry> entries;
    for (auto* record : batch) {
      RestoreJournal::Entry entry;
      entry.object = record->object;
      entry.oldId = journalId(*record);
      entry.action = action;
      entry.state = record->result == "restored" ? "done"
                    : refused_.count(record)     ? "refused"
                                                 : "failed";
      entry.newId = record->newId;
      entry.message = record->message;
      entry.emptied = emptiedText(*record);
      entries.push_back(std::move(entry));
      if (record->result == "restored" && !isLink(*record) && !record->patch)
        newIds_[id15(record->id)] = record->newId;
    }
    journal_.recordOutcomes(org_, entries);
  }

  // One record's fields as JSON members (without braces), references pointed
  // at the records' ids now; a reference to a record that failed is left out.
  // One record's values with references pointed at the records' ids now; a
  // reference to a record that failed is left out and named.
  std::vector<std::pair<const FieldValue*, std::string>> resolved(Record& record, bool forUpdate) {
    std::vector<std::pair<const FieldValue*, std::string>> out;
    for (const auto& value : record.values) {
      std::string text = value.text;
      if (value.literal == FieldValue::Literal::reference && !text.empty()) {
        auto now = newIds_.find(id15(text));
        if (now != newIds_.end()) {
          text = now->second;
        } else if (failed_.count(id15(text))) {
          record.unresolved.push_back(value.field + " (" + value.text + ")");
          record.emptied.push_back(value);
          continue;
        }
      }
      if (text.empty() && !forUpdate) continue;
      out.emplace_back(&value, std::move(text));
    }
    return out;
  }

  // One record's fields as JSON members (without braces).
  std::string members(Record& record, bool forUpdate) {
    std::string out;
    for (const auto& [value, text] : resolved(record, forUpdate)) {
      if (!out.empty()) out += ',';
      out += Json(value->field).dump();
      out += ':';
      appendValue(out, *value, text);
    }
    return out;
  }

  // Creates through a Bulk API ingest job: the job is in the journal before
  // the rows are uploaded, so a stop anywhere leaves a job to ask about.
  void createByBulk(const std::vector<Record*>& batch) {
    std::vector<std::string> header;
    std::vector<Json> bodies;
    for (auto* record : batch) {
      Json body = Json::object();
      for (const auto& [value, text] : resolved(*record, false)) {
        if (std::find(header.begin(), header.end(), value->field) == header.end())
          header.push_back(value->field);
        body[value->field] = text;
      }
      bodies.push_back(std::move(body));
    }
    std::string csv;
    for (std::size_t at = 0; at < header.size(); ++at) {
      if (at > 0) csv += ',';
      BulkIngestJob::appendCell(csv, header[at]);
    }
    csv += '\n';
    for (const auto& body : bodies) {
      for (std::size_t at = 0; at < header.size(); ++at) {
        if (at > 0) csv += ',';
        auto cell = body.find(header[at]);
        if (cell != body.end()) BulkIngestJob::appendCell(csv, cell->get<std::string>());
      }
      csv += '\n';
    }
    const auto job = BulkIngestJob::create(transport_, batch.front()->object, "insert");
    std::vector<std::string> sent;
    for (const auto& body : bodies) sent.push_back(body.dump());
    sending(batch, "create", sent, job.id);
    BulkIngestJob::upload(transport_, job.id, csv);
    BulkIngestJob::setState(transport_, job.id, "UploadComplete");
    std::vector<RestoreJournal::Entry> entries;
    for (std::size_t i = 0; i < batch.size(); ++i) {
      RestoreJournal::Entry entry;
      entry.object = batch[i]->object;
      entry.oldId = batch[i]->id;
      entry.sentBody = sent[i];
      entry.jobId = job.id;
      entries.push_back(std::move(entry));
    }
    if (!finishJob(job.id, entries)) {
      // Stopped while the job runs: its rows stay "sent" with the job's id,
      // and the next run reads what the job did.
      for (auto* record : batch)
        record->message = "Its Bulk API job was still running at the stop; the next run reads "
                          "its results.";
      return;
    }
    for (std::size_t i = 0; i < batch.size(); ++i) {
      auto& record = *batch[i];
      if (entries[i].state == "done") {
        record.result = "restored";
        record.newId = entries[i].newId;
      } else {
        record.result = "failed";
        record.message = entries[i].message;
        if (entries[i].state == "refused") refused_.insert(&record);
        failed_.insert(id15(record.id));
      }
    }
    outcome(batch, "create");
  }

  // Waits for an ingest job to finish and reads each entry's outcome from its
  // result files, matched by the cells sent: rows Salesforce turned down are
  // refused, rows the job did not write are failed, to be sent again. False,
  // with the entries untouched, when a stop came while the job ran.
  bool finishJob(const std::string& id, std::vector<RestoreJournal::Entry>& entries) {
    auto job = BulkIngestJob::status(transport_, id);
    if (job.state == "Open") job = BulkIngestJob::setState(transport_, id, "Aborted");
    for (auto wait = std::chrono::milliseconds(50); !job.finished();
         wait = std::min(wait * 2, std::chrono::milliseconds(2000))) {
      if (!pause(wait)) return false;
      job = BulkIngestJob::status(transport_, id);
    }
    for (auto& entry : entries) {
      entry.state = "failed";
      entry.message = job.state == "JobComplete"
                          ? "Salesforce reported nothing for it; sent again."
                          : "The Bulk API job " + job.state + (job.errorMessage.empty() ? "" : ": " + job.errorMessage);
    }
    if (job.state == "Aborted" && job.errorMessage.empty()) {
      for (auto& entry : entries) entry.message = "Not written before the stop; sent again.";
    }
    if (job.state != "JobComplete") return true;
    // The rows sent, by their cells in the order of the result file's columns.
    const auto [successful, failedRows] = BulkIngestJob::resultFiles(transport_, id);
    std::vector<Json> sent;
    for (const auto& entry : entries) sent.push_back(Json::parse(entry.sentBody, nullptr, false));
    auto read = [&](const std::string& text, bool success) {
      std::vector<std::string> columns;
      std::map<std::string, std::deque<std::size_t>> waiting;
      try {
        BackupCSV::scan(
            text,
            [&](const BackupCSV::Record& head) {
              columns.assign(head.fields.begin() + std::min<std::size_t>(2, head.fields.size()),
                             head.fields.end());
              for (std::size_t i = 0; i < entries.size(); ++i) {
                if (entries[i].state == "done" || !sent[i].is_object()) continue;
                std::string key;
                for (const auto& column : columns) {
                  auto cell = sent[i].find(column);
                  if (cell != sent[i].end()) key += textOf(*cell);
                  key += '\x1f';
                }
                waiting[key].push_back(i);
              }
            },
            [&](const BackupCSV::Record& row) {
              std::string key;
              for (std::size_t at = 0; at < columns.size(); ++at) {
                if (at + 2 < row.fields.size()) key += row.fields[at + 2];
                key += '\x1f';
              }
              auto found = waiting.find(key);
              if (found == waiting.end() || found->second.empty()) return true;
              auto& entry = entries[found->second.front()];
              found->second.pop_front();
              if (success) {
                entry.state = "done";
                entry.newId = row.fields.empty() ? std::string() : row.fields[0];
                entry.message.clear();
              } else {
                entry.message = row.fields.size() > 1 && !row.fields[1].empty()
                                    ? row.fields[1]
                                    : std::string("Salesforce gave no reason.");
                // sf__Error reads "CODE:message".
                if (refusedForGood(entry.message.substr(0, entry.message.find(':'))))
                  entry.state = "refused";
              }
              return true;
            });
      } catch (const BackupCSV::Unreadable&) {
        throw RestoreError::unreadableReply("a Bulk API job's results");
      }
    };
    read(successful, true);
    read(failedRows, false);
    return true;
  }

  // Waits, or less when a stop comes first. False when stopped.
  bool pause(std::chrono::milliseconds wait) {
    std::mutex mutex;
    std::condition_variable_any woken;
    std::unique_lock lock(mutex);
    woken.wait_for(lock, stop_, wait, [] { return false; });
    return !stop_.stop_requested();
  }

  // Further links of documents uploaded now or earlier. A link whose document
  // or record is not in the org is failed here, unsent; one Salesforce
  // already has (DUPLICATE_VALUE) is done.
  void link(const std::vector<Record*>& batch) {
    std::map<std::string, std::string> versionOf;  // 15-character document id -> new version id
    for (const auto& record : *records_)
      if (record.object == "ContentVersion" && !record.documentId.empty() && !record.newId.empty() &&
          (record.result == "restored" || record.result == "restoredEarlier"))
        versionOf[id15(record.documentId)] = record.newId;
    std::map<std::string, std::string> documentOf;  // 15-character new version id -> old document id
    std::vector<std::string> versions;
    for (auto* record : batch) {
      if (newIds_.count(id15(record->documentId))) continue;
      auto version = versionOf.find(id15(record->documentId));
      if (version == versionOf.end() || documentOf.count(id15(version->second))) continue;
      documentOf[id15(version->second)] = record->documentId;
      versions.push_back(version->second);
    }
    inSlices(versions, [&](const std::vector<std::string>& slice) {
      queryEach(transport_, "query",
                "SELECT Id, ContentDocumentId FROM ContentVersion WHERE Id IN (" + idList(slice) + ")",
                [&](const Json& found) {
                  auto document = documentOf.find(id15(textOf(found.value("Id", Json()))));
                  const auto now = textOf(found.value("ContentDocumentId", Json()));
                  if (document != documentOf.end() && !now.empty())
                    newIds_[id15(document->second)] = now;
                });
    });
    std::vector<Record*> sendable;
    for (auto* record : batch) {
      if (!newIds_.count(id15(record->documentId))) {
        record->result = "failed";
        record->message = "The document was not uploaded again.";
      } else if (!newIds_.count(id15(record->parentId))) {
        record->result = "failed";
        record->message = "The record it belongs to was not restored.";
      } else {
        sendable.push_back(record);
      }
    }
    if (!sendable.empty()) save(sendable);
  }

  void save(const std::vector<Record*>& batch) {
    const bool create = batch.front()->action == Action::create;
    const std::string type = Json(batch.front()->object).dump();
    std::vector<std::string> bodies;
    std::string body = "{\"allOrNone\":false,\"records\":[";
    for (std::size_t i = 0; i < batch.size(); ++i) {
      std::string fields = members(*batch[i], !create);
      bodies.push_back("{" + fields + "}");
      if (i > 0) body += ',';
      body += "{\"attributes\":{\"type\":" + type + "}";
      // A patch writes the record as it is now, created by an earlier run.
      if (!create) body += ",\"id\":" + Json(batch[i]->patch ? batch[i]->newId : batch[i]->id).dump();
      if (!fields.empty()) body += "," + fields;
      body += '}';
    }
    body += "]}";
    const std::string action = journalAction(*batch.front());
    std::vector<std::string> kept;  // what the journal keeps of each record's body
    if (create) {
      kept = bodies;
    } else if (action == "update") {
      for (const Record* record : batch) kept.push_back(updateText(*record));
    }
    sending(batch, action, kept);
    const auto reply = transport_.send(create ? "POST" : "PATCH", "composite/sobjects", {}, body);
    const auto results = SObjectCollection::results(reply, batch.size());
    for (std::size_t i = 0; i < batch.size(); ++i) {
      auto& record = *batch[i];
      if (results[i].success) {
        record.result = "restored";
        if (!record.patch) record.newId = create ? results[i].id : record.id;
      } else if (isLink(record) && results[i].statusCode == "DUPLICATE_VALUE") {
        // Sent before a stop whose answer was lost, or linked by other means.
        record.result = "restored";
        record.message = "It was linked already.";
      } else {
        record.result = "failed";
        record.message = results[i].message;
        // Salesforce's own refusal stands for later runs; a missing result does not.
        if (refusedForGood(results[i].statusCode)) refused_.insert(&record);
        if (!isLink(record)) failed_.insert(id15(record.id));
      }
    }
    outcome(batch, action);
  }

  void undelete(const std::vector<Record*>& batch) {
    std::vector<std::string> ids;
    for (auto* record : batch) ids.push_back(record->id);
    sending(batch, "undelete", {});
    const auto results = RecycleBin::parseUndelete(
        transport_.postSOAP("undelete", RecycleBin::undeleteEnvelope(ids)), ids.size());
    std::vector<std::string> refused;
    for (std::size_t i = 0; i < batch.size(); ++i) {
      auto& record = *batch[i];
      if (i < results.size() && results[i].success) {
        record.result = "restored";
        record.newId = record.id;
      } else {
        record.result = "failed";
        record.message = i < results.size() ? results[i].reason : "Salesforce sent no result.";
        if (i < results.size() && refusedForGood(record.message.substr(0, record.message.find(':'))))
          refused_.insert(&record);
        refused.push_back(record.id);
      }
    }
    // A child that came back with its parent answers that it is not in the bin.
    if (!refused.empty()) {
      auto where = standing(transport_, batch.front()->object, refused);
      for (auto* record : batch)
        if (record->result == "failed" && where[id15(record->id)] == Standing::live) {
          record->result = "restored";
          record->newId = record->id;
          record->message = "It came back with the record it belongs to.";
          refused_.erase(record);
        }
    }
    for (auto* record : batch)
      if (record->result == "failed") failed_.insert(id15(record->id));
    outcome(batch, "undelete");
  }

  void uploadDocument(Record& record) {
    auto parent = newIds_.find(id15(record.parentId));
    if (parent == newIds_.end()) {
      record.result = "failed";
      record.message = "The record it belongs to was not restored.";
      return;
    }
    const auto path = request_.location.filesFolder() / SafeFileName::clean(record.file);
    std::optional<std::string> bytes;
    try {
      bytes = Durable::readWhole(path);
    } catch (const std::exception&) {
    }
    if (!bytes) {
      record.result = "failed";
      record.message = "Its body is missing from the Files folder.";
      return;
    }
    if (!record.checksum.empty() && !sameText(FileDownload::md5Hex(path), record.checksum)) {
      record.result = "failed";
      record.message = damagedBody();
      return;
    }
    std::string fields = members(record, false);
    fields += ",\"FirstPublishLocationId\":" + Json(parent->second).dump();
    sending({&record}, "upload", {"{" + fields + "}"});
    const std::string body = "{" + fields + ",\"VersionData\":\"" + base64(*bytes) + "\"}";
    std::string reply;
    try {
      reply = transport_.send("POST", "sobjects/ContentVersion", {}, body);
    } catch (const std::exception& error) {
      const auto failure = transport_.classify(error);
      if (failure.signedOut || failure.httpStatus == 0 || failure.httpStatus >= 500) throw;
      record.result = "failed";
      record.message = failure.message.empty() ? error.what() : failure.message;
      refused_.insert(&record);
      outcome({&record}, "upload");
      return;
    }
    const Json answer = Json::parse(reply, nullptr, false);
    if (answer.is_object() && answer.value("success", false) && answer.contains("id")) {
      record.result = "restored";
      record.newId = textOf(answer["id"]);
    } else {
      record.result = "failed";
      record.message = answer.is_object()
                           ? SObjectCollection::failureText(answer.value("errors", Json::array()))
                           : "Salesforce's answer could not be read.";
      if (answer.is_object()) refused_.insert(&record);
    }
    outcome({&record}, "upload");
  }

  // Matches records created since the batch left to the values it sent.
  void findCreated(const std::string& object, std::vector<RestoreJournal::Entry>& entries) {
    std::vector<Json> sent;
    std::set<std::string> names;
    for (const auto& entry : entries) {
      sent.push_back(Json::parse(entry.sentBody, nullptr, false));
      if (!sent.back().is_object()) continue;
      for (const auto& [name, value] : sent.back().items())
        if (value.is_string() || value.is_boolean() || value.is_number()) names.insert(name);
    }
    std::string list = "Id";
    for (const auto& name : names) list += ", " + name;
    auto since = IsoTime::parseFractional(entries.front().sentAt);
    const SystemTime from = (since ? *since : std::chrono::system_clock::now()) - clockMargin;
    std::set<std::string> claimed;
    for (const auto& [key, id] : newIds_) claimed.insert(id15(id));
    std::vector<Json> created;
    queryEach(transport_, "query",
              "SELECT " + list + " FROM " + object +
                  " WHERE CreatedDate >= " + ServerTime::soqlLiteral(from) + " ORDER BY CreatedDate",
              [&](const Json& record) {
                if (!claimed.count(id15(textOf(record.value("Id", Json()))))) created.push_back(record);
              });
    for (std::size_t i = 0; i < entries.size(); ++i) {
      auto& entry = entries[i];
      entry.state = "failed";
      entry.message = "Not created before the stop; sent again.";
      if (!sent[i].is_object()) continue;
      for (auto candidate = created.begin(); candidate != created.end(); ++candidate) {
        bool same = true;
        for (const auto& [name, value] : sent[i].items()) {
          std::string there;
          for (const auto& [field, held] : candidate->items())
            if (sameText(field, name)) there = textOf(held);
          const std::string type = value.is_number() ? "double" : value.is_boolean() ? "boolean"
                                                                                     : "datetime";
          if (!sameValue(textOf(value), there, type)) {
            same = false;
            break;
          }
        }
        if (!same) continue;
        entry.state = "done";
        entry.newId = textOf(candidate->value("Id", Json()));
        entry.message.clear();
        created.erase(candidate);
        break;
      }
    }
  }

  BackupTransport& transport_;
  const Request& request_;
  RestoreJournal& journal_;
  std::stop_token stop_;
  const ProgressHandler& onProgress_;
  std::string org_;
  std::chrono::system_clock::duration clockOffset_;
  std::map<std::string, std::string> newIds_;  // 15-character old id -> the id now
  std::set<std::string> failed_;               // 15-character old ids that failed this run
  std::set<const Record*> refused_;            // failed this run because Salesforce refused them
  std::vector<Record>* records_ = nullptr;     // the plan being written
};

std::filesystem::path journalPath(const Request& request) {
  return request.journal.empty() ? RestoreJournal::standardPath() : request.journal;
}

// Requests the writes of a plan take, about.
std::int64_t requestsNeeded(const Plan& plan) {
  std::int64_t requests = 4;
  std::map<std::tuple<std::string, int, int>, std::int64_t> groups;
  for (const auto& record : plan.records) {
    if (record.action == Action::skip) continue;
    if (record.object == "ContentVersion" && !record.parentId.empty()) {
      ++requests;
      continue;
    }
    ++groups[{record.object, static_cast<int>(record.action), record.level}];
  }
  std::int64_t creates = 0;
  for (const auto& [group, count] : groups)
    if (std::get<1>(group) == static_cast<int>(Action::create)) creates += count;
  const bool bulk = creates > static_cast<std::int64_t>(collectionsUpTo);
  for (const auto& [group, count] : groups) {
    // A job: create, upload, close, a few polls, two result files.
    const auto size = bulk && std::get<1>(group) == static_cast<int>(Action::create)
                          ? static_cast<std::int64_t>(bulkJobSize)
                          : static_cast<std::int64_t>(batchSize);
    const std::int64_t perBatch = size == static_cast<std::int64_t>(bulkJobSize) ? 10 : 1;
    requests += (count + size - 1) / size * perBatch;
  }
  return requests;
}

}  // namespace

Plan plan(BackupTransport& transport, const Request& request, std::stop_token stop,
          const ProgressHandler& onProgress) {
  RestoreJournal journal(journalPath(request));
  Planner planner{transport, request, journal, std::move(stop), onProgress, {}, {}, {}, {}, {}};
  return planner.make();
}

Result run(BackupTransport& transport, const Request& request, std::stop_token stop,
           const ProgressHandler& onProgress, const Plan* planned) {
  Result result;
  result.journal = journalPath(request);
  RestoreJournal journal(result.journal);
  const auto allowance = ApiAllowance::ready(transport);
  const auto offset = allowance.serverDate
                          ? *allowance.serverDate - std::chrono::system_clock::now()
                          : std::chrono::system_clock::duration::zero();
  Writer writer(transport, request, journal, stop, onProgress, offset);
  if (writer.settle() || !planned) {
    Planner planner{transport, request, journal, stop, onProgress, {}, {}, {}, {}, {}};
    result.plan = planner.make();
  } else {
    result.plan = *planned;
  }
  const auto needed = requestsNeeded(result.plan);
  if (result.plan.toWrite() > 0 && allowance.max > 0 && allowance.headroom(0.1) < needed)
    throw RestoreError::allowanceTooLow(needed, allowance.remaining, allowance.max);
  Writer fresh(transport, request, journal, stop, onProgress, offset);
  fresh.write(result);
  return result;
}

}  // namespace RestoreTask

}  // namespace corvane
