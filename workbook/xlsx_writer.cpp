#include "workbook/xlsx_writer.hpp"

#include <unistd.h>

#include <set>
#include <system_error>

#include <xlsxwriter.h>

namespace corvane {

WorkbookWriteError::WorkbookWriteError(const std::filesystem::path& path, const std::string& reason)
    : UserFacingError("Could not write the workbook " + path.filename().string() + ": " + reason +
                      ". Nothing was saved under that name; check that the folder exists, can be "
                      "written to and has free space, then try again.") {}

namespace {

// The length of text cut to at most maximum bytes without splitting a UTF-8
// sequence.
std::size_t utf8Prefix(std::string_view text, std::size_t maximum) {
  if (text.size() <= maximum) return text.size();
  std::size_t end = maximum;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return end;
}

// Cuts text to at most maximum UTF-16 code units (how spreadsheet programs
// count), never inside a character.
std::string cutToUnits(std::string_view text, std::size_t maximum) {
  std::size_t units = 0;
  std::size_t offset = 0;
  while (offset < text.size()) {
    unsigned char lead = static_cast<unsigned char>(text[offset]);
    std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    std::size_t width = length == 4 ? 2 : 1;
    if (units + width > maximum) break;
    units += width;
    offset += length;
  }
  return std::string(text.substr(0, std::min(offset, text.size())));
}

std::string reasonOf(lxw_error error) {
  switch (error) {
    case LXW_ERROR_CREATING_XLSX_FILE:
    case LXW_ERROR_CREATING_TMPFILE:
      return "the file could not be created";
    case LXW_ERROR_MEMORY_MALLOC_FAILED:
      return "there was not enough memory";
    default:
      return lxw_strerror(error);
  }
}

}  // namespace

struct XlsxWriter::Impl {
  std::filesystem::path path;
  std::filesystem::path partial;
  lxw_workbook* workbook = nullptr;
  lxw_worksheet* sheet = nullptr;
  lxw_format* header = nullptr;
  lxw_format* suggested = nullptr;
  std::set<std::string> sheetNames;  // lower-cased: names differ in more than case
  bool closed = false;

  lxw_format* format(Style style) const {
    switch (style) {
      case Style::plain:
        return nullptr;
      case Style::header:
        return header;
      case Style::suggested:
        return suggested;
    }
    return nullptr;
  }

  void check(lxw_error error) const {
    if (error == LXW_NO_ERROR) return;
    throw WorkbookWriteError(path, reasonOf(error));
  }

