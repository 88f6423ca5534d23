#include "tools/orgsim/org_records.hpp"

#include <algorithm>
#include <set>

#include "tools/orgsim/database.hpp"
#include "tools/orgsim/wire_values.hpp"

namespace corvane::orgsim {

namespace {

bool isTextLike(FieldType type) {
  return type == FieldType::String || type == FieldType::TextArea || type == FieldType::Email ||
         type == FieldType::Phone || type == FieldType::Url || type == FieldType::Combobox;
}

std::size_t utf8Length(std::string_view text) {
  std::size_t n = 0;
  for (char c : text) {
    if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) ++n;
  }
  return n;
}

RecordError error(std::string code, std::string message, std::vector<std::string> fields = {}) {
  return {std::move(code), std::move(message), std::move(fields)};
}

SaveResult failed(RecordError e, int httpStatus = 400, std::string id = {}) {
  SaveResult result;
  result.id = std::move(id);
  result.errors.push_back(std::move(e));
  result.httpStatus = httpStatus;
  return result;
}

SaveResult notFound() {
  return failed(error("NOT_FOUND", "The requested resource does not exist"), 404);
}

// The JSON value as the text the store keeps; none for null.
std::optional<std::string> jsonText(const nlohmann::json& value) {
  if (value.is_null()) return std::nullopt;
  if (value.is_string()) return value.get<std::string>();
  if (value.is_boolean()) return value.get<bool>() ? "true" : "false";
  return value.dump();
}

struct RowState {
  bool exists = false;
  bool deleted = false;
};

RowState rowState(Database& db, const ObjectDef& object, std::string_view id) {
  auto statement =
      db.prepare("SELECT " + std::string(object.has("IsDeleted") ? "\"IsDeleted\"" : "'false'") +
                 " FROM " + quoteIdentifier(object.name) + " WHERE \"Id\" = ?");
  statement.bind(1, id);
  RowState state;
  if (statement.step()) {
    state.exists = true;
    state.deleted = statement.text(0) == "true";
  }
  return state;
}

// Checks and converts JSON field values for a write. Returns an error or fills
// `values` (canonical field, text or null).
std::optional<RecordError> convert(
    const ObjectDef& object, const nlohmann::json& fields, bool creating, bool force,
    std::vector<std::pair<const FieldDef*, std::optional<std::string>>>& values) {
  if (!fields.is_object()) return error("JSON_PARSER_ERROR", "The body must be a JSON object.");
  std::vector<std::string> notWritable;
  for (const auto& [name, value] : fields.items()) {
    if (name == "attributes") continue;
    const FieldDef* field = object.field(name);
    if (field == nullptr) {
      return error("INVALID_FIELD",
                   "No such column '" + name + "' on sobject of type " + object.name);
    }
    bool allowed = creating ? field->createable : field->updateable;
    if (force)
      allowed = (field->stored() || field->type == FieldType::Base64) &&
                field->sqlExpression.empty() && field->name != "Id";
    if (!allowed) {
      notWritable.push_back(field->name);
      continue;
    }
    if (value.is_object() || value.is_array()) {
      return error("JSON_PARSER_ERROR", "Cannot deserialize instance of " +
                                            std::string(typeName(field->type)) + " from " +
                                            (value.is_object() ? "START_OBJECT" : "START_ARRAY") +
                                            " value for field " + field->name);
    }
    auto text = jsonText(value);
    if (text && text->empty()) text.reset();
    if (text && field->type == FieldType::Base64) {
      auto decoded = WireValues::base64Decode(*text);
      if (!decoded) {
        return error("JSON_PARSER_ERROR", "Illegal base64 value for field " + field->name);
      }
      text = std::move(decoded);
    } else if (text) {
      auto normalized = WireValues::normalize(*field, *text);
      if (!normalized) {
        bool reference = field->type == FieldType::Reference || field->type == FieldType::Id;
        if (reference) {
          return error("MALFORMED_ID", field->label + ": id value of incorrect type: " + *text,
                       {field->name});
        }
        return error("JSON_PARSER_ERROR",
                     "Cannot deserialize instance of " + std::string(typeName(field->type)) +
                         " from VALUE_STRING value " + *text + " for field " + field->name);
      }
      if (field->length > 0 && isTextLike(field->type) &&
          static_cast<int>(utf8Length(*normalized)) > field->length) {
        return error("STRING_TOO_LONG",
                     field->label + ": data value too large: " + normalized->substr(0, 40) +
                         " (max length=" + std::to_string(field->length) + ")",
                     {field->name});
      }
      text = std::move(normalized);
      // Every picklist of the catalog is restricted: a value not in its list is refused.
      if (!force && field->type == FieldType::Picklist && !field->picklistValues.empty() &&
          std::find(field->picklistValues.begin(), field->picklistValues.end(), *text) ==
              field->picklistValues.end()) {
        return error("INVALID_OR_NULL_FOR_RESTRICTED_PICKLIST",
                     field->label + ": bad value for restricted picklist field: " + *text,
                     {field->name});
      }
    }
    if (!text && !field->nillable && !force) {
      return error("REQUIRED_FIELD_MISSING", "Required fields are missing: [" + field->name + "]",
                   {field->name});
    }
    values.emplace_back(field, std::move(text));
  }
  if (!notWritable.empty()) {
    std::string list;
    for (const auto& n : notWritable) list += (list.empty() ? "" : ", ") + n;
    return error("INVALID_FIELD_FOR_INSERT_UPDATE",
                 "Unable to create/update fields: " + list +
                     ". Please check the security settings of this field and verify that it is "
                     "read/write for your profile or permission set.",
                 notWritable);
  }
  return std::nullopt;
}

}  // namespace

