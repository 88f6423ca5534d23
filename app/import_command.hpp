// `corvane import read FILE [--sheet NAME] [--json]`: a .csv, .tsv, .txt or
// .xlsx file read into its grid (sheet name, headers, rows) as a person reads
// it in a spreadsheet program; `corvane import paste [--json]`: pasted text
// from standard input read the same way; `corvane import run LOGIN OBJECT FILE
// --operation OP [--map "Header=Field"]... [--mapping FILE] [--save-mapping
// FILE] [--date-order dmy|mdy|ymd] [--time-zone ZONE] [--dry-run] [--results
// FILE.xlsx] [--failed-rows FILE.csv]`: the grid mapped onto the object's
// fields and every value checked, with a report of the mapping and of each
// problem by row and column; without --dry-run the rows are then written, and
// a stopped run of the same file resumes where it stopped.
//
// The work is ImportTask's, the wording ImportReport's; this file turns
// arguments into calls and prints what they return. Failures are typed
// (ImportError, FileError); the command runner prints them.
#pragma once

#include <filesystem>
#include <functional>
#include <istream>
#include <optional>
#include <string>
#include <vector>

#include "app/command_context.hpp"
#include "connections/salesforce_api.hpp"
#include "import/import_mapping.hpp"
#include "import/import_plan.hpp"
#include "workbook/import_grid.hpp"

namespace corvane::ImportCommand {

// Adds the command to app; when chosen, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

// Writes a grid as ImportReport words it: one JSON object, or lines of
// tab-separated cells.
void print(const ImportGrid& grid, bool json, std::ostream& out);

struct RunOptions {
  std::string login;
  std::string object;
  std::string file;  // "-" reads pasted text from standard input
  std::optional<std::string> sheet;
  ImportOperation operation;
  std::vector<std::string> overrides;                // "Header=Field", in order
  std::optional<std::filesystem::path> mapping;      // a saved mapping to apply first
  std::optional<std::filesystem::path> saveMapping;  // where to save the final mapping
  CoercionOptions coercion;
  bool dryRun = false;
  std::optional<std::filesystem::path> results;     // the results workbook (.xlsx)
  std::optional<std::filesystem::path> failedRows;  // standard: beside the file
  std::optional<std::filesystem::path> journal;     // standard: ImportJournal::standardPath()
  bool again = false;  // import rows that an earlier run already imported in full
};

// Reads the grid, maps and checks it against the object's describe
// (ImportTask::prepare), and prints the mapping and the report. Unless dryRun,
// then writes the rows without problems (ImportTask::write) and prints what
// became of them. Ctrl-C stops after the batch in flight.
// Returns the plan. Throws ImportError, MappingError, ImportRunError and the
// transport's errors.
ImportPlan run(CommandContext& context, SalesforceAPI::Client& api, const RunOptions& options,
               std::istream& pasted);

}  // namespace corvane::ImportCommand
