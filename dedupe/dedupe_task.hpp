// What the duplicate tasks share: how far a task has come, as data both
// faces can show, and how a login's name becomes the org to work with.
//
// Every task is one blocking call that prints nothing, so callers run it on
// a worker thread. Its progress handler is called on that thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "connections/org.hpp"

namespace corvane {

struct DedupeProgress {
  enum class Phase {
    starting,     // text: what is about to be downloaded; item: the snapshot file
    preparing,    // text: what Salesforce is doing before the first page
    downloading,  // done: records stored; total: records the org reported; bytes: received
    paused,       // the download stopped; text: why
    finished,     // done: records stored
    matching,     // text: the matching step under way
    checking,     // total: records checked again in the org
    changing,     // done and total: merge calls or batches of deletes or updates
    writing,      // item: the file being written
  };
  Phase phase = Phase::starting;
  std::int64_t done = 0;
  std::int64_t total = 0;
  std::int64_t bytes = 0;
  std::string item;
  std::string text;
  bool operator==(const DedupeProgress&) const = default;
};

using DedupeProgressHandler = std::function<void(const DedupeProgress& progress)>;

// The org of a login named by username or alias; throws the face's own
// error (a typed UserFacingError) when none or several match.
using FindLogin = std::function<Org(const std::string& login)>;

}  // namespace corvane
