// What a restore did, written down: every record in a workbook, or the
// failures alone in a CSV beside the journal.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "backup/restore_task.hpp"

namespace corvane::RestoreResults {

// The header texts, in column order.
inline const std::vector<std::string> headers{"Object", "Action", "Old Id", "New Id", "Outcome",
                                              "Message"};

// One row per record: object, action, old id, new id, outcome, message (the
// reason of a skip, Salesforce's words for a failure, the fields left empty).
std::vector<std::vector<std::string>> rows(const RestoreTask::Plan& plan);

// Writes every record into an .xlsx at path. Throws WorkbookWriteError.
void writeWorkbook(const std::filesystem::path& path, const RestoreTask::Plan& plan);

// Writes the failed records as CSV into folder, named after the object and
// the time; returns the file, or nothing when no record failed. 0600.
std::optional<std::filesystem::path> writeFailures(const std::filesystem::path& folder,
                                                   const std::string& object,
                                                   const RestoreTask::Plan& plan);

}  // namespace corvane::RestoreResults
