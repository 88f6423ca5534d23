// Plain-text tables and CSV for the health commands' output.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace corvane::TextTable {

// Columns padded to their widest cell (counted in UTF-8 code points), two
// blanks apart, a header row and a rule under it. The last column is not padded.
std::string render(const std::vector<std::string>& header,
                   const std::vector<std::vector<std::string>>& rows);

// One CSV field: quoted when it holds a comma, quote, line break or leading or
// trailing blank, quotes doubled. A field that a spreadsheet would take for a
// formula (=, +, -, @ first) is prefixed with an apostrophe inside the quotes.
std::string csvField(std::string_view text);
std::string csvRow(const std::vector<std::string>& fields);

}  // namespace corvane::TextTable
