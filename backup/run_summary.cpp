#include "backup/run_summary.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "backup/backup_store.hpp"

namespace corvane {

bool RunSummary::succeeded() const {
  return result == RunResult::complete || result == RunResult::partial;
}

std::string RunSummary::json() const {
  nlohmann::ordered_json out;
  out["runId"] = runId;
  out["kind"] = toText(kind);
  out["folder"] = folder.string();
  out["result"] = result;
  out["message"] = message;
  out["records"] = records;
  out["deleted"] = deleted;
  out["filesDownloaded"] = filesDownloaded;
  out["filesWaiting"] = filesWaiting;
  out["apiRequests"] = apiRequests;
  out["removedBackups"] = removedBackups;
  out["removedBytes"] = removedBytes;
  nlohmann::json unusual = nlohmann::json::array();
  for (const auto& count : unusualDeletions) unusual.push_back(count);
  out["unusualDeletions"] = std::move(unusual);
  return out.dump(2) + "\n";
}

std::string RunSummary::text() const {
  std::string out;
  if (result == RunResult::complete)
    out += fmt::format("The {} backup is complete.\n", toText(kind));
  else if (result == RunResult::partial)
    out += fmt::format("The {} backup finished, with some things left out.\n", toText(kind));
  else if (result == RunResult::stopped)
    out += "The backup stopped.\n";
  else if (result == RunResult::gaveUp)
    out += "The backup was given up.\n";
  else
    out += "The backup failed.\n";
  if (!message.empty()) out += message + "\n";
  out += fmt::format("Folder: {}\n", folder.string());
  out += fmt::format("Records: {}  Deleted: {}  Files: {} (waiting {})  API requests: {}\n",
                     records, deleted, filesDownloaded, filesWaiting, apiRequests);
  return out;
}

}  // namespace corvane
