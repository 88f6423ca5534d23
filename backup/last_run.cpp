#include "backup/last_run.hpp"

#include <nlohmann/json.hpp>

#include "platform/durable_file.hpp"

namespace corvane {

std::optional<LastRun> LastRun::parse(std::string_view text) {
  try {
    const auto json = nlohmann::json::parse(text);
    LastRun run;
    json.at("startedAt").get_to(run.startedAt);
    json.at("finishedAt").get_to(run.finishedAt);
    json.at("kind").get_to(run.kind);
    json.at("result").get_to(run.result);
    json.at("message").get_to(run.message);
    json.at("records").get_to(run.records);
    json.at("deleted").get_to(run.deleted);
    json.at("files").get_to(run.files);
    json.at("filesWaiting").get_to(run.filesWaiting);
    json.at("bytes").get_to(run.bytes);
    json.at("folder").get_to(run.folder);
    if (auto it = json.find("removedBackups"); it != json.end() && !it->is_null())
      run.removedBackups = it->get<std::vector<std::string>>();
    if (auto it = json.find("removedBytes"); it != json.end() && !it->is_null())
      run.removedBytes = it->get<std::int64_t>();
    if (auto it = json.find("unusualDeletions"); it != json.end() && !it->is_null())
      run.unusualDeletions = it->get<std::vector<DeletedCount>>();
    return run;
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
}

std::optional<LastRun> LastRun::read(const BackupLocation& location) {
  try {
    auto text = Durable::readWhole(location.lastRunURL());
    if (!text) return std::nullopt;
    return parse(*text);
  } catch (const FileError&) {
    return std::nullopt;
  }
}

std::string LastRun::json() const {
  nlohmann::json json{
      {"startedAt", startedAt}, {"finishedAt", finishedAt}, {"kind", kind},
      {"result", result},       {"message", message},       {"records", records},
      {"deleted", deleted},     {"files", files},           {"filesWaiting", filesWaiting},
      {"bytes", bytes},         {"folder", folder}};
  if (removedBackups) json["removedBackups"] = *removedBackups;
  if (removedBytes) json["removedBytes"] = *removedBytes;
  if (unusualDeletions) json["unusualDeletions"] = *unusualDeletions;
  return json.dump(2) + "\n";
}

void LastRun::write(const BackupLocation& location) const {
  Durable::replace(location.lastRunURL(), json());
}

}  // namespace corvane
