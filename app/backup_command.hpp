// `corvane backup plan LOGIN [--json]`: what a backup of the login's org would
// take, without copying anything: the objects and their fields, what is left
// out and why, how many records each holds, and whether it fits on the disk.
// `corvane backup run LOGIN`: takes the backup (Ctrl-C stops it cleanly; the
// next run carries on). `corvane backup status LOGIN`: the last run and the recent ones.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/orgs_command.hpp"
#include "backup/backup_config.hpp"
#include "backup/backup_estimator.hpp"
#include "backup/backup_planner.hpp"
#include "backup/backup_runner.hpp"
#include "connections/backup_transport.hpp"

namespace CLI {
class App;
}

namespace corvane::BackupCommand {

// Adds "backup" and its subcommands to app; when chosen, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

// A name and why it is not in the copy.
struct LeftOut {
  std::string name;
  std::string reason;
  bool operator==(const LeftOut&) const = default;
};

struct PlannedObject {
  BackupPlanner::ObjectPlan plan;
  std::optional<std::int64_t> records;  // none when Salesforce would not say
  std::vector<LeftOut> fieldsLeftOut;
  std::string via;  // "rest" or "bulk"
};

struct Survey {
  BackupLocation location;
  std::vector<PlannedObject> objects;
  std::vector<LeftOut> objectsLeftOut;
  std::int64_t freeSpaceFloor = 0;
  BackupEstimator::Estimate estimate;
};

// Bytes free on the disk that holds a folder.
using FreeSpace = std::function<std::int64_t(const std::filesystem::path&)>;

// Asks the org what it holds and plans a full copy with config's options,
// through transport. Objects Salesforce will not describe are left out with
// the reason; other failures of the org (a signed-out login) are thrown.
Survey survey(BackupTransport& transport, const BackupConfig& config, const FreeSpace& freeSpace);

// A runner for config through transport, measuring the real disk.
std::unique_ptr<BackupRunner> makeRunner(BackupTransport& transport, BackupConfig config,
                                         std::function<void(const BackupProgress&)> progress);

// The last run of the backup at location and its recent runs, for a person.
std::string statusText(const BackupLocation& location);

// The screen text, and the same as one JSON object.
std::string text(const Survey& survey);
std::string json(const Survey& survey);

}  // namespace corvane::BackupCommand
