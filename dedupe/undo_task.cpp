#include "dedupe/undo_task.hpp"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "connections/api_transport.hpp"
#include "connections/sobject_collection.hpp"
#include "dedupe/dedupe_error.hpp"
#include "dedupe/merge_runner.hpp"
#include "dedupe/record_store.hpp"
#include "dedupe/undo_capture.hpp"
#include "platform/iso_time.hpp"

namespace corvane::UndoTask {

namespace {

using UndoCapture::idKey;
using UndoCapture::valueText;
using Status = GroupResult::Status;
using Json = nlohmann::json;

bool sameId(std::string_view a, std::string_view b) {
  return !a.empty() && !b.empty() && idKey(a) == idKey(b);
}

// Losers whose call went through, or may have.
std::vector<std::string> touchedLosers(const UndoGroup& group) {
  std::vector<std::string> out;
  for (const UndoRecord& loser : group.losers) {
    if (loser.state == "done" || loser.state == "unknown" || loser.state == "sending")
      out.push_back(loser.sfid);
  }
  return out;
}

// Whether a value read from the org now is the value journaled.
bool sameValue(const Json& now, const Json& journaled) {
  if (now.is_number() && journaled.is_number()) return now.get<double>() == journaled.get<double>();
  return valueText(now) == valueText(journaled) && now.is_null() == journaled.is_null();
}

// Whether a value read from the org now is the text an update wrote (numbers
// come back as numbers: "1500" is written, 1500.0 read).
bool sameAsWritten(const Json& now, const Json& written) {
  const std::string text = valueText(written);
  if (now.is_number() && !text.empty()) {
    char* end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    if (end != nullptr && *end == '\0') return now.get<double>() == number;
  }
  return valueText(now) == text;
}

// One record an update wrote: its fields' values before, and as written.
struct Updated {
  std::string sfid;
  Json before;
  Json written;
};

std::vector<Updated> updatedRecords(const UndoGroup& group) {
  std::vector<Updated> out;
  for (const UndoRecord& record : group.losers) {
    if (record.state != "done" && record.state != "unknown" && record.state != "sending") continue;
    const Json values = Json::parse(record.fields, nullptr, false);
    if (!values.is_object() || !values.contains("before") || !values.contains("written")) continue;
    out.push_back({record.sfid, values["before"], values["written"]});
  }
  return out;
}

std::vector<std::string> updatedFields(const UndoGroup& group) {
  std::set<std::string> fields;
  for (const Updated& record : updatedRecords(group)) {
    for (const auto& [field, value] : record.written.items()) fields.insert(field);
  }
  return {fields.begin(), fields.end()};
}

// Turns a failed call into the undo's own error when it is not Salesforce
// refusing the request; returns the refusal's words otherwise.
std::string refusalOr(DedupeTransport& transport, const std::exception& error) {
  if (dynamic_cast<const UndoError*>(&error)) throw;
  TransportFailure seen = transport.classify(error);
  if (seen.signedOut) throw UndoError::signedOut();
  if (seen.httpStatus == 0) throw UndoError::outcomeUnknown(error.what());
  return seen.message.empty() ? MergeRunner::noDetails() : seen.message;
}

std::vector<Json> recordsWhere(DedupeTransport& transport, const std::string& object,
                               const std::vector<std::string>& fields, const std::string& field,
                               const std::vector<std::string>& ids, bool withDeleted = false) {
  try {
    return UndoCapture::recordsWhere(transport, object, fields, field, ids, withDeleted);
  } catch (const std::exception& error) {
    refusalOr(transport, error);
    throw;
  }
}

// The element texts of each <result> of a SOAP reply.
struct SoapResult {
  std::string id;
  bool success = false;
  std::string statusCode;
  std::string message;
};

std::string between(std::string_view xml, std::string_view open, std::string_view close) {
  std::size_t start = xml.find(open);
  if (start == std::string_view::npos) return "";
  start += open.size();
  std::size_t end = xml.find(close, start);
  return end == std::string_view::npos ? "" : std::string(xml.substr(start, end - start));
}

std::vector<SoapResult> soapResults(std::string_view xml) {
  std::vector<SoapResult> out;
  std::size_t at = 0;
  while ((at = xml.find("<result>", at)) != std::string_view::npos) {
    std::size_t end = xml.find("</result>", at);
    if (end == std::string_view::npos) break;
    std::string_view one = xml.substr(at, end - at);
    out.push_back({between(one, "<id>", "</id>"), between(one, "<success>", "</success>") == "true",
                   between(one, "<statusCode>", "</statusCode>"),
                   between(one, "<message>", "</message>")});
    at = end;
  }
  return out;
}

std::string undeleteBody(const std::vector<std::string>& ids) {
  std::string out =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
      "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "xmlns:urn=\"urn:partner.soap.sforce.com\">"
      "<soapenv:Header><urn:SessionHeader><urn:sessionId>";
  out += MergeRunner::sessionPlaceholder;
  out += "</urn:sessionId></urn:SessionHeader></soapenv:Header><soapenv:Body><urn:undelete>";
  for (const std::string& id : ids) out += "<urn:ids>" + id + "</urn:ids>";
  out += "</urn:undelete></soapenv:Body></soapenv:Envelope>";
  return out;
}

// One sObject Collections call (POST, PATCH or DELETE); the results in the
// order sent, or the refusal of the whole call as every record's failure.
std::vector<SObjectCollection::SaveResult> collection(DedupeTransport& transport,
                                                      const std::string& method,
                                                      const std::vector<Json>& records,
                                                      const std::vector<std::string>& ids) {
  const std::size_t count = method == "DELETE" ? ids.size() : records.size();
  try {
    std::string body;
    if (method == "DELETE") {
      std::string list;
      for (const std::string& id : ids) list += (list.empty() ? "" : ",") + id;
      body = transport.send("DELETE", "composite/sobjects", {{"ids", list}, {"allOrNone", "false"}},
                            std::nullopt);
    } else {
      body = transport.send(method, "composite/sobjects", {},
                            Json{{"allOrNone", false}, {"records", records}}.dump());
    }
    return SObjectCollection::results(body, count);
  } catch (const std::exception& error) {
    const std::string refusal = refusalOr(transport, error);
    std::vector<SObjectCollection::SaveResult> out(count);
    for (auto& result : out) result.message = refusal;
    return out;
  }
}

class GroupUndo {
 public:
  GroupUndo(DedupeTransport& transport, UndoJournal& journal, const UndoGroup& group,
            std::stop_token stop, GroupResult& result)
      : transport_(transport), journal_(journal), group_(group), stop_(stop), result_(result) {}

