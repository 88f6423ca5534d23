// The corvane-orgsim command as scripts and other tests use it: serve announces its
// address on one line, token prints a usable token, SIGTERM stops it cleanly.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <httplib.h>

#include <cstdio>
#include <cstdlib>
#include <regex>

#include "tools/orgsim/tests/sample_org.hpp"

extern char** environ;

namespace corvane::orgsim {
namespace {

std::filesystem::path executable() {
  const char* build = std::getenv("CORVANE_BUILD_DIR");
  if (build == nullptr) return {};
  return std::filesystem::path(build) / "tools" / "orgsim" / "corvane-orgsim";
}

std::string run(const std::vector<std::string>& words) {
  std::string command;
  for (const auto& word : words) command += "'" + word + "' ";
  std::string out;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return out;
  char buffer[4096];
  while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) out.append(buffer, n);
  ::pclose(pipe);
  return out;
}

TEST(CommandTest, ServeAnnouncesItsAddressAndStopsCleanlyOnSigterm) {
  auto program = executable();
  if (program.empty() || !std::filesystem::exists(program)) {
    GTEST_SKIP() << "corvane-orgsim is not built here (CORVANE_BUILD_DIR unset)";
  }
  testing::TempFolder folder;
  auto state = folder.path() / "new-org";
  int pipeEnds[2];
  ASSERT_EQ(::pipe(pipeEnds), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, pipeEnds[0]);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  std::vector<std::string> words{program.string(), "serve",  "--state",
                                 state.string(),   "--port", "0"};
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  ASSERT_EQ(posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipeEnds[1]);

  // The first line, read byte by byte so nothing after it is consumed.
  std::string line;
  char c;
  while (::read(pipeEnds[0], &c, 1) == 1 && c != '\n') line += c;
  std::smatch match;
  ASSERT_TRUE(std::regex_match(
      line, match, std::regex(R"(corvane-orgsim listening on http://127\.0\.0\.1:(\d+))")))
      << line;
  int port = std::stoi(match[1]);

  std::string token = run({program.string(), "token", "--state", state.string()});
  while (!token.empty() && token.back() == '\n') token.pop_back();
  EXPECT_NE(token.find('!'), std::string::npos);
  httplib::Client client("127.0.0.1", port);
  auto answer = client.Get("/services/data/v62.0/query?q=SELECT%20COUNT()%20FROM%20Account",
                           {{"Authorization", "Bearer " + token}});
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->status, 200) << answer->body;

  ::kill(pid, SIGTERM);
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  std::string rest;
  while (::read(pipeEnds[0], &c, 1) == 1) rest += c;
  ::close(pipeEnds[0]);
  EXPECT_EQ(rest, "");  // exactly one line on standard output
  EXPECT_TRUE(OrgStore::exists(state));
}

}  // namespace
}  // namespace corvane::orgsim
