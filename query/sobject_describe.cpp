#include "query/sobject_describe.hpp"

namespace corvane::SObjectDescribe {

namespace {

using Json = nlohmann::json;

std::string text(const Json& object, const char* key) {
  auto it = object.find(key);
  return it != object.end() && it->is_string() ? it->get<std::string>() : std::string();
}

bool flag(const Json& object, const char* key, bool otherwise) {
  auto it = object.find(key);
  return it != object.end() && it->is_boolean() ? it->get<bool>() : otherwise;
}

const Json* arrayIn(const Json& reply, const char* key) {
  if (reply.is_array()) return &reply;
  if (reply.is_object()) {
    auto it = reply.find(key);
    if (it != reply.end() && it->is_array()) return &*it;
  }
  return nullptr;
}

}  // namespace

std::vector<SObjectSummary> summaries(const Json& globalDescribe) {
  std::vector<SObjectSummary> out;
  const Json* objects = arrayIn(globalDescribe, "sobjects");
  if (!objects) return out;
  out.reserve(objects->size());
  for (const auto& entry : *objects) {
    if (!entry.is_object()) continue;
    SObjectSummary summary;
    summary.name = text(entry, "name");
    if (summary.name.empty()) continue;
    summary.label = text(entry, "label");
    summary.custom = flag(entry, "custom", false);
    summary.queryable = flag(entry, "queryable", true);
    out.push_back(std::move(summary));
  }
  return out;
}

std::vector<SObjectField> fields(const Json& describe) {
  std::vector<SObjectField> out;
  const Json* entries = arrayIn(describe, "fields");
  if (!entries) return out;
  out.reserve(entries->size());
  for (const auto& entry : *entries) {
    if (!entry.is_object()) continue;
    SObjectField field;
    field.name = text(entry, "name");
    if (field.name.empty()) continue;
    field.label = text(entry, "label");
    field.type = text(entry, "type");
    if (auto it = entry.find("length"); it != entry.end() && it->is_number_integer())
      field.length = it->get<int>();
    field.custom = flag(entry, "custom", false);
    field.relationshipName = text(entry, "relationshipName");
    if (auto it = entry.find("referenceTo"); it != entry.end() && it->is_array()) {
      for (const auto& target : *it)
        if (target.is_string()) field.referenceTo.push_back(target.get<std::string>());
    }
    if (auto it = entry.find("picklistValues"); it != entry.end() && it->is_array()) {
      for (const auto& value : *it) {
        if (value.is_object() && flag(value, "active", true) && !text(value, "value").empty())
          field.picklistValues.push_back(text(value, "value"));
      }
    }
    out.push_back(std::move(field));
  }
  return out;
}

Json toJSON(const std::vector<SObjectSummary>& objects) {
  Json out = Json::array();
  for (const auto& object : objects) {
    out.push_back({{"name", object.name},
                   {"label", object.label},
                   {"custom", object.custom},
                   {"queryable", object.queryable}});
  }
  return out;
}

Json toJSON(const std::vector<SObjectField>& fields) {
  Json out = Json::array();
  for (const auto& field : fields) {
    Json values = Json::array();
    for (const auto& value : field.picklistValues) values.push_back({{"value", value}});
    Json entry = {{"name", field.name},      {"label", field.label},
                  {"type", field.type},      {"length", field.length},
                  {"custom", field.custom},  {"referenceTo", field.referenceTo},
                  {"picklistValues", values}};
    entry["relationshipName"] =
        field.relationshipName.empty() ? Json(nullptr) : Json(field.relationshipName);
    out.push_back(std::move(entry));
  }
  return out;
}

}  // namespace corvane::SObjectDescribe
