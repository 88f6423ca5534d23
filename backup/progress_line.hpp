// The one line a backup shows on a console while it works: objects done of
// all, rows copied, documents fetched, the current rate and the time left.
//
// On a terminal the line is redrawn in place as values arrive (at most a few
// times a second, as the runner already coalesces them). Written anywhere else
// (a log file, a pipe) it becomes one plain line at most every 5 seconds, so a
// scheduled or piped run does not fill its log. Not thread-safe: feed it from
// one thread, or behind a lock.
#pragma once

#include <deque>
#include <optional>
#include <string>
#include <utility>

#include "backup/backup_progress.hpp"

namespace corvane {

class ProgressLine {
 public:
  static constexpr double plainInterval = 5.0;  // seconds between plain lines

  // terminal: redraw one line; width: the terminal's columns (0: unknown).
  explicit ProgressLine(bool terminal, int width = 0);

  // Takes in a value reported at `at` seconds (any steady clock) and returns
  // the bytes to write now, or none. On a terminal they start with "\r\033[K"
  // and end without a line feed; otherwise they end with one.
  std::optional<std::string> accept(const BackupProgress& progress, double at);

  // What ends the line before anything else is printed: a line feed on a
  // terminal once something was drawn, else nothing.
  std::string finish() const;

  // The text of the line for the latest value, without control bytes:
  // "3/12 objects · 45,210 rows · 12 documents · 1,510 rows/s · about 5 minutes left · Copying ...".
  std::string text() const;

 private:
  // Rows (records phase) or documents (files phase) per second over the last
  // few seconds; none until there is enough to tell.
  std::optional<double> rate() const;

  bool terminal_;
  int width_;
  BackupProgress latest_;
  // The largest totals seen: steps that carry none (writing the lists) keep
  // showing what the run has done.
  BackupProgress::Totals totals_;
  BackupPace pace_;
  std::deque<std::pair<double, double>> samples_;  // (at, work) in the current phase
  BackupPace::Phase phase_ = BackupPace::Phase::none;
  std::optional<double> lastPlain_;
  bool drawn_ = false;
};

}  // namespace corvane
