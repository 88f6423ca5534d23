#include "connections/cli_error.hpp"

#include <utility>

namespace corvane {

CLIError::CLIError(Kind kind, std::string message)
    : std::runtime_error(describe(kind, message)), kind_(kind), message_(std::move(message)) {}

CLIError CLIError::failed(std::string message) { return {Kind::failed, std::move(message)}; }
CLIError CLIError::notFound() { return {Kind::notFound, {}}; }
CLIError CLIError::timedOut() { return {Kind::timedOut, {}}; }
CLIError CLIError::badOutput() { return {Kind::badOutput, {}}; }

std::string CLIError::describe(Kind kind, const std::string& message) {
  switch (kind) {
    case Kind::failed:
      return message.empty() ? "The Salesforce CLI reported an error." : message;
    case Kind::notFound:
      return "The Salesforce CLI (sf) could not be found. Install it from "
             "https://developer.salesforce.com/tools/salesforcecli, or set the full path of "
             "sf in Corvane's settings (\"cliPath\") or in the environment variable "
             "CORVANE_SF_PATH, then try again.";
    case Kind::timedOut:
      return "The Salesforce CLI did not finish in time and was stopped. Check the network "
             "connection and try again; if it keeps happening, run the same sf command in a "
             "terminal to see what it is waiting for.";
    case Kind::badOutput:
      return "The Salesforce CLI gave an answer that this app could not read. Update the "
             "Salesforce CLI (sf update) and try again.";
  }
  return "The Salesforce CLI reported an error.";
}

}  // namespace corvane
