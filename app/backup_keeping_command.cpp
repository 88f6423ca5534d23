#include "app/backup_keeping_command.hpp"

#include <CLI/CLI.hpp>

namespace corvane::BackupKeepingCommand {

void add(CLI::App& /*app*/, CommandContext& /*context*/, std::function<void()>& /*chosen*/) {}

}  // namespace corvane::BackupKeepingCommand
