#include "app/complete_command.hpp"

#include <CLI/CLI.hpp>

namespace corvane::CompleteCommand {

void add(CLI::App& /*app*/, CommandContext& /*context*/, std::function<void()>& /*chosen*/) {}

}  // namespace corvane::CompleteCommand