namespace OrgRecords {

SaveResult create(OrgStore& store, const ObjectDef& object, const nlohmann::json& fields,
                  const std::string& userId, bool dryRun) {
  if (!object.createable) {
    return failed(error("INSUFFICIENT_ACCESS_OR_READONLY",
                        "You do not have the level of access necessary to perform the operation "
                        "you requested. Please contact the owner of the record or your "
                        "administrator if access is necessary."));
  }
  std::vector<std::pair<const FieldDef*, std::optional<std::string>>> values;
  if (auto e = convert(object, fields, true, false, values)) return failed(*e);
  std::vector<std::string> missing;
  for (const auto& field : object.fields) {
    if (field.nillable || !field.createable || !field.defaultValue.empty() ||
        field.name == "OwnerId" || field.autoNumber) {
      continue;
    }
    bool given = std::any_of(values.begin(), values.end(), [&](const auto& v) {
      return v.first == &field && v.second.has_value();
    });
    if (!given) missing.push_back(field.name);
  }
  if (!missing.empty()) {
    std::string list;
    for (const auto& n : missing) list += (list.empty() ? "" : ", ") + n;
    return failed(
        error("REQUIRED_FIELD_MISSING", "Required fields are missing: [" + list + "]", missing));
  }
  // A document is linked to a record once; a second link is refused.
  if (object.name == "ContentDocumentLink") {
    std::optional<std::string> document;
    std::optional<std::string> entity;
    for (const auto& [field, value] : values) {
      if (field->name == "ContentDocumentId") document = value;
      if (field->name == "LinkedEntityId") entity = value;
    }
    bool linked = false;
    if (document && entity) {
      store.write([&](Database& db) {
        auto statement = db.prepare(
            "SELECT 1 FROM \"ContentDocumentLink\" WHERE \"ContentDocumentId\" = ? AND "
            "\"LinkedEntityId\" = ?");
        statement.bind(1, *document).bind(2, *entity);
        linked = statement.step();
      });
    }
    if (linked) {
      return failed(error("DUPLICATE_VALUE",
                          "Document with ID: " + *document +
                              " is already linked with the entity with ID: " + *entity,
                          {"LinkedEntityId"}));
    }
  }
  if (dryRun) {
    SaveResult result;
    result.success = true;
    result.httpStatus = 201;
    return result;
  }
  std::vector<std::string> names;
  std::vector<std::optional<std::string>> row;
  for (auto& [field, value] : values) {
    names.push_back(field->name);
    row.push_back(std::move(value));
  }
  for (const char* system : {"CreatedById", "LastModifiedById", "OwnerId"}) {
    if (object.has(system) &&
        std::find(names.begin(), names.end(), std::string(system)) == names.end()) {
      names.emplace_back(system);
      row.emplace_back(userId);
    }
  }
  // A first version without a document makes the document, as Salesforce
  // does; with FirstPublishLocationId the document is linked to that record.
  const bool newDocument =
      object.name == "ContentVersion" &&
      std::find(names.begin(), names.end(), std::string("ContentDocumentId")) == names.end();
  std::optional<std::string> title;
  std::optional<std::string> firstPlace;
  std::optional<std::string> owner;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (names[i] == "Title") title = row[i];
    if (names[i] == "FirstPublishLocationId") firstPlace = row[i];
    if (names[i] == "OwnerId") owner = row[i];
  }
  try {
    std::string document;
    if (newDocument) {
      auto documents = store.writer("ContentDocument", {"Title", "OwnerId", "PublishStatus"}, 1);
      document = documents.insert(std::vector<std::optional<std::string>>{title, owner, "P"});
      documents.commit();
      names.emplace_back("ContentDocumentId");
      row.emplace_back(document);
      for (const char* field : {"IsLatest", "VersionNumber", "PublishStatus"}) {
        names.emplace_back(field);
        row.emplace_back(std::string(field) == "IsLatest" ? "true"
                         : std::string(field) == "VersionNumber" ? "1"
                                                                 : "P");
      }
    }
    auto writer = store.writer(object.name, names, 1);
    SaveResult result;
    result.id = writer.insert(row);
    writer.commit();
    if (newDocument) {
      store.write([&](Database& db) {
        db.prepare(
              "UPDATE \"ContentDocument\" SET \"LatestPublishedVersionId\" = ?, \"ContentSize\" = "
              "(SELECT \"ContentSize\" FROM \"ContentVersion\" WHERE \"Id\" = ?), "
              "\"FileType\" = (SELECT \"FileType\" FROM \"ContentVersion\" WHERE \"Id\" = ?), "
              "\"FileExtension\" = (SELECT \"FileExtension\" FROM \"ContentVersion\" WHERE "
              "\"Id\" = ?) WHERE \"Id\" = ?")
            .bind(1, result.id)
            .bind(2, result.id)
            .bind(3, result.id)
            .bind(4, result.id)
            .bind(5, document)
            .run();
      });
      auto links = store.writer("ContentDocumentLink",
                                {"LinkedEntityId", "ContentDocumentId", "ShareType", "Visibility"}, 2);
      using Row = std::vector<std::optional<std::string>>;
      links.insert(Row{owner, document, "I", "AllUsers"});
      if (firstPlace && *firstPlace != owner)
        links.insert(Row{firstPlace, document, "I", "AllUsers"});
      links.commit();
    }
    result.success = true;
    result.httpStatus = 201;
    return result;
  } catch (const OrgStoreError& e) {
    if (e.kind() == OrgStoreError::Kind::BadValue) {
      return failed(error("DUPLICATE_VALUE", e.value()));
    }
    throw;
  }
}

