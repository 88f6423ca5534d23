// The entry points of the health tools, shared by both faces.
//
// Each finds the login it is given among the Salesforce CLI's logins, asks the
// CLI, the org or Salesforce's status service, and returns what came back read
// into the health folder's records; the faces turn those into tables, CSV or
// JSON. Blocking: callers run them on a worker thread. A stop request is
// honoured before each call that goes out (TaskStopped); a call under way runs
// to its end. They print nothing.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "connections/org.hpp"
#include "connections/salesforce_api.hpp"
#include "connections/salesforce_cli.hpp"
#include "health/audit_trail.hpp"
#include "health/email_domains.hpp"
#include "health/instance_status.hpp"
#include "health/limits_report.hpp"
#include "health/release_updates.hpp"
#include "health/txt_resolver.hpp"
#include "platform/task_progress.hpp"

namespace corvane {

namespace HealthTask {

enum class Phase {
  findingLogin,  // listing the CLI's logins
  asking,        // waiting for the CLI, the org or the status service; current: what is asked
  finished,
};
using Progress = TaskProgress<Phase>;
using ProgressHandler = TaskProgressHandler<Phase>;

// Where the CLI is and how long listing its logins may take.
struct Source {
  SalesforceCLI& cli;
  std::chrono::milliseconds listTimeout{120'000};
};

// Every limit of the org, sorted by the share used. Throws CLIError, LoginError.
std::vector<LimitUsage> limits(Source source, const std::string& login, std::stop_token stop,
                               const ProgressHandler& onProgress = {});

// The setup audit trail, newest first, as filtered.
std::vector<AuditEntry> audit(Source source, const std::string& login, const AuditFilter& filter,
                              std::stop_token stop, const ProgressHandler& onProgress = {});

// The org's metadata types (sorted), or with a type its components (sorted by
// fullName; empty when the CLI could not list them).
struct MetadataListing {
  std::optional<std::string> type;
  std::vector<std::string> typeNames;         // without a type
  std::vector<nlohmann::json> components;     // with a type: the CLI's records
};
MetadataListing metadata(Source source, const std::string& login,
                         const std::optional<std::string>& type, std::stop_token stop,
                         const ProgressHandler& onProgress = {});

// Components retrieved into a project folder: the CLI's answer and the folder.
struct Retrieval {
  nlohmann::json result;
  std::filesystem::path projectRoot;  // absolute
};
// Throws CLIError::failed at once, asking nothing, when components is empty.
Retrieval retrieve(Source source, const std::string& login,
                   const std::vector<std::string>& components, const std::filesystem::path& to,
                   std::stop_token stop, const ProgressHandler& onProgress = {});

// The incidents and maintenances of an instance: key, or when none the
// login's own as the CLI records it (HealthError::noInstance without one).
InstanceStatus instance(Source source, const std::string& login,
                        const std::optional<std::string>& key,
                        const StatusService::Options& options, std::stop_token stop,
                        const ProgressHandler& onProgress = {});

// The status service's address: $CORVANE_STATUS_URL, else the setting
// "statusServiceURL", else Salesforce's.
std::string statusServiceURL();

// SPF and DKIM records of the domains: SPF for each, then DKIM for each selector.
std::vector<DomainCheck> emailDomains(const std::vector<std::string>& domains,
                                      const std::vector<std::string>& selectors,
                                      const TXTResolver::Options& options, std::stop_token stop,
                                      const ProgressHandler& onProgress = {});

// The org's release updates through the Tooling API. An org that hides them
// gives HealthError::releaseUpdatesHidden.
std::vector<ReleaseUpdate> releaseUpdates(Source source, SalesforceAPI::Client& api,
                                          const std::string& login, std::stop_token stop,
                                          const ProgressHandler& onProgress = {});

}  // namespace HealthTask

}  // namespace corvane
