// corvane-orgsim: the sample org's command line (generate, serve, token).
#include <iostream>

#include <CLI/CLI.hpp>

#include "tools/orgsim/org_store.hpp"

int main(int argc, char** argv) {
  CLI::App app{"The sample org: a local stand-in for Salesforce."};
  app.require_subcommand(1);
  std::string state;
  auto* open = app.add_subcommand("open", "Create or open a state folder.");
  open->add_option("--state", state, "state folder")->required();
  CLI11_PARSE(app, argc, argv);
  try {
    auto store = corvane::orgsim::OrgStore::open(state);
    std::cout << store->identity().orgId << "\n";
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 1;
  }
  return 0;
}
