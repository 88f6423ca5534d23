// Test helpers: recorded CLI replies, a throw-away folder, and a fake `sf`
// (a shell script) that logs its arguments and answers as a test tells it.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "connections/salesforce_cli.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane::testing {

using corvane::TemporaryFolder;

inline std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

inline void writeFile(const std::filesystem::path& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

inline std::filesystem::path fixturePath(const std::string& name) {
  return std::filesystem::path(CORVANE_CONNECTIONS_FIXTURES) / name;
}

inline std::string fixtureText(const std::string& name) { return readFile(fixturePath(name)); }

inline nlohmann::json fixture(const std::string& name) {
  return nlohmann::json::parse(fixtureText(name));
}

// A script for FakeCLI::script: what `sf org list --json` prints for one
// login, alias "sample", to the org at instanceUrl. keys adds fields before
// instanceUrl, each ending in a comma (such as "orgId":"00D...", or a
// production org's "isSandbox":false,).
inline std::string orgListScript(const std::string& username, const std::string& instanceUrl,
                                 const std::string& keys = "") {
  return R"(echo '{"status":0,"result":{"nonScratchOrgs":[{"username":")" + username +
         R"(","alias":"sample",)" + keys + R"("instanceUrl":")" + instanceUrl + R"("}]}}')";
}

inline void makeExecutable(const std::filesystem::path& path) {
  std::filesystem::permissions(path, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::replace);
}

// A fake sf in a temporary folder. The script appends its arguments, one call
// per line, to calls.log, then runs the body the test gave it; the body can
// `cat` reply files written with reply().
class FakeCLI {
 public:
  FakeCLI() : path_(folder_.path() / "sf"), log_(folder_.path() / "calls.log") {
    script("echo '{\"status\":0,\"result\":{}}'");
  }

  const std::filesystem::path& folder() const { return folder_.path(); }
  std::string path() const { return path_.string(); }

  void script(const std::string& body) {
    const std::string folder = folder_.path().string();
    writeFile(path_, "#!/bin/sh\nprintf '%s\\n' \"$*\" >> '" + log_.string() + "'\npwd > '" +
                         folder + "/pwd.log'\ncd '" + folder + "' || exit 99\n" + body + "\n");
    makeExecutable(path_);
  }

  // Writes a reply file that the script can `cat`.
  void reply(const std::string& name, const std::string& text) {
    writeFile(folder_.path() / name, text);
  }

  // The working folder of the last call.
  std::string lastWorkingFolder() const {
    std::string text = readFile(folder_.path() / "pwd.log");
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
  }

  std::vector<std::string> calls() const {
    std::vector<std::string> lines;
    std::ifstream in(log_);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  // Options that find this fake and nothing else on the machine.
  SalesforceCLI::Options options() const {
    SalesforceCLI::Options options;
    const std::string configured = path();
    options.configuredPath = [configured] { return configured; };
    options.candidates = std::vector<std::string>{};
    options.loginShell = "/nonexistent/shell";
    options.authFolder = folder_.path() / "sfdx";
    return options;
  }

 private:
  TemporaryFolder folder_;
  std::filesystem::path path_;
  std::filesystem::path log_;
};

}  // namespace corvane::testing
