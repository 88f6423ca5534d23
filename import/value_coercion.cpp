#include "import/value_coercion.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace corvane {

namespace {

using Kind = CoercionProblem::Kind;

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string_view trimmed(std::string_view text) {
  // Also drops no-break spaces (C2 A0), which spreadsheets like to leave behind.
  for (;;) {
    if (!text.empty() && isBlank(text.front())) {
      text.remove_prefix(1);
    } else if (text.starts_with("\xC2\xA0")) {
      text.remove_prefix(2);
    } else {
      break;
    }
  }
  for (;;) {
    if (!text.empty() && isBlank(text.back())) {
      text.remove_suffix(1);
    } else if (text.ends_with("\xC2\xA0")) {
      text.remove_suffix(2);
    } else {
      break;
    }
  }
  return text;
}

char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool equalsFolded(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                            [](char x, char y) { return lower(x) == lower(y); });
}

std::size_t characters(std::string_view text) {
  std::size_t count = 0;
  for (char c : text) count += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  return count;
}

Coerced fail(Kind kind, std::string_view cell, int limit = 0, std::string detail = {}) {
  return Coerced{{}, CoercionProblem{kind, std::string(cell), limit, std::move(detail)}};
}

Coerced ok(std::string_view value) { return Coerced{std::string(value), std::nullopt}; }

// ---- numbers

bool isNumberType(std::string_view type) {
  return type == "int" || type == "double" || type == "currency" || type == "percent" ||
         type == "long";
}

// Drops one currency sign or code at either end.
std::string_view withoutCurrency(std::string_view text) {
  static constexpr std::array<std::string_view, 8> signs = {
      "$", "\xE2\x82\xAC", "\xC2\xA3", "\xC2\xA5", "USD", "EUR", "GBP", "CHF"};
  for (auto sign : signs) {
    if (text.starts_with(sign)) return trimmed(text.substr(sign.size()));
    if (text.ends_with(sign)) return trimmed(text.substr(0, text.size() - sign.size()));
  }
  return text;
}

Coerced number(std::string_view cell, std::string_view text, const ImportField& field) {
  bool negative = false;
  if (text.size() >= 2 && text.front() == '(' && text.back() == ')') {
    negative = true;
    text = trimmed(text.substr(1, text.size() - 2));
  }
  if (field.type == "percent" && !text.empty() && text.back() == '%') {
    text = trimmed(text.substr(0, text.size() - 1));
  }
  if (field.type == "currency") text = withoutCurrency(text);
  if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
    negative = negative != (text.front() == '-');
    text.remove_prefix(1);
  }
  if (field.type == "currency") text = withoutCurrency(text);

  std::string whole;
  std::string fraction;
  bool point = false;
  int groupDigits = -1;  // digits since the last thousands separator; -1 before any
  std::size_t index = 0;
  for (; index < text.size(); ++index) {
    char c = text[index];
    if (isDigit(c)) {
      (point ? fraction : whole) += c;
      if (!point && groupDigits >= 0) ++groupDigits;
    } else if (c == '.' && !point) {
      if (groupDigits >= 0 && groupDigits != 3) return fail(Kind::notNumber, cell);
      point = true;
    } else if (!point && (c == ',' || c == ' ' || c == '\'') && !whole.empty()) {
      // A thousands separator only between groups of three, so that "1,5"
      // is refused rather than read as fifteen.
      if (groupDigits >= 0 && groupDigits != 3) return fail(Kind::notNumber, cell);
      groupDigits = 0;
    } else {
      break;
    }
  }
  if (!point && groupDigits >= 0 && groupDigits != 3) return fail(Kind::notNumber, cell);
  if (whole.empty() && fraction.empty()) return fail(Kind::notNumber, cell);
  if (index < text.size()) {
    // An exponent, as CSV from other programs may carry: move the point.
    if (text[index] != 'e' && text[index] != 'E') return fail(Kind::notNumber, cell);
    ++index;
    bool minus = false;
    if (index < text.size() && (text[index] == '-' || text[index] == '+'))
      minus = text[index++] == '-';
    if (index == text.size() || text.size() - index > 3) return fail(Kind::notNumber, cell);
    int exponent = 0;
    for (; index < text.size(); ++index) {
      if (!isDigit(text[index])) return fail(Kind::notNumber, cell);
      exponent = exponent * 10 + (text[index] - '0');
    }
    if (minus) {
      if (static_cast<int>(whole.size()) < exponent) whole.insert(0, exponent - whole.size(), '0');
      fraction.insert(0, whole.substr(whole.size() - exponent));
      whole.resize(whole.size() - exponent);
    } else {
      if (static_cast<int>(fraction.size()) < exponent)
        fraction.append(exponent - fraction.size(), '0');
      whole += fraction.substr(0, exponent);
      fraction.erase(0, exponent);
    }
  }
  whole.erase(0, std::min(whole.find_first_not_of('0'), whole.size()));
  fraction.erase(std::min(fraction.find_last_not_of('0') + 1, fraction.size()));
  if ((field.type == "int" || field.type == "long") && !fraction.empty()) {
    return fail(Kind::notWholeNumber, cell);
  }
  int wholeLimit = field.precision - field.scale;
  if (field.precision > 0 && static_cast<int>(whole.size()) > wholeLimit) {
    return fail(Kind::tooManyDigits, cell, wholeLimit);
  }
  std::string value;
  value.reserve(whole.size() + fraction.size() + 3);
  if (negative && (!whole.empty() || !fraction.empty())) value += '-';
  value += whole.empty() ? "0" : whole;
  if (!fraction.empty()) {
    value += '.';
    value += fraction;
  }
  return Coerced{std::move(value), std::nullopt};
}

