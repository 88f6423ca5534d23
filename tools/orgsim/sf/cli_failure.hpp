// The failures the `sf` stand-in reports, and the JSON reply each one becomes.
//
// Every failure the real Salesforce CLI prints with --json has the same frame:
// "name", "message", "exitCode", optional "actions", "context", optional "data",
// "stack", "cause", "warnings", "code", "status", "commandName"; the process
// exits with the same status. The names, sentences and exit statuses below are
// the real CLI's own (2.150.6), so a client that copes with the real CLI copes
// with the stand-in. All of them are built here and nowhere else.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace corvane::sfstandin {

class CliFailure {
 public:
  enum class Kind {
    namedOrgNotFound,     // --target-org names no login and no alias
    noDefaultTarget,      // no --target-org and no default login
    noAuthForLogout,      // logout of a login that does not exist
    badTokenFormat,       // SF_ACCESS_TOKEN missing or without "<org id>!"
    usernameRetrieval,    // login: the org would not say who the token belongs to
    insecureInstanceUrl,  // http to a host that is not this machine
    orgError,             // the org answered with a Salesforce error body
    limitsError,          // the same, as `org list limits` reports it
    fetchFailed,          // the org could not be reached at all
    badArgument,          // a flag or argument the command cannot take
    badAliasArgument,     // alias set without NAME=VALUE
    unsupportedCommand,   // a command line the stand-in does not answer
    unexpectedReply,      // the org answered something that is not what the API promises
    storeUnreadable,      // a file under ~/.sfdx could not be read or written
  };

  // --target-org named `target`; `suggestion` is the closest known alias or username.
  static CliFailure namedOrgNotFound(const std::string& target,
                                     const std::optional<std::string>& suggestion);
  static CliFailure noDefaultTarget();
  static CliFailure noAuthForLogout(const std::string& target);
  static CliFailure badTokenFormat();
  // `cause` is the org's message, or "fetch failed" when it could not be reached.
  static CliFailure usernameRetrieval(const std::string& cause);
  static CliFailure insecureInstanceUrl(const std::string& url);
  static CliFailure orgError(const std::string& errorCode, const std::string& message);
  static CliFailure limitsError(const std::string& errorCode, const std::string& message);
  static CliFailure fetchFailed();
  static CliFailure badArgument(const std::string& sentence);
  static CliFailure badAliasArgument(const std::string& argument);
  static CliFailure unsupportedCommand(const std::string& commandLine);
  static CliFailure unexpectedReply(const std::string& what);
  static CliFailure storeUnreadable(const std::string& path, const std::string& reason);

  Kind kind() const { return kind_; }
  // The error's class name as the CLI prints it in "name" (for org errors: the org's errorCode).
  const std::string& name() const { return name_; }
  // The sentence the user reads.
  const std::string& description() const { return message_; }
  int exitCode() const { return exitCode_; }

  // The whole reply, for the command whose class name is `commandName`.
  nlohmann::ordered_json toJson(const std::string& commandName) const;

 private:
  CliFailure(Kind kind, std::string name, std::string message, int exitCode, std::string code);

  Kind kind_;
  std::string name_;
  std::string message_;
  int exitCode_;
  std::string code_;                  // "code": the name, or the exit status as text
  std::vector<std::string> actions_;  // printed only when there are some
  std::optional<nlohmann::ordered_json> data_;
};

}  // namespace corvane::sfstandin
