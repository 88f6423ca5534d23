// How the backup sets and the scheduled check read: the screen text and the
// JSON a script reads. Shared by both faces.
#pragma once

#include <string>
#include <vector>

#include "scheduling/schedule_task.hpp"

namespace corvane::ScheduleReport {

// One row per set (username, schedule, full copies, what is kept, last
// success, folder) under a heading.
std::string setsTable(const std::vector<BackupSet>& sets, const ScheduleTask::Setup& setup);
// {"sets": [...]}, pretty-printed with a line feed; absent facts are null.
std::string setsJSON(const std::vector<BackupSet>& sets, const ScheduleTask::Setup& setup);

// What is installed, the tick minute, the last tick's outcome and the
// notifications not yet seen, one fact a line; and the same as one JSON object.
std::string statusText(const ScheduleTask::Status& status);
std::string statusJSON(const ScheduleTask::Status& status);

}  // namespace corvane::ScheduleReport