// ---- dates and times

struct Civil {
  int year = 0, month = 0, day = 0;
};

bool validDate(const Civil& d) {
  static constexpr std::array<int, 12> days = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (d.year < 1700 || d.year > 4000 || d.month < 1 || d.month > 12 || d.day < 1) return false;
  bool leap = (d.year % 4 == 0 && d.year % 100 != 0) || d.year % 400 == 0;
  return d.day <= (d.month == 2 && !leap ? 28 : days[d.month - 1]);
}

// Days since 1970-01-01 (Howard Hinnant's days_from_civil).
long long daysFromCivil(Civil d) {
  int y = d.year - (d.month <= 2);
  long long era = (y >= 0 ? y : y - 399) / 400;
  long long yoe = y - era * 400;
  long long doy = (153 * (d.month + (d.month > 2 ? -3 : 9)) + 2) / 5 + d.day - 1;
  long long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

Civil civilFromDays(long long z) {
  z += 719468;
  long long era = (z >= 0 ? z : z - 146096) / 146097;
  long long doe = z - era * 146097;
  long long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  long long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  long long mp = (5 * doy + 2) / 153;
  int day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  int month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  return {static_cast<int>(yoe + era * 400 + (month <= 2)), month, day};
}

// Reads up to maxDigits digits at text[index]; -1 when there are none.
int readNumber(std::string_view text, std::size_t& index, std::size_t maxDigits,
               std::size_t* read = nullptr) {
  int value = 0;
  std::size_t start = index;
  while (index < text.size() && isDigit(text[index]) && index - start < maxDigits) {
    value = value * 10 + (text[index++] - '0');
  }
  if (read) *read = index - start;
  return index == start ? -1 : value;
}

enum class DateResult { ok, invalid, ambiguous };

// A date at the start of text; index is left after it.
DateResult readDate(std::string_view text, std::size_t& index, const CoercionOptions& options,
                    Civil& date) {
  std::array<int, 3> parts{};
  std::array<std::size_t, 3> widths{};
  char separator = 0;
  for (int part = 0; part < 3; ++part) {
    if (part > 0) {
      if (index >= text.size()) return DateResult::invalid;
      char c = text[index];
      if (c != '-' && c != '/' && c != '.') return DateResult::invalid;
      if (part == 1) separator = c;
      if (c != separator) return DateResult::invalid;
      ++index;
    }
    parts[part] = readNumber(text, index, 4, &widths[part]);
    if (parts[part] < 0) return DateResult::invalid;
  }
  if (widths[0] == 4 && separator == '-') {
    date = {parts[0], parts[1], parts[2]};
  } else {
    DateOrder order;
    if (options.dateOrder) {
      order = *options.dateOrder;
    } else if (widths[0] == 4) {
      order = DateOrder::ymd;
    } else {
      return DateResult::ambiguous;
    }
    switch (order) {
      case DateOrder::dmy:
        date = {parts[2], parts[1], parts[0]};
        break;
      case DateOrder::mdy:
        date = {parts[2], parts[0], parts[1]};
        break;
      case DateOrder::ymd:
        date = {parts[0], parts[1], parts[2]};
        break;
    }
    std::size_t yearWidth = order == DateOrder::ymd ? widths[0] : widths[2];
    if (yearWidth == 2) {
      date.year += date.year < 30 ? 2000 : 1900;  // as spreadsheets read two-digit years
    } else if (yearWidth != 4) {
      return DateResult::invalid;
    }
  }
  return validDate(date) ? DateResult::ok : DateResult::invalid;
}

struct ClockTime {
  int hour = 0, minute = 0, second = 0, millisecond = 0;
};

// "HH:MM[:SS[.fff]][ AM|PM]" at index.
bool readTime(std::string_view text, std::size_t& index, ClockTime& time) {
  time.hour = readNumber(text, index, 2);
  if (time.hour < 0 || index >= text.size() || text[index] != ':') return false;
  ++index;
  std::size_t width = 0;
  time.minute = readNumber(text, index, 2, &width);
  if (width != 2) return false;
  if (index < text.size() && text[index] == ':') {
    ++index;
    time.second = readNumber(text, index, 2, &width);
    if (width != 2) return false;
    if (index < text.size() && (text[index] == '.' || text[index] == ',')) {
      ++index;
      std::size_t start = index;
      int fraction = readNumber(text, index, 9, &width);
      if (fraction < 0) return false;
      std::string_view digits = text.substr(start, std::min<std::size_t>(width, 3));
      time.millisecond = 0;
      for (std::size_t i = 0; i < 3; ++i)
        time.millisecond = time.millisecond * 10 + (i < digits.size() ? digits[i] - '0' : 0);
    }
  }
  std::size_t look = index;
  while (look < text.size() && text[look] == ' ') ++look;
  if (look + 2 <= text.size()) {
    std::string_view marker = text.substr(look, 2);
    bool pm = equalsFolded(marker, "pm");
    if (pm || equalsFolded(marker, "am")) {
      if (time.hour < 1 || time.hour > 12) return false;
      time.hour = time.hour % 12 + (pm ? 12 : 0);
      index = look + 2;
    }
  }
  return time.hour < 24 && time.minute < 60 && time.second < 60;
}

// "Z", "+HH:MM", "+HHMM", "+HH" at index; false when something else is there.
bool readZone(std::string_view text, std::size_t& index, std::optional<int>& minutes) {
  if (index == text.size()) return true;
  if (text[index] == 'Z' || text[index] == 'z') {
    minutes = 0;
    return ++index == text.size();
  }
  if (text[index] != '+' && text[index] != '-') return false;
  auto offset = ValueCoercion::utcOffsetMinutes(text.substr(index));
  if (!offset) return false;
  minutes = offset;
  index = text.size();
  return true;
}

Coerced date(std::string_view cell, std::string_view text, const CoercionOptions& options) {
  std::size_t index = 0;
  Civil civil;
  DateResult result = readDate(text, index, options, civil);
  if (result == DateResult::ambiguous) return fail(Kind::ambiguousDate, cell);
  if (result == DateResult::invalid) return fail(Kind::notDate, cell);
  if (index < text.size()) {
    // A workbook's date cell may read "2024-03-01 00:00:00": midnight is fine.
    if (text[index] != ' ' && text[index] != 'T') return fail(Kind::notDate, cell);
    ++index;
    ClockTime time;
    if (!readTime(text, index, time) || time.hour || time.minute || time.second ||
        time.millisecond || index != text.size()) {
      return fail(Kind::notDate, cell);
    }
  }
  return Coerced{fmt::format("{:04}-{:02}-{:02}", civil.year, civil.month, civil.day),
                 std::nullopt};
}

Coerced dateTime(std::string_view cell, std::string_view text, const CoercionOptions& options) {
  std::size_t index = 0;
  Civil civil;
  DateResult result = readDate(text, index, options, civil);
  if (result == DateResult::ambiguous) return fail(Kind::ambiguousDate, cell);
  if (result == DateResult::invalid) return fail(Kind::notDateTime, cell);
  ClockTime time;
  std::optional<int> zone;
  if (index < text.size()) {
    if (text[index] != ' ' && text[index] != 'T') return fail(Kind::notDateTime, cell);
    ++index;
    if (!readTime(text, index, time)) return fail(Kind::notDateTime, cell);
    while (index < text.size() && text[index] == ' ') ++index;
    if (!readZone(text, index, zone)) return fail(Kind::notDateTime, cell);
  }
  long long wall = daysFromCivil(civil) * 86400 + time.hour * 3600 + time.minute * 60 + time.second;
  if (!zone) {
    zone = options.timeZone ? options.timeZone->offsetMinutes(wall) : options.utcOffsetMinutes;
  }
  long long seconds = wall - 60LL * *zone;
  long long days = seconds >= 0 ? seconds / 86400 : (seconds - 86399) / 86400;
  long long rest = seconds - days * 86400;
  Civil utc = civilFromDays(days);
  return Coerced{fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", utc.year, utc.month,
                             utc.day, rest / 3600, rest / 60 % 60, rest % 60, time.millisecond),
                 std::nullopt};
}

