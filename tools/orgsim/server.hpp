// The sample org's HTTP server: Salesforce's REST, Bulk API 2.0 query, SOAP
// partner and OAuth user-info endpoints, plus the admin interface under /_admin/.
//
// Plain http on a loopback address. Requests are served by a pool of threads;
// everything they share lives in the OrgStore (which serialises writes) or behind
// the server's own mutex (the REST query cursors). Every answer carries an HTTP
// Date header from the org's clock; every request under /services counts against
// the daily API allowance and is written to the request log.
#pragma once

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "tools/orgsim/org_store.hpp"

namespace corvane::orgsim {

struct ServerOptions {
  std::string host = "127.0.0.1";
  int port = 0;  // 0: any free port
  int threads = 16;
};

class OrgServer {
 public:
  // Opens (creating when missing) the state folder. A folder without the org's own
  // Organization row and admin User gets them, so a login always works.
  OrgServer(const std::filesystem::path& stateDir, ServerOptions options = {});
  ~OrgServer();  // stops the server
  OrgServer(const OrgServer&) = delete;
  OrgServer& operator=(const OrgServer&) = delete;

  // Binds and starts serving on a background thread; returns the port.
  // Throws std::runtime_error when the address cannot be bound.
  int start();
  // Stops serving and waits for the serving thread. Safe to call twice.
  void stop();
  // Blocks until the server stops.
  void wait();

  int port() const { return port_; }
  std::string baseUrl() const;
  OrgStore& store() { return *store_; }

  // Bulk jobs finish writing their results (tests).
  void waitForBulkJobs();

 private:
  struct Impl;
  std::unique_ptr<OrgStore> store_;
  std::unique_ptr<Impl> impl_;
  int port_ = 0;
  std::thread thread_;
};

// Makes sure the org's identity has its Organization row and admin User record.
void ensureOrgBasics(OrgStore& store);

}  // namespace corvane::orgsim