  // False when a stop request ended it part-way.
  bool run() {
    if (group_.undoState.empty()) {
      journal_.recordUndoState(group_.apply, group_.groupId, "undoing", "");
    }
    if (group_.action == "update") {
      if (!resetUpdates()) return false;
    } else if (!undelete() || !going()) {
      return false;
    }
    // Children cannot go back to a record still in the Recycle Bin.
    if (group_.action != "update" && result_.failures.empty()) {
      if (!moveChildren() || !going()) return false;
      if (!relinkChildren() || !going()) return false;
      if (!resetKeeper()) return false;
    }
    if (result_.failures.empty()) {
      journal_.recordUndoState(group_.apply, group_.groupId, "undone",
                               IsoTime::formatPlain(std::chrono::system_clock::now()));
      result_.status = Status::undone;
    } else {
      result_.status = Status::failed;
    }
    return true;
  }

 private:
  // True while no stop was asked for.
  bool going() const { return !stop_.stop_requested(); }

  bool undelete() {
    const std::vector<std::string> losers = touchedLosers(group_);
    std::vector<std::string> binned;
    for (const Json& row :
         recordsWhere(transport_, group_.object, {"Id", "IsDeleted"}, "Id", losers, true)) {
      if (row.value("IsDeleted", false)) binned.push_back(row["Id"].get<std::string>());
    }
    for (std::size_t start = 0; start < binned.size(); start += 200) {
      if (start > 0 && !going()) return false;
      std::vector<std::string> ids(
          binned.begin() + static_cast<std::ptrdiff_t>(start),
          binned.begin() + static_cast<std::ptrdiff_t>(std::min(binned.size(), start + 200)));
      std::string reply;
      try {
        reply = transport_.postSOAP("undelete", undeleteBody(ids));
      } catch (const std::exception& error) {
        result_.failures.push_back("Could not bring back " + ids.front() + ": " +
                                   refusalOr(transport_, error));
        continue;
      }
      const std::vector<SoapResult> results = soapResults(reply);
      if (results.size() != ids.size()) throw UndoError::unreadableReply();
      for (std::size_t i = 0; i < ids.size(); ++i) {
        if (results[i].success) {
          ++result_.restored;
        } else {
          result_.failures.push_back(
              "Could not bring back " + ids[i] + ": " +
              (results[i].message.empty() ? MergeRunner::noDetails() : results[i].message));
        }
      }
    }
    return true;
  }

