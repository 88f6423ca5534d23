#include "connections/org_listing.hpp"

#include <future>
#include <optional>
#include <utility>

#include "connections/ascii.hpp"

namespace corvane {

LoginError LoginError::loginNotFound(const std::string& login) {
  return {Kind::loginNotFound,
          "No login named \"" + login +
              "\" is known to the Salesforce CLI. Run \"corvane orgs\" to see the logins, or "
              "add this one with: sf org login web --alias " +
              login};
}

LoginError LoginError::ambiguousLogin(const std::string& login,
                                      const std::vector<std::string>& usernames) {
  std::string list;
  for (const auto& username : usernames) {
    if (!list.empty()) list += ", ";
    list += username;
  }
  return {Kind::ambiguousLogin, "More than one login answers to \"" + login + "\" (" + list +
                                    "). Give the exact alias or the username."};
}

namespace OrgListing {

std::vector<Org> list(SalesforceCLI& cli, const Request& request, std::stop_token stop,
                      const ProgressHandler& onProgress) {
  report(onProgress, Phase::listing);
  auto orgs = cli.listOrgs(request.skipConnectionStatus, request.listTimeout);
  if (!request.skipConnectionStatus) {
    throwIfStopped(stop);
    orgs = checkDoubtfulAlone(cli, std::move(orgs), request.checkTimeout, onProgress);
  }
  report(onProgress, Phase::finished, static_cast<std::int64_t>(orgs.size()),
         static_cast<std::int64_t>(orgs.size()));
  return orgs;
}

Org show(SalesforceCLI& cli, const std::string& login, const Request& request,
         std::stop_token stop, const ProgressHandler& onProgress) {
  report(onProgress, Phase::listing);
  // The list without its connection checks: this login is checked on its own below.
  Org org = findLogin(cli.listOrgs(true, request.listTimeout), login);
  throwIfStopped(stop);
  report(onProgress, Phase::checking, 0, 1, org.username);
  org.connectedStatusRaw = cli.connectionStatus(org.username, request.checkTimeout);
  org.checkedAlone = true;
  report(onProgress, Phase::finished, 1, 1);
  return org;
}

Org resolve(SalesforceCLI& cli, const std::string& login, std::chrono::milliseconds listTimeout) {
  return findLogin(cli.listOrgs(true, listTimeout), login);
}

std::vector<Org> checkDoubtfulAlone(SalesforceCLI& cli, std::vector<Org> orgs,
                                    std::chrono::milliseconds timeout,
                                    const ProgressHandler& onProgress) {
  std::vector<std::pair<std::size_t, std::future<std::optional<std::string>>>> checks;
  for (std::size_t i = 0; i < orgs.size(); ++i) {
    if (orgs[i].connection() != OrgConnection::checking) continue;
    checks.emplace_back(
        i, std::async(std::launch::async, [&cli, username = orgs[i].username, timeout] {
          return cli.connectionStatus(username, timeout);
        }));
  }
  const auto total = static_cast<std::int64_t>(checks.size());
  std::int64_t done = 0;
  for (auto& [index, status] : checks) {
    report(onProgress, Phase::checking, done, total, orgs[index].username);
    orgs[index].connectedStatusRaw = status.get();
    orgs[index].checkedAlone = true;
    ++done;
  }
  return orgs;
}

const Org& findLogin(const std::vector<Org>& orgs, const std::string& login) {
  for (const auto& org : orgs) {
    if (Ascii::equalsIgnoringCase(org.username, login)) return org;
  }
  for (const auto& org : orgs) {
    if (org.alias == login) return org;
  }
  std::vector<const Org*> similar;
  for (const auto& org : orgs) {
    if (org.alias && Ascii::equalsIgnoringCase(*org.alias, login)) similar.push_back(&org);
  }
  if (similar.size() == 1) return *similar.front();
  if (similar.empty()) throw LoginError::loginNotFound(login);
  std::vector<std::string> usernames;
  for (const Org* org : similar) usernames.push_back(org->username);
  throw LoginError::ambiguousLogin(login, usernames);
}

}  // namespace OrgListing

}  // namespace corvane
