#include "backup/restore_results.hpp"

#include <chrono>

#include "backup/backup_csv.hpp"
#include "backup/backup_location.hpp"
#include "platform/durable_file.hpp"
#include "platform/iso_time.hpp"
#include "workbook/xlsx_writer.hpp"

namespace corvane::RestoreResults {

namespace {

std::string messageOf(const RestoreTask::Record& record) {
  std::string text = record.message.empty() ? record.reason : record.message;
  if (!record.unresolved.empty()) {
    std::string fields;
    for (const auto& field : record.unresolved) fields += (fields.empty() ? "" : ", ") + field;
    text += std::string(text.empty() ? "" : " ") + "Left empty: " + fields + ".";
  }
  return text;
}

}  // namespace

std::vector<std::vector<std::string>> rows(const RestoreTask::Plan& plan) {
  std::vector<std::vector<std::string>> out;
  for (const auto& record : plan.records)
    out.push_back({record.object, RestoreTask::actionText(record.action), record.id, record.newId,
                   record.result, messageOf(record)});
  return out;
}

void writeWorkbook(const std::filesystem::path& path, const RestoreTask::Plan& plan) {
  XlsxWriter writer(path);
  writer.addSheet("Restore");
  for (std::size_t column = 0; column < headers.size(); ++column)
    writer.writeText(0, column, headers[column], XlsxWriter::Style::header);
  const auto all = rows(plan);
  std::size_t row = 1;
  for (const auto& cells : all) {
    if (row + 1 >= XlsxWriter::maximumRows) break;
    for (std::size_t column = 0; column < cells.size(); ++column)
      writer.writeText(row, column, cells[column]);
    ++row;
  }
  writer.headerWithFilter(headers.size() - 1, row - 1);
  writer.close();
}

std::optional<std::filesystem::path> writeFailures(const std::filesystem::path& folder,
                                                   const std::string& object,
                                                   const RestoreTask::Plan& plan) {
  std::string csv = BackupCSV::line(headers);
  bool any = false;
  for (const auto& cells : rows(plan)) {
    if (cells[4] != "failed") continue;
    BackupCSV::appendLine(csv, std::vector<std::string_view>(cells.begin(), cells.end()));
    any = true;
  }
  if (!any) return std::nullopt;
  std::filesystem::create_directories(folder);
  const auto path = folder / (BackupLocation::safeName(object) + " failures " +
                              IsoTime::folderStamp(std::chrono::system_clock::now()) + ".csv");
  Durable::replace(path, csv, 0600);
  return path;
}

}  // namespace corvane::RestoreResults
