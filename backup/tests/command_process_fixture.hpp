// The real `corvane` program of the build and the sf stand-in, run as child
// processes against the sample org with a home folder of their own: the set-up
// the tests that kill the program share.
#pragma once

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "backup/tests/backup_run_fixture.hpp"
#include "platform/child_process.hpp"

namespace corvane::testing {

class CommandProcessFixture : public BackupRunFixture {
 protected:
  // Finds corvane and the sf stand-in in CORVANE_BUILD_DIR and gives them a
  // home of their own; false when they are not built there.
  bool findPrograms() {
    const char* build = std::getenv("CORVANE_BUILD_DIR");
    buildDir_ = build ? build : "";
    corvane_ = buildDir_ / "app" / "corvane";
    sf_ = buildDir_ / "tools" / "orgsim" / "sf" / "sf";
    if (!ChildProcess::isExecutableFile(corvane_) || !ChildProcess::isExecutableFile(sf_))
      return false;
    environment_ = ChildProcess::currentEnvironment();
    environment_["HOME"] = home_.path().string();
    environment_["XDG_DATA_HOME"] = (home_.path() / "data").string();
    environment_["CORVANE_SF_PATH"] = sf_.string();
    return true;
  }

  // `corvane ARGUMENTS...`, given five minutes.
  ProcessRequest corvane(std::vector<std::string> arguments) {
    return ProcessRequest{corvane_,     std::move(arguments),      std::nullopt,
                          environment_, std::chrono::seconds(300), {}};
  }

  // Logs the sf stand-in in to the sample org as "sample", with a fresh
  // token (the org's clock ends old ones); returns its exit status.
  int logIn() {
    ProcessRequest request{sf_,
                           {"org", "login", "access-token", "--instance-url", server_->baseUrl(),
                            "--alias", "sample", "--no-prompt", "--json"},
                           std::nullopt,
                           environment_,
                           std::chrono::seconds(60),
                           {}};
    request.environment["SF_ACCESS_TOKEN"] = orgsim::Sessions::issue(store(), "").token;
    return ChildProcess::run(request).exitStatus;
  }

  std::filesystem::path buildDir_;
  std::filesystem::path corvane_;
  std::filesystem::path sf_;
  std::map<std::string, std::string> environment_;
  TemporaryFolder home_;
};

}  // namespace corvane::testing
