#include "import/import_fields.hpp"

#include <nlohmann/json.hpp>

#include "import/import_error.hpp"

namespace corvane::ImportFields {

namespace {

std::string text(const nlohmann::json& object, const char* key) {
  auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

int number(const nlohmann::json& object, const char* key) {
  auto found = object.find(key);
  return found != object.end() && found->is_number_integer() ? found->get<int>() : 0;
}

bool flag(const nlohmann::json& object, const char* key, bool otherwise) {
  auto found = object.find(key);
  return found != object.end() && found->is_boolean() ? found->get<bool>() : otherwise;
}

}  // namespace

std::vector<ImportField> fromDescribe(const nlohmann::json& describe) {
  const nlohmann::json* list = &describe;
  if (describe.is_object()) {
    auto found = describe.find("fields");
    if (found == describe.end()) throw ImportError::badDescribe("it has no field list");
    list = &*found;
  }
  if (!list->is_array()) throw ImportError::badDescribe("its field list is not a list");
  std::vector<ImportField> fields;
  fields.reserve(list->size());
  for (const auto& entry : *list) {
    if (!entry.is_object()) throw ImportError::badDescribe("a field is not an object");
    ImportField field;
    field.name = text(entry, "name");
    if (field.name.empty()) throw ImportError::badDescribe("a field has no name");
    field.label = text(entry, "label");
    field.type = text(entry, "type");
    field.length = number(entry, "length");
    field.scale = number(entry, "scale");
    field.precision = field.type == "int" ? number(entry, "digits") : number(entry, "precision");
    field.nillable = flag(entry, "nillable", true);
    field.createable = flag(entry, "createable", false);
    field.updateable = flag(entry, "updateable", false);
    field.defaultedOnCreate = flag(entry, "defaultedOnCreate", false);
    field.externalId = flag(entry, "externalId", false);
    field.idLookup = flag(entry, "idLookup", false);
    auto values = entry.find("picklistValues");
    if (values != entry.end() && values->is_array()) {
      for (const auto& value : *values) {
        if (!value.is_object() || !flag(value, "active", true)) continue;
        std::string name = text(value, "value");
        if (!name.empty()) field.picklistValues.push_back(std::move(name));
      }
    }
    fields.push_back(std::move(field));
  }
  return fields;
}

}  // namespace corvane::ImportFields
