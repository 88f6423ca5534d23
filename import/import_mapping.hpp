// Which column of an import grid fills which field of the object.
//
// Headers are matched automatically: first to a field's API name, then to its
// label, both compared without letter case, blanks and underscores (and
// without a custom field's "__c"), then to the closest name or label when it
// is close enough. Each field takes at most one column; the first column wins.
// The user's overrides ("Header=Field", or "Header=" to leave a column out)
// replace the automatic choice, and a mapping can be saved as JSON and used
// again on the next file of the same shape.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "import/import_fields.hpp"
#include "platform/user_facing_error.hpp"

namespace corvane {

class MappingError : public UserFacingError {
 public:
  enum class Kind {
    unknownHeader,  // an override names a column the grid does not have
    unknownField,   // an override names a field the object does not have
    fieldTwice,     // two columns were mapped to one field
    badOverride,    // an override without "="
    badFile,        // a saved mapping that cannot be read
  };

  static MappingError unknownHeader(const std::string& header);
  static MappingError unknownField(const std::string& field, const std::string& object);
  static MappingError fieldTwice(const std::string& field, const std::string& first,
                                 const std::string& second);
  static MappingError badOverride(const std::string& text);
  static MappingError badFile(const std::filesystem::path& path, const std::string& detail);

  Kind kind() const { return kind_; }

 private:
  MappingError(Kind kind, const std::string& description)
      : UserFacingError(description), kind_(kind) {}
  Kind kind_;
};

struct ColumnMapping {
  enum class Match { apiName, label, close, user, none };

  std::string header;
  std::optional<std::string> field;  // the field's API name; absent when left out
  Match match = Match::none;

  bool operator==(const ColumnMapping&) const = default;
};

struct ImportMapping {
  std::vector<ColumnMapping> columns;  // one per header, in grid order

  // The automatic mapping of headers onto fields.
  static ImportMapping automatic(const std::vector<std::string>& headers,
                                 const std::vector<ImportField>& fields);

  // Applies "Header=Field" (header compared without case; field by API name,
  // any case, or by label). "Header=" leaves the column out. Throws
  // MappingError. The object name only shapes the message.
  void override(const std::string& assignment, const std::vector<ImportField>& fields,
                const std::string& object);

  // Applies a saved mapping: its pairs whose headers the grid has.
  void apply(const std::vector<std::pair<std::string, std::string>>& saved,
             const std::vector<ImportField>& fields, const std::string& object);

  // Throws MappingError::fieldTwice when two columns fill one field.
  void checkDistinct() const;

  // The column that fills a field (API name, any case), if any.
  std::optional<std::size_t> columnOf(const std::string& field) const;

  // Saved form: {"Header": "Field" or null, ...} written atomically; read back
  // as pairs in file order.
  void save(const std::filesystem::path& path) const;
  static std::vector<std::pair<std::string, std::string>> load(const std::filesystem::path& path);

  bool operator==(const ImportMapping&) const = default;
};

// Lower case without blanks, underscores, hyphens, dots and a trailing "__c":
// "Annual_Revenue__c" and "annual revenue" give the same key.
std::string mappingKey(std::string_view text);

}  // namespace corvane
