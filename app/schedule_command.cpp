#include "app/schedule_command.hpp"

#include <CLI/CLI.hpp>

namespace corvane::ScheduleCommand {

void add(CLI::App& /*app*/, CommandContext& /*context*/, std::function<void()>& /*chosen*/) {}

}  // namespace corvane::ScheduleCommand
