#include "platform/child_process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <thread>
#include <utility>

extern char** environ;

namespace corvane {

namespace {

using Clock = std::chrono::steady_clock;

// How long a child gets between SIGTERM and SIGKILL.
constexpr auto kTerminationGrace = std::chrono::seconds(3);
// Once the child has ended, output still arriving from a grandchild that kept the
// pipes open is read until the pipes stay quiet this long.
constexpr auto kDrainAfterExit = std::chrono::milliseconds(50);
// The longest the loop sleeps before asking whether the child has ended.
constexpr auto kLongestPollWait = std::chrono::milliseconds(25);

std::string errnoText(int error) { return std::generic_category().message(error); }

// Owns one file descriptor; closes it on destruction.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      close();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  ~Descriptor() { close(); }

  int get() const { return fd_; }
  bool isOpen() const { return fd_ >= 0; }
  void close() {
    if (fd_ >= 0) {
      ::close(fd_);
      fd_ = -1;
    }
  }

 private:
  int fd_ = -1;
};

struct Pipe {
  Descriptor readEnd;
  Descriptor writeEnd;
};

// Both ends close-on-exec from the start, so a child started by another thread
// at the same moment never inherits them.
Pipe makePipe() {
  int fds[2];
#ifdef __APPLE__
  // No pipe2 on macOS; the spawn below uses POSIX_SPAWN_CLOEXEC_DEFAULT, which
  // closes the gap between pipe() and fcntl() for children we start ourselves.
  if (::pipe(fds) != 0) {
    throw ProcessLaunchError("a program", "no pipe could be made for it: " + errnoText(errno) + ".");
  }
  for (int fd : fds) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
#else
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    throw ProcessLaunchError("a program", "no pipe could be made for it: " + errnoText(errno) + ".");
  }
#endif
  return Pipe{Descriptor(fds[0]), Descriptor(fds[1])};
}

void setNonBlocking(int fd) { ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK); }

// argv and envp for posix_spawn; the strings live as long as this object.
class SpawnArguments {
 public:
  explicit SpawnArguments(const ProcessRequest& request) {
    strings_.push_back(request.executable.string());
    for (const auto& argument : request.arguments) strings_.push_back(argument);
    argumentCount_ = strings_.size();
    for (const auto& [name, value] : request.environment) strings_.push_back(name + "=" + value);
    for (std::size_t i = 0; i < argumentCount_; ++i) argv_.push_back(strings_[i].data());
    argv_.push_back(nullptr);
    for (std::size_t i = argumentCount_; i < strings_.size(); ++i) {
      envp_.push_back(strings_[i].data());
    }
    envp_.push_back(nullptr);
  }
  char* const* argv() { return argv_.data(); }
  char* const* envp() { return envp_.data(); }

 private:
  std::vector<std::string> strings_;
  std::size_t argumentCount_ = 0;
  std::vector<char*> argv_;
  std::vector<char*> envp_;
};

// The standard streams a spawned child gets: pipe ends, or /dev/null when -1.
struct ChildStreams {
  int input = -1;
  int output = -1;
  int error = -1;
};

// Starts the child in its own process group, so that terminating it reaches
// whatever it started in turn. Signal mask and the dispositions we may have
// changed are reset to the defaults a fresh program expects.
pid_t spawn(const ProcessRequest& request, const ChildStreams& streams) {
  if (request.executable.is_relative()) {
    throw ProcessLaunchError(request.executable.string(),
                             "the program must be named by an absolute path.");
  }
  if (request.workingDirectory) {
    std::error_code error;
    if (!std::filesystem::is_directory(*request.workingDirectory, error)) {
      throw ProcessLaunchError(request.executable.string(),
                               "the working folder " + request.workingDirectory->string() +
                                   " does not exist.");
    }
  }

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);

  const std::array<int, 3> targets = {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};
  const std::array<int, 3> sources = {streams.input, streams.output, streams.error};
  for (std::size_t i = 0; i < targets.size(); ++i) {
    if (sources[i] >= 0) {
      posix_spawn_file_actions_adddup2(&actions, sources[i], targets[i]);
    } else {
      posix_spawn_file_actions_addopen(&actions, targets[i], "/dev/null",
                                       targets[i] == STDIN_FILENO ? O_RDONLY : O_WRONLY, 0);
    }
  }
  if (request.workingDirectory) {
    posix_spawn_file_actions_addchdir_np(&actions, request.workingDirectory->c_str());
  }
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
  // Descriptors that others in this process opened without close-on-exec (or
  // that we inherited) stay out of the child; macOS does this with
  // POSIX_SPAWN_CLOEXEC_DEFAULT below.
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
#endif

  short flags = POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
