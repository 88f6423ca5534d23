// `corvane backup sets`, `corvane schedule` and the headless backup tick.
#pragma once

#include <functional>

#include "app/orgs_command.hpp"

namespace CLI {
class App;
}

namespace corvane::ScheduleCommand {

// Adds the commands to app (under "backup" where they belong there); when one
// is chosen, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

}  // namespace corvane::ScheduleCommand
