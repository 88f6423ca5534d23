// A backup set: the user's standing order to back up one org, and its JSON
// form in backup-sets.json.
//
// Absent optional fields mean "the default" and are left out of the JSON, so
// a file written by an older version stays readable and defaults can change.
// schedule and retention use the keyed union form: {"daily":{"hour":2,"minute":30}},
// {"keepLastFulls":{"_0":3}}, {"keepEverything":{}}. Times are ISO 8601 text.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "backup/backup_config.hpp"
#include "backup/retention.hpp"
#include "platform/iso_time.hpp"
#include "scheduling/backup_schedule.hpp"

namespace corvane {

struct BackupSet {
  std::string orgKey;
  std::string username;  // one set per username
  std::optional<std::string> orgName;
  std::optional<std::string> rootPath;  // none: the default backup root
  std::optional<bool> includeFiles;
  std::optional<bool> allFileVersions;
  std::optional<bool> includeHistoryAndFeed;
  std::optional<bool> includeFormulaFields;
  std::optional<std::vector<std::string>> extraObjects;
  std::optional<std::vector<std::string>> excludedObjects;
  std::optional<std::vector<std::string>> onlyObjects;
  std::optional<BackupSchedule> schedule;
  std::optional<BackupSchedule::FullEvery> fullEvery;
  std::optional<Retention::Policy> retention;
  std::optional<SystemTime> created;
  std::optional<SystemTime> lastSuccessAt;

  // The schedule in force: manual when none is stored.
  BackupSchedule effectiveSchedule() const { return schedule.value_or(BackupSchedule::manual()); }
  BackupSchedule::FullEvery effectiveFullEvery() const {
    return fullEvery.value_or(BackupSchedule::FullEvery::weekly);
  }
  bool hasSchedule() const { return effectiveSchedule().kind != BackupSchedule::Kind::manual; }

  // Where this set's backups go: rootPath, else `defaultRoot`.
  BackupLocation location(const std::filesystem::path& defaultRoot) const;
  // The run's input for this set, with the defaults of BackupConfig elsewhere.
  BackupConfig config(const std::filesystem::path& defaultRoot) const;

  bool operator==(const BackupSet&) const = default;
};

// Throw nlohmann::json::exception (or std::invalid_argument for values out of
// range) on a malformed set; unknown keys are ignored.
void to_json(nlohmann::json& json, const BackupSet& set);
void from_json(const nlohmann::json& json, BackupSet& set);
void to_json(nlohmann::json& json, const BackupSchedule& schedule);
void from_json(const nlohmann::json& json, BackupSchedule& schedule);

}  // namespace corvane