#ifdef __APPLE__
  flags |= POSIX_SPAWN_CLOEXEC_DEFAULT;
#endif
  posix_spawnattr_setflags(&attributes, flags);
  posix_spawnattr_setpgroup(&attributes, 0);
  sigset_t emptyMask;
  sigemptyset(&emptyMask);
  posix_spawnattr_setsigmask(&attributes, &emptyMask);
  sigset_t defaults;
  sigemptyset(&defaults);
  for (int signal : {SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGCHLD}) {
    sigaddset(&defaults, signal);
  }
  posix_spawnattr_setsigdefault(&attributes, &defaults);

  SpawnArguments arguments(request);
  pid_t pid = -1;
  const int error = posix_spawn(&pid, request.executable.c_str(), &actions, &attributes,
                                arguments.argv(), arguments.envp());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) {
    throw ProcessLaunchError(request.executable.string(), errnoText(error) + ".");
  }
  return pid;
}

int statusFromWait(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return status;
}

// Non-blocking reap: the exit status once the child has ended.
std::optional<int> reapIfEnded(pid_t pid) {
  int status = 0;
  for (;;) {
    const pid_t result = ::waitpid(pid, &status, WNOHANG);
    if (result == pid) return statusFromWait(status);
    if (result == 0) return std::nullopt;
    if (errno == EINTR) continue;
    // ECHILD: someone else reaped it (a SIGCHLD handler set to SIG_IGN does).
    return 128 + SIGKILL;
  }
}

// Waits for the child to end until the deadline; true once reaped.
bool waitUntil(pid_t pid, Clock::time_point deadline) {
  auto pause = std::chrono::milliseconds(1);
  for (;;) {
    if (reapIfEnded(pid)) return true;
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(pause);
    pause = std::min(pause * 2, kLongestPollWait);
  }
}

// SIGTERM to the child's group, up to three seconds, then SIGKILL; always reaps.
void terminateAndReap(pid_t pid) {
  ::kill(-pid, SIGTERM);
  if (waitUntil(pid, Clock::now() + kTerminationGrace)) {
    ::kill(-pid, SIGKILL);  // anything the child left behind in its group
    return;
  }
  ::kill(-pid, SIGKILL);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
}

// Writing to a child that has closed its input raises SIGPIPE in the writing
// thread. While a run feeds a child, the signal is blocked in this thread and any
// instance of it we caused is taken off the pending set before unblocking, so
// the process's own disposition is never changed. macOS instead marks the pipe.
class SigpipeGuard {
 public:
  SigpipeGuard() {
#ifndef __APPLE__
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGPIPE) == 1;
    sigset_t block;
    sigemptyset(&block);
    sigaddset(&block, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &block, &previous_);
#endif
  }
  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;
  ~SigpipeGuard() {
#ifndef __APPLE__
    if (!wasPending_) {
      sigset_t pipeOnly;
      sigemptyset(&pipeOnly);
      sigaddset(&pipeOnly, SIGPIPE);
      const timespec noWait{0, 0};
      while (sigtimedwait(&pipeOnly, nullptr, &noWait) == SIGPIPE) {
      }
    }
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
#endif
  }

  static void protect([[maybe_unused]] int writeFd) {
#ifdef __APPLE__
    ::fcntl(writeFd, F_SETNOSIGPIPE, 1);
#endif
  }

 private:
#ifndef __APPLE__
  sigset_t previous_{};
  bool wasPending_ = false;
#endif
};

// Reads what is there; false at end of file or on a hard error.
bool readAvailable(int fd, std::string& into) {
  std::array<char, 65536> buffer;
  for (;;) {
    const ssize_t count = ::read(fd, buffer.data(), buffer.size());
    if (count > 0) {
      into.append(buffer.data(), static_cast<std::size_t>(count));
      if (static_cast<std::size_t>(count) < buffer.size()) return true;
      continue;
    }
    if (count == 0) return false;
    if (errno == EINTR) continue;
    return errno == EAGAIN || errno == EWOULDBLOCK;
  }
}

// Writes as much as the pipe takes; false once all is written or the child
// stopped reading.
bool writeAvailable(int fd, std::string_view data, std::size_t& offset) {
  while (offset < data.size()) {
    const ssize_t count = ::write(fd, data.data() + offset, data.size() - offset);
    if (count > 0) {
      offset += static_cast<std::size_t>(count);
      continue;
    }
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
    return false;  // EPIPE: the child does not want the rest
  }
  return false;
}

}  // namespace