SaveResult update(OrgStore& store, const ObjectDef& object, std::string_view rawId,
                  const nlohmann::json& fields, const std::string& userId, bool force,
                  bool dryRun) {
  auto id = RecordIds::normalize(rawId);
  if (!id) return notFound();
  if (!object.updateable && !force) {
    return failed(error("INSUFFICIENT_ACCESS_OR_READONLY",
                        "You do not have the level of access necessary to perform the operation "
                        "you requested."));
  }
  std::vector<std::pair<const FieldDef*, std::optional<std::string>>> values;
  if (auto e = convert(object, fields, false, force, values)) return failed(*e, 400, *id);
  SaveResult result;
  store.write([&](Database& db) {
    RowState state = rowState(db, object, *id);
    if (!state.exists) {
      result = notFound();
      return;
    }
    if (state.deleted && !force) {
      result = failed(error("ENTITY_IS_DELETED", "entity is deleted"), 404, *id);
      return;
    }
    if (dryRun) {
      result.id = *id;
      result.success = true;
      result.httpStatus = 204;
      return;
    }
    std::string now = WireTime::dateTime(store.now());
    std::string set;
    std::vector<std::optional<std::string>> binds;
    std::set<std::string> given;
    std::optional<std::string> body;
    for (auto& [field, value] : values) {
      if (field->type == FieldType::Base64) {
        body = value;
        continue;
      }
      set += (set.empty() ? "" : ", ") + quoteIdentifier(field->name) + " = ?";
      binds.push_back(value);
      given.insert(field->name);
    }
    for (const char* stamp : {"LastModifiedDate", "SystemModstamp"}) {
      if (object.has(stamp) && !given.count(stamp)) {
        set += (set.empty() ? "" : ", ") + std::string("\"") + stamp + "\" = ?";
        binds.emplace_back(now);
      }
    }
    if (object.has("LastModifiedById") && !given.count("LastModifiedById")) {
      set += (set.empty() ? "" : ", ") + std::string("\"LastModifiedById\" = ?");
      binds.emplace_back(userId);
    }
    if (!set.empty()) {
      auto statement = db.prepare("UPDATE " + quoteIdentifier(object.name) + " SET " + set +
                                  " WHERE \"Id\" = ?");
      int i = 1;
      for (const auto& b : binds) {
        if (b) {
          statement.bind(i++, *b);
        } else {
          statement.bindNull(i++);
        }
      }
      statement.bind(i, *id).run();
    }
    if (body) {
      db.prepare("INSERT OR REPLACE INTO _bodies (object, id, data) VALUES (?, ?, ?)")
          .bind(1, object.name)
          .bind(2, *id)
          .bindBlob(3, *body)
          .run();
    }
    result.id = *id;
    result.success = true;
    result.httpStatus = 204;
  });
  return result;
}

