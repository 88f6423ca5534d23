// Failures of the command-line program's own making (the Salesforce CLI's
// failures arrive as CLIError).
#pragma once

#include <functional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace corvane {

class CommandError : public std::runtime_error {
 public:
  enum class Kind {
    loginNotFound,   // no login has this username or alias
    ambiguousLogin,  // several logins answer to the name, none exactly
  };

  static CommandError loginNotFound(const std::string& login);
  static CommandError ambiguousLogin(const std::string& login,
                                     const std::vector<std::string>& usernames);

  Kind kind() const { return kind_; }
  // The sentence a user reads: what went wrong and what to do.
  std::string description() const { return what(); }

 private:
  CommandError(Kind kind, const std::string& description)
      : std::runtime_error(description), kind_(kind) {}
  Kind kind_;
};

// Runs one command. A typed failure becomes its sentence on err and exit
// status 1; success is 0.
int runReportingFailures(const std::function<void()>& command, std::ostream& err);

}  // namespace corvane
