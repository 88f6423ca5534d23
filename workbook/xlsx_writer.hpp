// Writes .xlsx workbooks (libxlsxwriter): named sheets of text and numbers, a
// bold header row, rows filled with a colour.
//
// Rows are streamed to disk as they are written (constant memory), so each
// sheet must be written top to bottom: a cell on a row above the last one
// written is lost. Sheet names are made valid for spreadsheet programs (31
// characters at most, none of []:*?/\). The workbook goes to a temporary
// file beside the target and takes the target's place only when complete, so
// a failed write never leaves half a workbook under the user's name.
// Not thread-safe; one writer per workbook.
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "platform/user_facing_error.hpp"

namespace corvane {

class WorkbookWriteError : public UserFacingError {
 public:
  // reason: what went wrong, as a phrase ("the disk is full").
  WorkbookWriteError(const std::filesystem::path& path, const std::string& reason);
};

class XlsxWriter {
 public:
  enum class Style {
    plain,
    header,     // bold
    suggested,  // filled light green
  };

  // The most characters a cell may hold; longer text is cut there.
  static constexpr std::size_t maximumCellText = 32'767;
  // Rows a sheet can hold, header included.
  static constexpr std::size_t maximumRows = 1'048'576;

  // Starts a workbook that close() saves at path. Throws WorkbookWriteError.
  explicit XlsxWriter(std::filesystem::path path);
  // Without close(), nothing is saved.
  ~XlsxWriter();
  XlsxWriter(const XlsxWriter&) = delete;
  XlsxWriter& operator=(const XlsxWriter&) = delete;

  // Adds a sheet and makes it the one written to. A name that is not valid in
  // a workbook is shortened and cleaned; a name already taken gets " (2)" etc.
  // Returns the name the sheet got.
  std::string addSheet(std::string_view name);

  // Text is written as text even when it looks like a number or a formula.
  void writeText(std::size_t row, std::size_t column, std::string_view text,
                 Style style = Style::plain);
  void writeNumber(std::size_t row, std::size_t column, double value, Style style = Style::plain);
  // An empty cell that still carries the style (a fill).
  void writeBlank(std::size_t row, std::size_t column, Style style);
  // Width in characters of columns first..last; call before writing rows.
  void setColumnWidth(std::size_t first, std::size_t last, double width);
  // Keeps row 0 in view and puts filter buttons on its columns 0..lastColumn.
  void headerWithFilter(std::size_t lastColumn, std::size_t lastRow);

  // Writes the file and moves it into place. Throws WorkbookWriteError.
  void close();

  // A valid sheet name for name (before de-duplication).
  static std::string validSheetName(std::string_view name);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace corvane
