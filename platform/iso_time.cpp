#include "platform/iso_time.hpp"

#include <fmt/format.h>

#include <ctime>

namespace corvane {

namespace {

using namespace std::chrono;

struct Civil {
  int year = 0;
  unsigned month = 0;
  unsigned day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  long long milliseconds = 0;
};

Civil toCivil(SystemTime time) {
  const auto day = floor<days>(time);
  const year_month_day date{day};
  const auto sinceMidnight = floor<milliseconds>(time - day);
  const hh_mm_ss clock{sinceMidnight};
  return Civil{
      int(date.year()),           unsigned(date.month()),       unsigned(date.day()),
      int(clock.hours().count()), int(clock.minutes().count()), int(clock.seconds().count()),
      clock.subseconds().count()};
}

// A strict reader over one text: each step either consumes exactly what it
// expects or fails, and the caller checks that nothing is left over.
class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  bool atEnd() const { return position_ == text_.size(); }
  bool peek(char c) const { return position_ < text_.size() && text_[position_] == c; }

  bool literal(char c) {
    if (!peek(c)) return false;
    ++position_;
    return true;
  }

  // Exactly `count` ASCII digits.
  bool digits(std::size_t count, int& value) {
    if (text_.size() - position_ < count) return false;
    value = 0;
    for (std::size_t i = 0; i < count; ++i) {
      const char c = text_[position_ + i];
      if (c < '0' || c > '9') return false;
      value = value * 10 + (c - '0');
    }
    position_ += count;
    return true;
  }

  // One or more digits of a decimal fraction, as nanoseconds (digits past the
  // ninth are read and dropped).
  bool fraction(long long& nanoseconds) {
    std::size_t count = 0;
    nanoseconds = 0;
    while (position_ < text_.size() && text_[position_] >= '0' && text_[position_] <= '9') {
      if (count < 9) nanoseconds = nanoseconds * 10 + (text_[position_] - '0');
      ++count;
      ++position_;
    }
    if (count == 0) return false;
    for (std::size_t i = count; i < 9; ++i) nanoseconds *= 10;
    return true;
  }

 private:
  std::string_view text_;
  std::size_t position_ = 0;
};

std::optional<sys_days> readDate(Reader& reader) {
  int year = 0;
  int month = 0;
  int day = 0;
  if (!reader.digits(4, year) || !reader.literal('-') || !reader.digits(2, month) ||
      !reader.literal('-') || !reader.digits(2, day)) {
    return std::nullopt;
  }
  const year_month_day date{std::chrono::year(year), std::chrono::month(unsigned(month)),
                            std::chrono::day(unsigned(day))};
  if (!date.ok()) return std::nullopt;
  // A SystemTime counts nanoseconds in 64 bits: it reaches from 1677 to 2262.
  // Dates outside the years wholly inside that span are refused, not wrapped.
  if (year < 1678 || year > 2261) return std::nullopt;
  return sys_days(date);
}

bool validClock(int hour, int minute, int second) {
  return hour <= 23 && minute <= 59 && second <= 59;
}

// "Z", "+hh:mm" or "+hhmm" (also "-"): the offset to subtract to reach UTC.
std::optional<minutes> readOffset(Reader& reader) {
  if (reader.literal('Z')) return minutes(0);
  int sign = 0;
  if (reader.literal('+')) {
    sign = 1;
  } else if (reader.literal('-')) {
    sign = -1;
  } else {
    return std::nullopt;
  }
  int hours = 0;
  int mins = 0;
  if (!reader.digits(2, hours)) return std::nullopt;
  reader.literal(':');
  if (!reader.digits(2, mins) || hours > 23 || mins > 59) return std::nullopt;
  return minutes(sign * (hours * 60 + mins));
}

std::optional<SystemTime> parseDateTime(std::string_view text, bool withFraction) {
  Reader reader(text);
  const auto date = readDate(reader);
  if (!date) return std::nullopt;
  int hour = 0;
  int minute = 0;
  int second = 0;
  if (!reader.literal('T') || !reader.digits(2, hour) || !reader.literal(':') ||
      !reader.digits(2, minute) || !reader.literal(':') || !reader.digits(2, second) ||
      !validClock(hour, minute, second)) {
    return std::nullopt;
  }
  long long nanoseconds = 0;
  if (withFraction && (!reader.literal('.') || !reader.fraction(nanoseconds))) {
    return std::nullopt;
  }
  const auto offset = readOffset(reader);
  if (!offset || !reader.atEnd()) return std::nullopt;
  const auto local = *date + hours(hour) + minutes(minute) + seconds(second);
  return time_point_cast<SystemTime::duration>(local - *offset) +
         duration_cast<SystemTime::duration>(std::chrono::nanoseconds(nanoseconds));
}

}  // namespace

namespace IsoTime {

std::string formatFractional(SystemTime time) {
  const Civil c = toCivil(time);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", c.year, c.month, c.day, c.hour,
                     c.minute, c.second, c.milliseconds);
}

std::string formatPlain(SystemTime time) {
  const Civil c = toCivil(time);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", c.year, c.month, c.day, c.hour,
                     c.minute, c.second);
}

std::string folderStamp(SystemTime time) {
  const Civil c = toCivil(time);
  return fmt::format("{:04}-{:02}-{:02} {:02}{:02}", c.year, c.month, c.day, c.hour, c.minute);
}

std::string localFolderStamp(SystemTime time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(floor<std::chrono::seconds>(time));
  std::tm local{};
  if (::localtime_r(&seconds, &local) == nullptr) return folderStamp(time);
  return fmt::format("{:04}-{:02}-{:02} {:02}{:02}", local.tm_year + 1900, local.tm_mon + 1,
                     local.tm_mday, local.tm_hour, local.tm_min);
}

std::string formatDay(SystemTime time) {
  const Civil c = toCivil(time);
  return fmt::format("{:04}-{:02}-{:02}", c.year, c.month, c.day);
}

std::optional<SystemTime> parseFractional(std::string_view text) {
  return parseDateTime(text, true);
}

std::optional<SystemTime> parsePlain(std::string_view text) { return parseDateTime(text, false); }

std::optional<SystemTime> parseDay(std::string_view text) {
  Reader reader(text);
  const auto date = readDate(reader);
  if (!date || !reader.atEnd()) return std::nullopt;
  return time_point_cast<SystemTime::duration>(*date);
}

std::optional<SystemTime> parseFolderStamp(std::string_view text) {
  Reader reader(text);
  const auto date = readDate(reader);
  int hour = 0;
  int minute = 0;
  if (!date || !reader.literal(' ') || !reader.digits(2, hour) || !reader.digits(2, minute) ||
      !reader.atEnd() || !validClock(hour, minute, 0)) {
    return std::nullopt;
  }
  return time_point_cast<SystemTime::duration>(*date + hours(hour) + minutes(minute));
}

}  // namespace IsoTime

}  // namespace corvane
