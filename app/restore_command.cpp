#include "app/restore_command.hpp"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/interrupt_stop.hpp"
#include "app/production_guard.hpp"
#include "backup/restore_results.hpp"
#include "backup/restore_task.hpp"
#include "connections/api_transport.hpp"

namespace corvane::RestoreCommand {

namespace {

using RestoreTask::Record;

BackupLocation locationOf(const Org& org, const std::string& root) {
  return {root.empty() ? BackupLocation::defaultRoot() : std::filesystem::path(root),
          org.orgId.value_or("unknown-org"), org.username};
}

// "Name: Acme → Acme Corp", for an update's changes.
std::string changesText(const Record& record) {
  std::string text;
  for (const auto& change : record.changes)
    text += fmt::format("{}{}: \"{}\" -> \"{}\"", text.empty() ? "" : "; ", change.field,
                        change.from, change.to);
  return text;
}

std::string detailOf(const Record& record) {
  std::string text;
  auto add = [&text](const std::string& piece) {
    if (!piece.empty()) text += (text.empty() ? "" : " ") + piece;
  };
  if (record.action == Record::Action::update) add(changesText(record));
  if (!record.parentId.empty()) add("(a document of " + record.parentId + ")");
  add(record.message.empty() ? record.reason : record.message);
  if (!record.unresolved.empty()) {
    std::string fields;
    for (const auto& field : record.unresolved) fields += (fields.empty() ? "" : ", ") + field;
    add("Left empty, pointing at a record neither live nor restored: " + fields + ".");
  }
  return text;
}

nlohmann::ordered_json recordJson(const Record& record, bool ran) {
  nlohmann::ordered_json entry{{"id", record.id},
                               {"object", record.object},
                               {"action", RestoreTask::actionText(record.action)}};
  if (record.action == Record::Action::skip) entry["reason"] = record.reason;
  if (record.action == Record::Action::update) {
    auto changes = nlohmann::ordered_json::array();
    for (const auto& change : record.changes)
      changes.push_back({{"field", change.field}, {"from", change.from}, {"to", change.to}});
    entry["changes"] = std::move(changes);
  }
  entry["unresolved"] = record.unresolved;
  if (ran) {
    entry["newId"] = record.newId.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(record.newId);
    entry["result"] = record.result.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(record.result);
    entry["message"] = record.message.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(record.message);
  }
  return entry;
}

// How many of each action the plan holds: "3 undelete, 40 create".
std::string countsText(const RestoreTask::Plan& plan) {
  std::size_t counts[4] = {0, 0, 0, 0};
  for (const auto& record : plan.records) ++counts[static_cast<int>(record.action)];
  std::string text;
  const char* names[4] = {"to undelete", "to create", "to update", "skipped"};
  for (int i = 0; i < 4; ++i)
    if (counts[i] > 0) text += fmt::format("{}{} {}", text.empty() ? "" : ", ", counts[i], names[i]);
  return text.empty() ? "nothing" : text;
}

std::string retryText(std::size_t refused) {
  const bool one = refused == 1;
  return fmt::format("{} {} Salesforce refused in an earlier run {} left alone; --retry-failed "
                     "sends {} again.\n",
                     refused, one ? "record" : "records", one ? "was" : "were", one ? "it" : "them");
}

// Records done of all and the rate, on standard error, at most once a batch.
class ProgressReport {
 public:
  void operator()(const RestoreTask::Progress& progress) {
    using Phase = RestoreTask::Phase;
    if (progress.phase != Phase::undeleting && progress.phase != Phase::creating &&
        progress.phase != Phase::updating && progress.phase != Phase::uploading)
      return;
    if (progress.total < 200 || progress.done == 0) return;
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    std::cerr << fmt::format("Restored {} of {} records ({:.0f} records/s), now {}...\n",
                             progress.done, progress.total,
                             seconds > 0 ? static_cast<double>(progress.done) / seconds : 0.0,
                             progress.current)
              << std::flush;
  }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace

void restore(CommandContext& context, SalesforceAPI::Client& api, const Arguments& arguments) {
  const Org org = context.login(arguments.login);
  RestoreTask::Request request;
  request.location = locationOf(org, arguments.root);
  request.object = arguments.object;
  request.deleted = arguments.deleted;
  request.ids = arguments.ids;
  request.fields = arguments.fields;
  request.withChildren = arguments.withChildren;
  request.retryFailed = arguments.retryFailed;
  request.from = arguments.from;
  request.asOf = arguments.asOf;
  APITransport transport(api, org);
  auto& out = context.out;

  if (arguments.dryRun) {
    const auto plan = RestoreTask::plan(transport, request);
    if (arguments.json) {
      auto records = nlohmann::ordered_json::array();
      for (const auto& record : plan.records) records.push_back(recordJson(record, false));
      out << nlohmann::ordered_json{{"username", org.username},
                                    {"folder", plan.folder},
                                    {"dryRun", true},
                                    {"records", std::move(records)}}
                 .dump(2)
          << '\n';
    } else {
      out << "From the backup " << plan.folder << ":\n";
      for (const auto& record : plan.records)
        out << RestoreTask::actionText(record.action) << '\t' << record.object << '\t' << record.id
            << '\t' << detailOf(record) << '\n';
      out << "Plan: " << countsText(plan) << ". Nothing was written (--dry-run).\n";
    }
    out.flush();
    return;
  }

  // Asked before anything is written, with what is at stake.
  {
    const auto plan = RestoreTask::plan(transport, request);
    if (plan.toWrite() == 0) {
      if (arguments.json) {
        auto records = nlohmann::ordered_json::array();
        for (const auto& record : plan.records) records.push_back(recordJson(record, true));
        out << nlohmann::ordered_json{{"username", org.username},
                                      {"folder", plan.folder},
                                      {"dryRun", false},
                                      {"nothingLeft", true},
                                      {"records", std::move(records)}}
                   .dump(2)
            << '\n';
      } else {
        out << "Nothing is left to restore: every " << arguments.object
            << " record asked for is live, restored earlier, or cannot be restored ("
            << countsText(plan) << ").\n";
        const auto refused = std::count_if(plan.records.begin(), plan.records.end(),
                                           [](const Record& r) { return r.result == "failedEarlier"; });
        if (refused > 0) out << retryText(static_cast<std::size_t>(refused));
      }
      out.flush();
      return;
    }
    ProductionGuard::confirm(org, "restore " + countsText(plan) + " " + arguments.object +
                                      " records (and their children) from the backup " +
                                      plan.folder,
                             arguments.json ? std::cerr : out);
  }

  InterruptStop interrupt(true);
  ProgressReport progress;
  const auto result = RestoreTask::run(transport, request, interrupt.token(),
                                       [&progress](const RestoreTask::Progress& p) { progress(p); });
  std::optional<std::filesystem::path> failures;
  if (!arguments.results.empty()) {
    RestoreResults::writeWorkbook(arguments.results, result.plan);
  } else {
    failures = RestoreResults::writeFailures(result.journal.parent_path(), arguments.object,
                                             result.plan);
  }
  if (arguments.json) {
    auto records = nlohmann::ordered_json::array();
    for (const auto& record : result.plan.records) records.push_back(recordJson(record, true));
    out << nlohmann::ordered_json{
               {"username", org.username},
               {"folder", result.plan.folder},
               {"dryRun", false},
               {"restored", result.restored},
               {"failed", result.failed},
               {"failedEarlier", result.failedEarlier},
               {"stopped", result.stopped},
               {"failures", failures ? nlohmann::ordered_json(failures->string())
                                     : nlohmann::ordered_json()},
               {"records", std::move(records)}}
               .dump(2)
        << '\n';
  } else {
    for (const auto& record : result.plan.records) {
      if (record.action == Record::Action::skip && record.result.empty()) continue;
      out << (record.result.empty() ? "skip" : record.result) << '\t' << record.object << '\t'
          << record.id << '\t' << (record.newId.empty() ? "-" : record.newId) << '\t'
          << detailOf(record) << '\n';
    }
    out << fmt::format("{} restored, {} failed", result.restored, result.failed);
    if (result.earlier > 0) out << fmt::format(", {} restored earlier", result.earlier);
    out << ".\n";
    if (result.failedEarlier > 0) out << retryText(result.failedEarlier);
    if (result.stopped)
      out << "Stopped before the end, as asked. Run the same command again to go on; nothing "
             "is restored twice.\n";
    if (failures) out << "The failures are in " << failures->string() << ".\n";
    if (!arguments.results.empty()) out << "Every record's outcome is in " << arguments.results << ".\n";
  }
  out.flush();
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
      SalesforceAPI::Client api(
          [&context](const std::string& username) { return context.cli.session(username); });
      restore(context, api, *arguments);
    };
  });
}

}  // namespace corvane::RestoreCommand
