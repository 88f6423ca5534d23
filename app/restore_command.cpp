#include "app/restore_command.hpp"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

#include "platform/interrupt_stop.hpp"
#include "app/production_guard.hpp"
#include "backup/restore_report.hpp"
#include "backup/restore_results.hpp"
#include "backup/restore_task.hpp"
#include "connections/api_transport.hpp"

namespace corvane::RestoreCommand {

void restore(CommandContext& context, SalesforceAPI::Client& api, const Arguments& arguments) {
  const Org org = context.login(arguments.login);
  RestoreTask::Request request;
  request.location = BackupLocation::of(org, arguments.root);
  request.object = arguments.object;
  request.deleted = arguments.deleted;
  request.ids = arguments.ids;
  request.fields = arguments.fields;
  request.withChildren = arguments.withChildren;
  request.retryFailed = arguments.retryFailed;
  request.from = arguments.from;
  request.asOf = arguments.asOf;
  APITransport transport(api, org);

  if (arguments.dryRun) {
    const auto plan = RestoreTask::plan(transport, request);
    context.print(arguments.json ? RestoreReport::planJSON(org.username, plan)
                                 : RestoreReport::planText(plan));
    return;
  }

  // Asked before anything is written, with what is at stake. The plan is
  // written as it is unless a question let time pass: then the run plans again.
  const auto plan = RestoreTask::plan(transport, request);
  if (plan.toWrite() == 0) {
    context.print(arguments.json ? RestoreReport::nothingLeftJSON(org.username, plan)
                                 : RestoreReport::nothingLeftText(arguments.object, plan));
    return;
  }
  const bool asked = ProductionGuard::confirm(
      org,
      "restore " + RestoreReport::countsText(plan) + " " + arguments.object +
          " records (and their children) from the backup " + plan.folder,
      arguments.json ? std::cerr : context.out);

  InterruptStop interrupt(true);
  const auto start = std::chrono::steady_clock::now();
  const auto progress = [&start](const RestoreTask::Progress& step) {
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    std::cerr << RestoreReport::progressText(step, seconds.count()) << std::flush;
  };
  const auto result =
      RestoreTask::run(transport, request, interrupt.token(), progress, asked ? nullptr : &plan);
  std::optional<std::filesystem::path> failures;
  std::optional<std::filesystem::path> workbook;
  if (!arguments.results.empty()) {
    workbook = arguments.results;
    RestoreResults::writeWorkbook(*workbook, result.plan);
  } else {
    failures =
        RestoreResults::writeFailures(result.journal.parent_path(), arguments.object, result.plan);
  }
  context.print(arguments.json ? RestoreReport::resultJSON(org.username, result, failures)
                               : RestoreReport::resultText(result, failures, workbook));
}

void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen) {
  CLI::App* backup = app.get_subcommand("backup");
  CLI::App* command = backup->add_subcommand(
      "restore", "Bring deleted records, or old values of live ones, back from the backups");
  auto arguments = std::make_shared<Arguments>();
  command->add_option("LOGIN", arguments->login, "A username or alias")->required();
  command->add_option("--object", arguments->object, "The kind of record, such as Account")
      ->required();
  command->add_option("--root", arguments->root,
                      "The folder that holds the backups (default: Backups in the app's folder)");
  auto* from = command->add_option("--from", arguments->from,
                                   "The dated backup folder to take values from");
  auto* asOf = command->add_option("--as-of", arguments->asOf,
                                   "The newest backup taken by then (YYYY-MM-DD[THH:MM], UTC)");
  from->excludes(asOf);
  auto* deleted = command->add_flag("--deleted", arguments->deleted,
                                    "Every record of the object the backups found deleted");
  auto* ids = command->add_option("--ids", arguments->ids, "These records")->delimiter(',');
  deleted->excludes(ids);
  command->add_option("--fields", arguments->fields,
                      "Set these fields of live records back to the backup's values")
      ->delimiter(',');
  command->add_flag("--with-children", arguments->withChildren,
                    "Also the deleted records that pointed at them, and their documents");
  command->add_flag("--retry-failed", arguments->retryFailed,
                    "Send again the records Salesforce refused in an earlier run");
  command->add_flag("--dry-run", arguments->dryRun, "Print the plan; write nothing");
  command->add_flag("--json", arguments->json, "Print the outcome as one JSON object");
  command->add_option("--results", arguments->results,
                      "Write every record's outcome into this .xlsx");
  command->callback([&context, &chosen, arguments, command] {
    if (!arguments->deleted && arguments->ids.empty())
      throw CLI::ValidationError("--deleted or --ids", "Say which records: --deleted or --ids ID,...");
    chosen = [&context, arguments] {
      auto api = context.api();
      restore(context, api, *arguments);
    };
  });
}

}  // namespace corvane::RestoreCommand