namespace {

// Marks one live record deleted; the caller holds the write transaction.
void markDeleted(Database& db, const ObjectDef& object, const std::string& id,
                 const std::string& now, const std::string& userId,
                 const std::optional<std::string>& masterId) {
  std::string set = "\"IsDeleted\" = 'true', _deleted_at = ?";
  if (object.has("SystemModstamp")) set += ", \"SystemModstamp\" = ?";
  if (object.has("LastModifiedById")) set += ", \"LastModifiedById\" = ?";
  if (masterId) set += ", \"MasterRecordId\" = ?";
  auto statement =
      db.prepare("UPDATE " + quoteIdentifier(object.name) + " SET " + set + " WHERE \"Id\" = ?");
  int i = 1;
  statement.bind(i++, now);
  if (object.has("SystemModstamp")) statement.bind(i++, now);
  if (object.has("LastModifiedById")) statement.bind(i++, userId);
  if (masterId) statement.bind(i++, *masterId);
  statement.bind(i, id).run();
  db.prepare(
        "INSERT OR REPLACE INTO _deletions (object, id, deleted_at, purged) VALUES (?, ?, ?, 0)")
      .bind(1, object.name)
      .bind(2, id)
      .bind(3, now)
      .run();
}

}  // namespace

SaveResult upsert(OrgStore& store, const ObjectDef& object, const FieldDef& key,
                  const std::string& value, nlohmann::json fields, const std::string& userId,
                  bool dryRun) {
  if (!key.externalId && key.name != "Id") {
    return failed(error("INVALID_FIELD", "Field " + key.name +
                                             " is not an external id field and cannot be used "
                                             "for upsert.",
                        {key.name}));
  }
  if (!fields.is_object()) return failed(error("JSON_PARSER_ERROR", "The body must be a JSON object."));
  for (auto it = fields.begin(); it != fields.end();) {
    if (it.key() == key.name || (it.key().size() == key.name.size() &&
                                 std::equal(it.key().begin(), it.key().end(), key.name.begin(),
                                            [](char a, char b) {
                                              return std::tolower(static_cast<unsigned char>(a)) ==
                                                     std::tolower(static_cast<unsigned char>(b));
                                            }))) {
      auto given = jsonText(*it);
      if (given && *given != value) {
        return failed(error("INVALID_FIELD",
                            "The value of " + key.name + " in the body differs from the one in "
                            "the request.",
                            {key.name}));
      }
      it = fields.erase(it);
    } else {
      ++it;
    }
  }
  std::vector<std::string> matches;
  {
    auto lease = store.read();
    std::string sql = "SELECT \"Id\" FROM " + quoteIdentifier(object.name) + " WHERE " +
                      quoteIdentifier(key.name) + " = ? COLLATE NOCASE";
    if (object.has("IsDeleted")) sql += " AND \"IsDeleted\" = 'false'";
    auto statement = lease->prepare(sql + " LIMIT 2");
    statement.bind(1, value);
    while (statement.step()) matches.emplace_back(statement.text(0));
  }
  if (matches.size() > 1) {
    return failed(error("MULTIPLE_CHOICES",
                        "More than one record found for external id field " + key.name + ": " +
                            value),
                  300);
  }
  if (matches.empty()) {
    if (key.name == "Id") return notFound();
    fields[key.name] = value;
    SaveResult result = create(store, object, fields, userId, dryRun);
    result.created = result.success;
    return result;
  }
  SaveResult result = update(store, object, matches.front(), fields, userId, false, dryRun);
  if (result.success && result.id.empty()) result.id = matches.front();
  if (result.success) result.httpStatus = 200;
  return result;
}