  // Sends the records in batches; counts successes, keeps refusals.
  bool send(const std::string& method, const std::vector<Json>& records,
            const std::vector<std::string>& ids, std::size_t& counter, const std::string& what) {
    const std::size_t count = method == "DELETE" ? ids.size() : records.size();
    for (std::size_t start = 0; start < count; start += SObjectCollection::maxRecords) {
      if (start > 0 && !going()) return false;
      const std::size_t end = std::min(count, start + SObjectCollection::maxRecords);
      std::vector<Json> slice;
      std::vector<std::string> sliceIds;
      for (std::size_t i = start; i < end; ++i) {
        if (method == "DELETE") {
          sliceIds.push_back(ids[i]);
        } else {
          slice.push_back(records[i]);
        }
      }
      const auto results = collection(transport_, method, slice, sliceIds);
      for (std::size_t i = 0; i < results.size(); ++i) {
        const std::string id = method == "DELETE"        ? sliceIds[i]
                               : slice[i].contains("Id") ? valueText(slice[i]["Id"])
                                                         : std::string();
        // A record already gone counts as deleted.
        if (results[i].success ||
            (method == "DELETE" && results[i].statusCode == "ENTITY_IS_DELETED")) {
          ++counter;
        } else {
          result_.failures.push_back(
              what + (id.empty() ? "" : " " + id) + ": " +
              (results[i].message.empty() ? MergeRunner::noDetails() : results[i].message));
        }
      }
    }
    return true;
  }

  // Children whose reference can be changed: set back where it differs.
  bool moveChildren() {
    std::map<std::pair<std::string, std::string>, std::vector<const UndoChild*>> byKind;
    for (const UndoChild& child : group_.children) {
      if (child.recreate.empty()) byKind[{child.object, child.field}].push_back(&child);
    }
    for (const auto& [kind, children] : byKind) {
      const auto& [object, field] = kind;
      std::vector<std::string> ids;
      for (const UndoChild* child : children) ids.push_back(child->id);
      std::map<std::string, std::string> now;  // by idKey: the parent it has now
      for (const Json& row : recordsWhere(transport_, object, {"Id", field}, "Id", ids)) {
        now[idKey(row["Id"].get<std::string>())] = valueText(row.value(field, Json()));
      }
      std::vector<Json> updates;
      std::size_t gone = 0;
      for (const UndoChild* child : children) {
        auto found = now.find(idKey(child->id));
        if (found == now.end()) {
          ++gone;
        } else if (!sameId(found->second, child->parent)) {
          updates.push_back(
              Json{{"attributes", {{"type", object}}}, {"Id", child->id}, {field, child->parent}});
        }
      }
      if (gone > 0) {
        result_.notes.push_back(fmt::format(
            "{} {} record{} moved by the merge {} no longer in Salesforce, so {} stayed where {} "
            "{}.",
            gone, object, gone == 1 ? "" : "s", gone == 1 ? "is" : "are", gone == 1 ? "it" : "they",
            gone == 1 ? "it" : "they", gone == 1 ? "was" : "were"));
      }
      if (!send("PATCH", updates, {}, result_.moved, "Could not move back " + object)) return false;
    }
    return true;
  }

  static std::string keyOf(const Json& values, const std::vector<std::string>& fields) {
    std::string key;
    for (const std::string& field : fields) key += valueText(values.value(field, Json())) + '\x1f';
    return key;
  }

