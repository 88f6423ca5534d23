// Ctrl-C as a stop request for an engine task, while an InterruptStop lives.
#pragma once

#include <signal.h>

#include <stop_token>
#include <thread>

namespace corvane {

// Catches SIGINT and turns it into a request on token(). Only one may live at
// a time. With secondEndsProgram, a second Ctrl-C ends the program at once.
class InterruptStop {
 public:
  explicit InterruptStop(bool secondEndsProgram = false);
  ~InterruptStop();
  InterruptStop(const InterruptStop&) = delete;
  InterruptStop& operator=(const InterruptStop&) = delete;

  std::stop_token token() const { return source_.get_token(); }

 private:
  std::stop_source source_;
  struct sigaction previous_ {};
  std::jthread watcher_;  // passes the signal handler's flag on to source_
};

}  // namespace corvane
