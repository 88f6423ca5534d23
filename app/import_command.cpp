#include "app/import_command.hpp"

#include <CLI/CLI.hpp>

namespace corvane::ImportCommand {

void add(CLI::App& /*app*/, CommandContext& /*context*/, std::function<void()>& /*chosen*/) {}

}  // namespace corvane::ImportCommand
