// How resolving duplicates reads: the plan (which record of each group stays,
// what happens to the others, the groups skipped or held back and why), the
// check of the records in the org, what became of each change, and a decision
// workbook read back. Screen text and the JSON a script reads; shared by both
// faces.
#pragma once

#include <string>
#include <vector>

#include "dedupe/decision_workbook.hpp"
#include "dedupe/resolution_task.hpp"

namespace corvane::PlanReport {

// A line for the plan's start, then per group the record kept and why, and
// each merge, delete or update; then the decision workbook's counts, if one
// decided, and the totals.
std::string text(const ResolutionTask::Resolution& resolution);

// The plan as one JSON object, pretty-printed with a line feed.
std::string json(const ResolutionTask::Resolution& resolution);

// What an apply of the plan writes, in the words of the question asked
// before writing to a production org ("make 2 merges, ... of Lead records").
std::string whatItWrites(const ResolutionTask::Resolution& resolution);

// The problems a workbook's rows have (DedupeError::details), one a line
// after a heading, or as {"problems": [...]}; empty when there are none.
std::string problemsText(const std::vector<std::string>& problems, bool json);

// One line per record that was changed or is gone since the snapshot.
std::string staleText(const ResolutionPreflight::Outcome& checked);

// One line per merge, delete or update and what became of it, then the counts.
std::string outcomeText(const ResolutionTask::Resolution& resolution,
                        const ResolutionTask::ApplyOutcome& outcome);

// What else the run did: the records remembered as not duplicates, and the
// results workbook written or why not.
std::string afterwardsText(const ResolutionTask::ApplyOutcome& outcome);

// A decision workbook's decisions and problems as lines, or one JSON object
// pretty-printed with a line feed.
std::string decisionsText(const DecisionWorkbook::Decisions& decisions);
std::string decisionsJSON(const DecisionWorkbook::Decisions& decisions);

}  // namespace corvane::PlanReport
