#include "workbook/import_grid.hpp"

#include <algorithm>
#include <stdexcept>

#include "platform/unicode.hpp"

namespace corvane {

namespace {

// Blanks and tabs: whitespace that does not break a line.
bool isBlank(char32_t c) {
  if (c == U'\t' || c == U' ') return true;
  if (c < 0x80) return false;
  return Unicode::isWhitespace(c) && c != 0x85 && c != 0x2028 && c != 0x2029;
}

}  // namespace

std::size_t ImportRowView::size() const { return rows_->rows_[row_].count; }

ImportCell ImportRowView::operator[](std::size_t column) const { return rows_->cell(row_, column); }

ImportRowView::operator std::vector<std::string>() const {
  std::vector<std::string> cells;
  cells.reserve(size());
  for (ImportCell cell : *this) cells.emplace_back(cell);
  return cells;
}

bool operator==(const ImportRowView& a, const ImportRowView& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i]) return false;
  }
  return true;
}

bool operator==(const ImportRowView& a, const std::vector<std::string>& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i]) return false;
  }
  return true;
}

ImportRows::ImportRows(std::initializer_list<std::vector<std::string>> rows) {
  for (const auto& row : rows) appendRow(row);
}

ImportRows::ImportRows(const std::vector<std::vector<std::string>>& rows) {
  rows_.reserve(rows.size());
  for (const auto& row : rows) appendRow(row);
}

ImportRows::ImportRows(const ImportRows& other) {
  rows_.reserve(other.size());
  for (ImportRowView row : other) appendRow(row);
}

ImportRows& ImportRows::operator=(const ImportRows& other) {
  if (this != &other) {
    ImportRows copy(other);
    *this = std::move(copy);
  }
  return *this;
}

ImportRows::~ImportRows() = default;

std::uint64_t ImportRows::allocate(std::size_t bytes) {
  const std::uint64_t end = static_cast<std::uint64_t>(blocks_.size()) << blockShift;
  if (used_ + bytes <= end) {
    const std::uint64_t start = used_;
    used_ += bytes;
    return start;
  }
  // Not zeroed: pages the rows never reach cost no memory.
  if (bytes <= blockSize) {
    storage_.emplace_back(new char[blockSize]);
    blocks_.push_back(storage_.back().get());
    used_ = end + bytes;
  } else {
    // A row longer than a block gets a buffer of its own, seen as several
    // consecutive blocks so that offsets stay plain numbers.
    storage_.emplace_back(new char[bytes]);
    const std::size_t count = (bytes + blockSize - 1) >> blockShift;
    for (std::size_t i = 0; i < count; ++i)
      blocks_.push_back(storage_.back().get() + (i << blockShift));
    used_ = end + (static_cast<std::uint64_t>(count) << blockShift);
  }
  return end;
}

char* ImportRows::startRow(std::size_t bytes, std::size_t count) {
  if (bytes > UINT32_MAX || count > UINT32_MAX)
    throw std::length_error("a row of an import grid holds at most 4 GB");
  Span span;
  span.firstEnd = ends_.size();
  span.count = static_cast<std::uint32_t>(count);
  span.firstByte = bytes == 0 ? used_ : allocate(bytes);
  rows_.push_back(span);
  return bytes == 0 ? nullptr : at(span.firstByte);
}

ImportCell ImportRows::cell(std::size_t row, std::size_t column) const {
  const Span& span = rows_[row];
  const std::uint32_t start = column == 0 ? 0 : ends_[span.firstEnd + column - 1];
  const std::uint32_t end = ends_[span.firstEnd + column];
  if (start == end) return ImportCell();
  return ImportCell(std::string_view(at(span.firstByte + start), end - start));
}

void ImportRows::dropFirst() {
  if (!rows_.empty()) rows_.erase(rows_.begin());
}

void ImportRows::clear() {
  storage_.clear();
  blocks_.clear();
  used_ = 0;
  ends_.clear();
  rows_.clear();
}

void ImportRows::set(std::size_t row, std::size_t column, std::string_view text) {
  // The row is written again at the end; blocks never move, so the old
  // cells can be read while the new ones are written. The old text stays
  // behind unused: changes are rare next to reading.
  const ImportRowView old(*this, row);
  const std::size_t oldCount = old.size();
  const std::size_t count = std::max(oldCount, column + 1);
  std::size_t bytes = text.size();
  for (std::size_t i = 0; i < oldCount; ++i) {
    if (i != column) bytes += old[i].size();
  }
  if (bytes > UINT32_MAX || count > UINT32_MAX)
    throw std::length_error("a row of an import grid holds at most 4 GB");
  Span span;
  span.firstEnd = ends_.size();
  span.count = static_cast<std::uint32_t>(count);
  span.firstByte = bytes == 0 ? used_ : allocate(bytes);
  char* out = bytes == 0 ? nullptr : at(span.firstByte);
  std::size_t end = 0;
  for (std::size_t i = 0; i < count; ++i) {
    std::string_view cellText = i == column ? text : i < oldCount ? old[i] : std::string_view();
    if (!cellText.empty()) cellText.copy(out + end, cellText.size());
    end += cellText.size();
    ends_.push_back(static_cast<std::uint32_t>(end));
  }
  rows_[row] = span;
}

std::size_t ImportRows::memoryUsed() const {
  return blocks_.size() * blockSize + ends_.size() * sizeof(std::uint32_t) +
         rows_.capacity() * sizeof(Span) + blocks_.capacity() * sizeof(char*) +
         storage_.capacity() * sizeof(storage_[0]);
}

bool operator==(const ImportRows& a, const ImportRows& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (!(a[i] == b[i])) return false;
  }
  return true;
}

bool operator==(const ImportRows& a, const std::vector<std::vector<std::string>>& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (!(a[i] == b[i])) return false;
  }
  return true;
}

ImportCell ImportGrid::cell(std::ptrdiff_t row, std::ptrdiff_t column) const {
  if (row < 0 || column < 0 || static_cast<std::size_t>(row) >= rows.size()) return {};
  const ImportRowView cells = rows[static_cast<std::size_t>(row)];
  if (static_cast<std::size_t>(column) >= cells.size()) return {};
  return cells[static_cast<std::size_t>(column)];
}

void ImportGrid::setCell(std::ptrdiff_t row, std::ptrdiff_t column, std::string text) {
  if (row < 0 || column < 0 || static_cast<std::size_t>(row) >= rows.size()) return;
  rows.set(static_cast<std::size_t>(row), static_cast<std::size_t>(column), text);
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
