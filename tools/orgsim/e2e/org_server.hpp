// Runs `corvane-orgsim serve` in the background for an end-to-end test.
//
// The server picks a free port (--port 0) and announces it on its first line of
// standard output; its log (standard error) goes to a file the test can show when
// something fails. The destructor stops it with SIGTERM, as a user would, and
// waits a bounded time before killing it.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace corvane::e2e {

class OrgServer {
 public:
  // Starts the server on `state`; throws std::runtime_error, with the server's log, when
  // it does not announce its address within `startTimeout`.
  OrgServer(const std::filesystem::path& executable, const std::filesystem::path& state,
            const std::filesystem::path& log,
            std::chrono::milliseconds startTimeout = std::chrono::seconds(120))
      : log_(log) {
    int pipeEnds[2];
    if (::pipe(pipeEnds) != 0) throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipeEnds[0]);
    posix_spawn_file_actions_addclose(&actions, pipeEnds[1]);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    std::vector<std::string> words{executable.string(), "serve",  "--state",
                                   state.string(),      "--port", "0"};
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    int spawned = posix_spawn(&pid_, executable.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeEnds[1]);
    output_ = pipeEnds[0];
    if (spawned != 0) {
      ::close(output_);
      pid_ = -1;
      throw std::runtime_error("could not start " + executable.string());
    }

    std::string line = readFirstLine(startTimeout);
    const std::string prefix = "corvane-orgsim listening on ";
    if (line.rfind(prefix, 0) != 0) {
      stop();
      throw std::runtime_error("the sample org did not announce its address (first line: \"" +
                               line + "\"). Its log:\n" + logText());
    }
    url_ = line.substr(prefix.size());
  }

  OrgServer(const OrgServer&) = delete;
  OrgServer& operator=(const OrgServer&) = delete;
  ~OrgServer() { stop(); }

  // "http://127.0.0.1:PORT"
  const std::string& url() const { return url_; }

  std::string logText() const {
    std::ifstream in(log_);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  void stop() {
    if (output_ >= 0) {
      ::close(output_);
      output_ = -1;
    }
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    for (int i = 0; i < 100; ++i) {
      if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
        pid_ = -1;
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  std::string readFirstLine(std::chrono::milliseconds timeout) {
    std::string line;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
      pollfd ready{output_, POLLIN, 0};
      if (::poll(&ready, 1, 100) <= 0) continue;
      char c;
      ssize_t got = ::read(output_, &c, 1);
      if (got <= 0) break;  // the server ended without a line
      if (c == '\n') return line;
      line.push_back(c);
    }
    return line;
  }

  std::filesystem::path log_;
  pid_t pid_ = -1;
  int output_ = -1;
  std::string url_;
};

}  // namespace corvane::e2e
