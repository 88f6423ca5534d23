#include "app/backup_command.hpp"

#include <CLI/CLI.hpp>

namespace corvane::BackupCommand {

void add(CLI::App& /*app*/, CommandContext& /*context*/, std::function<void()>& /*chosen*/) {}

}  // namespace corvane::BackupCommand
