#include "app/backup_command.hpp"

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <map>
#include <mutex>
#include <set>

#include "app/progress_line.hpp"
#include "backup/backup_error.hpp"
#include "backup/backup_runner.hpp"
#include "backup/last_run.hpp"
#include "connections/api_transport.hpp"
#include "platform/volume_info.hpp"

namespace corvane::BackupCommand {

namespace {

std::string lowered(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

std::string fieldReason(const BackupPlanner::Field& field) {
  const std::string type = lowered(field.type);
  if (type == "address" || type == "location")
    return "A compound field: its parts are copied one by one.";
  if (type == "base64") return "A file body: bodies go to the Files folder, not into CSV.";
  return "A formula field: Salesforce works its value out, so it cannot be loaded back.";
}

// Why an object of the org is not among the chosen ones, or none when it is
// not worth telling (hidden, not readable, or outside an only-list).
std::optional<std::string> objectReason(const BackupPlanner::GlobalObject& object,
                                        const BackupPlanner::Options& options) {
  const std::string name = lowered(object.name);
  auto named = [&](const std::vector<std::string>& list) {
    return std::any_of(list.begin(), list.end(),
                       [&](const std::string& entry) { return lowered(entry) == name; });
  };
  if (!object.queryable || object.deprecatedAndHidden) return std::nullopt;
  if (options.onlyObjects && !named(*options.onlyObjects)) return std::nullopt;
  for (auto refused : BackupPlanner::bulkRefused) {
    if (lowered(refused) == name) return BackupPlanner::bulkRefusedReason;
  }
  if (named(options.excludedObjects)) return "Left out by this backup's settings.";
  if (!object.replicateable) return std::nullopt;
  if (BackupPlanner::isHistoryOrFeed(object.name))
    return "History and feed objects are left out unless they are asked for.";
  return std::nullopt;
}

std::optional<std::int64_t> countRows(BackupTransport& transport,
                                      const BackupPlanner::ObjectPlan& plan,
                                      const std::string& apiVersion) {
  try {
    const auto body = transport.send(
        "GET", BackupPlanner::countPath(plan.soql, plan.operation, apiVersion), {}, std::nullopt);
    const auto answer = nlohmann::json::parse(body);
    return answer.at("totalSize").get<std::int64_t>();
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

// The nearest folder that exists at or above path: the backup folder may not
// have been made yet.
std::filesystem::path existingAncestor(std::filesystem::path path) {
  std::error_code error;
  while (!path.empty() && !std::filesystem::exists(path, error)) {
    if (path == path.parent_path()) break;
    path = path.parent_path();
  }
  return path.empty() ? std::filesystem::current_path() : path;
}

std::string grouped(std::int64_t value) {
  std::string digits = std::to_string(value < 0 ? -value : value);
  for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3)
    digits.insert(static_cast<std::size_t>(at), ",");
  return value < 0 ? "-" + digits : digits;
}

}  // namespace

Survey survey(BackupTransport& transport, const BackupConfig& config, const FreeSpace& freeSpace) {
  Survey result;
  result.location = config.location;
  result.freeSpaceFloor = config.freeSpaceFloor;
  const auto& options = config.options;

  const auto global =
      BackupPlanner::GlobalObject::parse(transport.send("GET", "/sobjects/", {}, std::nullopt));
  const auto chosen = BackupPlanner::objects(global, options);
  const std::set<std::string> chosenSet(chosen.begin(), chosen.end());
  for (const auto& object : global) {
    if (chosenSet.count(object.name) != 0) continue;
    if (auto reason = objectReason(object, options))
      result.objectsLeftOut.push_back({object.name, *reason});
  }

  auto counts = BackupEstimator::recordCounts(transport, chosen);
  std::vector<BackupEstimator::ObjectSize> sizes;
  for (const auto& name : chosen) {
    BackupPlanner::Describe describe;
    try {
      describe = BackupPlanner::Describe::parse(
          transport.send("GET", "/sobjects/" + name + "/describe", {}, std::nullopt));
    } catch (const std::exception&) {
      result.objectsLeftOut.push_back({name, BackupPlanner::notDescribedReason});
      continue;
    }
    PlannedObject planned;
    planned.plan = BackupPlanner::plan(describe, options, std::nullopt);
    const auto kept = BackupPlanner::selected(describe, options);
    for (const auto& field : describe.fields) {
      if (std::find(kept.begin(), kept.end(), field) == kept.end())
        planned.fieldsLeftOut.push_back({field.name, fieldReason(field)});
    }
    if (auto it = counts.find(name); it != counts.end())
      planned.records = it->second;
    else
      planned.records = countRows(transport, planned.plan, config.apiVersion);
    planned.via = planned.records && *planned.records <= config.restThreshold ? "rest" : "bulk";
    sizes.push_back({planned.records.value_or(0), static_cast<int>(planned.plan.fields.size())});
    result.objects.push_back(std::move(planned));
  }
  std::sort(result.objectsLeftOut.begin(), result.objectsLeftOut.end(),
            [](const LeftOut& a, const LeftOut& b) { return a.name < b.name; });

  const std::int64_t files =
      config.downloadFileBodies
          ? BackupEstimator::fileBytes(transport, config.latestFileVersionsOnly)
          : 0;
  const std::int64_t free = freeSpace(existingAncestor(config.location.folder()));
  result.estimate = BackupEstimator::estimate(sizes, files, free, config.freeSpaceFloor);
  return result;
}

std::string text(const Survey& survey) {
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

std::string json(const Survey& survey) {
  using Ordered = nlohmann::ordered_json;
  auto reasons = [](const std::vector<LeftOut>& list) {
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

namespace {

std::atomic<bool> stopRequested{false};

extern "C" void requestStop(int) { stopRequested.store(true); }

// Ctrl-C stops the run cleanly, while it lasts: the next run resumes it.
class StopOnInterrupt {
 public:
  StopOnInterrupt() {
    stopRequested.store(false);
    previous_ = std::signal(SIGINT, requestStop);
  }
  ~StopOnInterrupt() { std::signal(SIGINT, previous_); }
  StopOnInterrupt(const StopOnInterrupt&) = delete;
  StopOnInterrupt& operator=(const StopOnInterrupt&) = delete;

 private:
  void (*previous_)(int);
};

}  // namespace

std::unique_ptr<BackupRunner> makeRunner(BackupTransport& transport, BackupConfig config,
                                         std::function<void(const BackupProgress&)> progress) {
  return std::make_unique<BackupRunner>(
      transport, std::move(config),
      [](const std::filesystem::path& folder) -> std::optional<std::int64_t> {
        try {
          return static_cast<std::int64_t>(VolumeInfo::freeBytes(existingAncestor(folder)));
        } catch (const std::exception&) {
          return std::nullopt;
        }
      },
      [](const std::filesystem::path& folder) -> std::optional<BackupFileSystem> {
        try {
          BackupFileSystem system;
          system.typeName = VolumeInfo::fileSystemName(folder);
          system.maximumFileSize = VolumeInfo::largestFileSizeOf(system.typeName);
          return system;
        } catch (const std::exception&) {
          return std::nullopt;
        }
      },
      std::chrono::milliseconds(500), [] { return std::chrono::system_clock::now(); },
      std::map<std::string, std::string>{}, std::move(progress));
}

std::string statusText(const BackupLocation& location) {
  std::string out;
  auto last = LastRun::read(location);
  if (!last) {
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
  if (std::filesystem::exists(location.databaseURL())) {
    BackupStore store(location);
    auto runs = store.runs();
    if (!runs.empty()) out += "\nRecent runs:\n";
    const std::size_t from = runs.size() > 10 ? runs.size() - 10 : 0;
    for (std::size_t i = runs.size(); i-- > from;) {
      const auto& run = runs[i];
      out += fmt::format("  {:<18} {:<8} {:<9} {:>12} records  {} requests\n", run.folder,
                         toText(run.kind),
                         run.result.empty() ? std::string("unfinished") : run.result,
                         grouped(run.records), run.apiRequests);
    }
  }
  return out;
}

namespace {

struct RunArguments {
  std::string login;
  std::string kind = "full";
  std::string root;
  bool files = true;
  bool noFiles = false;
  bool json = false;
  std::vector<std::string> only;
};

struct PlanArguments {
  std::string login;
  bool json = false;
  std::string root;
  BackupPlanner::Options options;
  std::vector<std::string> only;
};

}  // namespace

void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen) {
  CLI::App* backup = app.add_subcommand("backup", "Back up an org's records to dated CSV folders");
  backup->require_subcommand(1);
  CLI::App* plan = backup->add_subcommand(
      "plan", "Show what a backup would take and whether it fits, without copying anything");
  auto arguments = std::make_shared<PlanArguments>();
  plan->add_option("LOGIN", arguments->login, "A username or alias")->required();
  plan->add_flag("--json", arguments->json, "Print the plan as one JSON object");
  plan->add_option("--root", arguments->root,
                   "The folder that holds the backups (default: Backups in the app's folder)");
  plan->add_flag("--include-history-and-feed", arguments->options.includeHistoryAndFeed,
                 "Also copy history and feed objects");
  plan->add_flag("--include-formula-fields", arguments->options.includeFormulaFields,
                 "Also copy formula fields");
  plan->add_option("--extra", arguments->options.extraObjects, "Objects to add")->delimiter(',');
  plan->add_option("--exclude", arguments->options.excludedObjects, "Objects to leave out")
      ->delimiter(',');
  plan->add_option("--only", arguments->only, "Copy only these objects")->delimiter(',');
  plan->callback([&context, &chosen, arguments] {
    chosen = [&context, arguments] {
      auto orgs = context.cli.listOrgs(true, context.listTimeout);
      const Org& org = OrgsCommand::findLogin(orgs, arguments->login);
      SalesforceAPI::Client api(
          [&context](const std::string& username) { return context.cli.session(username); });
      APITransport transport(api, org);
      BackupConfig config;
      config.location = {arguments->root.empty() ? BackupLocation::defaultRoot()
                                                 : std::filesystem::path(arguments->root),
                         org.orgId.value_or("unknown-org"), org.username};
      config.options = arguments->options;
      if (!arguments->only.empty()) config.options.onlyObjects = arguments->only;
      auto result = survey(transport, config, [](const std::filesystem::path& folder) {
        return static_cast<std::int64_t>(VolumeInfo::freeBytes(folder));
      });
      context.out << (arguments->json ? json(result) : text(result));
      context.out.flush();
    };
  });

  auto rootOf = [](const std::string& root) {
    return root.empty() ? BackupLocation::defaultRoot() : std::filesystem::path(root);
  };

  CLI::App* run = backup->add_subcommand(
      "run", "Take a backup into a new dated folder, or carry on with the unfinished one");
  auto runArguments = std::make_shared<RunArguments>();
  run->add_option("LOGIN", runArguments->login, "A username or alias")->required();
  run->add_option("--kind", runArguments->kind, "full (every record) or changes (what changed)")
      ->check(CLI::IsMember({"full", "changes"}));
  run->add_option("--root", runArguments->root,
                  "The folder that holds the backups (default: Backups in the app's folder)");
  run->add_flag("--files", runArguments->files, "Download document bodies (the default)");
  run->add_flag("--no-files", runArguments->noFiles, "Leave document bodies for a later backup");
  run->add_option("--only", runArguments->only, "Copy only these objects")->delimiter(',');
  run->add_flag("--json", runArguments->json, "Print the summary as one JSON object");
  run->callback([&context, &chosen, runArguments, rootOf] {
    chosen = [&context, runArguments, rootOf] {
      auto orgs = context.cli.listOrgs(true, context.listTimeout);
      const Org& org = OrgsCommand::findLogin(orgs, runArguments->login);
      SalesforceAPI::Client api(
          [&context](const std::string& username) { return context.cli.session(username); });
      APITransport transport(api, org);
      BackupConfig config;
      config.location = {rootOf(runArguments->root), org.orgId.value_or("unknown-org"),
                         org.username};
      config.downloadFileBodies = !runArguments->noFiles;
      if (!runArguments->only.empty()) config.options.onlyObjects = runArguments->only;
      const bool terminal = ::isatty(STDERR_FILENO) != 0;
      winsize size{};
      const int width = terminal && ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
      ProgressLine progressLine(terminal, width);
      std::mutex progressMutex;  // guards progressLine: progress comes from the copying threads
      auto started = std::chrono::steady_clock::now();
      auto report = [&](const BackupProgress& progress) {
        if (runArguments->json) return;
        const double at =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        std::lock_guard guard(progressMutex);
        if (auto bytes = progressLine.accept(progress, at)) {
          std::fputs(bytes->c_str(), stderr);
          std::fflush(stderr);
        }
      };
      auto runner = makeRunner(transport, config, report);
      StopOnInterrupt interrupt;
      runner->setShouldStop([] { return stopRequested.load(); });
      auto summary = runner->run(runArguments->kind == "changes" ? RunKind::changes
                                                                 : RunKind::full);
      std::fputs(progressLine.finish().c_str(), stderr);
      context.out << (runArguments->json ? summary.json() : summary.text());
      context.out.flush();
      if (!summary.succeeded())
        throw UserFacingError(summary.result == RunResult::stopped
                                  ? "The backup did not finish. Run the same command again and "
                                    "it carries on where it stopped."
                                  : "The backup did not finish.");
    };
  });

  CLI::App* status =
      backup->add_subcommand("status", "Show the last backup of a login and its recent runs");
  auto statusArguments = std::make_shared<RunArguments>();
  status->add_option("LOGIN", statusArguments->login, "A username or alias")->required();
  status->add_option("--root", statusArguments->root,
                     "The folder that holds the backups (default: Backups in the app's folder)");
  status->callback([&context, &chosen, statusArguments, rootOf] {
    chosen = [&context, statusArguments, rootOf] {
      auto orgs = context.cli.listOrgs(true, context.listTimeout);
      const Org& org = OrgsCommand::findLogin(orgs, statusArguments->login);
      BackupLocation location{rootOf(statusArguments->root), org.orgId.value_or("unknown-org"),
                              org.username};
      context.out << statusText(location);
      context.out.flush();
    };
  });
}

}  // namespace corvane::BackupCommand
