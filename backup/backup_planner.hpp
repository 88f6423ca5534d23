// What a backup copies: which objects, which of their fields, how a change is
// noticed, and the SOQL that reads each object.
//
// Pure functions over Salesforce's own descriptions of the org (the global
// describe and each object's describe), which the run fetches and hands in.
#pragma once

#include <array>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "platform/iso_time.hpp"

namespace corvane::BackupPlanner {

// One entry of the org's object list (the "sobjects" of the global describe).
struct GlobalObject {
  std::string name;
  std::optional<std::string> keyPrefix;
  bool queryable = false;
  bool replicateable = false;
  bool deprecatedAndHidden = false;
  bool customSetting = false;

  // The "sobjects" of a global describe answer. Throws BackupError::badResponse
  // when the answer is not that JSON.
  static std::vector<GlobalObject> parse(std::string_view data);
  bool operator==(const GlobalObject&) const = default;
};

struct Field {
  std::string name;
  std::string type;         // Salesforce's field type: "string", "address", ...
  bool calculated = false;  // a formula field
  bool operator==(const Field&) const = default;
};

struct Describe {
  std::string name;
  std::vector<Field> fields;

  // Whether the object has a field of this name (any letter case).
  bool has(std::string_view field) const;
  // One object's describe answer. Throws BackupError::badResponse when it is
  // not that JSON.
  static Describe parse(std::string_view data);
  bool operator==(const Describe&) const = default;
};

// What to include; stored with the backup set.
struct Options {
  bool includeHistoryAndFeed = false;
  // Formula values are worked out by Salesforce and cannot be loaded back, so
  // they are left out unless asked for.
  bool includeFormulaFields = false;
  std::vector<std::string> extraObjects;
  std::vector<std::string> excludedObjects;
  std::optional<std::vector<std::string>> onlyObjects;
  bool operator==(const Options&) const = default;
};
// JSON keys are the field names; missing keys take the defaults above.
void to_json(nlohmann::json& json, const Options& options);
void from_json(const nlohmann::json& json, Options& options);

enum class Mode { full, changes, whole };
std::string toText(Mode mode);

// One object's copy; what the run stores in its jobs row.
struct ObjectPlan {
  std::string object;
  std::vector<std::string> fields;
  std::optional<std::vector<std::string>> fieldTypes;  // parallel to fields
  std::optional<std::string> watermarkField;
  bool hasIsDeleted = false;
  Mode mode = Mode::whole;
  std::string operation;  // "query" or "queryAll"
  std::string soql;
  bool operator==(const ObjectPlan&) const = default;
};

// Objects whose rows describe files; their bodies are fetched by the file step.
inline constexpr std::array<std::string_view, 5> fileObjects{
    "ContentVersion", "ContentDocument", "ContentDocumentLink", "Attachment", "Document"};
// Objects never planned: Salesforce will not read them in bulk.
inline constexpr std::array<std::string_view, 6> bulkRefused{
    "RecentlyViewed", "UserRecordAccess",     "IdeaComment",
    "Vote",           "ActionableListMember", "KnowledgeArticleVersionHistory"};
// Field types never selected.
inline constexpr std::array<std::string_view, 3> refusedTypes{"address", "location", "base64"};
// Objects whose archived rows are read with "queryAll".
inline constexpr std::array<std::string_view, 2> archivable{"Task", "Event"};
// The change watermark, in order of preference.
inline constexpr std::array<std::string_view, 3> watermarkCandidates{
    "SystemModstamp", "LastModifiedDate", "CreatedDate"};

// The reasons an object is left out.
inline constexpr const char* notDescribedReason = "Salesforce would not describe this object.";
inline constexpr const char* bulkRefusedReason =
    "Salesforce does not allow this object to be read in bulk.";

// The objects to copy, sorted by name.
std::vector<std::string> objects(const std::vector<GlobalObject>& global, const Options& options);

// Objects the user may add as extras: the readable ones that the standard
// choice leaves out (history and feed objects, objects that cannot be
// replicated), sorted by name. Never a bulk-refused or hidden object.
std::vector<std::string> advancedChoices(const std::vector<GlobalObject>& global);

// The name ends in "History" or "Feed".
bool isHistoryOrFeed(std::string_view name);

// The describe's fields in order, without refused types and, unless asked
// for, formula fields.
std::vector<Field> selected(const Describe& describe, const Options& options);
std::vector<std::string> fields(const Describe& describe, const Options& options);

// The first watermark candidate the object has, spelt as in the candidate list.
std::optional<std::string> watermarkField(const Describe& describe);

// One object's plan. since is the start of the last usable run, none for a
// full copy. unsupported are fields Salesforce refused in an earlier query
// (objects.unsupported_fields), left out (any letter case).
ObjectPlan plan(const Describe& describe, const Options& options, std::optional<SystemTime> since,
                const std::set<std::string>& unsupported = {});

// The id-only query (soql, operation) that lists an object's live records,
// for finding deletions.
std::pair<std::string, std::string> idQuery(const std::string& object);

// "SELECT COUNT()" and the query from " FROM " on; none without " FROM ".
std::optional<std::string> countSOQL(std::string_view soql);

// "/services/data/v62.0/query?q=SELECT%20COUNT()%20FROM%20Account" ("queryAll"
// for that operation): the REST path whose answer's "totalSize" counts the rows.
std::string countPath(std::string_view soql, std::string_view operation,
                      std::string_view apiVersion);

}  // namespace corvane::BackupPlanner
