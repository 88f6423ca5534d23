// A client of the sample org's APIs signed in as its admin, with a fresh
// session for every sign-in: what the tests against the sample org hand the
// engines.
#pragma once

#include <memory>
#include <string>

#include "connections/org.hpp"
#include "connections/salesforce_api.hpp"
#include "tools/orgsim/server.hpp"
#include "tools/orgsim/sessions.hpp"

namespace corvane::orgsim::testing {

inline std::unique_ptr<SalesforceAPI::Client> adminClient(OrgServer& server) {
  return std::make_unique<SalesforceAPI::Client>([&server](const std::string&) {
    return SalesforceAPI::Session{Sessions::issue(server.store(), "").token, server.baseUrl(),
                                  "62.0", {}};
  });
}

}  // namespace corvane::orgsim::testing
