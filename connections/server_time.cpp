#include "connections/server_time.hpp"

#include <array>
#include <chrono>
#include <cstdio>

namespace corvane::ServerTime {
namespace {

bool isLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Digits at [at, at + count) as a number; -1 when any is not a digit.
int digits(std::string_view text, std::size_t at, std::size_t count) {
  int value = 0;
  for (std::size_t i = at; i < at + count; ++i) {
    if (!isDigit(text[i])) return -1;
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

}  // namespace

std::optional<SystemTime> parseHTTPDate(std::string_view text) {
  // "Tue, 05 Mar 2024 10:11:12 GMT"
  //  0123456789012345678901234567 8
  if (text.size() != 29) return std::nullopt;
  for (std::size_t i : {0, 1, 2, 8, 9, 10}) {
    if (!isLetter(text[i])) return std::nullopt;
  }
  if (text.substr(3, 2) != ", " || text[7] != ' ' || text[11] != ' ' || text[16] != ' ' ||
      text[19] != ':' || text[22] != ':' || text.substr(25) != " GMT") {
    return std::nullopt;
  }
  static constexpr std::array<std::string_view, 12> months = {
      "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  unsigned month = 0;
  for (unsigned i = 0; i < months.size(); ++i) {
    if (text.substr(8, 3) == months[i]) month = i + 1;
  }
  int day = digits(text, 5, 2), year = digits(text, 12, 4);
  int hour = digits(text, 17, 2), minute = digits(text, 20, 2), second = digits(text, 23, 2);
  if (month == 0 || day < 0 || year < 0 || hour < 0 || minute < 0 || second < 0) {
    return std::nullopt;
  }
  if (hour > 23 || minute > 59 || second > 60) return std::nullopt;
  std::chrono::year_month_day date{std::chrono::year{year}, std::chrono::month{month},
                                   std::chrono::day{static_cast<unsigned>(day)}};
  if (!date.ok()) return std::nullopt;
  return std::chrono::sys_days{date} + std::chrono::hours{hour} + std::chrono::minutes{minute} +
         std::chrono::seconds{second};
}

std::optional<SystemTime> parse(std::string_view text) {
  if (auto time = IsoTime::parseFractional(text)) return time;
  if (auto time = IsoTime::parsePlain(text)) return time;
  return IsoTime::parseDay(text);
}

std::string soqlLiteral(SystemTime time) {
  auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  auto days = std::chrono::floor<std::chrono::days>(seconds);
  std::chrono::year_month_day date{days};
  std::chrono::hh_mm_ss clock{seconds - days};
  char buffer[40];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02dZ", int(date.year()),
                unsigned(date.month()), unsigned(date.day()), int(clock.hours().count()),
                int(clock.minutes().count()), int(clock.seconds().count()));
  return buffer;
}

}  // namespace corvane::ServerTime
