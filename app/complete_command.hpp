// `corvane complete`: SOQL completions at a cursor.
#pragma once

#include <functional>

#include "app/orgs_command.hpp"

namespace CLI {
class App;
}

namespace corvane::CompleteCommand {

// Adds the command to app; when chosen, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

}  // namespace corvane::CompleteCommand
