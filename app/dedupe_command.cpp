#include "app/dedupe_command.hpp"

#include <CLI/CLI.hpp>

namespace corvane::DedupeCommand {

void add(CLI::App& /*app*/, CommandContext& /*context*/, std::function<void()>& /*chosen*/) {}

}  // namespace corvane::DedupeCommand
