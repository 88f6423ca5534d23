// The entry points of `import read`, `import paste` and `import run`, shared
// by both faces.
//
// An import goes in two steps, so that a face can show the mapping and the
// problems before anything is written: prepare() reads the object's describe,
// maps the grid's columns onto its fields and checks every value; write()
// then sends the rows without problems (ImportRunner, which resumes a stopped
// run of the same file), and writes the failed rows' CSV and the results
// workbook. Blocking: callers run them on a worker thread. They print nothing.
#pragma once

#include <filesystem>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "connections/org.hpp"
#include "connections/salesforce_api.hpp"
#include "import/import_fields.hpp"
#include "import/import_mapping.hpp"
#include "import/import_plan.hpp"
#include "import/import_runner.hpp"
#include "platform/task_progress.hpp"
#include "workbook/import_grid.hpp"

namespace corvane::ImportTask {

// The grid of a file: an .xlsx or .xlsm workbook's sheet (the first one when
// sheet is absent), else delimited text. Throws ImportError::badFile when the
// sheet does not exist or is blank, or when a sheet is named for a text file.
ImportGrid readFile(const std::filesystem::path& path, const std::optional<std::string>& sheet);

// The grid of pasted text; throws ImportError::badFile when it holds no row.
ImportGrid readPasted(std::string_view text);

enum class Phase {
  describing,  // asking the org for the object's fields
  checking,    // mapping the columns and checking every value
  writing,     // done/total: rows with a known outcome / rows sent at all
  finished,
};
using Progress = TaskProgress<Phase>;
using ProgressHandler = TaskProgressHandler<Phase>;

struct PrepareRequest {
  std::string object;  // as the user typed it
  ImportOperation operation;
  std::vector<std::string> overrides;                // "Header=Field", in order
  std::optional<std::filesystem::path> mapping;      // a saved mapping to apply first
  std::optional<std::filesystem::path> saveMapping;  // where to save the final mapping
  CoercionOptions coercion;
};

struct Prepared {
  std::string object;  // the API name as the org spells it
  std::string label;   // the object's label, for the results workbook
  std::vector<ImportField> fields;
  ImportMapping mapping;
  ImportPlan plan;
};

// Maps and checks the grid against the object's describe. Throws MappingError,
// the transport's errors, and TaskStopped when stopped before the check.
Prepared prepare(SalesforceAPI::Client& api, const Org& org, const ImportGrid& grid,
                 const PrepareRequest& request, std::stop_token stop,
                 const ProgressHandler& onProgress = {});

struct WriteRequest {
  std::string source;  // the file as given, or "-" for pasted text
  bool again = false;  // import rows that an earlier run already imported in full
  std::optional<std::filesystem::path> journal;     // standard: ImportJournal::standardPath()
  std::optional<std::filesystem::path> failedRows;  // standard: beside the file
  std::optional<std::filesystem::path> results;     // the results workbook (.xlsx), if wanted
};

struct Written {
  ImportRunSummary summary;
  std::optional<std::filesystem::path> failedRowsFile;  // when some rows were not written
  std::optional<std::filesystem::path> resultsFile;
};

// Writes the prepared plan's rows without problems; the plan must not be
// blocked. A stop is honoured between batches: ImportRunError::cancelled, and
// the next run of the same file carries on. Throws ImportRunError and the
// journal's and transport's errors.
Written write(SalesforceAPI::Client& api, const Org& org, const ImportGrid& grid,
              const Prepared& prepared, const WriteRequest& request, std::stop_token stop,
              const ProgressHandler& onProgress = {});

}  // namespace corvane::ImportTask
