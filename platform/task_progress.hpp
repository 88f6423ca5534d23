// What every engine entry point shares: progress reported as data, and the
// failure of a task that a stop request ended before it had a result.
//
// An entry point is a blocking call made on a worker thread. It reports how
// far it has come through a handler called on that same thread, honours a
// std::stop_token between steps, and returns a typed result or throws a typed
// error derived from UserFacingError. It prints nothing.
#pragma once

#include <cstdint>
#include <functional>
#include <stop_token>
#include <string>

#include "platform/user_facing_error.hpp"

namespace corvane {

// How far a task has come. Phase is the task's own enumeration of its steps;
// done and total count the items of the current phase (total 0: not known),
// current names the item in hand (an object, a login, a file), or is empty.
template <typename Phase>
struct TaskProgress {
  Phase phase{};
  std::int64_t done = 0;
  std::int64_t total = 0;
  std::string current;
  bool operator==(const TaskProgress&) const = default;
};

template <typename Phase>
using TaskProgressHandler = std::function<void(const TaskProgress<Phase>&)>;

// Calls the handler, if there is one.
template <typename Phase>
void report(const TaskProgressHandler<Phase>& handler, Phase phase, std::int64_t done = 0,
            std::int64_t total = 0, std::string current = {}) {
  if (handler) handler(TaskProgress<Phase>{phase, done, total, std::move(current)});
}

// A task that a stop request ended before it had anything to give back.
// Tasks that can give back part of their work (a backup run, an import) say so
// in their result instead.
class TaskStopped : public UserFacingError {
 public:
  TaskStopped() : UserFacingError("Stopped before the end, as asked.") {}
};

// Throws TaskStopped when a stop has been requested.
inline void throwIfStopped(const std::stop_token& stop) {
  if (stop.stop_requested()) throw TaskStopped();
}

}  // namespace corvane
