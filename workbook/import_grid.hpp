// The table every import source becomes: a header row and the data rows, all
// text. Rows keep their own lengths; nothing pads or cuts them to the headers.
//
// Rows are stored compactly (ImportRows): every cell's bytes in large shared
// blocks and one 32-bit end offset per cell, so that a 100,000 by 20 sheet
// costs about its text plus 4 bytes a cell instead of a string object per
// cell. Cells are read as views (ImportCell) that stay valid until the rows
// are changed or destroyed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

class ImportRows;

// The text of one cell: a view into the grid that also converts to a string.
class ImportCell : public std::string_view {
 public:
  constexpr ImportCell() = default;
  constexpr explicit ImportCell(std::string_view text) : std::string_view(text) {}
  operator std::string() const { return std::string(data(), size()); }
};

// One row of an ImportRows, read-only; valid while the rows are unchanged.
class ImportRowView {
 public:
  class const_iterator {
   public:
    using iterator_category = std::random_access_iterator_tag;
    using value_type = ImportCell;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = ImportCell;

    const_iterator() = default;
    const_iterator(const ImportRowView* row, std::size_t at) : row_(row), at_(at) {}
    ImportCell operator*() const { return (*row_)[at_]; }
    ImportCell operator[](difference_type n) const {
      return (*row_)[static_cast<std::size_t>(static_cast<difference_type>(at_) + n)];
    }
    const_iterator& operator++() { return ++at_, *this; }
    const_iterator operator++(int) { return {row_, at_++}; }
    const_iterator& operator--() { return --at_, *this; }
    const_iterator& operator+=(difference_type n) {
      at_ = static_cast<std::size_t>(static_cast<difference_type>(at_) + n);
      return *this;
    }
    const_iterator operator+(difference_type n) const { return const_iterator(*this) += n; }
    difference_type operator-(const const_iterator& other) const {
      return static_cast<difference_type>(at_) - static_cast<difference_type>(other.at_);
    }
    bool operator==(const const_iterator& other) const { return at_ == other.at_; }

   private:
    const ImportRowView* row_ = nullptr;
    std::size_t at_ = 0;
  };
  using iterator = const_iterator;
  using value_type = ImportCell;
  using size_type = std::size_t;
  using reference = ImportCell;
  using const_reference = ImportCell;

  ImportRowView(const ImportRows& rows, std::size_t row) : rows_(&rows), row_(row) {}

  std::size_t size() const;
  bool empty() const { return size() == 0; }
  // The cell at column; column must be below size().
  ImportCell operator[](std::size_t column) const;
  const_iterator begin() const { return {this, 0}; }
  const_iterator end() const { return {this, size()}; }

  // A copy as strings, for code that works on whole rows.
  operator std::vector<std::string>() const;

  friend bool operator==(const ImportRowView& a, const ImportRowView& b);
  friend bool operator==(const ImportRowView& a, const std::vector<std::string>& b);

 private:
  const ImportRows* rows_;
  std::size_t row_;
};

// The data rows of a grid. Reads like a vector of rows of strings; rows are
// added whole (push_back) and cells changed with set.
class ImportRows {
 public:
  class const_iterator {
   public:
    using iterator_category = std::random_access_iterator_tag;
    using value_type = ImportRowView;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = ImportRowView;

    const_iterator() = default;
    const_iterator(const ImportRows* rows, std::size_t at) : rows_(rows), at_(at) {}
    ImportRowView operator*() const { return {*rows_, at_}; }
    const_iterator& operator++() { return ++at_, *this; }
    const_iterator operator++(int) { return {rows_, at_++}; }
    const_iterator& operator--() { return --at_, *this; }
    const_iterator& operator+=(difference_type n) {
      at_ = static_cast<std::size_t>(static_cast<difference_type>(at_) + n);
      return *this;
    }
    const_iterator operator+(difference_type n) const { return const_iterator(*this) += n; }
    difference_type operator-(const const_iterator& other) const {
      return static_cast<difference_type>(at_) - static_cast<difference_type>(other.at_);
    }
    bool operator==(const const_iterator& other) const { return at_ == other.at_; }

   private:
    const ImportRows* rows_ = nullptr;
    std::size_t at_ = 0;
  };
  using iterator = const_iterator;
  using value_type = ImportRowView;
  using size_type = std::size_t;
  using reference = ImportRowView;
  using const_reference = ImportRowView;

  ImportRows() = default;
  ImportRows(std::initializer_list<std::vector<std::string>> rows);
  ImportRows(const std::vector<std::vector<std::string>>& rows);  // NOLINT: reads like a vector
  ImportRows(const ImportRows& other);
  ImportRows(ImportRows&&) noexcept = default;
  ImportRows& operator=(const ImportRows& other);
  ImportRows& operator=(ImportRows&&) noexcept = default;
  ~ImportRows();

