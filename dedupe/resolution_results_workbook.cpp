#include "dedupe/resolution_results_workbook.hpp"

#include "workbook/xlsx_writer.hpp"

namespace corvane::ResolutionResultsWorkbook {

std::string sheetName(std::string_view objectLabel) {
  return "Results - " + std::string(objectLabel);
}

void write(const std::filesystem::path& path, std::string_view objectLabel,
           const std::vector<Entry>& entries) {
  if (entries.size() + 1 > XlsxWriter::maximumRows) {
    throw WorkbookWriteError(path, "the run touched " + std::to_string(entries.size()) +
                                       " records, more than the rows a sheet can hold");
  }
  using Style = XlsxWriter::Style;
  XlsxWriter writer(path);
  writer.addSheet(sheetName(objectLabel));
  const std::vector<std::string_view> headers{groupHeader,  recordIdHeader, nameHeader,
                                              actionHeader, outcomeHeader,  detailHeader};
  const std::vector<double> widths{8, 20, 28, 30, 16, 80};
  for (std::size_t column = 0; column < headers.size(); ++column) {
    writer.setColumnWidth(column, column, widths[column]);
  }
  for (std::size_t column = 0; column < headers.size(); ++column) {
    writer.writeText(0, column, headers[column], Style::header);
  }
  std::size_t row = 0;
  for (const Entry& entry : entries) {
    ++row;
    if (entry.groupId) writer.writeNumber(row, 0, static_cast<double>(*entry.groupId));
    writer.writeText(row, 1, entry.recordID);
    writer.writeText(row, 2, entry.name);
    writer.writeText(row, 3, entry.action);
    writer.writeText(row, 4, entry.outcome);
    writer.writeText(row, 5, entry.detail);
  }
  writer.headerWithFilter(headers.size() - 1, row);
  writer.close();
}

std::filesystem::path defaultPath(const std::filesystem::path& snapshot, SystemTime now) {
  const std::string stem = snapshot.stem().string() + " results " + IsoTime::localFolderStamp(now);
  const std::filesystem::path folder = std::filesystem::absolute(snapshot).parent_path();
  std::filesystem::path path = folder / (stem + ".xlsx");
  for (int n = 2; std::filesystem::exists(path); ++n) {
    path = folder / (stem + " (" + std::to_string(n) + ").xlsx");
  }
  return path;
}

}  // namespace corvane::ResolutionResultsWorkbook
