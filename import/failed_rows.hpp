// The rows an import could not write, as a CSV file the user fixes and imports
// again: the file's own header and cells, unchanged, with one more column
// "Error" that says why each row failed.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "workbook/import_grid.hpp"
#include "import/import_journal.hpp"

namespace corvane::FailedRows {

inline constexpr const char* kErrorHeader = "Error";

// The CSV text (comma-separated, fields quoted where needed, CRLF line ends
// as spreadsheet programs write them) of the failed rows among outcomes, in
// row order. Short rows are padded so that the error column lines up.
std::string csv(const ImportGrid& grid, const std::vector<RowOutcome>& outcomes);

// Where the failed rows of source go by default: beside it, named
// "NAME - failed rows.csv"; for pasted text ("-"), in the current folder.
std::filesystem::path standardPath(const std::string& source);

}  // namespace corvane::FailedRows
