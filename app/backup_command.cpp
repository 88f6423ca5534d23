#include "app/backup_command.hpp"

#include <CLI/CLI.hpp>

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>

#include "platform/interrupt_stop.hpp"
#include "backup/backup_report.hpp"
#include "backup/progress_line.hpp"
#include "connections/api_transport.hpp"

namespace corvane::BackupCommand {

namespace {

struct Arguments {
  std::string login;
  std::string root;
  bool json = false;
  std::string kind = "full";  // run
  bool files = true;          // run
  bool noFiles = false;       // run
  std::vector<std::string> only;
  BackupPlanner::Options options;  // plan
};

void planBackup(CommandContext& context, const Arguments& arguments) {
  const Org org = context.login(arguments.login);
  auto api = context.api();
  APITransport transport(api, org);
  BackupConfig config;
  config.location = BackupLocation::of(org, arguments.root);
  config.options = arguments.options;
  if (!arguments.only.empty()) config.options.onlyObjects = arguments.only;
  const auto result = BackupTask::plan(transport, config, BackupTask::freeSpaceOnDisk, {});
  context.print(arguments.json ? BackupReport::json(result) : BackupReport::text(result));
}

void runBackup(CommandContext& context, const Arguments& arguments) {
  const Org org = context.login(arguments.login);
  auto api = context.api();
  APITransport transport(api, org);
  BackupConfig config;
  config.location = BackupLocation::of(org, arguments.root);
  config.downloadFileBodies = !arguments.noFiles;
  if (!arguments.only.empty()) config.options.onlyObjects = arguments.only;
  const bool terminal = ::isatty(STDERR_FILENO) != 0;
  winsize size{};
  const int width = terminal && ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
  ProgressLine progressLine(terminal, width);
  std::mutex progressMutex;  // guards progressLine: progress comes from the copying threads
  const auto started = std::chrono::steady_clock::now();
  auto report = [&](const BackupProgress& progress) {
    if (arguments.json) return;
    const double at =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::lock_guard guard(progressMutex);
    if (auto bytes = progressLine.accept(progress, at)) {
      std::fputs(bytes->c_str(), stderr);
      std::fflush(stderr);
    }
  };
  InterruptStop interrupt;
  const auto summary =
      BackupTask::run(transport, config, arguments.kind == "changes" ? RunKind::changes : RunKind::full,
                      interrupt.token(), report);
  std::fputs(progressLine.finish().c_str(), stderr);
  context.print(arguments.json ? summary.json() : summary.text());
  if (!summary.succeeded()) throw BackupIncomplete(summary);
}

void showStatus(CommandContext& context, const Arguments& arguments) {
  const auto location = BackupLocation::of(context.login(arguments.login), arguments.root);
  const auto status = BackupTask::status(location);
  context.print(arguments.json ? BackupReport::statusJSON(location, status)
                               : BackupReport::statusText(location, status));
}

}  // namespace

void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen) {
  CLI::App* backup = app.add_subcommand("backup", "Back up an org's records to dated CSV folders");
  backup->require_subcommand(1);
  const std::string rootHelp =
      "The folder that holds the backups (default: Backups in the app's folder)";
  auto choose = [&context, &chosen](CLI::App* command, std::shared_ptr<Arguments> arguments,
                                    void (*work)(CommandContext&, const Arguments&)) {
    command->add_option("LOGIN", arguments->login, "A username or alias")->required();
    whenChosen(command, chosen, [&context, arguments, work] { work(context, *arguments); });
  };

  CLI::App* plan = backup->add_subcommand(
      "plan", "Show what a backup would take and whether it fits, without copying anything");
  auto planArguments = std::make_shared<Arguments>();
  choose(plan, planArguments, planBackup);
  plan->add_flag("--json", planArguments->json, "Print the plan as one JSON object");
  plan->add_option("--root", planArguments->root, rootHelp);
  plan->add_flag("--include-history-and-feed", planArguments->options.includeHistoryAndFeed,
                 "Also copy history and feed objects");
  plan->add_flag("--include-formula-fields", planArguments->options.includeFormulaFields,
                 "Also copy formula fields");
  plan->add_option("--extra", planArguments->options.extraObjects, "Objects to add")->delimiter(',');
  plan->add_option("--exclude", planArguments->options.excludedObjects, "Objects to leave out")
      ->delimiter(',');
  plan->add_option("--only", planArguments->only, "Copy only these objects")->delimiter(',');

  CLI::App* run = backup->add_subcommand(
      "run", "Take a backup into a new dated folder, or carry on with the unfinished one");
  auto runArguments = std::make_shared<Arguments>();
  choose(run, runArguments, runBackup);
  run->add_option("--kind", runArguments->kind, "full (every record) or changes (what changed)")
      ->check(CLI::IsMember({"full", "changes"}));
  run->add_option("--root", runArguments->root, rootHelp);
  run->add_flag("--files", runArguments->files, "Download document bodies (the default)");
  run->add_flag("--no-files", runArguments->noFiles, "Leave document bodies for a later backup");
  run->add_option("--only", runArguments->only, "Copy only these objects")->delimiter(',');
  run->add_flag("--json", runArguments->json, "Print the summary as one JSON object");

  CLI::App* status =
      backup->add_subcommand("status", "Show the last backup of a login and its recent runs");
  auto statusArguments = std::make_shared<Arguments>();
  choose(status, statusArguments, showStatus);
  status->add_option("--root", statusArguments->root, rootHelp);
  status->add_flag("--json", statusArguments->json, "Print the runs as one JSON object");
}

}  // namespace corvane::BackupCommand
