#include "dedupe/undo_capture.hpp"

#include <algorithm>
#include <set>

#include "dedupe/undo_error.hpp"

namespace corvane::UndoCapture {

namespace {

// Ids per query: well under SOQL's length limit.
constexpr std::size_t idsPerQuery = 200;

bool safeName(std::string_view name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '.';
  });
}

bool safeId(std::string_view id) {
  return (id.size() == 15 || id.size() == 18) && std::all_of(id.begin(), id.end(), [](char c) {
           return std::isalnum(static_cast<unsigned char>(c)) != 0;
         });
}

// An object this org does not offer (or does not let this login see).
bool objectUnknown(DedupeTransport& transport, const std::exception& error) {
  TransportFailure seen = transport.classify(error);
  return seen.httpStatus == 400 && (seen.message.find("INVALID_TYPE") != std::string::npos ||
                                    seen.message.find("is not supported") != std::string::npos);
}

std::string joined(const std::vector<std::string>& names) {
  std::string out;
  for (const std::string& name : names) out += (out.empty() ? "" : ", ") + name;
  return out;
}

}  // namespace

const std::vector<ChildRelation>& childRelations(std::string_view object) {
  static const std::vector<ChildRelation> none;
  static const ChildRelation note{
      "Note", "ParentId", {"Title", "Body", "IsPrivate", "OwnerId"}, {"Title", "Body"}};
  static const ChildRelation link{"ContentDocumentLink",
                                  "LinkedEntityId",
                                  {"ContentDocumentId", "ShareType", "Visibility"},
                                  {"ContentDocumentId"}};
  static const std::vector<ChildRelation> account = {{"Contact", "AccountId", {}, {}},
                                                     {"Opportunity", "AccountId", {}, {}},
                                                     {"Case", "AccountId", {}, {}},
                                                     {"Task", "WhatId", {}, {}},
                                                     {"Event", "WhatId", {}, {}},
                                                     note,
                                                     link};
  static const std::vector<ChildRelation> contact = {
      {"Task", "WhoId", {}, {}},
      {"Event", "WhoId", {}, {}},
      {"CampaignMember", "ContactId", {"CampaignId", "Status"}, {"CampaignId"}},
      {"Case", "ContactId", {}, {}},
      note,
      link};
  static const std::vector<ChildRelation> lead = {
      {"Task", "WhoId", {}, {}},
      {"Event", "WhoId", {}, {}},
      {"CampaignMember", "LeadId", {"CampaignId", "Status"}, {"CampaignId"}},
      note,
      link};
  if (object == "Account") return account;
  if (object == "Contact") return contact;
  if (object == "Lead") return lead;
  return none;
}

std::string idKey(std::string_view id) { return std::string(id.substr(0, 15)); }

std::string valueText(const nlohmann::json& value) {
  if (value.is_null()) return "";
  if (value.is_string()) return value.get<std::string>();
  return value.dump();
}

std::vector<nlohmann::json> queryRecords(DedupeTransport& transport, const std::string& soql,
                                         bool withDeleted) {
  std::vector<nlohmann::json> out;
  std::string path = withDeleted ? "queryAll" : "query";
  QueryItems query = {{"q", soql}};
  while (true) {
    nlohmann::json reply =
        nlohmann::json::parse(transport.send("GET", path, query, std::nullopt), nullptr, false);
    if (reply.is_discarded() || !reply.is_object() || !reply.contains("records") ||
        !reply["records"].is_array()) {
      throw UndoError::unreadableReply();
    }
    for (auto& record : reply["records"]) {
      if (!record.is_object() || !record.contains("Id") || !record["Id"].is_string()) {
        throw UndoError::unreadableReply();
      }
      record.erase("attributes");
      out.push_back(std::move(record));
    }
    const auto& next = reply.value("nextRecordsUrl", nlohmann::json());
    if (reply.value("done", true) || !next.is_string() || next.get<std::string>().empty()) break;
    path = next.get<std::string>();
    query.clear();
  }
  return out;
}

std::vector<nlohmann::json> recordsWhere(DedupeTransport& transport, const std::string& object,
                                         const std::vector<std::string>& fields,
                                         const std::string& field,
                                         const std::vector<std::string>& ids, bool withDeleted) {
  std::vector<nlohmann::json> out;
  if (!safeName(object) || !safeName(field)) return out;
  std::vector<std::string> usable;
  for (const std::string& id : ids) {
    if (safeId(id)) usable.push_back(id);
  }
  std::sort(usable.begin(), usable.end());
  usable.erase(std::unique(usable.begin(), usable.end()), usable.end());
  for (std::size_t start = 0; start < usable.size(); start += idsPerQuery) {
    std::string soql = "SELECT " + joined(fields) + " FROM " + object + " WHERE " + field + " IN (";
    for (std::size_t i = start; i < std::min(usable.size(), start + idsPerQuery); ++i) {
      soql += (i == start ? "'" : ", '") + usable[i] + "'";
    }
    soql += ")";
    for (auto& record : queryRecords(transport, soql, withDeleted))
      out.push_back(std::move(record));
  }
  return out;
}

