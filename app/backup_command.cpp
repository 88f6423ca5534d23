#include "app/backup_command.hpp"

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <mutex>

#include "app/interrupt_stop.hpp"
#include "app/progress_line.hpp"
#include "backup/backup_error.hpp"
#include "connections/api_transport.hpp"

namespace corvane::BackupCommand {

namespace {

std::string grouped(std::int64_t value) {
  std::string digits = std::to_string(value < 0 ? -value : value);
  for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3)
    digits.insert(static_cast<std::size_t>(at), ",");
  return value < 0 ? "-" + digits : digits;
}

}  // namespace

std::string text(const BackupTask::Survey& survey) {
  std::string out = fmt::format("A backup of {} would be kept in\n  {}\n\n",
                                survey.location.username, survey.location.folder().string());
  std::size_t nameWidth = 6;
  for (const auto& object : survey.objects)
    nameWidth = std::max(nameWidth, object.plan.object.size());
  out += fmt::format("{:<{}}  {:>12}  {:>6}  {:<4}  {}\n", "Object", nameWidth, "Records", "Fields",
                     "Way", "Fields left out");
  std::int64_t records = 0;
  for (const auto& object : survey.objects) {
    std::string leftOut;
    for (const auto& field : object.fieldsLeftOut)
      leftOut += (leftOut.empty() ? "" : ", ") + field.name;
    out += fmt::format("{:<{}}  {:>12}  {:>6}  {:<4}  {}\n", object.plan.object, nameWidth,
                       object.records ? grouped(*object.records) : "unknown",
                       object.plan.fields.size(), object.via, leftOut);
    records += object.records.value_or(0);
  }
  out += fmt::format("\n{} objects, {} records.\n", survey.objects.size(), grouped(records));

  if (!survey.objectsLeftOut.empty()) {
    // One line per reason, naming its objects.
    std::map<std::string, std::vector<std::string>> byReason;
    for (const auto& entry : survey.objectsLeftOut) byReason[entry.reason].push_back(entry.name);
    out += "\nLeft out:\n";
    for (const auto& [reason, names] : byReason) {
      std::string list;
      for (const auto& name : names) list += (list.empty() ? "" : ", ") + name;
      out += fmt::format("  {}\n    {}\n", reason, list);
    }
  }

  const auto& estimate = survey.estimate;
  out += fmt::format("\nSpace: about {} ({} to {}), of which {} for documents and attachments.\n",
                     BackupError::byteCount(estimate.expected),
                     BackupError::byteCount(estimate.low), BackupError::byteCount(estimate.high),
                     BackupError::byteCount(estimate.fileBytes));
  out += fmt::format("The disk has {} free, and {} must stay free.\n",
                     BackupError::byteCount(estimate.free),
                     BackupError::byteCount(survey.freeSpaceFloor));
  switch (estimate.verdict) {
    case BackupEstimator::Verdict::fits:
      out += "It fits.\n";
      break;
    case BackupEstimator::Verdict::tight:
      out +=
          "It should fit, but space is tight: if the records are larger than usual, the "
          "backup stops before the disk fills and carries on once there is room.\n";
      break;
    case BackupEstimator::Verdict::willNotFit:
      out += std::string(
                 BackupError::willNotFit(estimate.expected + survey.freeSpaceFloor, estimate.free)
                     .what()) +
             "\n";
      break;
  }
  return out;
}

std::string json(const BackupTask::Survey& survey) {
  using Ordered = nlohmann::ordered_json;
  auto reasons = [](const std::vector<BackupTask::LeftOut>& list) {
    Ordered array = Ordered::array();
    for (const auto& entry : list)
      array.push_back(Ordered{{"name", entry.name}, {"reason", entry.reason}});
    return array;
  };
  Ordered objects = Ordered::array();
  for (const auto& object : survey.objects) {
    Ordered entry;
    entry["name"] = object.plan.object;
    entry["records"] = object.records ? Ordered(*object.records) : Ordered(nullptr);
    entry["via"] = object.via;
    entry["mode"] = BackupPlanner::toText(object.plan.mode);
    entry["operation"] = object.plan.operation;
    entry["watermarkField"] =
        object.plan.watermarkField ? Ordered(*object.plan.watermarkField) : Ordered(nullptr);
    entry["fields"] = object.plan.fields;
    entry["fieldsLeftOut"] = reasons(object.fieldsLeftOut);
    entry["soql"] = object.plan.soql;
    objects.push_back(std::move(entry));
  }
  const auto& estimate = survey.estimate;
  Ordered out;
  out["username"] = survey.location.username;
  out["orgKey"] = survey.location.orgKey;
  out["folder"] = survey.location.folder().string();
  out["objects"] = std::move(objects);
  out["objectsLeftOut"] = reasons(survey.objectsLeftOut);
  out["space"] = Ordered{{"recordBytes", estimate.recordBytes},
                         {"fileBytes", estimate.fileBytes},
                         {"low", estimate.low},
                         {"expected", estimate.expected},
                         {"high", estimate.high},
                         {"free", estimate.free},
                         {"floor", survey.freeSpaceFloor},
                         {"verdict", BackupEstimator::toText(estimate.verdict)}};
  return out.dump(2) + "\n";
}

