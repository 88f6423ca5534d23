// Reads the sheets of an .xlsx workbook into ImportGrids, cells as a person
// reads them in a spreadsheet program (see xlsx_cells.hpp).
//
// The archive is read with libzip and every part is parsed while it unpacks,
// so a sheet never sits in memory as XML. A part that would unpack past
// the part bound (512 MB), broken XML, a reference past column XFD or to shared text
// the workbook lacks: each is ImportError::badFile naming the file. Not
// thread-safe; one reader per thread.
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "workbook/import_grid.hpp"

namespace corvane {

class XlsxReader {
 public:
  // The most one part may unpack to, unless the caller sets a bound of its own.
  static constexpr std::size_t defaultMaximumPartSize = std::size_t{512} << 20;

  // Opens the workbook and reads its sheet list, shared text and styles.
  // Throws FileError when the file cannot be opened and ImportError::badFile
  // when it is not a readable workbook.
  explicit XlsxReader(const std::filesystem::path& path,
                      std::size_t maximumPartSize = defaultMaximumPartSize);
  // The same from the bytes of a file; displayName names it in messages.
  XlsxReader(std::string bytes, std::string displayName,
             std::size_t maximumPartSize = defaultMaximumPartSize);
  ~XlsxReader();
  XlsxReader(const XlsxReader&) = delete;
  XlsxReader& operator=(const XlsxReader&) = delete;

  // The sheets' names in the workbook's order.
  const std::vector<std::string>& sheetNames() const;
  bool date1904() const;

  // The grid of one sheet, its name as sheetName; nothing when the sheet has
  // no non-blank row. Throws ImportError::badFile when the workbook has no
  // sheet of this name (the message lists the sheets it has) or the sheet is
  // broken.
  std::optional<ImportGrid> readSheet(std::string_view name);
  std::optional<ImportGrid> readSheet(std::size_t index);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace corvane
