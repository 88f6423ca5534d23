#include "app/dedupe_undo_command.hpp"

#include <iostream>
#include <optional>

#include <CLI/CLI.hpp>

#include "platform/interrupt_stop.hpp"
#include "app/production_guard.hpp"

namespace corvane::DedupeUndoCommand {

UndoTask::Outcome undo(CommandContext& context, SalesforceAPI::Client& api,
                       const std::filesystem::path& snapshot, const Options& options,
                       std::stop_token stop) {
  const UndoTask::Prepared prepared =
      UndoTask::prepare(context.logins(), snapshot, options.request);
  ProductionGuard::confirm(prepared.org, UndoTask::whatItWrites(prepared),
                           options.json ? std::cerr : context.out);
  // Ctrl-C stops between groups and batches, unless the caller stops it.
  std::optional<InterruptStop> interrupt;
  if (!stop.stop_possible()) stop = interrupt.emplace(true).token();
  const auto progress = [&context, &options](const DedupeProgress& step) {
    if (options.json) return;
    if (step.phase == DedupeProgress::Phase::checking) {
      context.out << "Checking the records in Salesforce\u2026\n" << std::flush;
    }
  };
  UndoTask::Outcome outcome;
  try {
    outcome = UndoTask::run(api, prepared, options.request, stop, progress);
  } catch (const UndoError& error) {
    if (error.kind() == UndoError::Kind::refused) {
      context.out << UndoTask::refusalsText(error.details(), options.json);
    }
    throw;
  }
  context.out << (options.json ? UndoTask::json(outcome).dump(2) + '\n' : UndoTask::text(outcome));
  outcome.throwIfIncomplete();
  return outcome;
}

void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen) {
  CLI::App* dedupe = app.get_subcommand("dedupe");
  struct Arguments {
    std::string snapshot;
    std::vector<std::int64_t> groups;
    bool force = false;
    bool json = false;
    std::string login;
  };
  auto args = std::make_shared<Arguments>();
  CLI::App* command = dedupe->add_subcommand(
      "undo",
      "Put back the merges, deletes and updates an apply made from a snapshot: the records come "
      "back from the Recycle Bin with their Ids, their child records return to them, the kept "
      "records take back their old values and tagged fields theirs");
  command->add_option("SNAPSHOT", args->snapshot, "The snapshot the apply was run from")
      ->required();
  command
      ->add_option("--group", args->groups,
                   "Undo only this group (as numbered by the apply; the group of that number of "
                   "every apply); repeat for several")
      ->allow_extra_args(false);
  command->add_flag("--force", args->force,
                    "Also put back kept records changed in Salesforce since the merge, "
                    "overwriting those changes");
  command->add_option("--login", args->login,
                      "The login to use (default: the one that made the snapshot)");
  command->add_flag("--json", args->json, "Print the outcome as JSON");
  command->footer(
      "Nothing changes while any chosen group is refused: a kept record changed since the merge "
      "(unless --force) or a record no longer in the Recycle Bin. Stopped part-way, the same "
      "command finishes the rest and does nothing twice. On a production login it asks first; "
      "scripts add --yes.");
  whenChosen(command, chosen, [&context, args] {
    Options options;
    options.request.groups = args->groups;
    options.request.force = args->force;
    options.request.login = args->login;
    options.json = args->json;
    SalesforceAPI::Client api = context.api();
    undo(context, api, args->snapshot, options);
  });
}

}  // namespace corvane::DedupeUndoCommand
