#include "backup/backup_planner.hpp"

#include <algorithm>
#include <map>

#include <nlohmann/json.hpp>

#include "backup/backup_error.hpp"
#include "connections/server_time.hpp"

namespace corvane::BackupPlanner {

namespace {

std::string lowered(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && lowered(a) == lowered(b);
}

template <std::size_t N>
bool isOneOf(std::string_view name, const std::array<std::string_view, N>& list) {
  return std::find(list.begin(), list.end(), name) != list.end();
}

bool boolean(const nlohmann::json& entry, const char* key) {
  auto it = entry.find(key);
  return it != entry.end() && it->is_boolean() && it->get<bool>();
}

bool endsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

bool isCandidate(const GlobalObject& object) {
  return object.queryable && object.replicateable && !object.deprecatedAndHidden;
}

const char* contentDocumentLinkFilter =
    "ContentDocumentId IN (SELECT ContentDocumentId FROM ContentVersion)";

std::string percentEncoded(std::string_view text) {
  static constexpr char hex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '_' || c == '.' || c == '~' || c == '(' || c == ')' || c == ',') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

}  // namespace

std::vector<GlobalObject> GlobalObject::parse(std::string_view data) {
  try {
    const auto json = nlohmann::json::parse(data);
    const auto& list = json.at("sobjects");
    if (!list.is_array()) throw BackupError::badResponse("the org's list of objects");
    std::vector<GlobalObject> objects;
    for (const auto& entry : list) {
      GlobalObject object;
      object.name = entry.at("name").get<std::string>();
      if (auto it = entry.find("keyPrefix"); it != entry.end() && it->is_string())
        object.keyPrefix = it->get<std::string>();
      object.queryable = boolean(entry, "queryable");
      object.replicateable = boolean(entry, "replicateable");
      object.deprecatedAndHidden = boolean(entry, "deprecatedAndHidden");
      object.customSetting = boolean(entry, "customSetting");
      objects.push_back(std::move(object));
    }
    return objects;
  } catch (const nlohmann::json::exception&) {
    throw BackupError::badResponse("the org's list of objects");
  }
}

bool Describe::has(std::string_view field) const {
  return std::any_of(fields.begin(), fields.end(),
                     [&](const Field& f) { return sameName(f.name, field); });
}

Describe Describe::parse(std::string_view data) {
  try {
    const auto json = nlohmann::json::parse(data);
    Describe describe;
    describe.name = json.at("name").get<std::string>();
    const auto& list = json.at("fields");
    if (!list.is_array()) throw BackupError::badResponse("the description of " + describe.name);
    for (const auto& entry : list) {
      describe.fields.push_back({entry.at("name").get<std::string>(),
                                 entry.at("type").get<std::string>(),
                                 boolean(entry, "calculated")});
    }
    return describe;
  } catch (const nlohmann::json::exception&) {
    throw BackupError::badResponse("the description of an object");
  }
}

void to_json(nlohmann::json& json, const Options& options) {
  json = nlohmann::json{{"includeHistoryAndFeed", options.includeHistoryAndFeed},
                        {"includeFormulaFields", options.includeFormulaFields},
                        {"extraObjects", options.extraObjects},
                        {"excludedObjects", options.excludedObjects}};
  if (options.onlyObjects) json["onlyObjects"] = *options.onlyObjects;
}

void from_json(const nlohmann::json& json, Options& options) {
  options = Options{};
  if (auto it = json.find("includeHistoryAndFeed"); it != json.end())
    it->get_to(options.includeHistoryAndFeed);
  if (auto it = json.find("includeFormulaFields"); it != json.end())
    it->get_to(options.includeFormulaFields);
  if (auto it = json.find("extraObjects"); it != json.end()) it->get_to(options.extraObjects);
  if (auto it = json.find("excludedObjects"); it != json.end()) it->get_to(options.excludedObjects);
  if (auto it = json.find("onlyObjects"); it != json.end() && !it->is_null())
    options.onlyObjects = it->get<std::vector<std::string>>();
}

std::string toText(Mode mode) {
  switch (mode) {
    case Mode::full:
      return "full";
    case Mode::changes:
      return "changes";
    case Mode::whole:
      return "whole";
  }
  return "whole";
}

bool isHistoryOrFeed(std::string_view name) {
  return endsWith(name, "History") || endsWith(name, "Feed");
}

std::vector<std::string> objects(const std::vector<GlobalObject>& global, const Options& options) {
  std::map<std::string, const GlobalObject*> byLowerName;
  for (const auto& object : global) byLowerName.emplace(lowered(object.name), &object);

  std::map<std::string, std::string> chosen;  // lower-cased name -> the org's spelling
  for (const auto& object : global) {
    if (!isCandidate(object)) continue;
    if (!options.includeHistoryAndFeed && isHistoryOrFeed(object.name)) continue;
    chosen.emplace(lowered(object.name), object.name);
  }
  for (const auto& extra : options.extraObjects) {
    if (auto it = byLowerName.find(lowered(extra)); it != byLowerName.end())
      chosen.emplace(it->first, it->second->name);
  }
  for (const auto& excluded : options.excludedObjects) chosen.erase(lowered(excluded));
  if (options.onlyObjects) {
    std::set<std::string> wanted;
    for (const auto& name : *options.onlyObjects) wanted.insert(lowered(name));
    std::erase_if(chosen, [&](const auto& entry) { return wanted.count(entry.first) == 0; });
  }
  for (const auto& refused : bulkRefused) chosen.erase(lowered(refused));

  std::vector<std::string> names;
  for (auto& [key, name] : chosen) names.push_back(std::move(name));
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> advancedChoices(const std::vector<GlobalObject>& global) {
  std::vector<std::string> names;
  for (const auto& object : global) {
    if (!object.queryable || object.deprecatedAndHidden) continue;
    if (isOneOf(object.name, bulkRefused)) continue;
    if (!isCandidate(object) || isHistoryOrFeed(object.name)) names.push_back(object.name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<Field> selected(const Describe& describe, const Options& options) {
  std::vector<Field> kept;
  for (const auto& field : describe.fields) {
    if (isOneOf(lowered(field.type), refusedTypes)) continue;
    if (field.calculated && !options.includeFormulaFields) continue;
    kept.push_back(field);
  }
  return kept;
}

std::vector<std::string> fields(const Describe& describe, const Options& options) {
  std::vector<std::string> names;
  for (auto& field : selected(describe, options)) names.push_back(std::move(field.name));
  return names;
}

std::optional<std::string> watermarkField(const Describe& describe) {
  for (auto candidate : watermarkCandidates) {
    if (describe.has(candidate)) return std::string(candidate);
  }
  return std::nullopt;
}

ObjectPlan plan(const Describe& describe, const Options& options, std::optional<SystemTime> since,
                const std::set<std::string>& unsupported) {
  std::set<std::string> refused;
  for (const auto& name : unsupported) refused.insert(lowered(name));
  ObjectPlan plan;
  plan.object = describe.name;
  plan.fieldTypes.emplace();
  for (const auto& field : selected(describe, options)) {
    if (refused.count(lowered(field.name)) != 0) continue;
    plan.fields.push_back(field.name);
    plan.fieldTypes->push_back(field.type);
  }
  const bool isLinks = describe.name == "ContentDocumentLink";
  if (isLinks) {
    // Which record a document belongs to, by kind and name, for FileLinks.csv.
    for (const char* path : {"LinkedEntity.Type", "LinkedEntity.Name"}) {
      plan.fields.push_back(path);
      plan.fieldTypes->push_back("string");
    }
  }
  plan.hasIsDeleted = describe.has("IsDeleted");
  plan.watermarkField = watermarkField(describe);

  std::string soql = "SELECT ";
  for (std::size_t i = 0; i < plan.fields.size(); ++i) {
    if (i > 0) soql += ", ";
    soql += plan.fields[i];
  }
  soql += " FROM " + describe.name;
  std::vector<std::string> conditions;
  if (isLinks) conditions.push_back(contentDocumentLinkFilter);
  if (plan.watermarkField && since) {
    plan.mode = Mode::changes;
    conditions.push_back(*plan.watermarkField + " >= " + ServerTime::soqlLiteral(*since));
  } else {
    plan.mode = plan.watermarkField ? Mode::full : Mode::whole;
  }
  for (std::size_t i = 0; i < conditions.size(); ++i)
    soql += (i == 0 ? " WHERE " : " AND ") + conditions[i];
  plan.soql = std::move(soql);
  plan.operation = isOneOf(describe.name, archivable) ? "queryAll" : "query";
  return plan;
}

std::pair<std::string, std::string> idQuery(const std::string& object) {
  std::string soql = "SELECT Id FROM " + object;
  if (object == "ContentDocumentLink")
    return {soql + " WHERE " + contentDocumentLinkFilter, "query"};
  // Archived activities are only read by queryAll, which also returns the
  // deleted ones still in the Recycle Bin; those must not count as present.
  if (isOneOf(object, archivable)) return {soql + " WHERE IsDeleted = false", "queryAll"};
  return {soql, "query"};
}

std::optional<std::string> countSOQL(std::string_view soql) {
  const auto from = soql.find(" FROM ");
  if (from == std::string_view::npos) return std::nullopt;
  return "SELECT COUNT()" + std::string(soql.substr(from));
}

std::string countPath(std::string_view soql, std::string_view operation,
                      std::string_view apiVersion) {
  const std::string counting = countSOQL(soql).value_or(std::string(soql));
  return "/services/data/v" + std::string(apiVersion) + "/" +
         (operation == "queryAll" ? "queryAll" : "query") + "?q=" + percentEncoded(counting);
}

}  // namespace corvane::BackupPlanner
