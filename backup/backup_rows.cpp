#include "backup/backup_rows.hpp"

#include <algorithm>

#include "backup/backup_csv.hpp"
#include "platform/durable_file.hpp"

namespace corvane::BackupRows {

std::map<std::string, Row> lastKnown(BackupStore& store, const std::string& object,
                                     const std::set<std::string>& ids, std::int64_t before) {
  std::map<std::string, Row> found;
  if (ids.empty()) return found;
  auto runs = store.runs();
  std::sort(runs.begin(), runs.end(), [](const auto& a, const auto& b) { return a.id > b.id; });
  for (const auto& run : runs) {
    if (found.size() == ids.size()) break;
    if (run.id >= before || !run.isUsable()) continue;
    std::optional<std::string> data;
    try {
      data = Durable::readWhole(store.runFolder(run) / (BackupLocation::safeName(object) + ".csv"));
    } catch (const FileError&) {
      continue;
    }
    if (!data) continue;
    std::vector<std::string> header;
    std::size_t idColumn = 0;
    try {
      BackupCSV::scan(
          *data,
          [&](const BackupCSV::Record& record) {
            header = record.fields;
            idColumn = static_cast<std::size_t>(std::find(header.begin(), header.end(), "Id") -
                                                header.begin());
          },
          [&](const BackupCSV::Record& record) {
            if (idColumn >= record.fields.size()) return idColumn < header.size();
            const std::string& id = record.fields[idColumn];
            if (ids.count(id) == 0 || found.count(id) != 0) return true;
            Row row;
            for (std::size_t i = 0; i < header.size() && i < record.fields.size(); ++i)
              row.emplace(header[i], record.fields[i]);
            found.emplace(id, std::move(row));
            return found.size() < ids.size();
          });
    } catch (const BackupCSV::Unreadable&) {
      // Not one of this backup's own files any more; older runs may still hold the rows.
    }
  }
  return found;
}

}  // namespace corvane::BackupRows
