#include "backup/restore_report.hpp"

#include <algorithm>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace corvane::RestoreReport {

namespace {

using RestoreTask::Record;
using Ordered = nlohmann::ordered_json;

// "Name: "Acme" -> "Acme Corp"", for an update's changes.
std::string changesText(const Record& record) {
  std::string text;
  for (const auto& change : record.changes)
    text += fmt::format("{}{}: \"{}\" -> \"{}\"", text.empty() ? "" : "; ", change.field,
                        change.from, change.to);
  return text;
}

std::string detailOf(const Record& record) {
  std::string text;
  auto add = [&text](const std::string& piece) {
    if (!piece.empty()) text += (text.empty() ? "" : " ") + piece;
  };
  if (record.action == Record::Action::update) add(changesText(record));
  if (!record.parentId.empty()) add("(a document of " + record.parentId + ")");
  add(record.message.empty() ? record.reason : record.message);
  if (!record.unresolved.empty()) {
    std::string fields;
    for (const auto& field : record.unresolved) fields += (fields.empty() ? "" : ", ") + field;
    add("Left empty, pointing at a record neither live nor restored: " + fields + ".");
  }
  return text;
}

Ordered recordJSON(const Record& record, bool ran) {
  Ordered entry{{"id", record.id},
                {"object", record.object},
                {"action", RestoreTask::actionText(record.action)}};
  if (record.action == Record::Action::skip) entry["reason"] = record.reason;
  if (record.action == Record::Action::update) {
    auto changes = Ordered::array();
    for (const auto& change : record.changes)
      changes.push_back({{"field", change.field}, {"from", change.from}, {"to", change.to}});
    entry["changes"] = std::move(changes);
  }
  entry["unresolved"] = record.unresolved;
  if (ran) {
    const auto orNull = [](const std::string& text) {
      return text.empty() ? Ordered() : Ordered(text);
    };
    entry["newId"] = orNull(record.newId);
    entry["result"] = orNull(record.result);
    entry["message"] = orNull(record.message);
  }
  return entry;
}

Ordered recordsJSON(const RestoreTask::Plan& plan, bool ran) {
  auto records = Ordered::array();
  for (const auto& record : plan.records) records.push_back(recordJSON(record, ran));
  return records;
}

std::string retryText(std::size_t refused) {
  const bool one = refused == 1;
  return fmt::format(
      "{} {} Salesforce refused in an earlier run {} left alone; --retry-failed sends {} again.\n",
      refused, one ? "record" : "records", one ? "was" : "were", one ? "it" : "them");
}

}  // namespace

std::string countsText(const RestoreTask::Plan& plan) {
  std::size_t counts[4] = {0, 0, 0, 0};
  for (const auto& record : plan.records) ++counts[static_cast<int>(record.action)];
  std::string text;
  const char* names[4] = {"to undelete", "to create", "to update", "skipped"};
  for (int i = 0; i < 4; ++i)
    if (counts[i] > 0)
      text += fmt::format("{}{} {}", text.empty() ? "" : ", ", counts[i], names[i]);
  return text.empty() ? "nothing" : text;
}

std::string planText(const RestoreTask::Plan& plan) {
  std::string out = "From the backup " + plan.folder + ":\n";
  for (const auto& record : plan.records) {
    out += RestoreTask::actionText(record.action) + '\t' + record.object + '\t' + record.id + '\t' +
           detailOf(record) + '\n';
  }
  return out + "Plan: " + countsText(plan) + ". Nothing was written (--dry-run).\n";
}

std::string planJSON(const std::string& username, const RestoreTask::Plan& plan) {
  return Ordered{{"username", username},
                 {"folder", plan.folder},
                 {"dryRun", true},
                 {"records", recordsJSON(plan, false)}}
             .dump(2) +
         '\n';
}

std::string resultText(const RestoreTask::Result& result,
                       const std::optional<std::filesystem::path>& failures,
                       const std::optional<std::filesystem::path>& workbook) {
  std::string out;
  for (const auto& record : result.plan.records) {
    if (record.action == Record::Action::skip && record.result.empty()) continue;
    out += (record.result.empty() ? "skip" : record.result) + '\t' + record.object + '\t' +
           record.id + '\t' + (record.newId.empty() ? "-" : record.newId) + '\t' +
           detailOf(record) + '\n';
  }
  out += fmt::format("{} restored, {} failed", result.restored, result.failed);
  if (result.earlier > 0) out += fmt::format(", {} restored earlier", result.earlier);
  out += ".\n";
  if (result.failedEarlier > 0) out += retryText(result.failedEarlier);
  if (result.stopped)
    out +=
        "Stopped before the end, as asked. Run the same command again to go on; nothing "
        "is restored twice.\n";
  if (failures) out += "The failures are in " + failures->string() + ".\n";
  if (workbook) out += "Every record's outcome is in " + workbook->string() + ".\n";
  return out;
}

std::string nothingLeftJSON(const std::string& username, const RestoreTask::Plan& plan) {
  return Ordered{{"username", username},
                 {"folder", plan.folder},
                 {"dryRun", false},
                 {"nothingLeft", true},
                 {"records", recordsJSON(plan, true)}}
             .dump(2) +
         '\n';
}

std::string nothingLeftText(const std::string& object, const RestoreTask::Plan& plan) {
  std::string out = "Nothing is left to restore: every " + object +
                    " record asked for is live, restored earlier, or cannot be restored (" +
                    countsText(plan) + ").\n";
  const auto refused = std::count_if(plan.records.begin(), plan.records.end(),
                                     [](const Record& r) { return r.result == "failedEarlier"; });
  if (refused > 0) out += retryText(static_cast<std::size_t>(refused));
  return out;
}

std::string resultJSON(const std::string& username, const RestoreTask::Result& result,
                       const std::optional<std::filesystem::path>& failures) {
  return Ordered{{"username", username},
                 {"folder", result.plan.folder},
                 {"dryRun", false},
                 {"restored", result.restored},
                 {"failed", result.failed},
                 {"failedEarlier", result.failedEarlier},
                 {"stopped", result.stopped},
                 {"failures", failures ? Ordered(failures->string()) : Ordered()},
                 {"records", recordsJSON(result.plan, true)}}
             .dump(2) +
         '\n';
}

std::string progressText(const RestoreTask::Progress& progress, double seconds) {
  using Phase = RestoreTask::Phase;
  if (progress.phase != Phase::undeleting && progress.phase != Phase::creating &&
      progress.phase != Phase::updating && progress.phase != Phase::uploading)
    return "";
  if (progress.total < 200 || progress.done == 0) return "";
  return fmt::format(
      "Restored {} of {} records ({:.0f} records/s), now {}...\n", progress.done, progress.total,
      seconds > 0 ? static_cast<double>(progress.done) / seconds : 0.0, progress.current);
}

}  // namespace corvane::RestoreReport