std::vector<std::string> fieldsOf(DedupeTransport& transport, const std::string& object,
                                  bool writableOnly) {
  if (!safeName(object)) throw UndoError::unreadableReply();
  nlohmann::json reply = nlohmann::json::parse(
      transport.send("GET", "sobjects/" + object + "/describe", {}, std::nullopt), nullptr, false);
  if (reply.is_discarded() || !reply.is_object() || !reply.contains("fields") ||
      !reply["fields"].is_array()) {
    throw UndoError::unreadableReply();
  }
  std::vector<std::string> out;
  for (const auto& field : reply["fields"]) {
    if (!field.is_object() || !field.contains("name") || !field["name"].is_string()) continue;
    const std::string type = field.value("type", "");
    // Compound and binary fields are read through their parts, or not at all.
    if (type == "address" || type == "location" || type == "base64") continue;
    if (writableOnly && !field.value("updateable", false)) continue;
    out.push_back(field["name"].get<std::string>());
  }
  return out;
}

std::optional<nlohmann::json> ChildKinds::describe(const std::string& object) {
  if (!safeName(object)) return std::nullopt;
  std::string body;
  try {
    body = transport_.send("GET", "sobjects/" + object + "/describe", {}, std::nullopt);
  } catch (const std::exception& error) {
    const TransportFailure seen = transport_.classify(error);
    if (seen.httpStatus >= 400 && !seen.signedOut) return std::nullopt;  // not for this login
    throw;
  }
  nlohmann::json reply = nlohmann::json::parse(body, nullptr, false);
  if (reply.is_discarded() || !reply.is_object()) throw UndoError::unreadableReply();
  return reply;
}

const std::vector<ChildRelation>& ChildKinds::of(const std::string& object) {
  if (auto found = kinds_.find(object); found != kinds_.end()) return found->second;
  std::vector<ChildRelation> kinds = childRelations(object);
  const std::optional<nlohmann::json> parent = kinds.empty() ? std::nullopt : describe(object);
  if (parent && parent->contains("childRelationships") &&
      (*parent)["childRelationships"].is_array()) {
    std::map<std::string, std::vector<std::string>> wanted;  // child object -> fields
    for (const auto& relation : (*parent)["childRelationships"]) {
      if (!relation.is_object() || relation.value("deprecatedAndHidden", false)) continue;
      const std::string child = relation.value("childSObject", "");
      const std::string field = relation.value("field", "");
      if (!safeName(child) || !safeName(field)) continue;
      const bool unmoved = child.ends_with("History") || child.ends_with("Feed") ||
                           child.ends_with("Share") || child.ends_with("ChangeEvent");
      const bool known = std::any_of(kinds.begin(), kinds.end(), [&](const ChildRelation& kind) {
        return kind.object == child && kind.field == field;
      });
      if (!unmoved && !known) wanted[child].push_back(field);
    }
    for (const auto& [child, fields] : wanted) {
      // A child of the same object (a child Account) reads the describe at hand.
      const std::optional<nlohmann::json> described = child == object ? parent : describe(child);
      if (!described || !described->value("queryable", false) || !described->contains("fields") ||
          !(*described)["fields"].is_array()) {
        continue;
      }
      for (const auto& field : (*described)["fields"]) {
        if (!field.is_object() || !field.contains("name") || !field["name"].is_string()) continue;
        const std::string name = field["name"].get<std::string>();
        if (std::find(fields.begin(), fields.end(), name) == fields.end()) continue;
        if (field.value("updateable", false) && field.value("filterable", false)) {
          kinds.push_back({child, name, {}, {}, true});
        }
      }
    }
  }
  return kinds_.emplace(object, std::move(kinds)).first->second;
}

