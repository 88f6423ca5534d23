#include "backup/progress_line.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "platform/number_text.hpp"

namespace corvane {

namespace {

constexpr double rateWindow = 10.0;  // seconds of samples the rate is taken over

// Cuts text to at most `columns` characters (UTF-8 aware), ending in "…" when cut.
std::string fitted(const std::string& text, int columns) {
  if (columns <= 0) return text;
  std::size_t count = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if ((static_cast<unsigned char>(text[i]) & 0xC0) == 0x80) continue;
    if (static_cast<int>(count) == columns - 1) {
      // Is there more than one character left?
      std::size_t rest = 0;
      for (std::size_t j = i; j < text.size(); ++j)
        if ((static_cast<unsigned char>(text[j]) & 0xC0) != 0x80) ++rest;
      if (rest > 1) return text.substr(0, i) + "…";
      return text;
    }
    ++count;
  }
  return text;
}

}  // namespace

ProgressLine::ProgressLine(bool terminal, int width) : terminal_(terminal), width_(width) {}

std::optional<std::string> ProgressLine::accept(const BackupProgress& progress, double at) {
  using Step = BackupProgress::Step;
  latest_ = progress;
  pace_.update(progress, at);
  const auto& seen = progress.totals;
  totals_.records = std::max(totals_.records, seen.records);
  totals_.files = std::max(totals_.files, seen.files);
  totals_.bytes = std::max(totals_.bytes, seen.bytes);
  totals_.objectsDone = std::max(totals_.objectsDone, seen.objectsDone);
  totals_.objectsTotal = std::max(totals_.objectsTotal, seen.objectsTotal);
  totals_.recordsExpected = std::max(totals_.recordsExpected, seen.recordsExpected);

  BackupPace::Phase phase = BackupPace::Phase::none;
  double work = 0;
  if (progress.step == Step::downloadingRecords || progress.step == Step::objectFinished) {
    phase = BackupPace::Phase::records;
    work = static_cast<double>(progress.totals.records);
  } else if (progress.step == Step::downloadingFiles) {
    phase = BackupPace::Phase::files;
    work = static_cast<double>(progress.done);
  }
  if (phase != BackupPace::Phase::none) {
    if (phase != phase_) samples_.clear();
    phase_ = phase;
    samples_.emplace_back(at, work);
    while (samples_.size() > 2 && samples_.front().first < at - rateWindow) samples_.pop_front();
  }

  if (terminal_) {
    drawn_ = true;
    return "\r\033[K" + fitted(text(), width_ > 1 ? width_ - 1 : 0);
  }
  if (lastPlain_ && at - *lastPlain_ < plainInterval) return std::nullopt;
  lastPlain_ = at;
  return text() + "\n";
}

std::string ProgressLine::finish() const { return terminal_ && drawn_ ? "\n" : ""; }

std::optional<double> ProgressLine::rate() const {
  if (samples_.size() < 2) return std::nullopt;
  const auto& [firstAt, firstWork] = samples_.front();
  const auto& [lastAt, lastWork] = samples_.back();
  // A rate measured over less than a second says little.
  if (lastAt - firstAt < 1.0) return std::nullopt;
  return std::max(0.0, lastWork - firstWork) / (lastAt - firstAt);
}

std::string ProgressLine::text() const {
  const auto& totals = totals_;
  std::string line;
  auto add = [&line](const std::string& part) {
    if (part.empty()) return;
    line += (line.empty() ? "" : " · ") + part;
  };
  if (totals.objectsTotal > 0)
    add(fmt::format("{}/{} objects", totals.objectsDone, totals.objectsTotal));
  add(totals.records == 1 ? "1 row" : NumberText::grouped(totals.records) + " rows");
  if (totals.files > 0 || phase_ == BackupPace::Phase::files)
    add(totals.files == 1 ? "1 document" : NumberText::grouped(totals.files) + " documents");
  using Step = BackupProgress::Step;
  const bool working = latest_.step == Step::downloadingRecords ||
                       latest_.step == Step::objectFinished || latest_.step == Step::downloadingFiles;
  if (auto perSecond = working ? rate() : std::nullopt) {
    const auto rounded = static_cast<std::int64_t>(std::llround(*perSecond));
    add(phase_ == BackupPace::Phase::files ? NumberText::grouped(rounded) + " documents/s"
                                           : NumberText::grouped(rounded) + " rows/s");
  }
  if (working) add(pace_.text());
  add(progressText(latest_));
  return line;
}

}  // namespace corvane
