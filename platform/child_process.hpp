// Runs one child process to completion with a deadline.
//
// Both pipes are drained while the child runs, so a child that writes more than
// a pipe holds never blocks. On time-out the child is asked to terminate
// (SIGTERM), given up to three more seconds, then killed; reading stops and the
// result says it timed out. Nothing here touches a shell: arguments reach the
// child exactly as given. Safe to call from several threads at once; each call
// owns its own child.
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace corvane {

struct ProcessResult {
  int exitStatus = 0;  // the exit code, or 128 + signal number when killed by a signal
  std::string standardOutput;
  std::string standardError;
};

struct ProcessRequest {
  std::filesystem::path executable;    // an absolute path; no PATH search
  std::vector<std::string> arguments;  // not including argv[0]
  std::optional<std::filesystem::path> workingDirectory;
  std::map<std::string, std::string> environment;    // the child's whole environment
  std::optional<std::chrono::milliseconds> timeout;  // none: wait as long as it runs
  std::string standardInput;  // written to the child, then its stdin is closed
};

// The child could not be started at all (missing file, no permission, ...).
class ProcessLaunchError : public std::runtime_error {
 public:
  // program: what could not be started; reason: why, as the platform puts it
  // ("No such file or directory."), a sentence of its own.
  ProcessLaunchError(const std::string& program, std::string reason)
      : std::runtime_error("Could not start " + program + ": " + reason), reason_(std::move(reason)) {}
  // Only the reason known (stand-ins in tests).
  explicit ProcessLaunchError(const std::string& reason)
      : std::runtime_error(reason), reason_(reason) {}
  // The sentence a user reads: what could not be started, and why.
  std::string description() const { return what(); }
  // Only why, for a caller that names the program in its own words.
  const std::string& reason() const { return reason_; }

 private:
  std::string reason_;
};

// The child did not end within its time limit; it has been terminated.
class ProcessTimedOut : public std::runtime_error {
 public:
  ProcessTimedOut() : std::runtime_error("The process did not finish in time.") {}
  std::string description() const { return what(); }
};

namespace ChildProcess {

// Starts the child, feeds it standardInput, collects both pipes, waits.
// Throws ProcessLaunchError or ProcessTimedOut.
ProcessResult run(const ProcessRequest& request);

// The current process environment as a map.
std::map<std::string, std::string> currentEnvironment();

// True when path names a regular file this process may execute.
bool isExecutableFile(const std::filesystem::path& path);

}  // namespace ChildProcess

// A child left running in the background (a web login that runs until the user
// finishes in the browser). Destroying the handle does not stop the child.
class RunningProcess {
 public:
  // Throws ProcessLaunchError. Output goes to /dev/null; the environment is as given.
  static RunningProcess start(const ProcessRequest& request);

  int pid() const { return pid_; }
  // Non-blocking: the exit status once the child has ended.
  std::optional<int> poll();
  void terminate();

 private:
  explicit RunningProcess(int pid) : pid_(pid) {}
  int pid_;
  std::optional<int> status_;
};

}  // namespace corvane
