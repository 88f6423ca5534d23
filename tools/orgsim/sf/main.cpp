// `sf`: a stand-in for the Salesforce CLI that answers the command lines Corvane runs,
// for logins to orgs such as the local sample org. See commands.hpp for what it answers.
#include <curl/curl.h>

#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "platform/app_support.hpp"
#include "tools/orgsim/sf/commands.hpp"

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() == 1 && (arguments[0] == "--version" || arguments[0] == "version")) {
    std::cout << "corvane sf stand-in (answers as @salesforce/cli/2.150.6)\n";
    return 0;
  }

  corvane::sfstandin::Environment environment;
  environment.home = corvane::AppSupport::homeFolder();
  if (const char* token = std::getenv("SF_ACCESS_TOKEN")) environment.accessToken = token;

  curl_global_init(CURL_GLOBAL_DEFAULT);
  corvane::sfstandin::Outcome outcome = corvane::sfstandin::runCommand(arguments, environment);
  curl_global_cleanup();

  std::cout << outcome.standardOutput << std::flush;
  std::cerr << outcome.standardError << std::flush;
  return outcome.exitStatus;
}
