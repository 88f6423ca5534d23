// The status of an org's Salesforce instance (its current incidents and
// maintenances) from Salesforce's status service.
//
// The service's address is a setting ("statusServiceURL"; tests point it at the
// sample org). It must be https unless the host is this machine. Salesforce is
// moving instance status to a service that asks for a personal access token;
// when one is saved (StatusToken) it goes in the Authorization header, never in
// an address, a log or an error text.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace corvane {

struct StatusEvent {
  std::string kind;  // "incident" or "maintenance"
  std::string id;
  std::string title;  // the latest update, or the maintenance's name
  std::string state;  // severity of an incident, event status of a maintenance
  std::string start;  // as the service gave it
  std::string end;    // empty while open

  bool operator==(const StatusEvent&) const = default;
};

struct InstanceStatus {
  std::string key;     // "NA45"
  std::string status;  // "OK", "MAJOR_INCIDENT_CORE", ...
  std::string releaseVersion;
  std::string environment;
  std::string location;
  std::vector<StatusEvent> incidents;
  std::vector<StatusEvent> maintenances;
};

class StatusService {
 public:
  static constexpr const char* kDefaultURL = "https://api.status.salesforce.com";

  struct Options {
    std::string baseURL = kDefaultURL;
    std::optional<std::string> token;  // a personal access token
    std::chrono::milliseconds timeout{15'000};
  };

  explicit StatusService(Options options);

  // GET baseURL/v1/instances/KEY/status?childProducts=false. Throws HealthError:
  // statusUnreachable (no answer within the time limit, or no connection),
  // statusNeedsToken / statusTokenRefused (401, 403 or 410), statusUnknownInstance
  // (404), statusBadReply.
  InstanceStatus instance(const std::string& key) const;

  // The service's answer read into a status; none when it is not one.
  static std::optional<InstanceStatus> parse(const nlohmann::json& reply);

  static std::string table(const InstanceStatus& status);
  static nlohmann::json toJSON(const InstanceStatus& status);

 private:
  Options options_;
};

// The personal access token for the status service, kept in the
// application-support folder in a file of its own, mode 0600.
namespace StatusToken {
std::optional<std::string> load();
// Blanks around the token are dropped; an empty token removes the file.
void save(const std::string& token);
void clear();
}  // namespace StatusToken

}  // namespace corvane
