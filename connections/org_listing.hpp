// The logins of the Salesforce CLI, listed and picked the same way by both
// faces: `corvane orgs` and the desktop app's login list.
//
// Listing asks the CLI once for every login; logins whose state the list
// leaves in doubt (OrgConnection::checking) are then checked each on its own,
// at the same time. Blocking: callers run these on a worker thread.
#pragma once

#include <chrono>
#include <stop_token>
#include <string>
#include <vector>

#include "connections/org.hpp"
#include "connections/salesforce_cli.hpp"
#include "platform/task_progress.hpp"
#include "platform/user_facing_error.hpp"

namespace corvane {

// A login named by the user that the CLI does not know, or knows twice.
class LoginError : public UserFacingError {
 public:
  enum class Kind {
    loginNotFound,   // no login has this username or alias
    ambiguousLogin,  // several logins answer to the name, none exactly
  };

  static LoginError loginNotFound(const std::string& login);
  static LoginError ambiguousLogin(const std::string& login,
                                   const std::vector<std::string>& usernames);

  Kind kind() const { return kind_; }

 private:
  LoginError(Kind kind, const std::string& description)
      : UserFacingError(description), kind_(kind) {}
  Kind kind_;
};

namespace OrgListing {

enum class Phase {
  listing,   // asking the CLI for every login
  checking,  // checking logins in doubt on their own; current: a username
  finished,
};
using Progress = TaskProgress<Phase>;
using ProgressHandler = TaskProgressHandler<Phase>;

struct Request {
  bool skipConnectionStatus = false;  // faster; every state is then unknown
  // The CLI checks every login when it lists them, which takes a while.
  std::chrono::milliseconds listTimeout{120'000};
  std::chrono::milliseconds checkTimeout{60'000};
};

// Every login, sorted by lower-cased username, with the doubtful ones checked
// alone (unless request.skipConnectionStatus). Throws CLIError, and
// TaskStopped when stopped between the list and the checks.
std::vector<Org> list(SalesforceCLI& cli, const Request& request, std::stop_token stop,
                      const ProgressHandler& onProgress = {});

// One login, found as findLogin finds it in the list without connection
// checks, then checked on its own (checkedAlone is set). Throws CLIError,
// LoginError, TaskStopped.
Org show(SalesforceCLI& cli, const std::string& login, const Request& request,
         std::stop_token stop, const ProgressHandler& onProgress = {});

// The login a command names, from the list without connection checks.
// Throws CLIError and LoginError.
Org resolve(SalesforceCLI& cli, const std::string& login,
            std::chrono::milliseconds listTimeout = std::chrono::milliseconds(120'000));

// Logins whose state is in doubt checked each on its own, at the same time;
// their records then say checkedAlone.
std::vector<Org> checkDoubtfulAlone(SalesforceCLI& cli, std::vector<Org> orgs,
                                    std::chrono::milliseconds timeout,
                                    const ProgressHandler& onProgress = {});

// The login with this username (any case), else this alias (exact, then any
// case). Throws LoginError when none or several match.
const Org& findLogin(const std::vector<Org>& orgs, const std::string& login);

}  // namespace OrgListing

}  // namespace corvane
