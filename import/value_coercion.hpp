// Turns one cell's text into the value Salesforce expects for a field, by the
// field's describe type, or says what is wrong with it.
//
// Values come out in the API's own forms: "true"/"false", plain decimal
// numbers without separators, dates as yyyy-MM-dd, date-times in UTC as
// yyyy-MM-ddTHH:mm:ss.SSSZ, picklist values in the org's spelling, and ids of
// 18 characters. A blank cell is no value (the field is left as it is), and
// only required fields complain about it, which is the planner's business.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "import/import_fields.hpp"
#include "import/named_time_zone.hpp"

namespace corvane {

// How a sheet writes dates that are not ISO: the order of day, month and year.
enum class DateOrder { dmy, mdy, ymd };

struct CoercionOptions {
  std::optional<DateOrder> dateOrder;  // absent: only ISO dates are accepted
  int utcOffsetMinutes = 0;            // the zone of date-times written without one
  // A named zone for them instead (its offset depends on the date); wins
  // over utcOffsetMinutes when set.
  std::shared_ptr<const NamedTimeZone> timeZone;
};

// What is wrong with one value. The sentence is built by sentence(), never at
// the call site.
struct CoercionProblem {
  enum class Kind {
    tooLong,  // limit: the field's length
    notBoolean,
    notNumber,
    notWholeNumber,
    tooManyDigits,  // limit: digits allowed before the point
    notDate,
    ambiguousDate,  // a day/month date without --date-order
    notDateTime,
    notTime,
    notPicklistValue,  // detail: the active values
    notId,
    notEmail,
    notPhone,
    notURL,
    required,
  };

  Kind kind;
  std::string value;  // the cell's text
  int limit = 0;
  std::string detail;

  // "“31/02/2024” is not a date: ..." — what is wrong and what to change.
  std::string sentence() const;

  bool operator==(const CoercionProblem&) const = default;
};

struct Coerced {
  std::string value;  // empty when the cell is blank
  std::optional<CoercionProblem> problem;
};

namespace ValueCoercion {

// The API value of cell for field. Never throws for bad input.
Coerced coerce(std::string_view cell, const ImportField& field, const CoercionOptions& options);

// An id of 15 or 18 characters as 18, the case of its first 15 restored from
// the checksum when a spreadsheet upper- or lower-cased it; none when it is
// not an id.
std::optional<std::string> normalizedId(std::string_view text);

// "UTC", "Z", "+02:00", "-0530", "UTC+1": minutes east of UTC; none when
// the text is not such an offset.
std::optional<int> utcOffsetMinutes(std::string_view zone);

}  // namespace ValueCoercion

}  // namespace corvane
