// `corvane dedupe undo`: puts back the merges and deletes an apply made from a
// snapshot, through dedupe/undo_task.hpp.
//
//   dedupe undo SNAPSHOT [--group N ...] [--force] [--login LOGIN] [--yes] [--json]
#pragma once

#include <filesystem>
#include <functional>
#include <stop_token>

#include "app/command_context.hpp"
#include "dedupe/undo_task.hpp"

namespace CLI {
class App;
}

namespace corvane::DedupeUndoCommand {

struct Options {
  UndoTask::Request request;
  bool json = false;
};

// Checks, asks for confirmation on a production org, undoes (Ctrl-C stops it
// between groups unless stop is given), and prints the
// outcome (as JSON when json). Lists the refusals, then throws
// UndoError::refused; throws the outcome's failure when it did not finish.
UndoTask::Outcome undo(CommandContext& context, SalesforceAPI::Client& api,
                       const std::filesystem::path& snapshot, const Options& options,
                       std::stop_token stop = {});

// Adds undo under the existing "dedupe" subcommand of app.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

}  // namespace corvane::DedupeUndoCommand
