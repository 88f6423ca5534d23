// `corvane dedupe`: duplicate snapshots, matching and merges.
#pragma once

#include <functional>

#include "app/orgs_command.hpp"

namespace CLI {
class App;
}

namespace corvane::DedupeCommand {

// Adds the command to app; when chosen, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

}  // namespace corvane::DedupeCommand
