// The org's clock: the HTTP Date header of its replies, the date-time texts in
// its records, and SOQL date-time literals. Everything is UTC.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/iso_time.hpp"

namespace corvane::ServerTime {

// "Tue, 05 Mar 2024 10:11:12 GMT" and nothing else (English month names; the
// weekday is not checked against the date). None on any other form.
std::optional<SystemTime> parseHTTPDate(std::string_view text);

// The date-time texts of records: "2024-01-05T10:00:00.000+0000", with "Z" or
// "+00:00" in place of "+0000", with or without fractional seconds, and a plain
// day "2024-01-05" (midnight UTC).
std::optional<SystemTime> parse(std::string_view text);

// "2024-03-05T10:11:12Z": whole seconds (rounded down), unquoted.
std::string soqlLiteral(SystemTime time);

}  // namespace corvane::ServerTime
