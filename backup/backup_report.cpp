#include "backup/backup_report.hpp"

#include <algorithm>
#include <map>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "backup/backup_error.hpp"
#include "platform/number_text.hpp"

namespace corvane::BackupReport {

namespace {

}  // namespace

std::string text(const BackupTask::Survey& survey) {
  std::string out = fmt::format("A backup of {} would be kept in\n  {}\n\n",
                                survey.location.username, survey.location.folder().string());
  std::size_t nameWidth = 6;
  for (const auto& object : survey.objects)
    nameWidth = std::max(nameWidth, object.plan.object.size());
  out += fmt::format("{:<{}}  {:>12}  {:>6}  {:<4}  {}\n", "Object", nameWidth, "Records", "Fields",
                     "Way", "Fields left out");
  std::int64_t records = 0;
  for (const auto& object : survey.objects) {
    std::string leftOut;
    for (const auto& field : object.fieldsLeftOut)
      leftOut += (leftOut.empty() ? "" : ", ") + field.name;
    out += fmt::format("{:<{}}  {:>12}  {:>6}  {:<4}  {}\n", object.plan.object, nameWidth,
                       object.records ? NumberText::grouped(*object.records) : "unknown",
                       object.plan.fields.size(), object.via, leftOut);
    records += object.records.value_or(0);
  }
  out += fmt::format("\n{} objects, {} records.\n", survey.objects.size(), NumberText::grouped(records));

  if (!survey.objectsLeftOut.empty()) {
    // One line per reason, naming its objects.
    std::map<std::string, std::vector<std::string>> byReason;
    for (const auto& entry : survey.objectsLeftOut) byReason[entry.reason].push_back(entry.name);
    out += "\nLeft out:\n";
    for (const auto& [reason, names] : byReason) {
      std::string list;
      for (const auto& name : names) list += (list.empty() ? "" : ", ") + name;
      out += fmt::format("  {}\n    {}\n", reason, list);
    }
  }

  const auto& estimate = survey.estimate;
  out += fmt::format("\nSpace: about {} ({} to {}), of which {} for documents and attachments.\n",
                     BackupError::byteCount(estimate.expected),
                     BackupError::byteCount(estimate.low), BackupError::byteCount(estimate.high),
                     BackupError::byteCount(estimate.fileBytes));
  out += fmt::format("The disk has {} free, and {} must stay free.\n",
                     BackupError::byteCount(estimate.free),
                     BackupError::byteCount(survey.freeSpaceFloor));
  switch (estimate.verdict) {
    case BackupEstimator::Verdict::fits:
      out += "It fits.\n";
      break;
    case BackupEstimator::Verdict::tight:
      out +=
          "It should fit, but space is tight: if the records are larger than usual, the "
          "backup stops before the disk fills and carries on once there is room.\n";
      break;
    case BackupEstimator::Verdict::willNotFit:
      out += std::string(
                 BackupError::willNotFit(estimate.expected + survey.freeSpaceFloor, estimate.free)
                     .what()) +
             "\n";
      break;
  }
  return out;
}

std::string json(const BackupTask::Survey& survey) {
  using Ordered = nlohmann::ordered_json;
  auto reasons = [](const std::vector<BackupTask::LeftOut>& list) {
    Ordered array = Ordered::array();
    for (const auto& entry : list)
      array.push_back(Ordered{{"name", entry.name}, {"reason", entry.reason}});
    return array;
  };
  Ordered objects = Ordered::array();
  for (const auto& object : survey.objects) {
    Ordered entry;
    entry["name"] = object.plan.object;
    entry["records"] = object.records ? Ordered(*object.records) : Ordered(nullptr);
    entry["via"] = object.via;
    entry["mode"] = BackupPlanner::toText(object.plan.mode);
    entry["operation"] = object.plan.operation;
    entry["watermarkField"] =
        object.plan.watermarkField ? Ordered(*object.plan.watermarkField) : Ordered(nullptr);
    entry["fields"] = object.plan.fields;
    entry["fieldsLeftOut"] = reasons(object.fieldsLeftOut);
    entry["soql"] = object.plan.soql;
    objects.push_back(std::move(entry));
  }
  const auto& estimate = survey.estimate;
  Ordered out;
  out["username"] = survey.location.username;
  out["orgKey"] = survey.location.orgKey;
  out["folder"] = survey.location.folder().string();
  out["objects"] = std::move(objects);
  out["objectsLeftOut"] = reasons(survey.objectsLeftOut);
  out["space"] = Ordered{{"recordBytes", estimate.recordBytes},
                         {"fileBytes", estimate.fileBytes},
                         {"low", estimate.low},
                         {"expected", estimate.expected},
                         {"high", estimate.high},
                         {"free", estimate.free},
                         {"floor", survey.freeSpaceFloor},
                         {"verdict", BackupEstimator::toText(estimate.verdict)}};
  return out.dump(2) + "\n";
}

std::string statusText(const BackupLocation& location, const BackupTask::Status& status) {
  std::string out;
  if (const auto& last = status.last; !last) {
    out += fmt::format("No backup of {} has finished yet in\n  {}\n", location.username,
                       location.folder().string());
  } else {
    out += fmt::format("Last backup of {}: {} ({}), {} to {}\n", location.username, last->kind,
                       last->result, last->startedAt, last->finishedAt);
    if (!last->message.empty()) out += "  " + last->message + "\n";
    out += fmt::format("  {} records, {} deleted, {} files ({} waiting), in {}\n",
                       NumberText::grouped(last->records), NumberText::grouped(last->deleted), last->files,
                       last->filesWaiting, last->folder);
  }
  const auto& runs = status.runs;
  if (!runs.empty()) out += "\nRecent runs:\n";
  const std::size_t from = runs.size() > 10 ? runs.size() - 10 : 0;
  for (std::size_t i = runs.size(); i-- > from;) {
    const auto& run = runs[i];
    out +=
        fmt::format("  {:<18} {:<8} {:<9} {:>12} records  {} requests\n", run.folder,
                    toText(run.kind), run.result.empty() ? std::string("unfinished") : run.result,
                    NumberText::grouped(run.records), run.apiRequests);
  }
  return out;
}

std::string statusJSON(const BackupLocation& location, const BackupTask::Status& status) {
  using Ordered = nlohmann::ordered_json;
  Ordered last = nullptr;
  if (const auto& run = status.last) {
    last = Ordered{{"kind", run->kind},
                   {"result", run->result},
                   {"message", run->message},
                   {"startedAt", run->startedAt},
                   {"finishedAt", run->finishedAt},
                   {"records", run->records},
                   {"deleted", run->deleted},
                   {"files", run->files},
                   {"filesWaiting", run->filesWaiting},
                   {"bytes", run->bytes},
                   {"folder", run->folder}};
  }
  Ordered runs = Ordered::array();
  for (auto run = status.runs.rbegin(); run != status.runs.rend(); ++run) {
    runs.push_back(
        Ordered{{"id", run->id},
                {"folder", run->folder},
                {"kind", toText(run->kind)},
                {"result", run->result.empty() ? Ordered(nullptr) : Ordered(run->result)},
                {"startedAt", run->startedAt},
                {"finishedAt", run->finishedAt},
                {"records", run->records},
                {"deleted", run->deleted},
                {"files", run->files},
                {"apiRequests", run->apiRequests}});
  }
  return Ordered{{"username", location.username},
                 {"folder", location.folder().string()},
                 {"lastRun", std::move(last)},
                 {"runs", std::move(runs)}}
             .dump(2) +
         "\n";
}

std::string deletedText(const std::vector<RecycleBin::Deleted>& found) {
  std::string out;
  for (const auto& deletion : found) {
    out += deletion.deletedAt + '\t' + deletion.object + '\t' + deletion.id + '\t' + deletion.how +
           '\n';
  }
  if (found.empty()) out += "No deleted records found.\n";
  return out;
}

std::string deletedJSON(const std::string& username,
                        const std::vector<RecycleBin::Deleted>& found) {
  nlohmann::ordered_json deletions = nlohmann::ordered_json::array();
  for (const auto& deletion : found) {
    deletions.push_back({{"deletedAt", deletion.deletedAt},
                         {"object", deletion.object},
                         {"id", deletion.id},
                         {"how", deletion.how}});
  }
  return nlohmann::ordered_json{{"username", username}, {"deletions", std::move(deletions)}}.dump(
             2) +
         '\n';
}

std::string recycleBinText(const BackupKeepingTask::RecycleBinResult& result, bool putBack) {
  std::string out;
  std::size_t inBin = 0;
  for (const auto& outcome : result.outcomes) {
    using Kind = RecycleBin::Outcome::Kind;
    inBin += outcome.kind == Kind::putBack;
    // Before a put-back, "putBack" means only that it could be.
    const std::string text = !putBack && outcome.kind == Kind::putBack
                                 ? std::string("inTheBin")
                                 : RecycleBin::toText(outcome);
    out += outcome.id + '\t' + text + '\n';
  }
  if (putBack) return out + fmt::format("{} of {} put back.\n", inBin, result.outcomes.size());
  return out +
         fmt::format("{} of {} are still in the Recycle Bin. Add --put-back to put them back.\n",
                     inBin, result.outcomes.size());
}

}  // namespace corvane::BackupReport
