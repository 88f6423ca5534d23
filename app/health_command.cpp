#include "app/health_command.hpp"

#include <CLI/CLI.hpp>

namespace corvane::HealthCommand {

void add(CLI::App& /*app*/, CommandContext& /*context*/, std::function<void()>& /*chosen*/) {}

}  // namespace corvane::HealthCommand