  // Children whose reference is set once (a document's link, a campaign
  // member, a note): made again on their record, then the moved one deleted.
  bool relinkChildren() {
    std::map<std::pair<std::string, std::string>, std::vector<const UndoChild*>> byKind;
    for (const UndoChild& child : group_.children) {
      if (!child.recreate.empty()) byKind[{child.object, child.field}].push_back(&child);
    }
    for (const auto& [kind, children] : byKind) {
      const auto& [object, field] = kind;
      std::vector<std::string> sameWhen;
      for (const auto& relation : UndoCapture::childRelations(group_.object)) {
        if (relation.object == object && relation.field == field) sameWhen = relation.sameWhen;
      }
      std::vector<std::string> parents;
      for (const UndoChild* child : children) parents.push_back(child->parent);
      std::vector<std::string> fields = {"Id", field};
      fields.insert(fields.end(), sameWhen.begin(), sameWhen.end());
      // The copies already made by an earlier run, by parent and key.
      std::multiset<std::string> made;
      for (const Json& row : recordsWhere(transport_, object, fields, field, parents)) {
        made.insert(idKey(valueText(row.value(field, Json()))) + '\x1e' + keyOf(row, sameWhen));
      }
      std::vector<Json> creates;
      std::vector<std::string> moved;
      for (const UndoChild* child : children) {
        Json values = Json::parse(child->recreate, nullptr, false);
        if (!values.is_object()) continue;
        moved.push_back(child->id);
        auto copy = made.find(idKey(child->parent) + '\x1e' + keyOf(values, sameWhen));
        if (copy != made.end()) {
          made.erase(copy);
          continue;
        }
        Json record = {{"attributes", {{"type", object}}}, {field, child->parent}};
        for (const auto& [name, value] : values.items()) {
          if (!value.is_null()) record[name] = value;
        }
        creates.push_back(std::move(record));
      }
      std::size_t created = 0;
      if (!send("POST", creates, {}, created, "Could not link " + object + " again")) return false;
      result_.relinked += moved.size() - (creates.size() - created);
      if (created != creates.size()) continue;  // keep the moved ones until every copy exists
      std::size_t deleted = 0;
      if (!send("DELETE", {}, moved, deleted, "Could not remove the moved " + object)) {
        return false;
      }
    }
    return true;
  }

  bool resetKeeper() {
    if (group_.action != "merge" || group_.keeperFields.empty()) return true;
    const Json before = Json::parse(group_.keeperFields, nullptr, false);
    if (!before.is_object() || before.empty()) return true;
    if (group_.undoState != "keeperSent") {
      journal_.recordUndoState(group_.apply, group_.groupId, "keeperSent", "");
    }
    std::vector<std::string> fields = {"Id"};
    for (const auto& [name, value] : before.items()) fields.push_back(name);
    const auto rows = recordsWhere(transport_, group_.object, fields, "Id", {group_.keeper});
    if (rows.empty()) {
      result_.failures.push_back("The kept " + group_.object + " " + group_.keeper +
                                 " is no longer in Salesforce, so its values were not set back.");
      return true;
    }
    Json update = {{"attributes", {{"type", group_.object}}}, {"Id", group_.keeper}};
    std::size_t changed = 0;
    for (const auto& [name, value] : before.items()) {
      if (sameValue(rows.front().value(name, Json()), value)) continue;
      update[name] = value;
      ++changed;
    }
    if (changed == 0) return true;
    std::size_t sent = 0;
    send("PATCH", {update}, {}, sent, "Could not set back the values of the kept " + group_.object);
    if (sent == 1) {
      result_.fieldsReset = changed;
    } else {
      // Refused, so unchanged: a later run checks it for changes again.
      journal_.recordUndoState(group_.apply, group_.groupId, "undoing", "");
    }
    return true;
  }

