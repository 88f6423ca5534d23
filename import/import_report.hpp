// How an import reads: a grid read from a file or pasted text, the mapping of
// its columns with every problem by row and column, and what became of the
// rows written. Screen text and the JSON a script reads; shared by both faces.
#pragma once

#include <string>

#include "import/import_mapping.hpp"
#include "import/import_plan.hpp"
#include "import/import_task.hpp"
#include "workbook/import_grid.hpp"

namespace corvane::ImportReport {

// Lines of tab-separated cells (tabs, line breaks and backslashes in cells
// escaped as \t, \n, \r and \\) after a "Sheet: NAME" line for workbooks and
// before a count of the rows.
std::string gridText(const ImportGrid& grid);
// {"sheetName", "headers", "rows"} on one line; invalid UTF-8 is replaced.
std::string gridJSON(const ImportGrid& grid);

// Each column of the file and the field it fills (and how it was matched),
// then the plan's issues and problems and how many rows are ready.
std::string mappingText(const ImportMapping& mapping, const ImportPlan& plan,
                        const std::string& object);

// What the write did: records created, updated or deleted, rows refused or
// not sent, and where the failed rows and the results went.
std::string outcomeText(const ImportPlan& plan, const ImportTask::Written& written);

}  // namespace corvane::ImportReport
