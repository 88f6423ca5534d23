#include "dedupe/snapshot_report.hpp"

#include <algorithm>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "connections/download_error.hpp"
#include "platform/number_text.hpp"

namespace corvane::SnapshotReport {

std::string text(const SnapshotTask::Listing& listing) {
  if (listing.snapshots.empty()) return "No snapshots for " + listing.username + " yet.\n";
  constexpr const char* row = "{:<20} {:>12} {:>12} {:<9} {:>10}  {:<20} {}\n";
  std::string out =
      fmt::format(row, "Object", "Records", "Expected", "State", "Size", "Downloaded", "File");
  for (const SnapshotInfo& info : listing.snapshots) {
    out += fmt::format(row, info.objectName, NumberText::grouped(info.recordCount),
                       NumberText::grouped(info.totalExpected), info.complete ? "complete" : "paused",
                       byteCountText(info.fileBytes), info.downloadedAt.substr(0, 19),
                       info.url.string());
  }
  return out + "Together " + byteCountText(listing.bytesUsed) + '\n';
}

std::string json(const SnapshotTask::Listing& listing) {
  const auto known = [](const std::string& text) {
    return text.empty() ? nlohmann::json() : nlohmann::json(text);
  };
  nlohmann::json snapshots = nlohmann::json::array();
  for (const SnapshotInfo& info : listing.snapshots) {
    snapshots.push_back({{"file", info.url.string()},
                         {"object", info.objectName},
                         {"objectLabel", known(info.objectLabel)},
                         {"records", info.recordCount},
                         {"expected", info.totalExpected},
                         {"complete", info.complete},
                         {"bytes", info.fileBytes},
                         {"downloadedAt", known(info.downloadedAt)},
                         {"downloadedBy", known(info.downloadedBy)}});
  }
  return nlohmann::json{{"login", listing.username},
                        {"snapshots", snapshots},
                        {"bytesUsed", listing.bytesUsed}}
             .dump(2) +
         '\n';
}

std::string progressBar(const DedupeProgress& progress) {
  constexpr int width = 30;
  const double share =
      progress.total > 0
          ? std::min(1.0, static_cast<double>(progress.done) / static_cast<double>(progress.total))
          : 0.0;
  const int filled = static_cast<int>(share * width);
  return fmt::format("[{}{}] {:3.0f}%  {} of {} records, {} received", std::string(filled, '#'),
                     std::string(width - filled, '-'), share * 100, NumberText::grouped(progress.done),
                     NumberText::grouped(progress.total), byteCountText(progress.bytes));
}

std::string outcomeText(const SnapshotTask::DownloadOutcome& outcome) {
  if (outcome.alreadyComplete) {
    return "This snapshot is complete: " + NumberText::grouped(outcome.records) + " records.\n";
  }
  return "Stored " + NumberText::grouped(outcome.records) + " records in " + outcome.snapshot.string() +
         '\n';
}

std::string ProgressLines::accept(const DedupeProgress& progress) {
  using Phase = DedupeProgress::Phase;
  if (progress.phase == Phase::starting || progress.phase == Phase::preparing) {
    const bool changed = progress.text != lastText_;
    lastText_ = progress.text;
    return changed ? line(progress.text, true) : "";
  }
  if (progress.phase == Phase::downloading) return line(progressBar(progress), false);
  if (progress.phase == Phase::finished || progress.phase == Phase::paused) {
    const bool wasOpen = open_;
    open_ = false;
    return wasOpen ? "\n" : "";
  }
  return "";
}

std::string ProgressLines::line(const std::string& text, bool final) {
  if (terminal_ && !final) {
    open_ = true;
    return '\r' + text + "\x1b[K";
  }
  const bool wasOpen = open_;
  open_ = false;
  return (wasOpen ? "\n" : "") + text + '\n';
}

}  // namespace corvane::SnapshotReport
