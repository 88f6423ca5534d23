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
#include <optional>
#include <string>
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
  // A snapshot of another object of the same org (Contacts for a snapshot
  // of Leads): the records already there are marked (CrossMatchTask).
  std::optional<std::filesystem::path> against;
};

struct ExportOutcome {
  std::vector<DecisionWorkbook::DecidedGroup> groups;  // as written
  std::size_t recordCount = 0;                         // records in the groups
  // With against: the records already there, and the other object's label.
  std::vector<DecisionWorkbook::AlreadyThere> already;
  std::string otherLabel;
};

// Matches the snapshot (and against the other snapshot when asked), writes
// the workbook with each group's suggested keeper and the records already
// there, and remembers both in the snapshot. Reports matching, then writing
// (item: the workbook). Throws noGroups, writing nothing, when nothing is
// found, CrossMatchError for snapshots that cannot be matched, and stopped,
// writing nothing, on a stop request.
ExportOutcome exportWorkbook(const std::filesystem::path& snapshot,
                             const std::filesystem::path& workbook, const ExportRequest& request,
                             std::stop_token stop, const DedupeProgressHandler& onProgress = {});

// The groups the last export of this snapshot wrote; when it has none, the
// groups a match with settings finds now.
std::vector<DecisionWorkbook::DecidedGroup> exportedGroups(const std::filesystem::path& snapshot,
                                                           const MatchSettings& settings,
                                                           std::stop_token stop = {});

// The Ids of the records the last export marked as already there as records
// of another object; none when it marked none.
std::vector<std::string> exportedAlready(const std::filesystem::path& snapshot);

// The records the last export marked as already there, and the other object.
struct ExportedAlready {
  std::vector<DecisionWorkbook::MarkedAlready> records;
  std::string otherLabel;  // "Contact"; empty for an export by an older version
};
ExportedAlready exportedAlreadyThere(const std::filesystem::path& snapshot);

// Reads a workbook back against the snapshot's exported groups and records
// already there. Go on only when problems is empty.
DecisionWorkbook::Decisions readDecisions(const std::filesystem::path& snapshot,
                                          const std::filesystem::path& workbook,
                                          const MatchSettings& settings,
                                          std::stop_token stop = {});

}  // namespace corvane::DecisionWorkbookTask
