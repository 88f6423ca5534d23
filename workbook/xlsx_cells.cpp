#include "workbook/xlsx_cells.hpp"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>

#include <fmt/format.h>

#include "platform/unicode.hpp"

namespace corvane {

namespace {

char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

// "[h]", "[mm]", "[sss]": a section that counts elapsed hours, minutes or seconds.
bool hasElapsedSection(const std::string& code) {
  for (std::size_t at = code.find('['); at != std::string::npos; at = code.find('[', at + 1)) {
    std::size_t letterAt = at + 1;
    if (letterAt >= code.size()) break;
    char letter = code[letterAt];
    if (letter != 'h' && letter != 'm' && letter != 's') continue;
    std::size_t end = letterAt;
    while (end < code.size() && code[end] == letter) ++end;
    if (end < code.size() && code[end] == ']') return true;
  }
  return false;
}

// Removes every complete span from open to close, both included.
std::string withoutSpans(const std::string& code, char open, char close) {
  std::string out;
  out.reserve(code.size());
  std::size_t at = 0;
  while (at < code.size()) {
    if (code[at] == open) {
      std::size_t end = code.find(close, at + 1);
      if (end != std::string::npos) {
        at = end + 1;
        continue;
      }
    }
    out += code[at++];
  }
  return out;
}

// Removes a backslash and the character it escapes.
std::string withoutEscapes(const std::string& code) {
  std::string out;
  out.reserve(code.size());
  std::size_t at = 0;
  while (at < code.size()) {
    if (code[at] == '\\' && at + 1 < code.size() && code[at + 1] != '\n') {
      std::size_t length = 0;
      Unicode::decode(code, at + 1, length);
      at += 1 + length;
      continue;
    }
    out += code[at++];
  }
  return out;
}

// Days since 1970-01-01 to a Gregorian date (H. Hinnant's civil_from_days).
void civilFromDays(std::int64_t days, std::int64_t& year, int& month, int& day) {
  days += 719468;
  std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  auto dayOfEra = static_cast<std::int64_t>(days - era * 146097);
  std::int64_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  std::int64_t shiftedMonth = (5 * dayOfYear + 2) / 153;
  day = static_cast<int>(dayOfYear - (153 * shiftedMonth + 2) / 5 + 1);
  month = static_cast<int>(shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9);
  year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
}

std::int64_t floorDivide(std::int64_t a, std::int64_t b) {
  std::int64_t q = a / b;
  if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
  return q;
}

void appendTwoDigits(std::string& out, int value) {
  out += static_cast<char>('0' + value / 10 % 10);
  out += static_cast<char>('0' + value % 10);
}

// Written by hand: this runs once per date cell of a sheet.
std::string dateTimeText(std::int64_t year, int month, int day, int hour, int minute, int second,
                         FormatKind kind) {
  std::string out;
  out.reserve(19);
  if (kind != FormatKind::time) {
    char digits[24];
    auto [end, error] = std::to_chars(digits, digits + sizeof digits, year);
    out.append(digits, static_cast<std::size_t>(end - digits));
    out += '-';
    appendTwoDigits(out, month);
    out += '-';
    appendTwoDigits(out, day);
    if (kind != FormatKind::dateTime) return out;
    out += ' ';
  }
  appendTwoDigits(out, hour);
  out += ':';
  appendTwoDigits(out, minute);
  out += ':';
  appendTwoDigits(out, second);
  return out;
}

// The shortest decimal that reads back as value, written without an exponent.
std::string plainDecimal(double value) {
  char buffer[64];
  auto [end, error] =
      std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::scientific);
  if (error != std::errc()) return fmt::format("{}", value);
  std::string_view text(buffer, static_cast<std::size_t>(end - buffer));
  bool negative = !text.empty() && text[0] == '-';
  if (negative) text.remove_prefix(1);
  std::size_t e = text.find('e');
  std::string digits;
  for (char c : text.substr(0, e)) {
    if (c != '.') digits += c;
  }
  int exponent = 0;
  std::string_view exponentText = text.substr(e + 1);
  if (!exponentText.empty() && exponentText[0] == '+') exponentText.remove_prefix(1);
  std::from_chars(exponentText.data(), exponentText.data() + exponentText.size(), exponent);
  // value = 0.digits × 10^(exponent + 1)
  int pointAt = exponent + 1;
  std::string out;
  if (pointAt <= 0) {
    out = "0." + std::string(static_cast<std::size_t>(-pointAt), '0') + digits;
  } else if (static_cast<std::size_t>(pointAt) >= digits.size()) {
    out = digits + std::string(static_cast<std::size_t>(pointAt) - digits.size(), '0');
  } else {
    out = digits.substr(0, static_cast<std::size_t>(pointAt)) + "." +
          digits.substr(static_cast<std::size_t>(pointAt));
  }
  return negative ? "-" + out : out;
}

bool parseDouble(std::string_view text, double& value) {
  std::string_view trimmed = text;
  while (!trimmed.empty() && (trimmed.front() == ' ' || trimmed.front() == '+')) {
    if (trimmed.front() == '+' && trimmed.size() > 1 && trimmed[1] == '-') return false;
    trimmed.remove_prefix(1);
  }
  while (!trimmed.empty() && trimmed.back() == ' ') trimmed.remove_suffix(1);
  if (trimmed.empty()) return false;
  auto [end, error] = std::from_chars(trimmed.data(), trimmed.data() + trimmed.size(), value);
  return error == std::errc() && end == trimmed.data() + trimmed.size();
}

int digitsAt(std::string_view text, std::size_t at, std::size_t count) {
  if (at + count > text.size()) return -1;
  int value = 0;
  for (std::size_t i = at; i < at + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return -1;
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

// An ISO 8601 date, date-time or time of a "d" cell in the sheet's own words;
// nothing when the text is not one.
std::optional<std::string> isoCellText(std::string_view text, FormatKind kind) {
  int year = -1, month = 1, day = 1, hour = 0, minute = 0, second = 0;
  bool hasDate = false, hasTime = false;
  std::size_t at = 0;
  if (text.size() >= 10 && text[4] == '-' && text[7] == '-') {
    year = digitsAt(text, 0, 4);
    month = digitsAt(text, 5, 2);
    day = digitsAt(text, 8, 2);
    if (year < 0 || month < 1 || month > 12 || day < 1 || day > 31) return std::nullopt;
    hasDate = true;
    at = 10;
    if (at < text.size() && (text[at] == 'T' || text[at] == ' ')) ++at;
  }
  if (at + 5 <= text.size() && text[at + 2] == ':') {
    hour = digitsAt(text, at, 2);
    minute = digitsAt(text, at + 3, 2);
    if (at + 8 <= text.size() && text[at + 5] == ':') second = digitsAt(text, at + 6, 2);
    if (hour < 0 || hour > 24 || minute < 0 || minute > 59 || second < 0 || second > 60)
      return std::nullopt;
    hasTime = true;
  } else if (at != text.size()) {
    return std::nullopt;
  }
  if (!hasDate && !hasTime) return std::nullopt;
  if (kind != FormatKind::date && kind != FormatKind::dateTime && kind != FormatKind::time) {
    kind = !hasDate                                     ? FormatKind::time
           : (hasTime && (hour | minute | second) != 0) ? FormatKind::dateTime
                                                        : FormatKind::date;
  }
  if (!hasDate) year = 1970;  // a time alone
  return dateTimeText(year, month, day, hour, minute, second, kind);
}

}  // namespace

FormatKind StyleInfo::kind(std::optional<std::size_t> style) const {
  if (!style || *style >= kinds.size()) return FormatKind::general;
  return kinds[*style];
}

FormatKind classify(int formatID, std::string_view code) {
  switch (formatID) {
    case 14:
    case 15:
    case 16:
    case 17:
    case 27:
    case 28:
    case 29:
    case 30:
    case 31:
    case 34:
    case 35:
    case 36:
    case 50:
    case 51:
    case 52:
    case 53:
    case 54:
    case 55:
    case 56:
    case 57:
    case 58:
      return FormatKind::date;
    case 18:
    case 19:
    case 20:
    case 21:
    case 45:
    case 47:
      return FormatKind::time;
    case 22:
    case 32:
    case 33:
      return FormatKind::dateTime;
    case 9:
    case 10:
      return FormatKind::percent;
    case 46:
      return FormatKind::elapsed;
    default:
      break;
  }
  if (code.empty()) return FormatKind::general;
  std::string lowered(code);
  for (char& c : lowered) c = lower(c);
  if (hasElapsedSection(lowered)) return FormatKind::elapsed;
  std::string left = withoutEscapes(withoutSpans(withoutSpans(lowered, '"', '"'), '[', ']'));
  if (left.find('%') != std::string::npos) return FormatKind::percent;
  bool hasDate = left.find_first_of("yd") != std::string::npos;
  bool hasTime = left.find_first_of("hs") != std::string::npos;
  bool hasM = left.find('m') != std::string::npos;
  if (hasDate && hasTime) return FormatKind::dateTime;
  if (hasDate) return FormatKind::date;
  if (hasTime) return FormatKind::time;
  if (hasM) return FormatKind::date;
  return FormatKind::general;
}

std::string serialToString(double serial, FormatKind kind, bool date1904) {
  // Beyond ±100 million days the milliseconds no longer fit; no calendar needs them.
  if (!std::isfinite(serial) || std::fabs(serial) > 1e8) return fmt::format("{:.15g}", serial);
  double epochDay = date1904 ? 24107 : 25569;
  auto milliseconds =
      static_cast<std::int64_t>(std::llround((serial - epochDay) * 86400.0 * 1000.0));
  std::int64_t seconds = floorDivide(milliseconds, 1000);
  std::int64_t days = floorDivide(seconds, 86400);
  std::int64_t secondOfDay = seconds - days * 86400;
  std::int64_t year = 0;
  int month = 0, day = 0;
  civilFromDays(days, year, month, day);
  return dateTimeText(year, month, day, static_cast<int>(secondOfDay / 3600),
                      static_cast<int>(secondOfDay / 60 % 60), static_cast<int>(secondOfDay % 60),
                      kind);
}

std::string cleanNumber(std::string_view text) {
  if (text.find('.') == std::string_view::npos && text.find('e') == std::string_view::npos)
    return std::string(text);
  double value = 0;
  if (!parseDouble(text, value) || !std::isfinite(value)) return std::string(text);
  if (value == 0) value = 0;  // no "-0"
  // std::to_chars with a precision writes what printf's "%.0f" and "%.15g" write.
  char buffer[64];
  std::to_chars_result written{};
  if (value == std::trunc(value) && std::fabs(value) < 1e15)
    written = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, 0);
  else
    written = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::general, 15);
  std::string out(buffer, static_cast<std::size_t>(written.ptr - buffer));
  if (out.find_first_of("eE") != std::string::npos) return plainDecimal(value);
  return out;
}

