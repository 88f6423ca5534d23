#include "import/run_results_workbook.hpp"

#include "workbook/xlsx_writer.hpp"

namespace corvane {

namespace RunResultsWorkbook {

std::string sheetName(std::string_view objectLabel) {
  return "Results - " + std::string(objectLabel);
}

void write(const std::filesystem::path& path, std::string_view objectLabel,
           const std::vector<Entry>& entries) {
  using Style = XlsxWriter::Style;
  XlsxWriter writer(path);
  writer.addSheet(sheetName(objectLabel));
  writer.setColumnWidth(0, 0, 20);
  writer.setColumnWidth(1, 1, 8);
  writer.setColumnWidth(2, 2, 14);
  writer.setColumnWidth(3, 3, 80);
  writer.writeText(0, 0, recordIdHeader, Style::header);
  writer.writeText(0, 1, groupHeader, Style::header);
  writer.writeText(0, 2, outcomeHeader, Style::header);
  writer.writeText(0, 3, detailHeader, Style::header);

  // One row is kept for the note on entries that did not fit.
  const std::size_t room = XlsxWriter::maximumRows - 2;
  const std::size_t written = std::min(entries.size(), room);
  for (std::size_t i = 0; i < written; ++i) {
    const Entry& entry = entries[i];
    const std::size_t row = i + 1;
    writer.writeText(row, 0, entry.recordID);
    if (entry.groupId) writer.writeNumber(row, 1, static_cast<double>(*entry.groupId));
    writer.writeText(row, 2, entry.outcome);
    writer.writeText(row, 3, entry.detail);
  }
  if (written < entries.size()) {
    writer.writeText(written + 1, 3,
                     std::to_string(entries.size() - written) +
                         " more records are not listed: a sheet holds no more rows.");
  }
  writer.headerWithFilter(3, written);
  writer.close();
}

}  // namespace RunResultsWorkbook

}  // namespace corvane