SaveResult remove(OrgStore& store, std::string_view rawId, const std::string& userId, bool dryRun) {
  auto id = RecordIds::normalize(rawId);
  const ObjectDef* object = id ? Schema::objectForId(*id) : nullptr;
  if (!id || object == nullptr) {
    return failed(error("MALFORMED_ID", "malformed id " + std::string(rawId)), 400);
  }
  if (!object->deletable || !object->has("IsDeleted")) {
    return failed(
        error("INSUFFICIENT_ACCESS_OR_READONLY", "insufficient access rights on object id"), 400,
        *id);
  }
  SaveResult result;
  store.write([&](Database& db) {
    RowState state = rowState(db, *object, *id);
    if (!state.exists) {
      result = failed(error("ENTITY_IS_DELETED", "entity is deleted"), 404, *id);
      return;
    }
    if (state.deleted) {
      result = failed(error("ENTITY_IS_DELETED", "entity is deleted"), 404, *id);
      return;
    }
    if (!dryRun)
      markDeleted(db, *object, *id, WireTime::dateTime(store.now()), userId, std::nullopt);
    result.id = *id;
    result.success = true;
    result.httpStatus = 204;
  });
  return result;
}

SaveResult undelete(OrgStore& store, std::string_view rawId, const std::string& userId) {
  auto id = RecordIds::normalize(rawId);
  const ObjectDef* object = id ? Schema::objectForId(*id) : nullptr;
  if (!id || object == nullptr) {
    return failed(error("INVALID_ID_FIELD", "invalid record id"), 400);
  }
  if (!object->undeletable || !object->has("IsDeleted")) {
    return failed(error("UNDELETE_FAILED", "Entity type cannot be undeleted"), 400, *id);
  }
  SaveResult result;
  store.write([&](Database& db) {
    RowState state = rowState(db, *object, *id);
    if (!state.exists) {
      result = failed(error("UNDELETE_FAILED", "Entity is not in the recycle bin"), 400, *id);
      return;
    }
    if (!state.deleted) {
      result = failed(error("UNDELETE_FAILED", "Entity is not in the recycle bin"), 400, *id);
      return;
    }
    std::string now = WireTime::dateTime(store.now());
    std::string set = "\"IsDeleted\" = 'false', _deleted_at = NULL";
    if (object->has("MasterRecordId")) set += ", \"MasterRecordId\" = NULL";
    if (object->has("SystemModstamp")) set += ", \"SystemModstamp\" = ?";
    if (object->has("LastModifiedDate")) set += ", \"LastModifiedDate\" = ?";
    if (object->has("LastModifiedById")) set += ", \"LastModifiedById\" = ?";
    auto statement =
        db.prepare("UPDATE " + quoteIdentifier(object->name) + " SET " + set + " WHERE \"Id\" = ?");
    int i = 1;
    if (object->has("SystemModstamp")) statement.bind(i++, now);
    if (object->has("LastModifiedDate")) statement.bind(i++, now);
    if (object->has("LastModifiedById")) statement.bind(i++, userId);
    statement.bind(i, *id).run();
    db.prepare("DELETE FROM _deletions WHERE object = ? AND id = ?")
        .bind(1, object->name)
        .bind(2, *id)
        .run();
    result.id = *id;
    result.success = true;
    result.httpStatus = 200;
  });
  return result;
}

