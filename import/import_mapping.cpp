#include "import/import_mapping.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <unordered_map>

#include "workbook/import_grid.hpp"
#include "platform/durable_file.hpp"

namespace corvane {

MappingError MappingError::unknownHeader(const std::string& header) {
  return MappingError(Kind::unknownHeader,
                      fmt::format("The file has no column \u201c{}\u201d. Nothing was imported; "
                                  "check the spelling of the header in --map.",
                                  header));
}

MappingError MappingError::unknownField(const std::string& field, const std::string& object) {
  return MappingError(Kind::unknownField,
                      fmt::format("{} has no field \u201c{}\u201d. Nothing was imported; give the "
                                  "field's API name or label in --map.",
                                  object, field));
}

MappingError MappingError::fieldTwice(const std::string& field, const std::string& first,
                                      const std::string& second) {
  return MappingError(
      Kind::fieldTwice,
      fmt::format("The columns \u201c{}\u201d and \u201c{}\u201d both fill the field {}. Nothing "
                  "was imported; leave one out with --map \"{}=\".",
                  first, second, field, second));
}

MappingError MappingError::badOverride(const std::string& text) {
  return MappingError(Kind::badOverride,
                      fmt::format("\u201c{}\u201d is not a column mapping. Write it as "
                                  "\"Header=Field\", or \"Header=\" to leave the column out.",
                                  text));
}

MappingError MappingError::badFile(const std::filesystem::path& path, const std::string& detail) {
  return MappingError(Kind::badFile,
                      fmt::format("The saved mapping {} could not be read ({}). Nothing was "
                                  "imported; save the mapping again or leave out --mapping.",
                                  path.filename().string(), detail));
}

std::string mappingKey(std::string_view text) {
  std::string key;
  key.reserve(text.size());
  for (char c : text) {
    if (c == ' ' || c == '_' || c == '-' || c == '.' || c == '\t') continue;
    key += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  // "Region__c" keys as "regionc" after the underscores go; drop that c again
  // when the text ended in "__c".
  if (text.size() > 3 && text.ends_with("__c")) key.pop_back();
  return key;
}

namespace {

// Edit distance of two short keys, in one row of memory.
std::size_t editDistance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      std::size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

// How alike two keys are, from 0 to 1; short keys must match exactly.
double closeness(const std::string& a, const std::string& b) {
  std::size_t longest = std::max(a.size(), b.size());
  if (longest < 4) return 0;
  return 1.0 - static_cast<double>(editDistance(a, b)) / static_cast<double>(longest);
}

constexpr double kCloseEnough = 0.8;

const ImportField* findField(const std::string& text, const std::vector<ImportField>& fields) {
  std::string key = mappingKey(text);
  for (const auto& field : fields) {
    if (mappingKey(field.name) == key) return &field;
  }
  for (const auto& field : fields) {
    if (mappingKey(field.label) == key) return &field;
  }
  return nullptr;
}

bool sameText(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

}  // namespace

ImportMapping ImportMapping::automatic(const std::vector<std::string>& headers,
                                       const std::vector<ImportField>& fields) {
  ImportMapping mapping;
  mapping.columns.resize(headers.size());
  std::vector<bool> taken(fields.size(), false);
  std::vector<std::string> headerKeys;
  for (std::size_t column = 0; column < headers.size(); ++column) {
    mapping.columns[column].header = headers[column];
    headerKeys.push_back(mappingKey(headers[column]));
  }
  auto pass = [&](ColumnMapping::Match match, auto&& fieldKey) {
    for (std::size_t column = 0; column < headers.size(); ++column) {
      if (mapping.columns[column].field || headerKeys[column].empty()) continue;
      for (std::size_t index = 0; index < fields.size(); ++index) {
        if (taken[index] || fieldKey(fields[index]) != headerKeys[column]) continue;
        mapping.columns[column].field = fields[index].name;
        mapping.columns[column].match = match;
        taken[index] = true;
        break;
      }
    }
  };
  pass(ColumnMapping::Match::apiName, [](const ImportField& f) { return mappingKey(f.name); });
  pass(ColumnMapping::Match::label, [](const ImportField& f) { return mappingKey(f.label); });

  // Close matches: the best pair first, so one near miss cannot steal another's field.
  struct Candidate {
    double score;
    std::size_t column;
    std::size_t field;
  };
  std::vector<Candidate> candidates;
  for (std::size_t column = 0; column < headers.size(); ++column) {
    if (mapping.columns[column].field) continue;
    for (std::size_t index = 0; index < fields.size(); ++index) {
      if (taken[index]) continue;
      double score = std::max(closeness(headerKeys[column], mappingKey(fields[index].name)),
                              closeness(headerKeys[column], mappingKey(fields[index].label)));
      if (score >= kCloseEnough) candidates.push_back({score, column, index});
    }
  }
  std::stable_sort(candidates.begin(), candidates.end(),
                   [](const Candidate& a, const Candidate& b) { return a.score > b.score; });
  for (const auto& candidate : candidates) {
    ColumnMapping& column = mapping.columns[candidate.column];
    if (column.field || taken[candidate.field]) continue;
    column.field = fields[candidate.field].name;
    column.match = ColumnMapping::Match::close;
    taken[candidate.field] = true;
  }
  return mapping;
}

void ImportMapping::override(const std::string& assignment, const std::vector<ImportField>& fields,
                             const std::string& object) {
  auto equals = assignment.rfind('=');
  if (equals == std::string::npos) throw MappingError::badOverride(assignment);
  std::string header = trimmedHeader(assignment.substr(0, equals));
  std::string target = trimmedHeader(assignment.substr(equals + 1));
  apply({{header, target}}, fields, object);
  auto found = std::find_if(columns.begin(), columns.end(),
                            [&](const ColumnMapping& c) { return sameText(c.header, header); });
  if (found == columns.end()) throw MappingError::unknownHeader(header);
}

void ImportMapping::apply(const std::vector<std::pair<std::string, std::string>>& saved,
                          const std::vector<ImportField>& fields, const std::string& object) {
  for (const auto& [header, target] : saved) {
    std::optional<std::string> field;
    if (!target.empty()) {
      const ImportField* found = findField(target, fields);
      if (found == nullptr) throw MappingError::unknownField(target, object);
      field = found->name;
    }
    for (auto& column : columns) {
      if (!sameText(column.header, header)) continue;
      // A field given to this column is taken from any column that had it.
      if (field) {
        for (auto& other : columns) {
          if (&other != &column && other.field && sameText(*other.field, *field) &&
              other.match != ColumnMapping::Match::user) {
            other.field.reset();
            other.match = ColumnMapping::Match::none;
          }
        }
      }
      column.field = field;
      column.match = field ? ColumnMapping::Match::user : ColumnMapping::Match::none;
      break;
    }
  }
}

void ImportMapping::checkDistinct() const {
  std::unordered_map<std::string, std::size_t> seen;
  for (std::size_t index = 0; index < columns.size(); ++index) {
    if (!columns[index].field) continue;
    std::string key = *columns[index].field;
    for (char& c : key) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    auto [it, inserted] = seen.emplace(key, index);
    if (!inserted) {
      throw MappingError::fieldTwice(*columns[index].field, columns[it->second].header,
                                     columns[index].header);
    }
  }
}

std::optional<std::size_t> ImportMapping::columnOf(const std::string& field) const {
  for (std::size_t index = 0; index < columns.size(); ++index) {
    if (columns[index].field && sameText(*columns[index].field, field)) return index;
  }
  return std::nullopt;
}

void ImportMapping::save(const std::filesystem::path& path) const {
  nlohmann::ordered_json object = nlohmann::ordered_json::object();
  for (const auto& column : columns) {
    if (column.header.empty()) continue;
    object[column.header] = column.field ? nlohmann::ordered_json(*column.field) : nullptr;
  }
  Durable::replace(path, object.dump(2) + "\n", 0644);
}

std::vector<std::pair<std::string, std::string>> ImportMapping::load(
    const std::filesystem::path& path) {
  std::optional<std::string> text = Durable::readWhole(path);
  if (!text) throw MappingError::badFile(path, "it does not exist");
  nlohmann::ordered_json object = nlohmann::ordered_json::parse(*text, nullptr, false);
  if (!object.is_object()) throw MappingError::badFile(path, "it is not a JSON object");
  std::vector<std::pair<std::string, std::string>> pairs;
  for (const auto& [header, field] : object.items()) {
    if (field.is_null()) {
      pairs.emplace_back(header, "");
    } else if (field.is_string()) {
      pairs.emplace_back(header, field.get<std::string>());
    } else {
      throw MappingError::badFile(path, "the column \u201c" + header + "\u201d names no field");
    }
  }
  return pairs;
}

}  // namespace corvane
