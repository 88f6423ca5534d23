// The command lines the `sf` stand-in answers, and what it prints for each.
//
// Answered (after `sf`):
//   org list [--all] [--skip-connection-status] --json
//   org display [--target-org T] [--verbose] --json
//   org auth show-access-token [--target-org T] --json
//   org open [--target-org T] --url-only [--path P] --json
//   org logout [--target-org T] --no-prompt --json
//   org login access-token --instance-url URL [--alias A] --no-prompt --json
//        (the token comes from the environment variable SF_ACCESS_TOKEN, never argv)
//   org list limits [--target-org T] --json
//   org list metadata-types [--target-org T] --json
//   org list metadata --metadata-type TYPE [--target-org T] --json
//   project retrieve start [--target-org T] --metadata TYPE[:NAME] ... --json
//        (run in a project folder holding sfdx-project.json)
//   data query [--target-org T] --query SOQL [--all-rows] --json
//   alias list --json
//   alias set NAME=USERNAME ... [--json]
//
// With --json the reply is the real CLI's: {"status":0,"result":...,"warnings":[...]} on
// success, the failure frame of cli_failure.hpp otherwise, and the exit status matches
// "status". --target-org resolves an alias first, then a username. A login's connection
// is checked, as the real CLI checks it, by asking the org for its API version resource.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace corvane::sfstandin {

struct Environment {
  std::filesystem::path home;              // where .sfdx lives
  std::optional<std::string> accessToken;  // SF_ACCESS_TOKEN, for org login access-token
  std::chrono::milliseconds requestTimeout = std::chrono::seconds(60);
  std::chrono::milliseconds connectionCheckTimeout = std::chrono::seconds(10);
};

struct Outcome {
  int exitStatus = 0;
  std::string standardOutput;
  std::string standardError;
};

// Runs one command line (the arguments after the program name).
Outcome runCommand(const std::vector<std::string>& arguments, const Environment& environment);

}  // namespace corvane::sfstandin