  std::size_t size() const { return rows_.size(); }
  bool empty() const { return rows_.empty(); }
  ImportRowView operator[](std::size_t row) const { return {*this, row}; }
  ImportRowView front() const { return {*this, 0}; }
  ImportRowView back() const { return {*this, rows_.size() - 1}; }
  const_iterator begin() const { return {this, 0}; }
  const_iterator end() const { return {this, rows_.size()}; }

  // Appends a row; cells may be anything that converts to std::string_view.
  // A row holds at most 4 GB of text (std::length_error past that).
  template <typename Cells>
  void appendRow(const Cells& cells) {
    std::size_t bytes = 0;
    std::size_t count = 0;
    for (const auto& cell : cells) {
      bytes += std::string_view(cell).size();
      ++count;
    }
    char* out = startRow(bytes, count);
    std::size_t end = 0;
    for (const auto& cell : cells) {
      std::string_view text(cell);
      if (!text.empty()) text.copy(out + end, text.size());
      end += text.size();
      ends_.push_back(static_cast<std::uint32_t>(end));
    }
  }
  void push_back(const std::vector<std::string>& cells) { appendRow(cells); }
  template <typename Iterator>
  void assign(Iterator first, Iterator last) {
    clear();
    for (; first != last; ++first) appendRow(*first);
  }
  // Removes the first row (the header row, once a reader has taken it).
  void dropFirst();
  void clear();

  // Stores text at row, column, lengthening the row with empty cells when
  // column lies beyond its end. row must be below size().
  void set(std::size_t row, std::size_t column, std::string_view text);

  // The memory the rows hold, in bytes (blocks, offsets and row table).
  std::size_t memoryUsed() const;

  friend bool operator==(const ImportRows& a, const ImportRows& b);
  friend bool operator==(const ImportRows& a, const std::vector<std::vector<std::string>>& b);

 private:
  friend class ImportRowView;
  struct Span {
    std::uint64_t firstByte = 0;  // where the row's text starts (see at())
    std::uint64_t firstEnd = 0;   // index in ends_ of the row's first cell
    std::uint32_t count = 0;      // cells in the row
  };
  static constexpr unsigned blockShift = 20;  // 1 MB blocks
  static constexpr std::size_t blockSize = std::size_t{1} << blockShift;

  // Begins a row of count cells and bytes bytes of text; returns where the
  // text goes. The caller pushes count ends, relative to the row's start.
  char* startRow(std::size_t bytes, std::size_t count);
  // A place for bytes contiguous bytes; returns its offset.
  std::uint64_t allocate(std::size_t bytes);
  char* at(std::uint64_t offset) const {
    return blocks_[offset >> blockShift] + (offset & (blockSize - 1));
  }
  ImportCell cell(std::size_t row, std::size_t column) const;

  std::vector<std::unique_ptr<char[]>> storage_;
  std::vector<char*> blocks_;  // one per 1 MB of offsets; a long row's point into one buffer
  std::uint64_t used_ = 0;     // offset of the first free byte
  std::deque<std::uint32_t> ends_;
  std::vector<Span> rows_;
};

struct ImportGrid {
  // The workbook sheet the grid came from; absent for delimited text.
  std::optional<std::string> sheetName;
  // The first non-blank row, each cell trimmed of blanks and tabs.
  std::vector<std::string> headers;
  // Every later non-blank row, cells untrimmed, in source order.
  ImportRows rows;

  // The text at row, column; empty when either lies outside the grid.
  ImportCell cell(std::ptrdiff_t row, std::ptrdiff_t column) const;

  // Stores text in an existing row, lengthening it with empty cells when
  // column lies beyond its end. Negative indices or a row past the last one
  // change nothing.
  void setCell(std::ptrdiff_t row, std::ptrdiff_t column, std::string text);

  bool operator==(const ImportGrid&) const = default;
};

// JSON arrays of strings, for nlohmann::json (found by argument lookup).
template <typename Json>
void to_json(Json& json, const ImportRowView& row) {
  json = Json::array();
  for (ImportCell cell : row) json.push_back(std::string(cell));
}
template <typename Json>
void to_json(Json& json, const ImportRows& rows) {
  json = Json::array();
  for (ImportRowView row : rows) {
    Json cells;
    to_json(cells, row);
    json.push_back(std::move(cells));
  }
}

// Trims leading and trailing blanks and tabs (Unicode space separators and
// U+0009), never line breaks.
std::string trimmedHeader(std::string_view text);

}  // namespace corvane
