// How SOQL completions read: a table of them, and the JSON an editor reads.
// Shared by both faces.
#pragma once

#include <string>
#include <vector>

#include "query/soql_completion.hpp"

namespace corvane::CompletionReport {

// One row per completion (completion, detail, kind) under a heading, the
// columns lined up by characters; a sentence when there is none.
std::string table(const std::vector<Completion>& completions);

// {"replace": {"start", "end"}, "completions": [...]} on one line.
std::string json(const SoqlCompletion::Suggestions& suggestions);

}  // namespace corvane::CompletionReport