std::string renderCell(std::string_view type, std::optional<std::size_t> style,
                       std::string_view value, const CellContext& context) {
  if (type == "s") {
    std::size_t index = 0;
    auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), index);
    std::size_t count = context.sharedStrings ? context.sharedStrings->size() : 0;
    if (value.empty()) return {};
    if (error != std::errc() || end != value.data() + value.size() || index >= count) {
      throw WorkbookFormatError(
          fmt::format("a cell refers to shared text number {}, but the workbook holds only {}",
                      std::string(value), count));
    }
    return (*context.sharedStrings)[index];
  }
  if (type == "inlineStr" || type == "str" || type == "e") return std::string(value);
  if (type == "b") return value == "1" ? "TRUE" : "FALSE";
  FormatKind kind = context.styles ? context.styles->kind(style) : FormatKind::general;
  if (type == "d") {
    if (auto text = isoCellText(value, kind)) return *text;
    return std::string(value);
  }
  if (value.empty()) return {};
  if (kind == FormatKind::date || kind == FormatKind::dateTime || kind == FormatKind::time) {
    double serial = 0;
    if (parseDouble(value, serial)) return serialToString(serial, kind, context.date1904);
  }
  return cleanNumber(value);
}

std::string unescapeCellText(std::string_view text) {
  if (text.find("_x") == std::string_view::npos) return std::string(text);
  std::string out;
  out.reserve(text.size());
  std::size_t at = 0;
  while (at < text.size()) {
    if (text[at] == '_' && at + 7 <= text.size() && text[at + 1] == 'x' && text[at + 6] == '_') {
      unsigned code = 0;
      auto [end, error] = std::from_chars(text.data() + at + 2, text.data() + at + 6, code, 16);
      if (error == std::errc() && end == text.data() + at + 6 && (code < 0xD800 || code > 0xDFFF)) {
        Unicode::append(out, static_cast<char32_t>(code));
        at += 7;
        continue;
      }
    }
    out += text[at++];
  }
  return out;
}

}  // namespace corvane
