// The table every import source becomes: a header row and the data rows, all
// text. Rows keep their own lengths; nothing pads or cuts them to the headers.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace corvane {

struct ImportGrid {
  // The workbook sheet the grid came from; absent for delimited text.
  std::optional<std::string> sheetName;
  // The first non-blank row, each cell trimmed of blanks and tabs.
  std::vector<std::string> headers;
  // Every later non-blank row, cells untrimmed, in source order.
  std::vector<std::vector<std::string>> rows;

  // The text at row, column; empty when either lies outside the grid.
  const std::string& cell(std::ptrdiff_t row, std::ptrdiff_t column) const;

  // Stores text in an existing row, lengthening it with empty cells when
  // column lies beyond its end. Negative indices or a row past the last one
  // change nothing.
  void setCell(std::ptrdiff_t row, std::ptrdiff_t column, std::string text);

  bool operator==(const ImportGrid&) const = default;
};

// Trims leading and trailing blanks and tabs (Unicode space separators and
// U+0009), never line breaks.
std::string trimmedHeader(std::string_view text);

}  // namespace corvane
