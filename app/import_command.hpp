// `corvane import`: reading spreadsheets and importing records.
#pragma once

#include <functional>

#include "app/orgs_command.hpp"

namespace CLI {
class App;
}

namespace corvane::ImportCommand {

// Adds the command to app; when chosen, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

}  // namespace corvane::ImportCommand
