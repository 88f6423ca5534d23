// `corvane dedupe match SNAPSHOT --against SNAPSHOT2`: which records of one
// object's snapshot already exist as records of another object of the same
// org (Leads that are already Contacts), through dedupe/cross_match_task.hpp.
//
// Prints one line per pair (the record, the one it already is, the score and
// why) and a summary, or the same as JSON. Salesforce merges no records of
// different objects, so the next step offered is a decision workbook in
// which such a Lead can be marked Delete.
#pragma once

#include <filesystem>

#include "app/command_context.hpp"
#include "dedupe/cross_match_task.hpp"
#include "dedupe/match_settings.hpp"

namespace corvane::DedupeAgainstCommand {

// Prints the pairs (the matching steps first, unless json) and returns them.
CrossMatchTask::Outcome match(CommandContext& context, const std::filesystem::path& snapshot,
                              const std::filesystem::path& against, const MatchSettings& settings,
                              bool json);

}  // namespace corvane::DedupeAgainstCommand