namespace {

std::int64_t purgeWhere(OrgStore& store, const ObjectDef& object, const std::string& condition,
                        const std::vector<std::string>& binds) {
  if (!object.has("IsDeleted")) return 0;
  std::int64_t purged = 0;
  store.write([&](Database& db) {
    std::string where = "\"IsDeleted\" = 'true' AND (" + condition + ")";
    auto latest = db.prepare("SELECT MAX(_deleted_at) FROM " + quoteIdentifier(object.name) +
                             " WHERE " + where);
    for (std::size_t i = 0; i < binds.size(); ++i) latest.bind(static_cast<int>(i) + 1, binds[i]);
    std::optional<std::string> newest;
    if (latest.step() && !latest.isNull(0)) newest = std::string(latest.text(0));
    latest.reset();
    if (!newest) return;
    // The ids first: the conditions may read the deletion log that is cleared below.
    std::vector<std::string> ids;
    auto select =
        db.prepare("SELECT \"Id\" FROM " + quoteIdentifier(object.name) + " WHERE " + where);
    for (std::size_t i = 0; i < binds.size(); ++i) select.bind(static_cast<int>(i) + 1, binds[i]);
    while (select.step()) ids.emplace_back(select.text(0));
    select.reset();
    auto row = db.prepare("DELETE FROM " + quoteIdentifier(object.name) + " WHERE \"Id\" = ?");
    auto body = db.prepare("DELETE FROM _bodies WHERE object = ? AND id = ?");
    auto log = db.prepare("DELETE FROM _deletions WHERE object = ? AND id = ?");
    for (const auto& id : ids) {
      row.reset();
      row.bind(1, id).run();
      body.reset();
      body.bind(1, object.name).bind(2, id).run();
      log.reset();
      log.bind(1, object.name).bind(2, id).run();
    }
    purged = static_cast<std::int64_t>(ids.size());
    // getDeleted can no longer vouch for anything deleted up to the newest purge.
    std::string key = "earliestDateAvailable." + object.name;
    auto current = db.prepare("SELECT value FROM _settings WHERE key = ?");
    current.bind(1, key);
    std::string value = *newest;
    if (current.step() && current.text(0) > value) value = std::string(current.text(0));
    current.reset();
    db.prepare("INSERT OR REPLACE INTO _settings (key, value) VALUES (?, ?)")
        .bind(1, key)
        .bind(2, value)
        .run();
  });
  return purged;
}

}  // namespace

std::int64_t purge(OrgStore& store, std::string_view objectName,
                   const std::vector<std::string>& ids) {
  std::int64_t purged = 0;
  if (!ids.empty()) {
    for (const auto& raw : ids) {
      auto id = RecordIds::normalize(raw);
      const ObjectDef* object = id ? Schema::objectForId(*id) : nullptr;
      if (object != nullptr) purged += purgeWhere(store, *object, "\"Id\" = ?", {*id});
    }
    return purged;
  }
  for (const auto& object : Schema::objects()) {
    if (!objectName.empty() && object.name != objectName) continue;
    purged += purgeWhere(store, object, "1", {});
  }
  return purged;
}

std::int64_t purgeExpired(OrgStore& store) {
  std::string cutoff = WireTime::dateTime(store.now() - kRecycleBinRetention);
  // The deletion log (indexed by object and date) says which objects have anything
  // old enough, so the object tables are only touched when there is work.
  std::vector<std::string> due;
  {
    auto lease = store.read();
    auto statement = lease->prepare(
        "SELECT DISTINCT object FROM _deletions WHERE deleted_at < ? ORDER BY object");
    statement.bind(1, cutoff);
    while (statement.step()) due.emplace_back(statement.text(0));
  }
  std::int64_t purged = 0;
  for (const auto& name : due) {
    const ObjectDef* object = Schema::object(name);
    if (object == nullptr) continue;
    purged += purgeWhere(
        store, *object, "\"Id\" IN (SELECT id FROM _deletions WHERE object = ? AND deleted_at < ?)",
        {object->name, cutoff});
  }
  return purged;
}

