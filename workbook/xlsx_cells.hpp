// How the cells of a workbook sheet read as text: number formats classified
// into kinds, date serials turned into ISO-like text, plain numbers cleaned,
// and each cell rendered from its type, style and value.
#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

// A workbook that breaks the format's rules. The detail says how, in words
// that fit after "could not be read as a workbook: "; XlsxReader adds the
// file's name and what to do.
class WorkbookFormatError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class FormatKind { general, date, dateTime, time, percent, elapsed };

// The kind of each cell style (index: the cell's `s` attribute).
struct StyleInfo {
  std::vector<FormatKind> kinds;

  // The kind of a style index; general for an absent or unknown style.
  FormatKind kind(std::optional<std::size_t> style) const;
  bool operator==(const StyleInfo&) const = default;
};

// What renderCell needs from the rest of the workbook.
struct CellContext {
  const std::vector<std::string>* sharedStrings = nullptr;
  const StyleInfo* styles = nullptr;
  bool date1904 = false;
};

// The kind of number format formatID, with code the custom format code (empty
// for a built-in format).
FormatKind classify(int formatID, std::string_view code);

// The text of a date serial: "yyyy-MM-dd" for date (and any kind but the
// two below), "yyyy-MM-dd HH:mm:ss" for dateTime, "HH:mm:ss" for time, in UTC.
std::string serialToString(double serial, FormatKind kind, bool date1904);

// The display text of a plain number as written in the sheet: "12.0" reads
// "12", "1.0000000000000001E-3"-like noise is rounded to 15 digits, and no
// exponent is ever shown.
std::string cleanNumber(std::string_view text);

// The text of one cell: type is its `t` attribute (empty when absent), style
// its `s` attribute, value the text of its <v> (or the inline text for
// "inlineStr"). Throws WorkbookFormatError for a shared-string index that
// the workbook does not have.
std::string renderCell(std::string_view type, std::optional<std::size_t> style,
                       std::string_view value, const CellContext& context);

// Replaces the format's escapes of characters XML cannot hold ("_x000D_") by
// the characters themselves.
std::string unescapeCellText(std::string_view text);

}  // namespace corvane
