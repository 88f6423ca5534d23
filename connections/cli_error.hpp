// The failure of one call to the Salesforce CLI bridge.
#pragma once

#include <stdexcept>
#include <string>

namespace corvane {

class CLIError : public std::runtime_error {
 public:
  enum class Kind {
    failed,     // the CLI ran and reported a failure; message() is the user's sentence
    notFound,   // no sf executable could be located
    timedOut,   // the child did not finish within its time limit and was stopped
    badOutput,  // standard output was not a JSON object
  };

  // message must already be cleaned (SalesforceCLI::cleanError) and hold no token.
  static CLIError failed(std::string message);
  static CLIError notFound();
  static CLIError timedOut();
  static CLIError badOutput();

  Kind kind() const { return kind_; }
  // The failure's own text; empty for every kind but failed.
  const std::string& message() const { return message_; }
  // The sentence a user reads: what happened and what to do next.
  std::string description() const { return what(); }

 private:
  CLIError(Kind kind, std::string message);
  static std::string describe(Kind kind, const std::string& message);

  Kind kind_;
  std::string message_;
};

}  // namespace corvane
