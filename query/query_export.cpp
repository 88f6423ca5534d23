#include "query/query_export.hpp"

namespace corvane::QueryExport {

namespace {

// Whether a cell must be quoted. The test is on user-perceived characters,
// where CR LF is one character, neither a line feed nor a carriage return.
// A comma or quote is looked for byte by byte even where a combining mark
// follows it, so that no reader ever splits such a cell.
bool needsQuotes(std::string_view cell) {
  for (std::size_t i = 0; i < cell.size(); ++i) {
    char c = cell[i];
    if (c == ',' || c == '"') return true;
    if (c == '\r') {
      if (i + 1 < cell.size() && cell[i + 1] == '\n') {
        ++i;
        continue;
      }
      return true;
    }
    if (c == '\n') return true;
  }
  return false;
}

}  // namespace

void appendCSVCell(std::string& out, std::string_view cell) {
  if (!needsQuotes(cell)) {
    out += cell;
    return;
  }
  out += '"';
  for (char c : cell) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
}

void appendCSVLine(std::string& out, const std::vector<std::string>& cells) {
  for (std::size_t i = 0; i < cells.size(); ++i) {
    if (i > 0) out += ',';
    appendCSVCell(out, cells[i]);
  }
  out += '\n';
}

void appendTSVHeader(std::string& out, const std::vector<std::string>& columns) {
  for (std::size_t i = 0; i < columns.size(); ++i) {
    if (i > 0) out += '\t';
    out += columns[i];
  }
  out += '\n';
}

void appendTSVCell(std::string& out, std::string_view cell) {
  for (std::size_t i = 0; i < cell.size(); ++i) {
    char c = cell[i];
    if (c == '\r' && i + 1 < cell.size() && cell[i + 1] == '\n') {
      out += ' ';
      ++i;
    } else if (c == '\t' || c == '\n' || c == '\r') {
      out += ' ';
    } else {
      out += c;
    }
  }
}

void appendTSVLine(std::string& out, const std::vector<std::string>& cells) {
  for (std::size_t i = 0; i < cells.size(); ++i) {
    if (i > 0) out += '\t';
    appendTSVCell(out, cells[i]);
  }
  out += '\n';
}

std::string csv(const std::vector<std::string>& columns,
                const std::vector<std::vector<std::string>>& rows) {
  std::string out;
  appendCSVLine(out, columns);
  for (const auto& row : rows) appendCSVLine(out, row);
  return out;
}

std::string tsv(const std::vector<std::string>& columns,
                const std::vector<std::vector<std::string>>& rows) {
  std::string out;
  appendTSVHeader(out, columns);
  for (const auto& row : rows) appendTSVLine(out, row);
  return out;
}

}  // namespace corvane::QueryExport