MergeOutcome merge(OrgStore& store, const MergeRequest& request, const std::string& userId) {
  MergeOutcome outcome;
  auto fail = [&](std::string code, std::string message, std::vector<std::string> fields = {}) {
    outcome.success = false;
    outcome.errors.push_back(error(std::move(code), std::move(message), std::move(fields)));
    return outcome;
  };
  const ObjectDef* object = Schema::object(request.objectName);
  if (object == nullptr) {
    return fail("INVALID_TYPE", "sObject type '" + request.objectName + "' is not supported.");
  }
  if (!object->mergeable) {
    return fail("INVALID_TYPE", "Merge is supported only for Account, Contact and Lead.");
  }
  auto masterId = RecordIds::normalize(request.masterId);
  if (!masterId || Schema::objectForId(*masterId) != object) {
    return fail("INVALID_ID_FIELD", "Invalid master record id: " + request.masterId);
  }
  outcome.id = *masterId;
  if (request.loserIds.empty()) {
    return fail("INVALID_OPERATION", "A merge request needs at least one record to merge.");
  }
  if (request.loserIds.size() > 2) {
    return fail("LIMIT_EXCEEDED",
                "A merge request can merge at most two records into the master record.");
  }
  std::vector<std::string> losers;
  for (const auto& raw : request.loserIds) {
    auto id = RecordIds::normalize(raw);
    if (!id || Schema::objectForId(*id) != object) {
      return fail("INVALID_ID_FIELD", "Invalid record id to merge: " + raw);
    }
    if (*id == *masterId) {
      return fail("INVALID_ID_FIELD", "The master record cannot be merged into itself.");
    }
    if (std::find(losers.begin(), losers.end(), *id) == losers.end()) losers.push_back(*id);
  }
  nlohmann::json fields = nlohmann::json::object();
  for (const auto& [name, value] : request.fieldValues) {
    if (name == "Id" || name == "type") continue;
    const FieldDef* field = object->field(name);
    if (field != nullptr && field->externalId) {
      return fail("INVALID_FIELD_FOR_INSERT_UPDATE",
                  "External ID fields cannot be set in a merge: " + field->name, {field->name});
    }
    fields[name] = value ? nlohmann::json(*value) : nlohmann::json(nullptr);
  }
  std::vector<std::pair<const FieldDef*, std::optional<std::string>>> values;
  if (auto e = convert(*object, fields, false, false, values)) {
    outcome.errors.push_back(*e);
    return outcome;
  }
  store.write([&](Database& db) {
    for (const auto& id : std::vector<std::string>{*masterId}) {
      RowState state = rowState(db, *object, id);
      if (!state.exists || state.deleted) {
        fail("ENTITY_IS_DELETED", "entity is deleted");
        return;
      }
    }
    for (const auto& id : losers) {
      RowState state = rowState(db, *object, id);
      if (!state.exists || state.deleted) {
        fail("ENTITY_IS_DELETED", "entity is deleted");
        return;
      }
    }
    std::string now = WireTime::dateTime(store.now());
    // The master takes the chosen values.
    std::string set = "\"LastModifiedDate\" = ?, \"SystemModstamp\" = ?, \"LastModifiedById\" = ?";
    for (const auto& [field, value] : values) set += ", " + quoteIdentifier(field->name) + " = ?";
    auto update =
        db.prepare("UPDATE " + quoteIdentifier(object->name) + " SET " + set + " WHERE \"Id\" = ?");
    int i = 1;
    update.bind(1, now).bind(2, now).bind(3, userId);
    i = 4;
    for (const auto& [field, value] : values) {
      if (value) {
        update.bind(i++, *value);
      } else {
        update.bindNull(i++);
      }
    }
    update.bind(i, *masterId).run();
    // Related records follow the master.
    std::set<std::string> related;
    for (const auto& [child, field] : Schema::childrenOf(object->name)) {
      if (child->name.ends_with("History") || child->name.ends_with("Feed")) continue;
      std::string table = quoteIdentifier(child->name);
      std::string column = quoteIdentifier(field->name);
      for (const auto& loser : losers) {
        auto find = db.prepare("SELECT \"Id\" FROM " + table + " WHERE " + column + " = ?");
        find.bind(1, loser);
        std::vector<std::string> ids;
        while (find.step()) ids.emplace_back(find.text(0));
        if (ids.empty()) continue;
        std::string stamps;
        if (child->has("SystemModstamp")) stamps += ", \"SystemModstamp\" = ?";
        if (child->has("LastModifiedDate")) stamps += ", \"LastModifiedDate\" = ?";
        auto move = db.prepare("UPDATE " + table + " SET " + column + " = ?" + stamps + " WHERE " +
                               column + " = ?");
        int k = 1;
        move.bind(k++, *masterId);
        if (child->has("SystemModstamp")) move.bind(k++, now);
        if (child->has("LastModifiedDate")) move.bind(k++, now);
        move.bind(k, loser).run();
        related.insert(ids.begin(), ids.end());
      }
    }
    for (const auto& loser : losers) markDeleted(db, *object, loser, now, userId, *masterId);
    outcome.success = true;
    outcome.mergedRecordIds = losers;
    outcome.updatedRelatedIds.assign(related.begin(), related.end());
  });
  return outcome;
}

