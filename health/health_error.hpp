// The failures of the org-health tools that are not the CLI's or Salesforce's own.
#pragma once

#include <string>

#include "platform/user_facing_error.hpp"

namespace corvane {

class HealthError : public UserFacingError {
 public:
  enum class Kind {
    badDate,             // a --since value that is not a date
    statusUnreachable,   // the status service did not answer in time or at all
    statusNeedsToken,    // the status service asks for a personal access token
    statusTokenRefused,  // the saved token was refused (expired or revoked)
    statusUnknownInstance,
    statusBadReply,
    noInstance,            // the login does not say which instance the org is on
    releaseUpdatesHidden,  // the org's API does not expose release updates
  };

  static HealthError badDate(const std::string& text);
  static HealthError statusUnreachable(const std::string& address, const std::string& reason);
  static HealthError statusNeedsToken();
  static HealthError statusTokenRefused();
  static HealthError statusUnknownInstance(const std::string& instance);
  static HealthError statusBadReply(const std::string& address);
  static HealthError noInstance(const std::string& login);
  static HealthError releaseUpdatesHidden(const std::string& reason);

  Kind kind() const { return kind_; }

 private:
  HealthError(Kind kind, const std::string& sentence) : UserFacingError(sentence), kind_(kind) {}
  Kind kind_;
};

}  // namespace corvane
