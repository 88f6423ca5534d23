#include "tools/orgsim/sf/cli_failure.hpp"

#include <utility>

namespace corvane::sfstandin {

namespace {

// The real CLI's flag-parsing failures all open with this line and close with the help hint.
std::string parsingTargetOrg(const std::string& sentence) {
  return "Parsing --target-org \n\t" + sentence + "\nSee more help with --help";
}

}  // namespace

CliFailure::CliFailure(Kind kind, std::string name, std::string message, int exitCode,
                       std::string code)
    : kind_(kind),
      name_(std::move(name)),
      message_(std::move(message)),
      exitCode_(exitCode),
      code_(std::move(code)) {}

CliFailure CliFailure::namedOrgNotFound(const std::string& target,
                                        const std::optional<std::string>& suggestion) {
  CliFailure failure(Kind::namedOrgNotFound, "NamedOrgNotFoundError",
                     parsingTargetOrg("No authorization information found for " + target + "."), 2,
                     "NamedOrgNotFoundError");
  if (suggestion) {
    failure.actions_.push_back("It looks like you mistyped the username or alias. Did you mean \"" +
                               *suggestion + "\"?");
  }
  return failure;
}

CliFailure CliFailure::noDefaultTarget() {
  return {Kind::noDefaultTarget, "NoDefaultEnvError",
          "No default environment found. Use -o or --target-org to specify an environment.", 1,
          "NoDefaultEnvError"};
}

CliFailure CliFailure::noAuthForLogout(const std::string& target) {
  return {Kind::noAuthForLogout, "NoAuthFoundForTargetOrgError",
          "No authenticated org found with the " + target + " username or alias.", 1,
          "NoAuthFoundForTargetOrgError"};
}

CliFailure CliFailure::badTokenFormat() {
  return {Kind::badTokenFormat, "SfError",
          "The access token isn't in the correct format.\nIt should follow this pattern: \"<org "
          "id>!<accesstoken>\".",
          1, "SfError"};
}

CliFailure CliFailure::usernameRetrieval(const std::string& cause) {
  return {
      Kind::usernameRetrieval, "AuthCodeUsernameRetrievalError",
      "Could not retrieve the username after successful auth code exchange.\n\nDue to: " + cause, 1,
      "AuthCodeUsernameRetrievalError"};
}

CliFailure CliFailure::insecureInstanceUrl(const std::string& url) {
  return {Kind::insecureInstanceUrl, "InsecureInstanceUrlError",
          "The instance URL " + url +
              " uses plain http on a host that is not this machine. Use its https address; "
              "plain http is accepted only for 127.0.0.1, ::1 and localhost.",
          1, "InsecureInstanceUrlError"};
}

CliFailure CliFailure::orgError(const std::string& errorCode, const std::string& message) {
  CliFailure failure(Kind::orgError, errorCode, message, 1, "1");
  failure.data_ = nlohmann::ordered_json{{"message", message}, {"errorCode", errorCode}};
  return failure;
}

CliFailure CliFailure::limitsError(const std::string& errorCode, const std::string& message) {
  return {Kind::limitsError, errorCode, message, 1, errorCode};
}

CliFailure CliFailure::fetchFailed() {
  // Node's fetch reports every refused, reset or unreachable connection with these two words.
  return {Kind::fetchFailed, "TypeError", "fetch failed", 10, "10"};
}

CliFailure CliFailure::badArgument(const std::string& sentence) {
  return {Kind::badArgument, "Error", sentence + "\nSee more help with --help", 2, "2"};
}

CliFailure CliFailure::badAliasArgument(const std::string& argument) {
  return {Kind::badAliasArgument, "InvalidArgumentFormatError",
          "Error in the following argument\n" + argument +
              "\nSet varargs with this format: key=value or key=\"value with spaces\"",
          1, "InvalidArgumentFormatError"};
}

CliFailure CliFailure::unsupportedCommand(const std::string& commandLine) {
  return {Kind::unsupportedCommand, "CommandNotFoundError",
          "This stand-in for the Salesforce CLI does not answer \"sf " + commandLine +
              "\". It answers org list, org display, org auth show-access-token, org open, "
              "org logout, org login access-token, org list limits, alias list, alias set and "
              "data query.",
          127, "127"};
}

CliFailure CliFailure::unexpectedReply(const std::string& what) {
  return {Kind::unexpectedReply, "UnexpectedValueTypeError", what, 10, "10"};
}

CliFailure CliFailure::storeUnreadable(const std::string& path, const std::string& reason) {
  return {Kind::storeUnreadable, "AuthInfoStoreError",
          "The login file " + path + " could not be used: " + reason +
              ". Log in to the org again to replace it.",
          1, "AuthInfoStoreError"};
}

nlohmann::ordered_json CliFailure::toJson(const std::string& commandName) const {
  nlohmann::ordered_json reply;
  reply["name"] = name_;
  reply["message"] = message_;
  reply["exitCode"] = exitCode_;
  if (!actions_.empty()) reply["actions"] = actions_;
  reply["context"] = commandName;
  if (data_) reply["data"] = *data_;
  reply["stack"] =
      name_ + ": " + message_ + "\n    at " + commandName + ".run (corvane sf stand-in)";
  reply["cause"] = data_ ? name_ + ": " + message_ : "undefined";
  reply["warnings"] = nlohmann::ordered_json::array();
  reply["code"] = code_;
  reply["status"] = exitCode_;
  reply["commandName"] = commandName;
  return reply;
}

}  // namespace corvane::sfstandin
