// How a snapshot's duplicate groups read: each group with its records and
// why they were grouped, then the statistics of the match; or all of it as
// the JSON a script reads. Shared by both faces.
#pragma once

#include <string>

#include "dedupe/cross_match_task.hpp"
#include "dedupe/match_task.hpp"

namespace corvane::MatchReport {

// Why a group's records were put together, as one sentence.
std::string why(const DuplicateGroup& group);

// One line per group and one per record of it (Id, name, match values),
// then the counts: groups, comparisons, values left out and splits.
std::string text(const MatchTask::Outcome& outcome);

// {"groups": [...], "stats": {...}}, pretty-printed with a line feed.
std::string json(const MatchTask::Outcome& outcome);

// Records of one snapshot that already exist in another object's (Leads that
// are already Contacts): one line per pair (the record, the one it already
// is, the score and why), a summary, a warning for each partial snapshot and,
// when there are pairs, the next step. snapshot and against are the files as
// the user named them, quoted in the suggested command.
std::string crossText(const CrossMatchTask::Outcome& outcome, const std::string& snapshot,
                      const std::string& against);

// {"object", "against", "compared", "companyFrom", "complete", "pairs": [...],
// "stats"}, pretty-printed with a line feed.
std::string crossJSON(const CrossMatchTask::Outcome& outcome);

}  // namespace corvane::MatchReport