std::string statusText(const BackupLocation& location) {
  const auto status = BackupTask::status(location);
  std::string out;
  if (const auto& last = status.last; !last) {
    out += fmt::format("No backup of {} has finished yet in\n  {}\n", location.username,
                       location.folder().string());
  } else {
    out += fmt::format("Last backup of {}: {} ({}), {} to {}\n", location.username, last->kind,
                       last->result, last->startedAt, last->finishedAt);
    if (!last->message.empty()) out += "  " + last->message + "\n";
    out += fmt::format("  {} records, {} deleted, {} files ({} waiting), in {}\n",
                       grouped(last->records), grouped(last->deleted), last->files,
                       last->filesWaiting, last->folder);
  }
  const auto& runs = status.runs;
  if (!runs.empty()) out += "\nRecent runs:\n";
  const std::size_t from = runs.size() > 10 ? runs.size() - 10 : 0;
  for (std::size_t i = runs.size(); i-- > from;) {
    const auto& run = runs[i];
    out += fmt::format("  {:<18} {:<8} {:<9} {:>12} records  {} requests\n", run.folder,
                       toText(run.kind), run.result.empty() ? std::string("unfinished") : run.result,
                       grouped(run.records), run.apiRequests);
  }
  return out;
}

std::string statusJSON(const BackupLocation& location) {
  using Ordered = nlohmann::ordered_json;
  const auto status = BackupTask::status(location);
  Ordered last = nullptr;
  if (const auto& run = status.last) {
    last = Ordered{{"kind", run->kind},         {"result", run->result},
                   {"message", run->message},   {"startedAt", run->startedAt},
                   {"finishedAt", run->finishedAt}, {"records", run->records},
                   {"deleted", run->deleted},   {"files", run->files},
                   {"filesWaiting", run->filesWaiting}, {"bytes", run->bytes},
                   {"folder", run->folder}};
  }
  Ordered runs = Ordered::array();
  for (auto run = status.runs.rbegin(); run != status.runs.rend(); ++run) {
    runs.push_back(Ordered{{"id", run->id},
                           {"folder", run->folder},
                           {"kind", toText(run->kind)},
                           {"result", run->result.empty() ? Ordered(nullptr) : Ordered(run->result)},
                           {"startedAt", run->startedAt},
                           {"finishedAt", run->finishedAt},
                           {"records", run->records},
                           {"deleted", run->deleted},
                           {"files", run->files},
                           {"apiRequests", run->apiRequests}});
  }
  return Ordered{{"username", location.username},
                 {"folder", location.folder().string()},
                 {"lastRun", std::move(last)},
                 {"runs", std::move(runs)}}
             .dump(2) +
         "\n";
}

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

BackupLocation locationOf(const Org& org, const std::string& root) {
  return {root.empty() ? BackupLocation::defaultRoot() : std::filesystem::path(root),
          org.orgId.value_or("unknown-org"), org.username};
}

SalesforceAPI::Client apiOf(CommandContext& context) {
  return SalesforceAPI::Client(
      [&context](const std::string& username) { return context.cli.session(username); });
}

void planBackup(CommandContext& context, const Arguments& arguments) {
  const Org org = context.login(arguments.login);
  auto api = apiOf(context);
  APITransport transport(api, org);
  BackupConfig config;
  config.location = locationOf(org, arguments.root);
  config.options = arguments.options;
  if (!arguments.only.empty()) config.options.onlyObjects = arguments.only;
  const auto result = BackupTask::plan(transport, config, BackupTask::freeSpaceOnDisk, {});
  context.out << (arguments.json ? json(result) : text(result));
  context.out.flush();
}

void runBackup(CommandContext& context, const Arguments& arguments) {
  const Org org = context.login(arguments.login);
  auto api = apiOf(context);
  APITransport transport(api, org);
  BackupConfig config;
  config.location = locationOf(org, arguments.root);
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
  context.out << (arguments.json ? summary.json() : summary.text());
  context.out.flush();
  if (!summary.succeeded()) throw BackupIncomplete(summary);
}

void showStatus(CommandContext& context, const Arguments& arguments) {
  const auto location = locationOf(context.login(arguments.login), arguments.root);
  context.out << (arguments.json ? statusJSON(location) : statusText(location));
  context.out.flush();
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
    command->callback([&context, &chosen, arguments, work] {
      chosen = [&context, arguments, work] { work(context, *arguments); };
    });
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
