#include "import/import_grid.hpp"

#include "platform/unicode.hpp"

namespace corvane {

namespace {

const std::string emptyCell;

// Blanks and tabs: whitespace that does not break a line.
bool isBlank(char32_t c) {
  if (c == U'\t' || c == U' ') return true;
  if (c < 0x80) return false;
  return Unicode::isWhitespace(c) && c != 0x85 && c != 0x2028 && c != 0x2029;
}

}  // namespace

const std::string& ImportGrid::cell(std::ptrdiff_t row, std::ptrdiff_t column) const {
  if (row < 0 || column < 0 || static_cast<std::size_t>(row) >= rows.size()) return emptyCell;
  const auto& cells = rows[static_cast<std::size_t>(row)];
  if (static_cast<std::size_t>(column) >= cells.size()) return emptyCell;
  return cells[static_cast<std::size_t>(column)];
}

void ImportGrid::setCell(std::ptrdiff_t row, std::ptrdiff_t column, std::string text) {
  if (row < 0 || column < 0 || static_cast<std::size_t>(row) >= rows.size()) return;
  auto& cells = rows[static_cast<std::size_t>(row)];
  if (static_cast<std::size_t>(column) >= cells.size())
    cells.resize(static_cast<std::size_t>(column) + 1);
  cells[static_cast<std::size_t>(column)] = std::move(text);
}

std::string trimmedHeader(std::string_view text) {
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t length = 0;
    if (!isBlank(Unicode::decode(text, start, length))) break;
    start += length;
  }
  std::size_t end = start;
  std::size_t offset = start;
  while (offset < text.size()) {
    std::size_t length = 0;
    char32_t c = Unicode::decode(text, offset, length);
    offset += length;
    if (!isBlank(c)) end = offset;
  }
  return std::string(text.substr(start, end - start));
}

}  // namespace corvane
