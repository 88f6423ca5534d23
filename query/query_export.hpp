// Query results as text for a spreadsheet: comma-separated or tab-separated.
//
// CSV keeps every character and quotes a cell that needs it; TSV never quotes
// and turns tabs and line breaks into blanks. Both write a header line of the
// column names, then one line per row, each ended by a line feed, and nothing
// else (no byte-order mark). Pure functions; the line helpers let a caller
// stream a long result page by page.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace corvane::QueryExport {

std::string csv(const std::vector<std::string>& columns,
                const std::vector<std::vector<std::string>>& rows);
std::string tsv(const std::vector<std::string>& columns,
                const std::vector<std::vector<std::string>>& rows);

// One CSV cell: quoted, with its double quotes doubled, when it holds a comma,
// a double quote, or a line feed or carriage return that is not part of a
// CR LF pair; otherwise as it stands.
void appendCSVCell(std::string& out, std::string_view cell);
// One CSV line (header or row) with its line feed.
void appendCSVLine(std::string& out, const std::vector<std::string>& cells);

// The TSV header line: the names exactly as they are.
void appendTSVHeader(std::string& out, const std::vector<std::string>& columns);
// One TSV data cell: tabs, CR LF pairs, line feeds and carriage returns each become one blank.
void appendTSVCell(std::string& out, std::string_view cell);
// One TSV data line with its line feed.
void appendTSVLine(std::string& out, const std::vector<std::string>& cells);

}  // namespace corvane::QueryExport
