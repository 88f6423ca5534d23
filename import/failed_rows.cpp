#include "import/failed_rows.hpp"

#include <algorithm>

namespace corvane::FailedRows {

namespace {

void appendField(std::string& out, const std::string& text) {
  bool quote = text.find_first_of(",\"\r\n") != std::string::npos ||
               (!text.empty() && (text.front() == ' ' || text.back() == ' '));
  if (!quote) {
    out += text;
    return;
  }
  out += '"';
  for (char c : text) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
}

}  // namespace

std::string csv(const ImportGrid& grid, const std::vector<RowOutcome>& outcomes) {
  std::string out;
  // A row longer than the header row widens the file, so that the error
  // column stays one column.
  std::size_t width = grid.headers.size();
  for (const auto& outcome : outcomes) {
    if (!outcome.success && outcome.row < grid.rows.size()) {
      width = std::max(width, grid.rows[outcome.row].size());
    }
  }
  for (std::size_t column = 0; column < width; ++column) {
    appendField(out, column < grid.headers.size() ? grid.headers[column] : std::string());
    out += ',';
  }
  out += kErrorHeader;
  out += "\r\n";
  for (const auto& outcome : outcomes) {
    if (outcome.success || outcome.row >= grid.rows.size()) continue;
    const auto& row = grid.rows[outcome.row];
    for (std::size_t column = 0; column < width; ++column) {
      std::string cell = column < row.size() ? std::string(row[column]) : std::string();
      appendField(out, cell);
      out += ',';
    }
    appendField(out, outcome.message);
    out += "\r\n";
  }
  return out;
}

std::filesystem::path standardPath(const std::string& source) {
  if (source == "-") return "pasted rows - failed rows.csv";
  std::filesystem::path path(source);
  return path.parent_path() / (path.stem().string() + " - failed rows.csv");
}

}  // namespace corvane::FailedRows