std::vector<UndoGroup> capture(DedupeTransport& transport, const std::vector<Pending>& pending,
                               const std::string& now, ChildKinds* kinds) {
  std::optional<ChildKinds> described;
  if (!kinds) kinds = &described.emplace(transport);
  std::vector<UndoGroup> out;
  std::map<std::string, std::vector<const Pending*>> byObject;
  for (const Pending& group : pending) byObject[group.object].push_back(&group);
  for (const auto& [object, groups] : byObject) {
    std::vector<std::string> keepers;
    std::vector<std::string> losers;
    std::map<std::string, const Pending*> groupOfLoser;  // by idKey
    bool merging = false;
    for (const Pending* group : groups) {
      keepers.push_back(group->keeper);
      merging = merging || group->action == "merge";
      for (const std::string& loser : group->losers) {
        losers.push_back(loser);
        groupOfLoser[idKey(loser)] = group;
      }
    }
    std::map<std::string, nlohmann::json> rows;  // by idKey
    for (auto& row :
         recordsWhere(transport, object, fieldsOf(transport, object, false), "Id", losers)) {
      const std::string key = idKey(row["Id"].get<std::string>());
      rows[key] = std::move(row);
    }
    std::map<std::string, nlohmann::json> keeperRows;
    if (merging) {
      std::vector<std::string> writable = fieldsOf(transport, object, true);
      writable.insert(writable.begin(), "Id");
      for (auto& row : recordsWhere(transport, object, writable, "Id", keepers)) {
        const std::string key = idKey(row["Id"].get<std::string>());
        keeperRows[key] = std::move(row);
      }
    }
    // The children that a merge will move, by the loser they belong to now.
    std::map<std::string, std::vector<UndoChild>> childrenOf;
    if (merging) {
      for (const ChildRelation& relation : kinds->of(object)) {
        std::vector<std::string> fields = {"Id", relation.field};
        fields.insert(fields.end(), relation.recreate.begin(), relation.recreate.end());
        std::vector<nlohmann::json> found;
        try {
          found = recordsWhere(transport, relation.object, fields, relation.field, losers);
        } catch (const UndoError&) {
          throw;
        } catch (const std::exception& error) {
          if (objectUnknown(transport, error)) continue;
          // A kind of child found in the describe that this org will not query so is left out.
          if (relation.discovered && transport.classify(error).httpStatus == 400) continue;
          throw;
        }
        for (const auto& child : found) {
          const std::string parent = valueText(child.value(relation.field, nlohmann::json()));
          UndoChild entry{relation.object, child["Id"].get<std::string>(), relation.field, parent,
                          ""};
          if (!relation.recreate.empty()) {
            nlohmann::json values = nlohmann::json::object();
            for (const std::string& field : relation.recreate) {
              values[field] = child.value(field, nlohmann::json());
            }
            entry.recreate = values.dump();
          }
          childrenOf[idKey(parent)].push_back(std::move(entry));
        }
      }
    }
    for (const Pending* group : groups) {
      UndoGroup journaled;
      journaled.groupId = group->groupId;
      journaled.object = object;
      journaled.action = group->action;
      journaled.keeper = group->keeper;
      journaled.journaledAt = now;
      if (group->action == "merge") {
        auto keeper = keeperRows.find(idKey(group->keeper));
        if (keeper != keeperRows.end()) {
          nlohmann::json fields = keeper->second;
          fields.erase("Id");
          journaled.keeperFields = fields.dump();
        }
      }
      for (const std::string& loser : group->losers) {
        auto row = rows.find(idKey(loser));
        journaled.losers.push_back(
            {loser, row == rows.end() ? "{}" : row->second.dump(), "sending", ""});
        if (group->action != "merge") continue;
        auto children = childrenOf.find(idKey(loser));
        if (children == childrenOf.end()) continue;
        journaled.children.insert(journaled.children.end(), children->second.begin(),
                                  children->second.end());
      }
      out.push_back(std::move(journaled));
    }
  }
  std::sort(out.begin(), out.end(),
            [](const UndoGroup& a, const UndoGroup& b) { return a.groupId < b.groupId; });
  return out;
}

std::vector<UndoGroup> captureUpdates(DedupeTransport& transport,
                                      const std::vector<PendingUpdate>& updates,
                                      const std::string& now) {
  std::map<std::string, std::vector<const PendingUpdate*>> byObject;
  for (const PendingUpdate& update : updates) byObject[update.object].push_back(&update);
  std::map<std::int64_t, UndoGroup> groups;
  for (const auto& [object, ofObject] : byObject) {
    std::set<std::string> fields;
    std::vector<std::string> ids;
    for (const PendingUpdate* update : ofObject) {
      ids.push_back(update->sfid);
      for (const auto& [field, value] : update->written) fields.insert(field);
    }
    std::vector<std::string> selected = {"Id"};
    selected.insert(selected.end(), fields.begin(), fields.end());
    std::map<std::string, nlohmann::json> rows;  // by idKey
    for (auto& row : recordsWhere(transport, object, selected, "Id", ids)) {
      const std::string key = idKey(row["Id"].get<std::string>());
      rows[key] = std::move(row);
    }
    for (const PendingUpdate* update : ofObject) {
      UndoGroup& group = groups[update->groupId];
      group.groupId = update->groupId;
      group.object = object;
      group.action = "update";
      group.keeper = update->keeper;
      group.journaledAt = now;
      nlohmann::json before = nlohmann::json::object();
      nlohmann::json written = nlohmann::json::object();
      auto row = rows.find(idKey(update->sfid));
      for (const auto& [field, value] : update->written) {
        before[field] = row == rows.end() ? nlohmann::json() : row->second.value(field, nlohmann::json());
        written[field] = value;
      }
      group.losers.push_back(
          {update->sfid, nlohmann::json{{"before", before}, {"written", written}}.dump(),
           "sending", ""});
    }
  }
  std::vector<UndoGroup> out;
  for (auto& [id, group] : groups) out.push_back(std::move(group));
  return out;
}

std::map<std::string, std::string> stamps(DedupeTransport& transport, const std::string& object,
                                          const std::vector<std::string>& ids) {
  std::map<std::string, std::string> out;
  for (const auto& row : recordsWhere(transport, object, {"Id", "SystemModstamp"}, "Id", ids)) {
    out[idKey(row["Id"].get<std::string>())] =
        valueText(row.value("SystemModstamp", nlohmann::json()));
  }
  return out;
}

}  // namespace corvane::UndoCapture