  lxw_worksheet* current() const {
    if (!sheet) throw WorkbookWriteError(path, "no sheet was added before writing");
    return sheet;
  }
};

XlsxWriter::XlsxWriter(std::filesystem::path path) : impl_(std::make_unique<Impl>()) {
  impl_->path = std::move(path);
  impl_->partial = impl_->path;
  impl_->partial.replace_filename("." + impl_->path.filename().string() + ".partial-" +
                                  std::to_string(::getpid()));
  lxw_workbook_options options{};
  options.constant_memory = LXW_TRUE;
  options.use_zip64 = LXW_TRUE;
  impl_->workbook = workbook_new_opt(impl_->partial.c_str(), &options);
  if (!impl_->workbook) throw WorkbookWriteError(impl_->path, "there was not enough memory");
  impl_->header = workbook_add_format(impl_->workbook);
  format_set_bold(impl_->header);
  impl_->suggested = workbook_add_format(impl_->workbook);
  format_set_pattern(impl_->suggested, LXW_PATTERN_SOLID);
  format_set_bg_color(impl_->suggested, 0xC6EFCE);
}

XlsxWriter::~XlsxWriter() {
  if (impl_->closed) return;
  // libxlsxwriter frees a workbook only by writing it: write the partial file
  // and throw it away.
  workbook_close(impl_->workbook);
  std::error_code ignored;
  std::filesystem::remove(impl_->partial, ignored);
}

std::string XlsxWriter::validSheetName(std::string_view name) {
  std::string clean;
  clean.reserve(name.size());
  for (char c : name) {
    bool forbidden = c == '[' || c == ']' || c == ':' || c == '*' || c == '?' || c == '/' ||
                     c == '\\' || (static_cast<unsigned char>(c) < 0x20);
    clean.push_back(forbidden ? ' ' : c);
  }
  while (!clean.empty() && clean.front() == '\'') clean.erase(clean.begin());
  clean = cutToUnits(clean, LXW_SHEETNAME_MAX);
  while (!clean.empty() && (clean.back() == '\'' || clean.back() == ' ')) clean.pop_back();
  if (clean.empty()) clean = "Sheet";
  return clean;
}

std::string XlsxWriter::addSheet(std::string_view wanted) {
  std::string base = validSheetName(wanted);
  auto lowered = [](std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
  };
  std::string name = base;
  for (int n = 2; impl_->sheetNames.count(lowered(name)) > 0; ++n) {
    std::string suffix = " (" + std::to_string(n) + ")";
    name = cutToUnits(base, LXW_SHEETNAME_MAX - suffix.size()) + suffix;
  }
  impl_->sheetNames.insert(lowered(name));
  impl_->sheet = workbook_add_worksheet(impl_->workbook, name.c_str());
  if (!impl_->sheet) throw WorkbookWriteError(impl_->path, "the sheet \"" + name + "\" was refused");
  return name;
}

void XlsxWriter::writeText(std::size_t row, std::size_t column, std::string_view text,
                           Style style) {
  lxw_worksheet* sheet = impl_->current();
  if (text.empty()) {
    if (style != Style::plain) writeBlank(row, column, style);
    return;
  }
  std::string cell = cutToUnits(text.substr(0, utf8Prefix(text, 4 * maximumCellText)),
                                maximumCellText);
  impl_->check(worksheet_write_string(sheet, static_cast<lxw_row_t>(row),
                                      static_cast<lxw_col_t>(column), cell.c_str(),
                                      impl_->format(style)));
}

void XlsxWriter::writeNumber(std::size_t row, std::size_t column, double value, Style style) {
  impl_->check(worksheet_write_number(impl_->current(), static_cast<lxw_row_t>(row),
                                      static_cast<lxw_col_t>(column), value,
                                      impl_->format(style)));
}

void XlsxWriter::writeBlank(std::size_t row, std::size_t column, Style style) {
  impl_->check(worksheet_write_blank(impl_->current(), static_cast<lxw_row_t>(row),
                                     static_cast<lxw_col_t>(column), impl_->format(style)));
}

void XlsxWriter::setColumnWidth(std::size_t first, std::size_t last, double width) {
  impl_->check(worksheet_set_column(impl_->current(), static_cast<lxw_col_t>(first),
                                    static_cast<lxw_col_t>(last), width, nullptr));
}

void XlsxWriter::headerWithFilter(std::size_t lastColumn, std::size_t lastRow) {
  lxw_worksheet* sheet = impl_->current();
  worksheet_freeze_panes(sheet, 1, 0);
  impl_->check(worksheet_autofilter(sheet, 0, 0, static_cast<lxw_row_t>(lastRow),
                                    static_cast<lxw_col_t>(lastColumn)));
}

void XlsxWriter::close() {
  if (impl_->closed) return;
  impl_->closed = true;
  lxw_error error = workbook_close(impl_->workbook);
  std::error_code ignored;
  if (error != LXW_NO_ERROR) {
    std::filesystem::remove(impl_->partial, ignored);
    throw WorkbookWriteError(impl_->path, reasonOf(error));
  }
  std::error_code moved;
  std::filesystem::rename(impl_->partial, impl_->path, moved);
  if (moved) {
    std::filesystem::remove(impl_->partial, ignored);
    throw WorkbookWriteError(impl_->path, moved.message());
  }
}

}  // namespace corvane