Coerced timeOfDay(std::string_view cell, std::string_view text) {
  std::size_t index = 0;
  ClockTime time;
  std::optional<int> zone;
  if (!readTime(text, index, time) || !readZone(text, index, zone) || (zone && *zone != 0)) {
    return fail(Kind::notTime, cell);
  }
  return Coerced{fmt::format("{:02}:{:02}:{:02}.{:03}Z", time.hour, time.minute, time.second,
                             time.millisecond),
                 std::nullopt};
}

// ---- the rest

Coerced boolean(std::string_view cell, std::string_view text) {
  static constexpr std::array<std::string_view, 6> yes = {"true", "yes", "y", "1", "x", "on"};
  static constexpr std::array<std::string_view, 5> no = {"false", "no", "n", "0", "off"};
  for (auto word : yes) {
    if (equalsFolded(text, word)) return ok("true");
  }
  for (auto word : no) {
    if (equalsFolded(text, word)) return ok("false");
  }
  return fail(Kind::notBoolean, cell);
}

std::string allowedValues(const ImportField& field) {
  std::string list;
  for (std::size_t i = 0; i < field.picklistValues.size() && i < 12; ++i) {
    if (i > 0) list += ", ";
    list += field.picklistValues[i];
  }
  if (field.picklistValues.size() > 12)
    list += fmt::format(" and {} more", field.picklistValues.size() - 12);
  return list;
}

