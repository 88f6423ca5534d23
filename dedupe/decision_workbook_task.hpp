// The entry points for the decision workbook of a snapshot's duplicate
// groups: writing it, and reading the decisions back.
//
// The export remembers its groups in the snapshot, so the decisions are read
// against exactly the groups the workbook was made from, even after records
// were marked "not a duplicate". A snapshot exported by an older version is
// matched again with the settings given. Each call blocks and prints nothing.
#pragma once

#include <cstddef>
#include <filesystem>
#include <stop_token>
#include <vector>

#include "dedupe/decision_workbook.hpp"
#include "dedupe/dedupe_error.hpp"
#include "dedupe/dedupe_task.hpp"
#include "dedupe/keeper_rules.hpp"
#include "dedupe/match_settings.hpp"

namespace corvane::DecisionWorkbookTask {

struct ExportRequest {
  MatchSettings settings;
  KeeperRule keeper = KeeperRule::oldest;  // suggests each group's keeper
};

struct ExportOutcome {
  std::vector<DecisionWorkbook::DecidedGroup> groups;  // as written
  std::size_t recordCount = 0;                         // records in the groups
};

// Matches the snapshot, writes the workbook with each group's suggested
// keeper, and remembers the groups in the snapshot. Reports matching, then
// writing (item: the workbook). Throws noGroups, writing nothing, when no
// group is found, and stopped, writing nothing, on a stop request.
ExportOutcome exportWorkbook(const std::filesystem::path& snapshot,
                             const std::filesystem::path& workbook, const ExportRequest& request,
                             std::stop_token stop, const DedupeProgressHandler& onProgress = {});

// The groups the last export of this snapshot wrote; when it has none, the
// groups a match with settings finds now.
std::vector<DecisionWorkbook::DecidedGroup> exportedGroups(const std::filesystem::path& snapshot,
                                                           const MatchSettings& settings,
                                                           std::stop_token stop = {});

// Reads a workbook back against the snapshot's exported groups. Go on only
// when problems is empty.
DecisionWorkbook::Decisions readDecisions(const std::filesystem::path& snapshot,
                                          const std::filesystem::path& workbook,
                                          const MatchSettings& settings,
                                          std::stop_token stop = {});

}  // namespace corvane::DecisionWorkbookTask
