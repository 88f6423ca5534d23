#include "scheduling/schedule_report.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace corvane::ScheduleReport {

namespace {

template <typename T>
nlohmann::ordered_json orNull(const std::optional<T>& value) {
  return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

std::string lastSuccess(const BackupSet& set) {
  return set.lastSuccessAt ? IsoTime::formatPlain(*set.lastSuccessAt) : "never";
}

std::optional<int> keepLastFulls(const BackupSet& set) {
  return set.retention.value_or(Retention::Policy::standard()).keepLastFulls;
}

std::string keepText(const BackupSet& set) {
  const auto keep = keepLastFulls(set);
  return keep ? fmt::format("last {} full", *keep) : "everything";
}

}  // namespace

std::string setsTable(const std::vector<BackupSet>& sets, const ScheduleTask::Setup& setup) {
  std::string out = fmt::format("{:<32} {:<18} {:<12} {:<14} {:<21} {}\n", "USERNAME", "SCHEDULE",
                                "FULL COPY", "KEEP", "LAST SUCCESS", "FOLDER");
  for (const auto& set : sets) {
    out +=
        fmt::format("{:<32} {:<18} {:<12} {:<14} {:<21} {}\n", set.username,
                    set.effectiveSchedule().text(), toText(set.effectiveFullEvery()), keepText(set),
                    lastSuccess(set), set.location(setup.backupRoot).folder().string());
  }
  return out;
}

std::string setsJSON(const std::vector<BackupSet>& sets, const ScheduleTask::Setup& setup) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const auto& set : sets) {
    list.push_back(
        {{"username", set.username},
         {"orgKey", set.orgKey},
         {"orgName", orNull(set.orgName)},
         {"schedule", set.effectiveSchedule().text()},
         {"fullCopy", toText(set.effectiveFullEvery())},
         {"keepLastFulls", orNull(keepLastFulls(set))},
         {"lastSuccessAt", set.lastSuccessAt
                               ? nlohmann::ordered_json(IsoTime::formatPlain(*set.lastSuccessAt))
                               : nlohmann::ordered_json(nullptr)},
         {"folder", set.location(setup.backupRoot).folder().string()},
         {"includeFiles", set.includeFiles.value_or(false)},
         {"onlyObjects", orNull(set.onlyObjects)}});
  }
  return nlohmann::ordered_json{{"sets", std::move(list)}}.dump(2) + "\n";
}

std::string statusText(const ScheduleTask::Status& status) {
  std::string out;
  if (status.installed) {
    out +=
        fmt::format("Installed: the {} {}\n", status.schedulerKind, status.schedulerFile.string());
    out += fmt::format("Runs: {} --backup-tick at minute {} of every hour\n",
                       status.executable.value_or("(unreadable)"),
                       status.minute ? std::to_string(*status.minute) : "(unreadable)");
    out += fmt::format("Loaded: {}\n", status.loaded ? "yes" : "no");
  } else {
    out += "Installed: nothing; no scheduled backup runs by itself.\n";
  }
  if (status.tickMinute) out += fmt::format("Tick minute: {}\n", *status.tickMinute);
  if (status.wish == ScheduleWish::unknown) out += status.setsUnreadable + "\n";
  if (const auto mismatch = status.mismatch(); !mismatch.empty()) out += mismatch + "\n";
  out += fmt::format("Files wait for mains power: {}\n", status.filesWaitForPower ? "yes" : "no");
  if (status.lastTick) {
    out += "Last tick: " + status.lastTick->startedAt + ": " + status.lastTick->result + "\n";
  } else {
    out += "Last tick: none yet\n";
  }
  if (!status.unseenNotices.empty()) {
    out += "Notifications not yet seen:\n";
    for (const auto& notice : status.unseenNotices) {
      out += "  " + notice.since + ": " + notice.text + "\n";
    }
  }
  return out;
}

std::string statusJSON(const ScheduleTask::Status& status) {
  const std::string mismatch = status.mismatch();
  nlohmann::ordered_json out{
      {"installed", status.installed},
      {"scheduler", status.schedulerKind},
      {"schedulerFile",
       status.installed ? nlohmann::ordered_json(status.schedulerFile.string()) : nullptr},
      {"executable", status.installed ? orNull(status.executable) : nullptr},
      {"minute", status.installed ? orNull(status.minute) : nullptr},
      {"loaded", status.installed && status.loaded},
      {"tickMinute", orNull(status.tickMinute)},
      {"setsUnreadable", status.setsUnreadable.empty()
                             ? nlohmann::ordered_json(nullptr)
                             : nlohmann::ordered_json(status.setsUnreadable)},
      {"mismatch",
       mismatch.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(mismatch)},
      {"filesWaitForPower", status.filesWaitForPower},
      {"lastTick", nullptr},
      {"notifications", nlohmann::ordered_json::array()}};
  if (const auto& tick = status.lastTick)
    out["lastTick"] = {{"startedAt", tick->startedAt}, {"result", tick->result}};
  for (const auto& notice : status.unseenNotices)
    out["notifications"].push_back({{"since", notice.since}, {"text", notice.text}});
  return out.dump(2) + "\n";
}

}  // namespace corvane::ScheduleReport
