#include "app/command_error.hpp"

#include "connections/cli_error.hpp"
#include "connections/salesforce_api.hpp"
#include "platform/file_error.hpp"
#include "platform/user_facing_error.hpp"

namespace corvane {

CommandError CommandError::loginNotFound(const std::string& login) {
  return {Kind::loginNotFound,
          "No login named \"" + login +
              "\" is known to the Salesforce CLI. Run \"corvane orgs\" to see the logins, or "
              "add this one with: sf org login web --alias " +
              login};
}

CommandError CommandError::ambiguousLogin(const std::string& login,
                                          const std::vector<std::string>& usernames) {
  std::string list;
  for (const auto& username : usernames) {
    if (!list.empty()) list += ", ";
    list += username;
  }
  return {Kind::ambiguousLogin, "More than one login answers to \"" + login + "\" (" + list +
                                    "). Give the exact alias or the username."};
}

int runReportingFailures(const std::function<void()>& command, std::ostream& err) {
  try {
    command();
    return 0;
  } catch (const CLIError& error) {
    err << error.description() << '\n';
  } catch (const SalesforceAPI::APIError& error) {
    err << error.description() << '\n';
  } catch (const CommandError& error) {
    err << error.description() << '\n';
  } catch (const FileError& error) {
    err << error.description() << '\n';
  } catch (const UserFacingError& error) {
    err << error.description() << '\n';
  } catch (const std::exception& error) {
    err << "Corvane stopped on an unexpected failure: " << error.what() << '\n';
  }
  return 1;
}

}  // namespace corvane
