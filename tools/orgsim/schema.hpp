// The sample org's catalog: every object it holds, with its fields.
//
// This is the one place that says what the sample org looks like from the outside:
// object names, labels, key prefixes, field names and types, relationship names,
// picklist values, and the flags a describe reports (queryable, mergeable,
// undeletable, ...). The store creates one table per object from it, the query
// engine checks names against it, and the describe resources are rendered from it.
//
// Field types use Salesforce's describe names ("id", "reference", "string",
// "datetime", "address", ...). Values travel as text in Salesforce's wire form:
// datetimes "2024-01-05T10:00:00.000Z", dates "2024-01-05", booleans "true"/"false",
// numbers as plain decimal text, base64 fields as the raw body bytes.
//
// The catalog is immutable and built once; all functions are thread-safe.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::orgsim {

enum class FieldType {
  Id,
  Reference,
  String,
  TextArea,
  Email,
  Phone,
  Url,
  Picklist,
  MultiPicklist,
  Combobox,
  Boolean,
  Int,
  Double,
  Currency,
  Percent,
  Date,
  DateTime,
  Base64,
  Address,
  Location,
  AnyType,
};

// The describe name of a type: "id", "reference", "string", "textarea", ...
std::string_view typeName(FieldType type);

// Numbers compare and sort by value, not by text.
bool isNumeric(FieldType type);

// Address and location fields are compounds: they have no column of their own and
// are assembled from their component fields (which name them in compoundFieldName).
bool isCompound(FieldType type);

struct FieldDef {
  std::string name;
  std::string label;
  FieldType type = FieldType::String;
  int length = 0;     // text types: the maximum length in characters
  int precision = 0;  // numbers: total digits
  int scale = 0;      // numbers: digits after the point
  bool nillable = true;
  bool createable = true;
  bool updateable = true;
  bool filterable = true;
  bool sortable = true;
  bool groupable = true;
  bool calculated = false;  // a formula field (or a compound name): never written
  bool externalId = false;
  bool unique = false;
  bool nameField = false;   // the record's name as shown to people
  bool autoNumber = false;  // numbered by the org (CaseNumber); never written
  // What a new record gets when the field is not given: "false" for checkboxes,
  // the default value of a required picklist. Empty: null.
  std::string defaultValue;
  std::string calculatedFormula;  // the formula text a describe shows
  // For calculated fields: the SQLite expression over the object's own columns
  // that computes the stored text. Empty for ordinary fields.
  std::string sqlExpression;
  std::vector<std::string> referenceTo;     // reference fields: the parent objects
  std::string relationshipName;             // reference fields: "Owner" for OwnerId
  std::vector<std::string> picklistValues;  // the active values, in order
  std::string defaultPicklistValue;         // empty: none
  std::string compoundFieldName;            // components: "BillingAddress" for BillingCity
  // For the components of an address or location: the key inside the compound
  // value ("street", "city", "latitude", ...).
  std::string compoundKey;

  // True when the field has a column in the object's table: not a compound, and
  // not a base64 body (bodies are kept apart, see org_store.hpp).
  bool stored() const {
    return type != FieldType::Address && type != FieldType::Location && type != FieldType::Base64;
  }
};

struct ObjectDef {
  std::string name;
  std::string label;
  std::string labelPlural;
  std::string keyPrefix;  // three characters; empty for objects without their own ids
  bool custom = false;
  bool queryable = true;
  bool retrieveable = true;
  bool createable = true;
  bool updateable = true;
  bool deletable = true;
  bool undeletable = true;
  bool mergeable = false;
  bool replicateable = true;
  bool layoutable = true;
  bool searchable = true;
  bool triggerable = true;
  bool feedEnabled = false;
  // False for objects Bulk API query jobs refuse; their jobs fail with
  // bulkRefusalMessage().
  bool bulkQueryable = true;
  // ContentDocumentLink: a query must filter on ContentDocumentId, LinkedEntityId or Id.
  bool requiresIdFilter = false;
  // Task and Event: rows with IsArchived = true are seen only by queryAll.
  bool archivable = false;
  // The base64 field that holds a file body ("VersionData" or "Body"); empty: none.
  std::string bodyField;
  std::vector<FieldDef> fields;

  // The field of that name, compared without regard to case; null when none.
  const FieldDef* field(std::string_view fieldName) const;
  bool has(std::string_view fieldName) const { return field(fieldName) != nullptr; }
  // The field whose relationshipName is this name (case-insensitive); null when none.
  const FieldDef* relationship(std::string_view relationshipName) const;
  // The field marked nameField, or null.
  const FieldDef* nameFieldDef() const;
  // The components of a compound field, in catalog order.
  std::vector<const FieldDef*> components(std::string_view compoundName) const;
};

namespace Schema {

// Every object, in the order a global describe lists them (by name).
const std::vector<ObjectDef>& objects();

// The object of that name, compared without regard to case; null when unknown.
const ObjectDef* object(std::string_view name);

// The object whose ids begin with this three-character prefix; null when none.
const ObjectDef* objectForKeyPrefix(std::string_view prefix);

// The object an id belongs to, from its first three characters.
const ObjectDef* objectForId(std::string_view id);

// The job error Salesforce gives for an object bulk queries refuse.
std::string bulkRefusalMessage(std::string_view objectName);

// Child relationships: the objects with a reference field pointing at `parent`,
// as (child object, field) pairs in catalog order.
std::vector<std::pair<const ObjectDef*, const FieldDef*>> childrenOf(std::string_view parent);

}  // namespace Schema

}  // namespace corvane::orgsim
