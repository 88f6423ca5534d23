// How a restore reads: its plan and what became of each record, as lines for
// a person and as the JSON a script reads. Shared by both faces; the files a
// restore leaves are RestoreResults'.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "backup/restore_task.hpp"

namespace corvane::RestoreReport {

// How many of each action the plan holds: "3 to undelete, 40 to create", or
// "nothing".
std::string countsText(const RestoreTask::Plan& plan);

// One line per record (action, object, Id, what changes and why), then the
// counts.
std::string planText(const RestoreTask::Plan& plan);
// {"username", "folder", "dryRun": true, "records"}, pretty-printed; and the
// plan of a run that found nothing left to write, marked "nothingLeft".
std::string planJSON(const std::string& username, const RestoreTask::Plan& plan);
std::string nothingLeftJSON(const std::string& username, const RestoreTask::Plan& plan);
// "Nothing is left to restore: every Account record asked for is live, ...",
// and how to send again the records Salesforce refused in an earlier run.
std::string nothingLeftText(const std::string& object, const RestoreTask::Plan& plan);

// One line per record written (outcome, object, old and new Id, detail), then
// the counts, whether a stop ended it, and where the failures and the
// outcome of every record went.
std::string resultText(const RestoreTask::Result& result,
                       const std::optional<std::filesystem::path>& failures,
                       const std::optional<std::filesystem::path>& workbook);
// The result as one JSON object, pretty-printed.
std::string resultJSON(const std::string& username, const RestoreTask::Result& result,
                       const std::optional<std::filesystem::path>& failures);

// "Restored 200 of 1,000 records (120 records/s), now Contact..." for a
// writing step after `seconds`; empty for the other steps and small restores.
std::string progressText(const RestoreTask::Progress& progress, double seconds);

}  // namespace corvane::RestoreReport
