#include "health/health_error.hpp"

namespace corvane {

namespace {
const char* const kTokenHowTo =
    "Create one in My Trust Center (Settings, Personal Access Tokens), then save it with "
    "\"corvane health status-token\", which reads it from standard input.";
}

HealthError HealthError::badDate(const std::string& text) {
  return {Kind::badDate, "\"" + text +
                             "\" is not a date. Give it as YYYY-MM-DD (such as 2024-01-05) or "
                             "as a UTC time such as 2024-01-05T10:00:00Z."};
}

HealthError HealthError::statusUnreachable(const std::string& address, const std::string& reason) {
  return {Kind::statusUnreachable,
          "Salesforce's status service at " + address + " could not be reached (" + reason +
              "). Nothing was changed. Check the network connection and try again."};
}

HealthError HealthError::statusNeedsToken() {
  return {Kind::statusNeedsToken,
          std::string("Salesforce's status service asks for a personal access token, and none "
                      "is saved. ") +
              kTokenHowTo};
}

HealthError HealthError::statusTokenRefused() {
  return {Kind::statusTokenRefused,
          std::string("Salesforce's status service refused the saved personal access token; "
                      "it has probably expired (they last 7, 15 or 30 days). ") +
              kTokenHowTo};
}

HealthError HealthError::statusUnknownInstance(const std::string& instance) {
  return {Kind::statusUnknownInstance,
          "Salesforce's status service does not know the instance " + instance +
              ". Check the org's instance in Setup, Company Information."};
}

HealthError HealthError::statusBadReply(const std::string& address) {
  return {Kind::statusBadReply, "Salesforce's status service at " + address +
                                    " answered with something that is not an instance status. "
                                    "Check the status service address in the settings."};
}

HealthError HealthError::noInstance(const std::string& login) {
  return {Kind::noInstance, "The Salesforce CLI does not say which instance " + login +
                                " is on. Reconnect the org so that the CLI records it, or give "
                                "the instance with --instance (such as NA45)."};
}

HealthError HealthError::releaseUpdatesHidden(const std::string& reason) {
  return {Kind::releaseUpdatesHidden,
          "This org does not show its release updates through the API (" + reason +
              "), so Corvane cannot list them. See them in Setup, Release Updates."};
}

}  // namespace corvane
