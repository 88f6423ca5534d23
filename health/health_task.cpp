#include "health/health_task.hpp"

#include <algorithm>
#include <cstdlib>

#include "connections/cli_error.hpp"
#include "connections/org_listing.hpp"
#include "health/health_error.hpp"
#include "platform/app_support.hpp"

namespace corvane::HealthTask {

namespace {

struct Login {
  Org org;
  std::string target;  // what --target-org names
};

Login find(const Source& source, const std::string& login, const std::stop_token& stop,
           const ProgressHandler& onProgress) {
  throwIfStopped(stop);
  report(onProgress, Phase::findingLogin);
  Org org = OrgListing::resolve(source.cli, login, source.listTimeout);
  auto target = SalesforceCLI::target(org);
  if (!target) throw CLIError::failed("This org has no alias or username.");
  return {std::move(org), *target};
}

// Reports the call about to go out, unless a stop came first.
void asking(const std::stop_token& stop, const ProgressHandler& onProgress, std::string what) {
  throwIfStopped(stop);
  report(onProgress, Phase::asking, 0, 1, std::move(what));
}

void finished(const ProgressHandler& onProgress, std::size_t count) {
  const auto n = static_cast<std::int64_t>(count);
  report(onProgress, Phase::finished, n, n);
}

}  // namespace

std::vector<LimitUsage> limits(Source source, const std::string& login, std::stop_token stop,
                               const ProgressHandler& onProgress) {
  const Login found = find(source, login, stop, onProgress);
  asking(stop, onProgress, "limits");
  auto usages = LimitsReport::read(source.cli.limits(found.target));
  finished(onProgress, usages.size());
  return usages;
}

std::vector<AuditEntry> audit(Source source, const std::string& login, const AuditFilter& filter,
                              std::stop_token stop, const ProgressHandler& onProgress) {
  const auto predicate = AuditTrail::predicate(filter);
  const Login found = find(source, login, stop, onProgress);
  asking(stop, onProgress, "SetupAuditTrail");
  auto entries = AuditTrail::entries(source.cli.auditTrail(found.target, predicate));
  finished(onProgress, entries.size());
  return entries;
}

MetadataListing metadata(Source source, const std::string& login,
                         const std::optional<std::string>& type, std::stop_token stop,
                         const ProgressHandler& onProgress) {
  const Login found = find(source, login, stop, onProgress);
  MetadataListing listing;
  listing.type = type;
  asking(stop, onProgress, type.value_or("metadata types"));
  if (!type) {
    listing.typeNames = source.cli.metadataTypeNames(found.target);
    std::sort(listing.typeNames.begin(), listing.typeNames.end());
    finished(onProgress, listing.typeNames.size());
    return listing;
  }
  listing.components = source.cli.listMetadata(found.target, *type);
  std::sort(listing.components.begin(), listing.components.end(),
            [](const nlohmann::json& a, const nlohmann::json& b) {
              return a.value("fullName", "") < b.value("fullName", "");
            });
  finished(onProgress, listing.components.size());
  return listing;
}

Retrieval retrieve(Source source, const std::string& login,
                   const std::vector<std::string>& components, const std::filesystem::path& to,
                   std::stop_token stop, const ProgressHandler& onProgress) {
  if (components.empty()) throw CLIError::failed("No components selected.");
  const Login found = find(source, login, stop, onProgress);
  Retrieval retrieval;
  retrieval.projectRoot = std::filesystem::absolute(to);
  asking(stop, onProgress, "retrieve");
  retrieval.result = source.cli.retrieve(found.target, components, retrieval.projectRoot);
  finished(onProgress, components.size());
  return retrieval;
}

InstanceStatus instance(Source source, const std::string& login,
                        const std::optional<std::string>& key,
                        const StatusService::Options& options, std::stop_token stop,
                        const ProgressHandler& onProgress) {
  std::string instanceKey;
  if (key && !key->empty()) {
    instanceKey = *key;
  } else {
    const Login found = find(source, login, stop, onProgress);
    const auto& name = found.org.instanceName;
    if (!name || name->empty()) throw HealthError::noInstance(login);
    instanceKey = *name;
  }
  asking(stop, onProgress, instanceKey);
  InstanceStatus status = StatusService(options).instance(instanceKey);
  finished(onProgress, 1);
  return status;
}

std::string statusServiceURL() {
  if (const char* env = std::getenv("CORVANE_STATUS_URL"); env != nullptr && *env != '\0') {
    return env;
  }
  return Settings::string("statusServiceURL").value_or(StatusService::kDefaultURL);
}

std::vector<DomainCheck> emailDomains(const std::vector<std::string>& domains,
                                      const std::vector<std::string>& selectors,
                                      const TXTResolver::Options& options, std::stop_token stop,
                                      const ProgressHandler& onProgress) {
  asking(stop, onProgress, "DNS");
  auto checks = EmailDomains::check(TXTResolver(options), domains, selectors);
  finished(onProgress, checks.size());
  return checks;
}

std::vector<ReleaseUpdate> releaseUpdates(Source source, SalesforceAPI::Client& api,
                                          const std::string& login, std::stop_token stop,
                                          const ProgressHandler& onProgress) {
  const Login found = find(source, login, stop, onProgress);
  asking(stop, onProgress, "ReleaseUpdate");
  std::vector<nlohmann::json> records;
  try {
    records = api.toolingQuery(ReleaseUpdates::kQuery, found.org);
  } catch (const SalesforceAPI::APIError& error) {
    // An org (or API version) without the object answers INVALID_TYPE; say so rather than guess.
    if (error.kind() == SalesforceAPI::APIError::Kind::http &&
        (error.status() == 400 || error.status() == 404)) {
      throw HealthError::releaseUpdatesHidden(error.message());
    }
    throw;
  }
  auto updates = ReleaseUpdates::read(records);
  finished(onProgress, updates.size());
  return updates;
}

}  // namespace corvane::HealthTask
