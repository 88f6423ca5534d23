// How the command-line program reports a failed command.
#pragma once

#include <functional>
#include <ostream>

#include "connections/org_listing.hpp"

namespace corvane {

// The failures of naming a login, as the commands have always called them.
using CommandError = LoginError;

// Runs one command. A typed failure becomes its sentence on err and exit
// status 1; success is 0.
int runReportingFailures(const std::function<void()>& command, std::ostream& err);

}  // namespace corvane