const std::string* picklistValue(std::string_view text, const ImportField& field) {
  for (const auto& value : field.picklistValues) {
    if (value == text) return &value;
  }
  for (const auto& value : field.picklistValues) {
    if (equalsFolded(value, text)) return &value;
  }
  return nullptr;
}

Coerced picklist(std::string_view cell, std::string_view text, const ImportField& field) {
  if (field.picklistValues.empty()) return ok(text);
  if (const std::string* value = picklistValue(text, field)) return ok(*value);
  return fail(Kind::notPicklistValue, cell, 0, allowedValues(field));
}

Coerced multiPicklist(std::string_view cell, std::string_view text, const ImportField& field) {
  std::string joined;
  std::vector<const std::string*> chosen;
  while (!text.empty()) {
    std::size_t end = text.find(';');
    std::string_view part = trimmed(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (part.empty()) continue;
    const std::string* value = picklistValue(part, field);
    if (value == nullptr) {
      if (!field.picklistValues.empty()) {
        return fail(Kind::notPicklistValue, cell, 0, allowedValues(field));
      }
      chosen.push_back(nullptr);
      if (!joined.empty()) joined += ';';
      joined += part;
      continue;
    }
    if (std::find(chosen.begin(), chosen.end(), value) != chosen.end()) continue;
    chosen.push_back(value);
    if (!joined.empty()) joined += ';';
    joined += *value;
  }
  return Coerced{std::move(joined), std::nullopt};
}

bool plausibleEmail(std::string_view text) {
  std::size_t at = text.find('@');
  if (at == std::string_view::npos || at == 0 || text.find('@', at + 1) != std::string_view::npos) {
    return false;
  }
  std::string_view domain = text.substr(at + 1);
  std::size_t dot = domain.find('.');
  if (dot == std::string_view::npos || dot == 0 || domain.back() == '.' ||
      domain.find("..") != std::string_view::npos) {
    return false;
  }
  return std::none_of(text.begin(), text.end(), [](char c) {
    return isBlank(c) || c == ',' || c == ';' || c == '<' || c == '>';
  });
}

bool plausiblePhone(std::string_view text) {
  int digits = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = lower(text[i]);
    if (isDigit(c)) {
      ++digits;
    } else if (text.substr(i).size() >= 3 && equalsFolded(text.substr(i, 3), "ext")) {
      i += 2;
    } else if (std::string_view(" +-()./x#").find(c) == std::string_view::npos) {
      return false;
    }
  }
  return digits >= 3;
}