  // The fields an update wrote: set back to their values before, on each
  // record where they differ from those now.
  bool resetUpdates() {
    const std::vector<Updated> records = updatedRecords(group_);
    std::vector<std::string> ids;
    for (const Updated& record : records) ids.push_back(record.sfid);
    std::vector<std::string> fields = {"Id"};
    for (const std::string& field : result_.updatedFields) fields.push_back(field);
    std::map<std::string, Json> now;  // by idKey
    for (Json& row : recordsWhere(transport_, group_.object, fields, "Id", ids)) {
      const std::string key = idKey(row["Id"].get<std::string>());
      now[key] = std::move(row);
    }
    std::vector<Json> updates;
    std::size_t gone = 0;
    for (const Updated& record : records) {
      auto found = now.find(idKey(record.sfid));
      if (found == now.end()) {
        ++gone;
        continue;
      }
      Json update = {{"attributes", {{"type", group_.object}}}, {"Id", record.sfid}};
      bool differs = false;
      for (const auto& [field, value] : record.before.items()) {
        if (sameValue(found->second.value(field, Json()), value)) continue;
        update[field] = value;
        differs = true;
      }
      if (differs) updates.push_back(std::move(update));
    }
    if (gone > 0) {
      result_.notes.push_back(fmt::format(
          "{} {} record{} the apply updated {} no longer in Salesforce, so nothing was set back "
          "on {}.",
          gone, group_.object, gone == 1 ? "" : "s", gone == 1 ? "is" : "are",
          gone == 1 ? "it" : "them"));
    }
    std::size_t sent = 0;
    if (!send("PATCH", updates, {}, sent, "Could not set back the values of " + group_.object)) {
      return false;
    }
    result_.recordsReset = records.size() - gone - (updates.size() - sent);
    return true;
  }

