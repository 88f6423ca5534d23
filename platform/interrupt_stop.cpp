#include "platform/interrupt_stop.hpp"

#include <atomic>
#include <chrono>

namespace corvane {

namespace {

// Set by the signal handler; a handler may only touch a lock-free atomic.
std::atomic<bool> interrupted{false};

extern "C" void onInterrupt(int) { interrupted.store(true); }

}  // namespace

InterruptStop::InterruptStop(bool secondEndsProgram) {
  interrupted.store(false);
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  action.sa_flags = secondEndsProgram ? SA_RESETHAND : 0;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGINT, &action, &previous_);
  watcher_ = std::jthread([this](std::stop_token own) {
    while (!own.stop_requested()) {
      if (interrupted.load()) source_.request_stop();
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  });
}

InterruptStop::~InterruptStop() {
  watcher_.request_stop();
  watcher_.join();
  // A Ctrl-C that came in the last moments still counts.
  if (interrupted.load()) source_.request_stop();
  ::sigaction(SIGINT, &previous_, nullptr);
}

}  // namespace corvane