bool plausibleURL(std::string_view text) {
  if (std::any_of(text.begin(), text.end(), [](char c) { return isBlank(c); })) return false;
  return text.find('.') != std::string_view::npos || text.find("://") != std::string_view::npos;
}

Coerced text(std::string_view cell, const ImportField& field) {
  if (field.length > 0 && characters(cell) > static_cast<std::size_t>(field.length)) {
    return fail(Kind::tooLong, cell, field.length);
  }
  return ok(cell);
}

std::string quoted(const std::string& value) {
  constexpr std::size_t kShown = 60;
  if (value.size() <= kShown) return "\u201c" + value + "\u201d";
  std::size_t cut = kShown;
  while (cut > 0 && (static_cast<unsigned char>(value[cut]) & 0xC0) == 0x80) --cut;
  return "\u201c" + value.substr(0, cut) + "\u2026\u201d";
}

}  // namespace

std::string CoercionProblem::sentence() const {
  std::string shown = quoted(value);
  switch (kind) {
    case Kind::tooLong:
      return fmt::format("{} has {} characters, more than the {} the field holds. Shorten it.",
                         shown, characters(value), limit);
    case Kind::notBoolean:
      return fmt::format(
          "{} is not a yes-or-no value. Write true or false (yes, no, 1, 0 and x "
          "also work).",
          shown);
    case Kind::notNumber:
      return fmt::format(
          "{} is not a number. Write it with digits, a point for decimals and "
          "commas only between thousands, such as 1,234.5.",
          shown);
    case Kind::notWholeNumber:
      return fmt::format("{} is not a whole number. Write it without decimals.", shown);
    case Kind::tooManyDigits:
      return fmt::format(
          "{} has too many digits: the field takes at most {} before the point. "
          "Make it smaller.",
          shown, limit);
    case Kind::notDate:
      return fmt::format(
          "{} is not a date. Write it as 2024-03-31, or name the order of day, "
          "month and year with --date-order.",
          shown);
    case Kind::ambiguousDate:
      return fmt::format(
          "{} could be day/month or month/day. Name the order with --date-order "
          "dmy or --date-order mdy, or write it as 2024-03-31.",
          shown);
    case Kind::notDateTime:
      return fmt::format(
          "{} is not a date and time. Write it as 2024-03-31 14:30 or "
          "2024-03-31T14:30:00Z.",
          shown);
    case Kind::notTime:
      return fmt::format("{} is not a time of day. Write it as 14:30 or 14:30:00.", shown);
    case Kind::notPicklistValue:
      return fmt::format(
          "{} is not an active value of this picklist. Use one of: {}; or add the "
          "value to the picklist in Setup first.",
          shown, detail);
    case Kind::notId:
      return fmt::format(
          "{} is not a Salesforce record id. Use the 15- or 18-character id of "
          "the record.",
          shown);
    case Kind::notEmail:
      return fmt::format(
          "{} is not an e-mail address. Write one address such as "
          "name@example.com.",
          shown);
    case Kind::notPhone:
      return fmt::format("{} is not a phone number. Use digits, blanks, +, -, ( and ) only.",
                         shown);
    case Kind::notURL:
      return fmt::format(
          "{} is not a web address. Write it without blanks, such as "
          "https://example.com.",
          shown);
    case Kind::required:
      return "The field is required but the cell is empty. Fill it in.";
  }
  return shown;
}

