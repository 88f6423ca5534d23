#include "backup/backup_task.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <set>

#include "connections/ascii.hpp"
#include "platform/volume_info.hpp"

namespace corvane {

BackupIncomplete::BackupIncomplete(const RunSummary& summary)
    : UserFacingError(summary.result == RunResult::stopped
                          ? "The backup did not finish. Run the same command again and it "
                            "carries on where it stopped."
                          : "The backup did not finish."),
      stopped_(summary.result == RunResult::stopped) {}

namespace BackupTask {

namespace {

using Ascii::lowered;

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

}  // namespace

Survey plan(BackupTransport& transport, const BackupConfig& config, const FreeSpace& freeSpace,
            std::stop_token stop, const PlanProgressHandler& onProgress) {
  Survey result;
  result.location = config.location;
  result.freeSpaceFloor = config.freeSpaceFloor;
  const auto& options = config.options;

  report(onProgress, PlanPhase::listingObjects);
  const auto global =
      BackupPlanner::GlobalObject::parse(transport.send("GET", "/sobjects/", {}, std::nullopt));
  const auto chosen = BackupPlanner::objects(global, options);
  const std::set<std::string> chosenSet(chosen.begin(), chosen.end());
  for (const auto& object : global) {
    if (chosenSet.count(object.name) != 0) continue;
    if (auto reason = objectReason(object, options))
      result.objectsLeftOut.push_back({object.name, *reason});
  }

  throwIfStopped(stop);
  report(onProgress, PlanPhase::countingRecords, 0, static_cast<std::int64_t>(chosen.size()));
  auto counts = BackupEstimator::recordCounts(transport, chosen);
  std::vector<BackupEstimator::ObjectSize> sizes;
  std::int64_t done = 0;
  for (const auto& name : chosen) {
    throwIfStopped(stop);
    report(onProgress, PlanPhase::describing, done++, static_cast<std::int64_t>(chosen.size()),
           name);
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

  throwIfStopped(stop);
  report(onProgress, PlanPhase::measuringFiles);
  const std::int64_t files =
      config.downloadFileBodies
          ? BackupEstimator::fileBytes(transport, config.latestFileVersionsOnly)
          : 0;
  const std::int64_t free = freeSpace(existingAncestor(config.location.folder()));
  result.estimate = BackupEstimator::estimate(sizes, files, free, config.freeSpaceFloor);
  report(onProgress, PlanPhase::finished, done, done);
  return result;
}

std::int64_t freeSpaceOnDisk(const std::filesystem::path& folder) {
  return static_cast<std::int64_t>(VolumeInfo::freeBytes(existingAncestor(folder)));
}

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

RunSummary run(BackupTransport& transport, BackupConfig config, RunKind kind,
               std::stop_token stop, const std::function<void(const BackupProgress&)>& onProgress) {
  auto runner = makeRunner(transport, std::move(config), [&onProgress](const BackupProgress& p) {
    if (onProgress) onProgress(p);
  });
  runner->setShouldStop([stop] { return stop.stop_requested(); });
  return runner->run(kind);
}

Status status(const BackupLocation& location) {
  Status status;
  status.last = LastRun::read(location);
  if (std::filesystem::exists(location.databaseURL())) status.runs = BackupStore(location).runs();
  return status;
}

}  // namespace BackupTask

}  // namespace corvane
