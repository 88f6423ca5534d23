// What the SOQL editor knows of an org's schema: its objects and, per object,
// its fields, read from the REST describe replies ("sobjects" and
// "sobjects/X/describe") and written to and read from the completion cache.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace corvane {

// One object of the global describe.
struct SObjectSummary {
  std::string name;
  std::string label;
  bool custom = false;
  bool queryable = true;

  bool operator==(const SObjectSummary&) const = default;
};

// One field of an object's describe.
struct SObjectField {
  std::string name;
  std::string label;
  std::string type;  // the describe's type: "string", "reference", "picklist", "date"...
  int length = 0;    // text fields only
  bool custom = false;
  std::string relationshipName;             // lookups: "Owner" for OwnerId; else empty
  std::vector<std::string> referenceTo;     // lookups: the related objects, in describe order
  std::vector<std::string> picklistValues;  // the active values, in order

  bool operator==(const SObjectField&) const = default;
};

namespace SObjectDescribe {

// The objects of a global describe reply, or of its "sobjects" array.
// Entries without a name are skipped; nothing throws on odd shapes.
std::vector<SObjectSummary> summaries(const nlohmann::json& globalDescribe);
// The fields of an object's describe reply, or of its "fields" array. Only
// active picklist values are kept.
std::vector<SObjectField> fields(const nlohmann::json& describe);

// The compact form kept in the completion cache: arrays in the describe's own
// shape, which summaries() and fields() read back.
nlohmann::json toJSON(const std::vector<SObjectSummary>& objects);
nlohmann::json toJSON(const std::vector<SObjectField>& fields);

}  // namespace SObjectDescribe

}  // namespace corvane
