#include "platform/child_process.hpp"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

using ::testing::HasSubstr;

ProcessRequest shell(const std::string& script) {
  ProcessRequest request;
  request.executable = "/bin/sh";
  request.arguments = {"-c", script};
  request.environment = {{"PATH", "/usr/bin:/bin"}};
  return request;
}

// True while pid names a live process (a zombie waiting for init counts as gone).
bool isRunning(pid_t pid) {
  if (::kill(pid, 0) != 0) return false;
#ifdef __linux__
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  const auto close = text.rfind(')');
  if (close != std::string::npos && close + 2 < text.size() && text[close + 2] == 'Z') return false;
#endif
  return true;
}

bool becomesGone(pid_t pid) {
  for (int i = 0; i < 200 && isRunning(pid); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return !isRunning(pid);
}

pid_t readPid(const std::filesystem::path& file) {
  std::ifstream in(file);
  pid_t pid = -1;
  in >> pid;
  return pid;
}

TEST(ChildProcess, DrainsBothPipesWhileFeedingInputWithoutDeadlock) {
  // cat echoes megabytes of input while a second writer fills standard error:
  // a runner that writes all input first, or reads one pipe at a time, stalls.
  ProcessRequest request = shell("(head -c 3000000 /dev/zero | tr '\\0' e >&2) & cat; wait");
  request.standardInput = std::string(4'000'000, 'i');
  request.standardInput += "end";
  request.timeout = std::chrono::seconds(60);

  const ProcessResult result = ChildProcess::run(request);

  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.standardOutput.size(), request.standardInput.size());
  EXPECT_TRUE(result.standardOutput == request.standardInput);
  EXPECT_EQ(result.standardError, std::string(3'000'000, 'e'));
}

TEST(ChildProcess, ReportsExitCodesAndDeathBySignal) {
  EXPECT_EQ(ChildProcess::run(shell("exit 0")).exitStatus, 0);
  EXPECT_EQ(ChildProcess::run(shell("echo oops >&2; exit 7")).exitStatus, 7);
  EXPECT_EQ(ChildProcess::run(shell("kill -KILL $$")).exitStatus, 128 + SIGKILL);
  EXPECT_EQ(ChildProcess::run(shell("kill -TERM $$")).exitStatus, 128 + SIGTERM);
}

TEST(ChildProcess, PassesArgumentsVerbatimAndOnlyTheGivenEnvironment) {
  ProcessRequest request;
  request.executable = "/usr/bin/env";
  request.environment = {{"CORVANE_A", "with space; $HOME `x`"}, {"CORVANE_B", ""}};
  const ProcessResult result = ChildProcess::run(request);
  EXPECT_EQ(result.standardOutput, "CORVANE_A=with space; $HOME `x`\nCORVANE_B=\n");

  ProcessRequest echo;
  echo.executable = "/bin/echo";
  echo.arguments = {"'quoted'", "*", "$(id)", ""};
  EXPECT_EQ(ChildProcess::run(echo).standardOutput, "'quoted' * $(id) \n");
}

TEST(ChildProcess, RunsInTheGivenWorkingFolder) {
  TemporaryFolder folder;
  ProcessRequest request = shell("pwd -P");
  request.workingDirectory = folder.path();
  const ProcessResult result = ChildProcess::run(request);
  EXPECT_EQ(result.standardOutput, std::filesystem::canonical(folder.path()).string() + "\n");
}

TEST(ChildProcess, SurvivesAChildThatClosesItsInputEarly) {
  // Writing into a closed pipe raises SIGPIPE; it must not end the test process.
  ProcessRequest request = shell("exec 0<&-; echo done");
  request.standardInput = std::string(2'000'000, 'x');
  const ProcessResult result = ChildProcess::run(request);
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.standardOutput, "done\n");
}

