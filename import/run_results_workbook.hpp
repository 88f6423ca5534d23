// The outcome of a run that changed records (merges, deletes, an import) as
// a workbook: one sheet "Results - " + the object's label, one row per record
// touched, with its Id, group, outcome ("Merged", "Failed", ...) and detail.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

namespace RunResultsWorkbook {

struct Entry {
  std::string recordID;
  std::optional<std::int64_t> groupId;  // none for runs without groups
  std::string outcome;
  std::string detail;
  bool operator==(const Entry&) const = default;
};

// The header texts, in column order.
inline constexpr std::string_view recordIdHeader = "Record Id";
inline constexpr std::string_view groupHeader = "Group";
inline constexpr std::string_view outcomeHeader = "Outcome";
inline constexpr std::string_view detailHeader = "Detail";

std::string sheetName(std::string_view objectLabel);

// Writes the workbook at path, replacing any file there only once it is
// whole. Throws WorkbookWriteError. Entries past the rows a sheet can hold
// are left out and a last row says how many.
void write(const std::filesystem::path& path, std::string_view objectLabel,
           const std::vector<Entry>& entries);

}  // namespace RunResultsWorkbook

}  // namespace corvane