  DedupeTransport& transport_;
  UndoJournal& journal_;
  const UndoGroup& group_;
  std::stop_token stop_;
  GroupResult& result_;
};

// The group numbers that more than one apply holds among groups.
template <typename Group>
std::set<std::int64_t> sharedNumbers(const std::vector<Group>& groups) {
  std::map<std::int64_t, std::set<std::int64_t>> applies;
  for (const Group& group : groups) applies[group.groupId].insert(group.apply);
  std::set<std::int64_t> out;
  for (const auto& [number, of] : applies) {
    if (of.size() > 1) out.insert(number);
  }
  return out;
}

// "2026-11-26 04:10:07" on the machine's clock, for the ISO 8601 time given.
std::string localTime(const std::string& iso) {
  auto time = IsoTime::parsePlain(iso);
  if (!time) time = IsoTime::parseFractional(iso);
  if (!time) return iso;
  const std::string minutes = IsoTime::localFolderStamp(*time);  // "yyyy-MM-dd HHmm"
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(time->time_since_epoch()).count() % 60;
  return fmt::format("{}:{}:{:02}", minutes.substr(0, 13), minutes.substr(13), seconds);
}

// "Group 3", or "Group 3 of the apply of 2026-11-26 04:10:07" when its number is shared.
template <typename Group>
std::string nameOf(const Group& group, const std::set<std::int64_t>& shared) {
  std::string name = "Group " + std::to_string(group.groupId);
  if (shared.count(group.groupId)) name += " of the apply of " + localTime(group.appliedAt);
  return name;
}

void report(const DedupeProgressHandler& onProgress, DedupeProgress::Phase phase, std::size_t done,
            std::size_t total, std::string item) {
  if (!onProgress) return;
  DedupeProgress progress;
  progress.phase = phase;
  progress.done = static_cast<std::int64_t>(done);
  progress.total = static_cast<std::int64_t>(total);
  progress.item = std::move(item);
  onProgress(progress);
}

// By (apply, group): how many of its records are put back although changed since.
using Forced = std::map<std::pair<std::int64_t, std::int64_t>, std::size_t>;

// Why the updates of groups not yet undone cannot be set back: a field that
// holds neither what the update wrote nor what was there before.
void updateRefusals(DedupeTransport& transport, const std::string& object,
                    const std::vector<const UndoGroup*>& groups,
                    const std::set<std::int64_t>& shared, bool force, Forced& forced,
                    std::vector<std::string>& out) {
  std::set<std::string> fields;
  std::vector<std::string> ids;
  std::vector<std::vector<Updated>> records;  // by group
  for (const UndoGroup* group : groups) {
    records.push_back(updatedRecords(*group));
    for (const Updated& record : records.back()) {
      ids.push_back(record.sfid);
      for (const auto& [field, value] : record.written.items()) fields.insert(field);
    }
  }
  std::vector<std::string> selected = {"Id"};
  selected.insert(selected.end(), fields.begin(), fields.end());
  std::map<std::string, Json> now;  // by idKey
  for (Json& row : recordsWhere(transport, object, selected, "Id", ids)) {
    const std::string key = idKey(row["Id"].get<std::string>());
    now[key] = std::move(row);
  }
  for (std::size_t g = 0; g < groups.size(); ++g) {
    const UndoGroup* group = groups[g];
    for (const Updated& record : records[g]) {
      auto found = now.find(idKey(record.sfid));
      if (found == now.end()) continue;  // noted when the group is undone
      for (const auto& [field, written] : record.written.items()) {
        const Json current = found->second.value(field, Json());
        if (sameAsWritten(current, written) ||
            sameValue(current, record.before.value(field, Json()))) {
          continue;
        }
        if (force) {
          ++forced[{group->apply, group->groupId}];
        } else {
          out.push_back(UndoError::updateChanged(nameOf(*group, shared), object, record.sfid,
                                                 field, valueText(current)));
        }
        break;
      }
    }
  }
}

// Why each group that is not yet undone cannot be, before anything changes.
std::vector<std::string> refusals(DedupeTransport& transport, const std::vector<UndoGroup>& groups,
                                  bool force, Forced& forced) {
  std::vector<std::string> out;
  const std::set<std::int64_t> shared = sharedNumbers(groups);
  std::map<std::string, std::vector<const UndoGroup*>> byObject;
  std::map<std::string, std::vector<const UndoGroup*>> updatesByObject;
  for (const UndoGroup& group : groups) {
    if (group.undoState == "undone") continue;
    (group.action == "update" ? updatesByObject : byObject)[group.object].push_back(&group);
  }
  for (const auto& [object, ofObject] : updatesByObject) {
    updateRefusals(transport, object, ofObject, shared, force, forced, out);
  }
  for (const auto& [object, ofObject] : byObject) {
    std::vector<std::string> losers;
    std::vector<std::string> keepers;
    for (const UndoGroup* group : ofObject) {
      for (const std::string& loser : touchedLosers(*group)) losers.push_back(loser);
      keepers.push_back(group->keeper);
    }
    std::set<std::string> present;  // live or in the Recycle Bin, by idKey
    for (const Json& row : recordsWhere(transport, object, {"Id"}, "Id", losers, true)) {
      present.insert(idKey(row["Id"].get<std::string>()));
    }
    std::map<std::string, std::string> stamps;
    for (const Json& row :
         recordsWhere(transport, object, {"Id", "SystemModstamp"}, "Id", keepers)) {
      stamps[idKey(row["Id"].get<std::string>())] = valueText(row.value("SystemModstamp", Json()));
    }
    for (const UndoGroup* group : ofObject) {
      for (const std::string& loser : touchedLosers(*group)) {
        if (!present.count(idKey(loser)))
          out.push_back(UndoError::loserPurged(nameOf(*group, shared), object, loser));
      }
      // The kept record is only touched by a merge, and by this undo once it
      // has set the values back.
      if (group->action != "merge" || group->undoState == "keeperSent") continue;
      auto now = stamps.find(idKey(group->keeper));
      if (now == stamps.end()) continue;  // reported when its values are set back
      const auto journaled = IsoTime::parseFractional(group->keeperStamp);
      const auto current = IsoTime::parseFractional(now->second);
      const bool same =
          group->keeperStamp == now->second || (journaled && current && *journaled == *current);
      if (same) continue;
      if (force) {
        forced[{group->apply, group->groupId}] = 1;
      } else if (group->keeperStamp.empty()) {
        out.push_back(UndoError::keeperUnchecked(nameOf(*group, shared), object, group->keeper));
      } else {
        out.push_back(
            UndoError::keeperChanged(nameOf(*group, shared), object, group->keeper, now->second));
      }
    }
  }
  return out;
}

std::string statusText(Status status) {
  switch (status) {
    case Status::undone:
      return "undone";
    case Status::alreadyUndone:
      return "alreadyUndone";
    case Status::failed:
      return "failed";
    case Status::notAttempted:
      return "notAttempted";
  }
  return "";
}

}  // namespace

Prepared prepare(const FindLogin& findLogin, const std::filesystem::path& snapshot,
                 const Request& request) {
  SnapshotInfo info;
  {
    std::shared_ptr<RecordStore> store;
    try {
      store = RecordStore::open(snapshot);
    } catch (const std::exception&) {
      throw DedupeError::notASnapshot(snapshot);
    }
    info = store->info();
  }
  Prepared prepared;
  prepared.snapshot = snapshot;
  prepared.objectLabel = info.objectLabel.empty() ? info.objectName : info.objectLabel;
  std::vector<UndoGroup> journaled;
  for (UndoGroup& group : UndoJournal(snapshot).groups()) {
    if (group.applied()) journaled.push_back(std::move(group));
  }
  if (journaled.empty()) throw UndoError::nothingJournaled(snapshot);
  std::vector<std::int64_t> known;
  for (const UndoGroup& group : journaled) known.push_back(group.groupId);
  std::sort(known.begin(), known.end());
  known.erase(std::unique(known.begin(), known.end()), known.end());
  for (std::int64_t id : request.groups) {
    if (std::find(known.begin(), known.end(), id) == known.end())
      throw UndoError::unknownGroup(id, known);
  }
  for (UndoGroup& group : journaled) {
    if (request.groups.empty() || std::find(request.groups.begin(), request.groups.end(),
                                            group.groupId) != request.groups.end()) {
      prepared.groups.push_back(std::move(group));
    }
  }
  const std::string login = request.login.empty() ? info.downloadedBy : request.login;
  if (login.empty()) throw DedupeError::noLogin();
  prepared.org = findLogin(login);
  return prepared;
}

Outcome run(SalesforceAPI::Client& api, const Prepared& prepared, const Request& request,
            std::stop_token stop, const DedupeProgressHandler& onProgress) {
  if (stop.stop_requested()) throw DedupeError::stopped();
  DedupeAPITransport transport(api, prepared.org);
  const std::size_t total = prepared.groups.size();
  report(onProgress, DedupeProgress::Phase::checking, 0, total, "");
  Forced forced;
  std::vector<std::string> refused = refusals(transport, prepared.groups, request.force, forced);
  if (!refused.empty()) throw UndoError::refused(std::move(refused));

  UndoJournal journal(prepared.snapshot);
  Outcome outcome;
  for (const UndoGroup& group : prepared.groups) {
    GroupResult result;
    result.groupId = group.groupId;
    result.apply = group.apply;
    result.appliedAt = group.appliedAt;
    result.object = group.object;
    result.action = group.action;
    result.keeper = group.keeper;
    const auto changed = forced.find({group.apply, group.groupId});
    if (changed != forced.end()) {
      result.forced = true;
      if (group.action == "update") result.forcedRecords = changed->second;
    }
    if (group.action == "update") result.updatedFields = updatedFields(group);
    outcome.groups.push_back(result);
  }
  const std::set<std::int64_t> shared = sharedNumbers(prepared.groups);
  for (std::size_t i = 0; i < prepared.groups.size(); ++i) {
    const UndoGroup& group = prepared.groups[i];
    GroupResult& result = outcome.groups[i];
    report(onProgress, DedupeProgress::Phase::changing, i, total, nameOf(group, shared));
    if (group.undoState == "undone") {
      result.status = Status::alreadyUndone;
      continue;
    }
    if (stop.stop_requested() || !GroupUndo(transport, journal, group, stop, result).run()) {
      outcome.stopped = true;
      break;
    }
  }
  if (!outcome.stopped) report(onProgress, DedupeProgress::Phase::changing, total, total, "");
  return outcome;
}

std::size_t Outcome::count(GroupResult::Status status) const {
  return static_cast<std::size_t>(
      std::count_if(groups.begin(), groups.end(),
                    [status](const GroupResult& group) { return group.status == status; }));
}

void Outcome::throwIfIncomplete() const {
  if (stopped) {
    throw UndoError::stoppedPartWay(count(Status::undone) + count(Status::alreadyUndone),
                                    count(Status::notAttempted) + count(Status::failed));
  }
  std::size_t failures = 0;
  for (const GroupResult& group : groups) failures += group.failures.size();
  if (failures > 0) throw UndoError::notUndone(failures);
}

std::string whatItWrites(const Prepared& prepared) {
  std::size_t losers = 0;
  std::size_t updated = 0;
  for (const UndoGroup& group : prepared.groups) {
    (group.action == "update" ? updated : losers) += group.losers.size();
  }
  std::string what;
  if (losers > 0 || updated == 0) {
    what = fmt::format(
        "bring back up to {} records from the Recycle Bin, move their child records back and set "
        "the kept records' values back",
        losers);
  }
  if (updated > 0) {
    what += fmt::format("{}set back the fields the apply wrote into up to {} records",
                        what.empty() ? "" : ", and ", updated);
  }
  return fmt::format("undo {} group{} of {} records: {}", prepared.groups.size(),
                     prepared.groups.size() == 1 ? "" : "s", prepared.objectLabel, what);
}

std::string refusalsText(const std::vector<std::string>& refusals, bool json) {
  if (json) return nlohmann::json{{"refused", refusals}}.dump(2) + '\n';
  std::string out;
  for (const std::string& reason : refusals) out += reason + '\n';
  return out;
}

std::string text(const Outcome& outcome) {
  std::string out;
  const std::set<std::int64_t> shared = sharedNumbers(outcome.groups);
  for (const GroupResult& group : outcome.groups) {
    // Records deleted on their own (already there as another object's) have no kept record.
    const std::string name = nameOf(group, shared);
    std::string line = group.keeper.empty()
                           ? fmt::format("{} ({}): ", name, group.object)
                           : fmt::format("{} ({} {}): ", name, group.object, group.keeper);
    switch (group.status) {
      case Status::undone:
        if (group.action == "update") {
          std::string fields;
          for (const std::string& field : group.updatedFields)
            fields += (fields.empty() ? "" : ", ") + field;
          line += fmt::format("undone: {} set back on {} record{}", fields, group.recordsReset,
                              group.recordsReset == 1 ? "" : "s");
          if (group.forcedRecords > 0)
            line += fmt::format(" ({} had been changed since the apply)", group.forcedRecords);
          line += ".";
          break;
        }
        line += fmt::format(
            "undone: {} record{} back from the Recycle Bin, {} child record{} moved back, {} "
            "relinked, {} field{} of the kept record set back",
            group.restored, group.restored == 1 ? "" : "s", group.moved,
            group.moved == 1 ? "" : "s", group.relinked, group.fieldsReset,
            group.fieldsReset == 1 ? "" : "s");
        if (group.forced) line += " (it had been changed since the merge)";
        line += ".";
        break;
      case Status::alreadyUndone:
        line += "already undone by an earlier run.";
        break;
      case Status::failed:
        line += "not fully undone.";
        break;
      case Status::notAttempted:
        line += "not attempted.";
        break;
    }
    out += line + "\n";
    for (const std::string& note : group.notes) out += "  " + note + "\n";
    for (const std::string& failure : group.failures) out += "  " + failure + "\n";
  }
  out += fmt::format("{} undone, {} already undone, {} not fully undone, {} not attempted.\n",
                     outcome.count(Status::undone), outcome.count(Status::alreadyUndone),
                     outcome.count(Status::failed), outcome.count(Status::notAttempted));
  return out;
}

nlohmann::json json(const Outcome& outcome) {
  Json groups = Json::array();
  for (const GroupResult& group : outcome.groups) {
    groups.push_back({{"group", group.groupId},
                      {"apply", group.apply},
                      {"appliedAt", group.appliedAt},
                      {"object", group.object},
                      {"action", group.action},
                      {"keeper", group.keeper},
                      {"status", statusText(group.status)},
                      {"restored", group.restored},
                      {"moved", group.moved},
                      {"relinked", group.relinked},
                      {"fieldsReset", group.fieldsReset},
                      {"forced", group.forced},
                      {"updatedFields", group.updatedFields},
                      {"recordsReset", group.recordsReset},
                      {"forcedRecords", group.forcedRecords},
                      {"notes", group.notes},
                      {"failures", group.failures}});
  }
  return {{"groups", groups},
          {"undone", outcome.count(Status::undone)},
          {"alreadyUndone", outcome.count(Status::alreadyUndone)},
          {"failed", outcome.count(Status::failed)},
          {"notAttempted", outcome.count(Status::notAttempted)},
          {"stopped", outcome.stopped}};
}

}  // namespace corvane::UndoTask
