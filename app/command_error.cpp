#include "app/command_error.hpp"

#include "connections/cli_error.hpp"
#include "connections/salesforce_api.hpp"
#include "platform/file_error.hpp"
#include "platform/user_facing_error.hpp"

namespace corvane {

int runReportingFailures(const std::function<void()>& command, std::ostream& err) {
  try {
    command();
    return 0;
  } catch (const CLIError& error) {
    err << error.description() << '\n';
  } catch (const SalesforceAPI::APIError& error) {
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
