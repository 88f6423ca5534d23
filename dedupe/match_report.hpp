// How a snapshot's duplicate groups read: each group with its records and
// why they were grouped, then the statistics of the match; or all of it as
// the JSON a script reads. Shared by both faces.
#pragma once

#include <string>

#include "dedupe/match_task.hpp"

namespace corvane::MatchReport {

// Why a group's records were put together, as one sentence.
std::string why(const DuplicateGroup& group);

// One line per group and one per record of it (Id, name, match values),
// then the counts: groups, comparisons, values left out and splits.
std::string text(const MatchTask::Outcome& outcome);

// {"groups": [...], "stats": {...}}, pretty-printed with a line feed.
std::string json(const MatchTask::Outcome& outcome);

}  // namespace corvane::MatchReport
