// ISO 8601 texts and the dated folder stamps, all in UTC but localFolderStamp.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

using SystemTime = std::chrono::system_clock::time_point;

namespace IsoTime {

// "2024-05-01T10:00:00.123Z" (milliseconds).
std::string formatFractional(SystemTime time);
// "2024-05-01T10:00:00Z".
std::string formatPlain(SystemTime time);
// "yyyy-MM-dd HHmm" in UTC: "2024-05-01 1000".
std::string folderStamp(SystemTime time);
// "yyyy-MM-dd HHmm" on the machine's clock (its time zone, TZ when set): the
// name of a dated backup folder, so that it matches the time the user saw.
std::string localFolderStamp(SystemTime time);
// "yyyy-MM-dd".
std::string formatDay(SystemTime time);

// ISO 8601 with fractional seconds: "2024-05-01T10:00:00.123Z", also with an
// offset ("+0000", "+00:00") in place of "Z". None on anything else.
std::optional<SystemTime> parseFractional(std::string_view text);
// ISO 8601 without fractional seconds: "2024-05-01T10:00:00Z" or with an offset.
std::optional<SystemTime> parsePlain(std::string_view text);
// "yyyy-MM-dd", as midnight UTC of that day.
std::optional<SystemTime> parseDay(std::string_view text);
// "yyyy-MM-dd HHmm".
std::optional<SystemTime> parseFolderStamp(std::string_view text);

}  // namespace IsoTime

}  // namespace corvane
