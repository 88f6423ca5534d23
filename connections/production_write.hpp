// Writing to a production org: the name a user types to confirm it, and the
// refusal when the write is not confirmed. Both faces ask before they write to
// production (the command line in app/production_guard, the desktop app in a
// dialog); what they ask for and the sentences they refuse with are these.
#pragma once

#include <string>
#include <string_view>

#include "connections/org.hpp"
#include "platform/user_facing_error.hpp"

namespace corvane {

class ProductionWriteRefused : public UserFacingError {
 public:
  enum class Kind { noTerminal, nameDidNotMatch };

  static ProductionWriteRefused noTerminal(const Org& org, std::string_view whatItWrites);
  static ProductionWriteRefused nameDidNotMatch(const Org& org);

  Kind kind() const { return kind_; }

 private:
  ProductionWriteRefused(Kind kind, const std::string& sentence)
      : UserFacingError(sentence), kind_(kind) {}
  Kind kind_;
};

namespace ProductionWrite {

// The name the user types to confirm: the org's name when known, else the
// login's display name.
std::string nameToType(const Org& org);

// Whether what the user typed confirms a write to org (white space around it
// aside).
bool confirms(const Org& org, std::string_view typed);

}  // namespace ProductionWrite

}  // namespace corvane