std::variant<GetDeletedAnswer, GetDeletedRefused> getDeleted(OrgStore& store,
                                                             const ObjectDef& object,
                                                             SystemTime start, SystemTime end) {
  using namespace std::chrono;
  // Salesforce ignores seconds: both ends are taken to the whole minute.
  auto toMinute = [](SystemTime t) { return SystemTime(floor<minutes>(t)); };
  start = toMinute(start);
  end = toMinute(end);
  SystemTime now = store.now();
  if (!object.has("IsDeleted") || !object.replicateable) {
    return GetDeletedRefused{"INVALID_TYPE",
                             "sObject type '" + object.name + "' is not supported."};
  }
  if (end - start <= minutes(1)) {
    return GetDeletedRefused{"INVALID_REPLICATION_DATE",
                             "startDate must chronologically precede endDate by more than one "
                             "minute"};
  }
  if (start < now - hours(24 * 30)) {
    return GetDeletedRefused{"INVALID_REPLICATION_DATE",
                             "startDate cannot be more than 30 days ago"};
  }
  purgeExpired(store);
  GetDeletedAnswer answer;
  answer.latestDateCovered = std::min(end, toMinute(now));
  SystemTime earliest = toMinute(now - kRecycleBinRetention);
  if (auto purged = store.setting("earliestDateAvailable." + object.name)) {
    if (auto time = WireTime::parseDateTime(*purged)) {
      earliest = std::max(earliest, toMinute(*time));
    }
  }
  answer.earliestDateAvailable = earliest;
  auto lease = store.read();
  auto statement = lease->prepare(
      "SELECT id, deleted_at FROM _deletions WHERE object = ? AND deleted_at >= ? AND "
      "deleted_at < ? ORDER BY deleted_at, id LIMIT 600001");
  statement.bind(1, object.name)
      .bind(2, WireTime::dateTime(start))
      .bind(3, WireTime::dateTime(answer.latestDateCovered));
  while (statement.step()) {
    answer.records.push_back({std::string(statement.text(0)), std::string(statement.text(1))});
  }
  if (answer.records.size() > 600000) {
    return GetDeletedRefused{"EXCEEDED_ID_LIMIT",
                             "record limit reached. cannot submit more than 600000 records in "
                             "this operation"};
  }
  return answer;
}

std::vector<std::pair<std::string, std::int64_t>> recordCounts(
    OrgStore& store, const std::vector<std::string>& objectNames) {
  std::vector<std::pair<std::string, std::int64_t>> out;
  for (const auto& object : Schema::objects()) {
    if (!object.queryable) continue;
    bool wanted = objectNames.empty();
    for (const auto& name : objectNames) {
      if (Schema::object(name) == &object) wanted = true;
    }
    if (!wanted) continue;
    std::int64_t count = store.count(object.name);
    if (count > 0 || !objectNames.empty()) out.emplace_back(object.name, count);
  }
  return out;
}

}  // namespace OrgRecords

}  // namespace corvane::orgsim