TEST(ChildProcess, LaunchFailuresAreReportedAsLaunchErrors) {
  ProcessRequest missing;
  missing.executable = "/nonexistent/corvane-no-such-program";
  try {
    ChildProcess::run(missing);
    FAIL() << "a missing program was started";
  } catch (const ProcessLaunchError& error) {
    EXPECT_THAT(error.description(), HasSubstr("/nonexistent/corvane-no-such-program"));
  }

  TemporaryFolder folder;
  const auto notExecutable = folder.path() / "plain.txt";
  std::ofstream(notExecutable) << "#!/bin/sh\necho hi\n";
  ProcessRequest plain;
  plain.executable = notExecutable;
  EXPECT_THROW(ChildProcess::run(plain), ProcessLaunchError);
  EXPECT_FALSE(ChildProcess::isExecutableFile(notExecutable));
  EXPECT_FALSE(ChildProcess::isExecutableFile(folder.path()));
  EXPECT_TRUE(ChildProcess::isExecutableFile("/bin/sh"));

  ProcessRequest relative;
  relative.executable = "sh";
  EXPECT_THROW(ChildProcess::run(relative), ProcessLaunchError);

  ProcessRequest badFolder = shell("true");
  badFolder.workingDirectory = folder.path() / "missing";
  EXPECT_THROW(ChildProcess::run(badFolder), ProcessLaunchError);
}

TEST(ChildProcess, TimedOutChildAndEverythingItStartedAreGone) {
  TemporaryFolder folder;
  const auto pidFile = folder.path() / "pids";
  ProcessRequest request =
      shell("sleep 60 & echo $! > '" + pidFile.string() + "'; echo started; wait");
  request.timeout = std::chrono::milliseconds(300);

  EXPECT_THROW(ChildProcess::run(request), ProcessTimedOut);
  const pid_t grandchild = readPid(pidFile);
  ASSERT_GT(grandchild, 0);
  EXPECT_TRUE(becomesGone(grandchild));
}

TEST(ChildProcess, ChildIgnoringTerminateIsKilled) {
  TemporaryFolder folder;
  const auto pidFile = folder.path() / "pid";
  ProcessRequest request =
      shell("trap '' TERM; echo $$ > '" + pidFile.string() + "'; while :; do sleep 1; done");
  request.timeout = std::chrono::milliseconds(200);

  EXPECT_THROW(ChildProcess::run(request), ProcessTimedOut);
  const pid_t child = readPid(pidFile);
  ASSERT_GT(child, 0);
  EXPECT_FALSE(isRunning(child));
}

TEST(ChildProcess, ReturnsWhenChildEndsThoughAGrandchildKeepsThePipesOpen) {
  TemporaryFolder folder;
  const auto pidFile = folder.path() / "pid";
  ProcessRequest request = shell("sleep 60 & echo $! > '" + pidFile.string() + "'; echo parent");
  request.timeout = std::chrono::seconds(30);

  const ProcessResult result = ChildProcess::run(request);
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.standardOutput, "parent\n");
  ::kill(readPid(pidFile), SIGKILL);
}

#ifdef __linux__
TEST(ChildProcess, ChildSeesOnlyItsStandardStreamsWhileOthersRun) {
  // A sibling run in another thread has its pipes open at this moment; none of
  // them, nor anything else this process has open, may reach the child.
  std::thread sibling([] { ChildProcess::run(shell("sleep 1")); });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  ProcessRequest request;
  request.executable = "/bin/ls";
  request.arguments = {"/proc/self/fd"};
  const ProcessResult result = ChildProcess::run(request);
  sibling.join();
  EXPECT_EQ(result.standardOutput, "0\n1\n2\n3\n");  // 3: the folder ls reads
}
#endif

TEST(ChildProcess, ConcurrentRunsKeepTheirOwnOutput) {
  std::vector<std::thread> threads;
  std::atomic<int> mismatches{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &mismatches] {
      for (int i = 0; i < 5; ++i) {
        const std::string word = std::to_string(t) + "-" + std::to_string(i);
        ProcessRequest request = shell("cat; echo \"$0\" >&2");
        request.arguments.push_back(word);
        request.standardInput = word;
        const ProcessResult result = ChildProcess::run(request);
        if (result.standardOutput != word || result.standardError != word + "\n") ++mismatches;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
}

TEST(RunningProcess, PollsWithoutBlockingAndTerminates) {
  RunningProcess process = RunningProcess::start(shell("sleep 60"));
  EXPECT_GT(process.pid(), 0);
  EXPECT_FALSE(process.poll().has_value());
  process.terminate();
  std::optional<int> status;
  for (int i = 0; i < 500 && !status; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    status = process.poll();
  }
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(*status, 128 + SIGTERM);
  EXPECT_EQ(process.poll(), status);

  ProcessRequest missing;
  missing.executable = "/nonexistent/corvane-login";
  EXPECT_THROW(RunningProcess::start(missing), ProcessLaunchError);
}

}  // namespace
}  // namespace corvane
