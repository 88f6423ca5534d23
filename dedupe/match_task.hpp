// The entry points for finding a snapshot's duplicate groups and for
// marking records "not a duplicate" so that no later match groups them.
// Each call blocks and prints nothing.
#pragma once

#include <cstddef>
#include <filesystem>
#include <map>
#include <stop_token>
#include <string>
#include <vector>

#include "dedupe/dedupe_error.hpp"
#include "dedupe/dedupe_task.hpp"
#include "dedupe/match_settings.hpp"
#include "dedupe/record_store.hpp"

namespace corvane::MatchTask {

struct Outcome {
  MatchOutcome match;                      // the groups and the statistics
  std::vector<MatchField> fields;          // the snapshot's match fields
  std::map<Rid, SnapshotRecord> records;   // every record of a group
};

// Finds the duplicate groups, leaving out the records marked "not a
// duplicate". Reports each matching step (phase matching, text). A stop
// request ends it with DedupeError::stopped; nothing is written either way.
// Throws notASnapshot.
Outcome run(const std::filesystem::path& snapshot, const MatchSettings& settings,
            std::stop_token stop, const DedupeProgressHandler& onProgress = {});

// The groups of an open snapshot as run finds them, without their records.
MatchOutcome groups(RecordStore& store, const MatchSettings& settings, std::stop_token stop,
                    const DedupeProgressHandler& onProgress = {});

// Marks records (by Salesforce Id) "not a duplicate" and returns how many.
// Throws unknownRecord, marking nothing, when an Id is not in the snapshot.
std::size_t exclude(const std::filesystem::path& snapshot, const std::vector<std::string>& ids);

}  // namespace corvane::MatchTask
