// How a login's snapshots and a download read: the screen text and the JSON
// a script reads. Shared by both faces; they print nothing themselves here.
#pragma once

#include <string>

#include "dedupe/dedupe_task.hpp"
#include "dedupe/snapshot_task.hpp"

namespace corvane::SnapshotReport {

// One row per snapshot (object, counts, state, size, when, file) and the
// space they use together; a sentence when the login has none.
std::string text(const SnapshotTask::Listing& listing);

// {"login", "snapshots": [...], "bytesUsed"}, pretty-printed with a line feed.
// Texts the snapshot does not know are null, so the keys never vary.
std::string json(const SnapshotTask::Listing& listing);

// A downloading step as a bar with the share done, the records and the
// bytes received: "[#####-----]  50%  10 of 20 records, 1.2 MB received".
std::string progressBar(const DedupeProgress& progress);

// How a download that was not stopped ended, as one line.
std::string outcomeText(const SnapshotTask::DownloadOutcome& outcome);

// The lines a download shows while it works, as the bytes to write: what
// Salesforce is doing, then the bar, redrawn in place on a terminal and a
// line per page elsewhere. Not thread-safe: feed it from one thread.
class ProgressLines {
 public:
  explicit ProgressLines(bool terminal) : terminal_(terminal) {}

  // The bytes to write for progress; empty when nothing changes.
  std::string accept(const DedupeProgress& progress);

 private:
  std::string line(const std::string& text, bool final);

  bool terminal_;
  bool open_ = false;  // a bar is drawn without its line feed
  std::string lastText_;
};

}  // namespace corvane::SnapshotReport