namespace ChildProcess {

ProcessResult run(const ProcessRequest& request) {
  SigpipeGuard sigpipeGuard;
  Pipe input = makePipe();
  Pipe output = makePipe();
  Pipe error = makePipe();

  const pid_t pid = spawn(
      request, ChildStreams{input.readEnd.get(), output.writeEnd.get(), error.writeEnd.get()});
  input.readEnd.close();
  output.writeEnd.close();
  error.writeEnd.close();

  const auto started = Clock::now();
  // Without a time limit the deadline lies past any run's end.
  const bool limited = request.timeout.has_value();
  const Clock::time_point deadline =
      limited ? started + *request.timeout : Clock::time_point::max();

  Descriptor& stdinFd = input.writeEnd;
  Descriptor& stdoutFd = output.readEnd;
  Descriptor& stderrFd = error.readEnd;
  SigpipeGuard::protect(stdinFd.get());
  setNonBlocking(stdinFd.get());
  setNonBlocking(stdoutFd.get());
  setNonBlocking(stderrFd.get());
  std::size_t inputOffset = 0;
  if (request.standardInput.empty()) stdinFd.close();

  ProcessResult result;
  std::optional<int> exitStatus;
  std::optional<Clock::time_point> quietSince;  // set once the child has ended

  for (;;) {
    if (!exitStatus) {
      exitStatus = reapIfEnded(pid);
      if (exitStatus) stdinFd.close();
    }
    if (exitStatus && !stdoutFd.isOpen() && !stderrFd.isOpen()) break;

    const auto now = Clock::now();
    if (!exitStatus && limited && now >= deadline) {
      stdinFd.close();
      stdoutFd.close();
      stderrFd.close();
      terminateAndReap(pid);
      throw ProcessTimedOut();
    }
    if (exitStatus) {
      if (!quietSince) quietSince = now;
      if (now - *quietSince >= kDrainAfterExit) break;
    }

    std::array<pollfd, 3> fds{};
    std::size_t count = 0;
    for (Descriptor* fd : {&stdoutFd, &stderrFd}) {
      if (fd->isOpen()) fds[count++] = pollfd{fd->get(), POLLIN, 0};
    }
    if (stdinFd.isOpen()) fds[count++] = pollfd{stdinFd.get(), POLLOUT, 0};

    auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(kLongestPollWait);
    if (exitStatus) wait = std::chrono::duration_cast<std::chrono::milliseconds>(kDrainAfterExit);
    if (limited && !exitStatus) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now);
      wait = std::clamp(left, std::chrono::milliseconds(0), wait);
    }
    if (count == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(std::min<long>(wait.count(), 5)));
      continue;
    }
    const int ready = ::poll(fds.data(), count, static_cast<int>(wait.count()));
    if (ready < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (ready == 0) continue;
    if (exitStatus) quietSince = Clock::now();

    for (std::size_t i = 0; i < count; ++i) {
      if (fds[i].revents == 0) continue;
      if (fds[i].fd == stdinFd.get()) {
        if (!writeAvailable(stdinFd.get(), request.standardInput, inputOffset)) stdinFd.close();
      } else if (fds[i].fd == stdoutFd.get()) {
        if (!readAvailable(stdoutFd.get(), result.standardOutput)) stdoutFd.close();
      } else if (fds[i].fd == stderrFd.get()) {
        if (!readAvailable(stderrFd.get(), result.standardError)) stderrFd.close();
      }
    }
  }

  if (!exitStatus) {
    // Every pipe reached end of file before the child was seen to end.
    if (limited) {
      if (!waitUntil(pid, deadline)) {
        terminateAndReap(pid);
        throw ProcessTimedOut();
      }
    }
    int status = 0;
    while (!exitStatus) {
      const pid_t reaped = ::waitpid(pid, &status, 0);
      if (reaped == pid) {
        exitStatus = statusFromWait(status);
      } else if (errno != EINTR) {
        exitStatus = 128 + SIGKILL;
      }
    }
  }
  result.exitStatus = *exitStatus;
  return result;
}

std::map<std::string, std::string> currentEnvironment() {
  std::map<std::string, std::string> environment;
  for (char** entry = environ; entry && *entry; ++entry) {
    std::string_view text(*entry);
    const auto equals = text.find('=');
    if (equals == std::string_view::npos || equals == 0) continue;
    environment.emplace(std::string(text.substr(0, equals)), std::string(text.substr(equals + 1)));
  }
  return environment;
}

bool isExecutableFile(const std::filesystem::path& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return false;
  return S_ISREG(info.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

}  // namespace ChildProcess

RunningProcess RunningProcess::start(const ProcessRequest& request) {
  return RunningProcess(spawn(request, ChildStreams{}));
}

std::optional<int> RunningProcess::poll() {
  if (!status_) status_ = reapIfEnded(pid_);
  return status_;
}

void RunningProcess::terminate() {
  if (!poll()) ::kill(-pid_, SIGTERM);
}

}  // namespace corvane
