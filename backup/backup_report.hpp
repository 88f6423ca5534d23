// How a backup's plan, its runs and the deletions it found read: the screen
// text and the JSON a script reads. Shared by both faces; RunSummary words a
// single run.
#pragma once

#include <string>
#include <vector>

#include "backup/backup_keeping_task.hpp"
#include "backup/backup_task.hpp"

namespace corvane::BackupReport {

// The plan: one row per object (records, fields, way, fields left out), the
// objects left out by reason, and whether the copy fits on the disk.
std::string text(const BackupTask::Survey& survey);
// The same as one JSON object, pretty-printed with a line feed.
std::string json(const BackupTask::Survey& survey);

// The last run of the backup at location and its ten most recent runs, for a
// person; and all its runs (newest first) as one JSON object.
std::string statusText(const BackupLocation& location, const BackupTask::Status& status);
std::string statusJSON(const BackupLocation& location, const BackupTask::Status& status);

// The records the backups found deleted: one line each (when, object, Id,
// how), or {"username", "deletions": [...]} for the login.
std::string deletedText(const std::vector<RecycleBin::Deleted>& found);
std::string deletedJSON(const std::string& username, const std::vector<RecycleBin::Deleted>& found);

// One line per record asked about in the Recycle Bin, then how many are (or
// were put) back; before a put-back, "putBack" reads "inTheBin".
std::string recycleBinText(const BackupKeepingTask::RecycleBinResult& result, bool putBack);

}  // namespace corvane::BackupReport
