// An object's fields as the import engine needs them, read from the REST
// describe reply ("sobjects/X/describe"): names, labels, types, limits and the
// active picklist values that values are checked against before anything is
// sent.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace corvane {

struct ImportField {
  std::string name;   // API name, such as "AnnualRevenue"
  std::string label;  // such as "Annual Revenue"
  std::string type;   // the describe's type: "string", "picklist", "date", "reference"...
  int length = 0;     // characters, for text types; 0 when unlimited or not text
  int precision = 0;  // digits in all, for decimal types ("digits" for int)
  int scale = 0;      // digits after the point
  bool nillable = true;
  bool createable = false;
  bool updateable = false;
  bool defaultedOnCreate = false;
  bool externalId = false;
  bool idLookup = false;  // may name a record in an upsert (Id, external ids, unique fields)
  std::vector<std::string> picklistValues;  // active values only, in describe order

  // Whether an insert fails unless the row gives a value.
  bool requiredOnInsert() const {
    return createable && !nillable && !defaultedOnCreate && type != "boolean";
  }

  bool operator==(const ImportField&) const = default;
};

namespace ImportFields {

// The fields of a describe reply (or of its "fields" array). Throws
// ImportError::badDescribe when it holds no field list or a field without a
// name.
std::vector<ImportField> fromDescribe(const nlohmann::json& describe);

}  // namespace ImportFields

}  // namespace corvane