namespace ValueCoercion {

std::optional<std::string> normalizedId(std::string_view text) {
  static constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345";
  if (text.size() != 15 && text.size() != 18) return std::nullopt;
  for (char c : text) {
    if (!std::isalnum(static_cast<unsigned char>(c))) return std::nullopt;
  }
  std::string id(text.substr(0, 15));
  if (text.size() == 18) {
    // The suffix holds, five bits per character, which of the first fifteen
    // are capitals; a spreadsheet that changed their case is corrected here.
    for (int chunk = 0; chunk < 3; ++chunk) {
      std::size_t bits = alphabet.find(
          static_cast<char>(std::toupper(static_cast<unsigned char>(text[15 + chunk]))));
      if (bits == std::string_view::npos) return std::nullopt;
      for (int i = 0; i < 5; ++i) {
        char& c = id[static_cast<std::size_t>(chunk * 5 + i)];
        bool upper = (bits >> i) & 1;
        if (isDigit(c)) {
          if (upper) return std::nullopt;
        } else {
          c = upper ? static_cast<char>(std::toupper(static_cast<unsigned char>(c))) : lower(c);
        }
      }
    }
  }
  for (int chunk = 0; chunk < 3; ++chunk) {
    int bits = 0;
    for (int i = 0; i < 5; ++i) {
      char c = id[static_cast<std::size_t>(chunk * 5 + i)];
      if (c >= 'A' && c <= 'Z') bits |= 1 << i;
    }
    id += alphabet[static_cast<std::size_t>(bits)];
  }
  return id;
}

std::optional<int> utcOffsetMinutes(std::string_view zone) {
  zone = trimmed(zone);
  if (equalsFolded(zone, "utc") || equalsFolded(zone, "gmt") || zone == "Z") return 0;
  if (zone.size() > 3 &&
      (equalsFolded(zone.substr(0, 3), "utc") || equalsFolded(zone.substr(0, 3), "gmt"))) {
    zone.remove_prefix(3);
  }
  if (zone.empty() || (zone[0] != '+' && zone[0] != '-')) return std::nullopt;
  int sign = zone[0] == '-' ? -1 : 1;
  std::size_t index = 1;
  std::size_t width = 0;
  int hours = readNumber(zone, index, 2, &width);
  if (hours < 0) return std::nullopt;
  int minutes = 0;
  if (index < zone.size()) {
    if (zone[index] == ':') ++index;
    minutes = readNumber(zone, index, 2, &width);
    if (minutes < 0 || width != 2) return std::nullopt;
  }
  if (index != zone.size() || hours > 14 || minutes > 59) return std::nullopt;
  return sign * (hours * 60 + minutes);
}

Coerced coerce(std::string_view cell, const ImportField& field, const CoercionOptions& options) {
  std::string_view value = trimmed(cell);
  if (value.empty()) return Coerced{};
  const std::string& type = field.type;
  if (isNumberType(type)) return number(cell, value, field);
  if (type == "boolean") return boolean(cell, value);
  if (type == "date") return date(cell, value, options);
  if (type == "datetime") return dateTime(cell, value, options);
  if (type == "time") return timeOfDay(cell, value);
  if (type == "picklist") return picklist(cell, value, field);
  if (type == "multipicklist") return multiPicklist(cell, value, field);
  if (type == "id" || type == "reference") {
    std::optional<std::string> id = normalizedId(value);
    if (!id) return fail(Kind::notId, cell);
    return Coerced{std::move(*id), std::nullopt};
  }
  if (type == "email") {
    if (!plausibleEmail(value)) return fail(Kind::notEmail, cell);
    return text(value, field);
  }
  if (type == "phone") {
    if (!plausiblePhone(value)) return fail(Kind::notPhone, cell);
    return text(value, field);
  }
  if (type == "url") {
    if (!plausibleURL(value)) return fail(Kind::notURL, cell);
    return text(value, field);
  }
  // Text keeps its own blanks; only a cell of blanks alone counts as empty.
  return text(cell, field);
}

}  // namespace ValueCoercion

}  // namespace corvane
