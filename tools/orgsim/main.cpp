// corvane-orgsim: the sample org's command line.
//
//   corvane-orgsim generate --out DIR [--seed N] [--scale tiny|demo|large] [--size Object=N ...]
//   corvane-orgsim serve --state DIR [--port N] [--host 127.0.0.1]
//   corvane-orgsim token --state DIR [--username U] [--ttl SECONDS]
//
// serve prints exactly one line, "corvane-orgsim listening on http://HOST:PORT", to
// standard output once it accepts connections; everything else goes to standard
// error. SIGTERM and SIGINT stop it cleanly; the state stays in DIR.
#include <signal.h>

#include <cstdio>
#include <iostream>

#include <CLI/CLI.hpp>

#include "tools/orgsim/org_store.hpp"
#include "tools/orgsim/server.hpp"
#include "tools/orgsim/sessions.hpp"
#ifdef CORVANE_ORGSIM_HAS_GENERATOR
#include "tools/orgsim/generate/generator.hpp"
#endif

namespace {

using corvane::orgsim::OrgServer;
using corvane::orgsim::OrgStore;

#ifdef CORVANE_ORGSIM_HAS_GENERATOR
void generate(const std::filesystem::path& out, std::uint64_t seed, const std::string& scale,
              const std::vector<std::string>& sizes, bool quiet) {
  corvane::orgsim::GenerateOptions options;
  options.out = out;
  options.seed = seed;
  options.scale = scale;
  for (const auto& size : sizes) {
    auto equals = size.find('=');
    if (equals == std::string::npos) {
      throw std::invalid_argument("--size takes Object=N, not \"" + size + "\".");
    }
    options.sizes[size.substr(0, equals)] = std::stoll(size.substr(equals + 1));
  }
  if (!quiet) {
    options.progress = [](std::string_view object, std::int64_t done, std::int64_t total) {
      if (done == total) {
        std::fprintf(stderr, "corvane-orgsim: %.*s: %lld rows\n", static_cast<int>(object.size()),
                     object.data(), static_cast<long long>(total));
      }
    };
  }
  corvane::orgsim::generateOrg(options);
}
#endif

int serve(const std::filesystem::path& state, const std::string& host, int port) {
  // The stopping signals are taken by sigwait below, never by a handler.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  if (!OrgStore::exists(state)) {
#ifdef CORVANE_ORGSIM_HAS_GENERATOR
    std::error_code error;
    bool emptyFolder =
        std::filesystem::is_directory(state, error) && std::filesystem::is_empty(state, error);
    if (!std::filesystem::exists(state, error) || emptyFolder) {
      std::fprintf(stderr, "corvane-orgsim: %s holds no org yet; making a tiny one\n",
                   state.c_str());
      generate(state, 1, "tiny", {}, true);
    }
#endif
  }
  corvane::orgsim::ServerOptions options;
  options.host = host;
  options.port = port;
  OrgServer server(state, options);
  int bound = server.start();
  std::printf("corvane-orgsim listening on http://%s:%d\n", host.c_str(), bound);
  std::fflush(stdout);
  std::fprintf(stderr, "corvane-orgsim: serving %s (org %s)\n", state.c_str(),
               server.store().identity().orgId.c_str());
  int received = 0;
  sigwait(&signals, &received);
  std::fprintf(stderr, "corvane-orgsim: stopping\n");
  server.stop();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"The sample org: a local stand-in for Salesforce on a loopback address."};
  app.require_subcommand(1);

  std::filesystem::path out;
  std::uint64_t seed = 1;
  std::string scale = "demo";
  std::vector<std::string> sizes;
  auto* generateCommand = app.add_subcommand("generate", "Make a new state folder with an org.");
  generateCommand->add_option("--out", out, "the state folder to make (must not exist)")
      ->required();
  generateCommand->add_option("--seed", seed, "the random seed (same seed, same org)");
  generateCommand->add_option("--scale", scale, "tiny, demo or large")
      ->check(CLI::IsMember({"tiny", "demo", "large"}));
  generateCommand->add_option("--size", sizes, "rows of one object, as Object=N");

  std::filesystem::path state;
  std::string host = "127.0.0.1";
  int port = 0;
  auto* serveCommand = app.add_subcommand("serve", "Serve a state folder over http.");
  serveCommand->add_option("--state", state, "the state folder (made when missing)")->required();
  serveCommand->add_option("--port", port, "the port; 0 picks a free one");
  serveCommand->add_option("--host", host, "the loopback address to listen on");

  std::string username;
  std::int64_t ttl = corvane::orgsim::Sessions::kDefaultLifetime.count();
  auto* tokenCommand = app.add_subcommand("token", "Print a new access token.");
  tokenCommand->add_option("--state", state, "the state folder")->required();
  tokenCommand->add_option("--username", username, "whose token (default: the admin user)");
  tokenCommand->add_option("--ttl", ttl, "lifetime in seconds on the org's clock");

  CLI11_PARSE(app, argc, argv);
  try {
    if (generateCommand->parsed()) {
#ifdef CORVANE_ORGSIM_HAS_GENERATOR
      generate(out, seed, scale, sizes, false);
      return 0;
#else
      std::cerr << "corvane-orgsim: this build has no data generator.\n";
      return 1;
#endif
    }
    if (serveCommand->parsed()) {
      if (host != "127.0.0.1" && host != "localhost" && host != "::1") {
        std::cerr << "corvane-orgsim: the sample org listens on loopback addresses only.\n";
        return 2;
      }
      return serve(state, host, port);
    }
    if (tokenCommand->parsed()) {
      if (!OrgStore::exists(state)) {
        std::cerr << "corvane-orgsim: " << state.string()
                  << " holds no org. Run generate or serve first.\n";
        return 1;
      }
      auto store = OrgStore::open(state);
      corvane::orgsim::ensureOrgBasics(*store);
      auto session = corvane::orgsim::Sessions::issue(*store, username, std::chrono::seconds(ttl));
      std::cout << session.token << "\n";
      return 0;
    }
  } catch (const std::exception& error) {
    std::cerr << "corvane-orgsim: " << error.what() << "\n";
    return 1;
  }
  return 0;
}
