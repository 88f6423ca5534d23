// The results workbook of a run that resolved duplicates: one row per record
// of every group the run looked at, with what was to be done to it, what
// happened and, where Salesforce said something, its words.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/iso_time.hpp"

namespace corvane::ResolutionResultsWorkbook {

struct Entry {
  std::string recordID;
  std::optional<std::int64_t> groupId;
  std::string name;
  std::string action;   // "Keep", "Merge into 003...", "Delete", "Not a duplicate", "None"
  std::string outcome;  // "Kept", "Merged", "Deleted", "Failed", "Skipped", ...
  std::string detail;   // Salesforce's message, or why
  bool operator==(const Entry&) const = default;
};

// Header texts, in column order.
inline constexpr std::string_view groupHeader = "Group";
inline constexpr std::string_view recordIdHeader = "Record Id";
inline constexpr std::string_view nameHeader = "Name";
inline constexpr std::string_view actionHeader = "Action";
inline constexpr std::string_view outcomeHeader = "Outcome";
inline constexpr std::string_view detailHeader = "Message";

// "Results - " + the object's label.
std::string sheetName(std::string_view objectLabel);

// Writes the sheet (header with filter buttons), replacing a file at path
// only once the new one is whole. Throws WorkbookWriteError.
void write(const std::filesystem::path& path, std::string_view objectLabel,
           const std::vector<Entry>& entries);

// Where a run's results go when the user named no file: beside the snapshot,
// "<snapshot name> results yyyy-MM-dd HHmm.xlsx" on the machine's clock, with
// " (2)" and so on when that name is taken.
std::filesystem::path defaultPath(const std::filesystem::path& snapshot, SystemTime now);

}  // namespace corvane::ResolutionResultsWorkbook
