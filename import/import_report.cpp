#include "import/import_report.hpp"

#include <algorithm>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "import/failed_rows.hpp"

namespace corvane::ImportReport {

namespace {

std::string escaped(const std::string& cell) {
  if (cell.find_first_of("\t\r\n\\") == std::string::npos) return cell;
  std::string out;
  out.reserve(cell.size() + 8);
  for (char c : cell) {
    switch (c) {
      case '\t':
        out += "\\t";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\\':
        out += "\\\\";
        break;
      default:
        out += c;
    }
  }
  return out;
}

void addLine(const std::vector<std::string>& cells, std::string& out) {
  for (std::size_t index = 0; index < cells.size(); ++index) {
    if (index > 0) out += '\t';
    out += escaped(cells[index]);
  }
  out += '\n';
}

std::string count(std::size_t n, const char* one, const char* many) {
  return fmt::format("{} {}", n, n == 1 ? one : many);
}

}  // namespace

std::string gridText(const ImportGrid& grid) {
  std::string out;
  if (grid.sheetName) out += "Sheet: " + escaped(*grid.sheetName) + '\n';
  addLine(grid.headers, out);
  for (const auto& row : grid.rows) addLine(row, out);
  return out + fmt::format("({} {})\n", grid.rows.size(), grid.rows.size() == 1 ? "row" : "rows");
}

std::string gridJSON(const ImportGrid& grid) {
  nlohmann::json object{{"sheetName", nullptr}, {"headers", grid.headers}, {"rows", grid.rows}};
  if (grid.sheetName) object["sheetName"] = *grid.sheetName;
  return object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + '\n';
}

std::string mappingText(const ImportMapping& mapping, const ImportPlan& plan,
                        const std::string& object) {
  std::string out;
  std::size_t width = 0;
  for (const auto& column : mapping.columns) width = std::max(width, column.header.size());
  out += fmt::format("Columns of the file and the fields of {} they fill:\n", object);
  for (const auto& column : mapping.columns) {
    const char* how = "";
    switch (column.match) {
      case ColumnMapping::Match::apiName:
        how = "by API name";
        break;
      case ColumnMapping::Match::label:
        how = "by label";
        break;
      case ColumnMapping::Match::close:
        how = "close match: check it";
        break;
      case ColumnMapping::Match::user:
        how = "as you mapped it";
        break;
      case ColumnMapping::Match::none:
        break;
    }
    std::string header = column.header.empty() ? "(no header)" : column.header;
    if (column.field) {
      out += fmt::format("  {:<{}}  -> {} ({})\n", header, width, *column.field, how);
    } else {
      out += fmt::format("  {:<{}}  (not imported)\n", header, width);
    }
  }
  for (const auto& issue : plan.issues) out += issue.sentence(object, plan.operation) + '\n';
  if (!plan.problems.empty()) {
    out += fmt::format("{} {} to fix:\n", plan.problems.size(),
                       plan.problems.size() == 1 ? "value" : "values");
    for (const auto& problem : plan.problems) out += "  " + problem.sentence() + '\n';
  }
  std::size_t ready = plan.readyRows();
  if (plan.blocked()) {
    out += "Nothing can be imported until the columns above are fixed.\n";
  } else {
    out += fmt::format("{} of {} {} ready to {}", ready, plan.rowCount,
                       plan.rowCount == 1 ? "row is" : "rows are", plan.operation.verb());
    std::size_t bad = plan.rowCount - ready;
    if (bad > 0) out += fmt::format("; {} {} problems", bad, bad == 1 ? "row has" : "rows have");
    out += ".\n";
  }
  return out;
}

std::string outcomeText(const ImportPlan& plan, const ImportTask::Written& written) {
  std::string out;
  using Kind = ImportOperation::Kind;
  const auto& summary = written.summary;
  if (summary.resumed) {
    out += "This run continued an earlier one of the same file that had stopped.\n";
  }
  std::string done;
  switch (plan.operation.kind) {
    case Kind::insert:
      done = "Created " + count(summary.created, "record", "records");
      break;
    case Kind::update:
      done = "Updated " + count(summary.changed, "record", "records");
      break;
    case Kind::upsert:
      done = fmt::format("Created {} and updated {}", count(summary.created, "record", "records"),
                         count(summary.changed, "record", "records"));
      break;
    case Kind::remove:
      done = "Deleted " + count(summary.changed, "record", "records") +
             " (they are in the Recycle Bin)";
      break;
  }
  out += done;
  if (summary.failed > 0) {
    out += "; Salesforce refused " + count(summary.failed, "row", "rows");
  }
  if (summary.notSent > 0) {
    out += "; " + count(summary.notSent, "row was", "rows were") +
           " not sent because of the problems above";
  }
  out += ".\n";
  if (written.failedRowsFile) {
    out += fmt::format(
        "The rows that were not written are in {}, with a column \u201c{}\u201d that says why. "
        "Fix them there and import that file again.\n",
        written.failedRowsFile->string(), FailedRows::kErrorHeader);
  }
  if (written.resultsFile) {
    out += "The outcome of every row is in " + written.resultsFile->string() + ".\n";
  }
  return out;
}

}  // namespace corvane::ImportReport
