// A run's whole input besides the transport: where the backup lives, what it
// takes, and the limits it keeps to.
#pragma once

#include <cstdint>
#include <string>

#include "backup/backup_location.hpp"
#include "backup/backup_planner.hpp"
#include "backup/retention.hpp"

namespace corvane {

struct BackupConfig {
  BackupLocation location;
  // Used in every REST path.
  std::string apiVersion = "62.0";
  BackupPlanner::Options options;
  // Only the latest version of each document is downloaded: earlier versions
  // rarely matter and can be many times the size.
  bool latestFileVersionsOnly = true;
  bool downloadFileBodies = true;
  // A fifth of the org's daily API allowance is left for the org's other
  // integrations and its admins; below it the run stops fetching.
  double minimumApiRemaining = 0.2;
  // The allowance is read again after this many requests.
  int allowanceRecheckEvery = 200;
  // Deletions of one object are checked at most once a day.
  double purgeCheckInterval = 24 * 60 * 60;
  // Id-list jobs (deletion checks by comparing ids) one run may start.
  int maxIdJobsPerRun = 20;
  // Records per REST page: Salesforce's largest.
  int pageSize = 2000;
  // Rows asked for per page of a bulk query job's results.
  int bulkPageSize = 50'000;
  // Objects with at most this many records are read over REST; larger ones in
  // bulk, where one job costs a few requests whatever the size.
  int restThreshold = 10'000;
  // Objects read at the same time; Salesforce runs a few bulk jobs at once well.
  int objectsAtOnce = 3;
  // Bytes that must stay free on the backup disk: 1 GB, so that the system
  // and other programs never find a full disk because of a backup.
  std::int64_t freeSpaceFloor = 1'000'000'000;
  Retention::Policy retention = Retention::Policy::standard();

  bool operator==(const BackupConfig&) const = default;
};

}  // namespace corvane
