#include "import/import_task.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "connections/api_transport.hpp"
#include "import/delimited_text.hpp"
#include "import/failed_rows.hpp"
#include "import/import_error.hpp"
#include "import/import_journal.hpp"
#include "import/run_results_workbook.hpp"
#include "platform/durable_file.hpp"
#include "workbook/xlsx_reader.hpp"

namespace corvane::ImportTask {

namespace {

std::string lowercaseExtension(const std::filesystem::path& path) {
  std::string extension = path.extension().string();
  for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return extension;
}

const char* outcomeWord(const RowOutcome& outcome, bool sent, ImportOperation::Kind kind) {
  if (!sent) return "Not sent";
  if (!outcome.success) return "Failed";
  if (kind == ImportOperation::Kind::remove) return "Deleted";
  return outcome.created ? "Created" : "Updated";
}

}  // namespace

ImportGrid readFile(const std::filesystem::path& path, const std::optional<std::string>& sheet) {
  std::string extension = lowercaseExtension(path);
  std::string name = path.filename().string();
  if (extension == ".xls") {
    throw ImportError::badFile(
        name +
        " is an old-style Excel workbook (.xls), which cannot be read. Save it as an .xlsx "
        "workbook or as CSV in your spreadsheet program and try again.");
  }
  if (extension != ".xlsx" && extension != ".xlsm") {
    if (sheet) {
      throw ImportError::badFile(name +
                                 " is delimited text, which has no sheets. Leave out --sheet "
                                 "for it, or name an .xlsx workbook.");
    }
    return DelimitedText::parseFile(path);
  }
  XlsxReader reader(path);
  if (reader.sheetNames().empty()) {
    throw ImportError::badFile(name +
                               " has no sheets. Nothing was imported; check that it is the "
                               "workbook you meant.");
  }
  std::string chosen = sheet.value_or(reader.sheetNames().front());
  std::optional<ImportGrid> grid = reader.readSheet(chosen);
  if (!grid) {
    throw ImportError::badFile(fmt::format(
        "The sheet \u201c{}\u201d of {} has no header row: all its cells are empty. Choose another "
        "sheet with --sheet.",
        chosen, name));
  }
  return std::move(*grid);
}

ImportGrid readPasted(std::string_view text) {
  std::optional<ImportGrid> grid = DelimitedText::parsePasted(text);
  if (!grid) {
    throw ImportError::badFile(
        "The pasted text holds no rows. Copy the cells again, header row included, and paste "
        "them.");
  }
  return std::move(*grid);
}

Prepared prepare(SalesforceAPI::Client& api, const Org& org, const ImportGrid& grid,
                 const PrepareRequest& request, std::stop_token stop,
                 const ProgressHandler& onProgress) {
  report(onProgress, Phase::describing, 0, 0, request.object);
  nlohmann::json describe = api.importObject(request.object, org);
  throwIfStopped(stop);
  Prepared prepared;
  prepared.fields = ImportFields::fromDescribe(describe);
  prepared.object =
      describe.is_object() ? describe.value("name", request.object) : request.object;
  prepared.label = describe.is_object() ? describe.value("label", prepared.object) : prepared.object;
  const auto rows = static_cast<std::int64_t>(grid.rows.size());
  report(onProgress, Phase::checking, 0, rows, prepared.object);

  prepared.mapping = ImportMapping::automatic(grid.headers, prepared.fields);
  if (request.mapping)
    prepared.mapping.apply(ImportMapping::load(*request.mapping), prepared.fields, prepared.object);
  for (const auto& assignment : request.overrides)
    prepared.mapping.override(assignment, prepared.fields, prepared.object);
  prepared.mapping.checkDistinct();
  if (request.saveMapping) prepared.mapping.save(*request.saveMapping);
  prepared.plan = ImportPlan::build(grid, prepared.mapping, prepared.fields, request.operation,
                                    request.coercion);
  report(onProgress, Phase::finished, rows, rows, prepared.object);
  return prepared;
}

Written write(SalesforceAPI::Client& api, const Org& org, const ImportGrid& grid,
              const Prepared& prepared, const WriteRequest& request, std::stop_token stop,
              const ProgressHandler& onProgress) {
  DedupeAPITransport transport(api, org);
  ImportJournal journal(request.journal.value_or(ImportJournal::standardPath()));
  const std::string source = request.source == "-"
                                 ? std::string("-")
                                 : std::filesystem::absolute(request.source).string();
  ImportRunner::Options options{org.username, prepared.object, source};
  options.again = request.again;
  ImportRunner runner(transport, journal, options);
  Written written;
  written.summary = runner.run(
      prepared.plan, prepared.fields,
      [&](const ImportProgress& progress) {
        report(onProgress, Phase::writing, static_cast<std::int64_t>(progress.rowsWritten),
               static_cast<std::int64_t>(progress.rowsToWrite), prepared.object);
      },
      [&stop] { return stop.stop_requested(); });
  const auto& summary = written.summary;
  if (summary.failed + summary.notSent > 0) {
    written.failedRowsFile = request.failedRows.value_or(FailedRows::standardPath(request.source));
    Durable::replace(*written.failedRowsFile, FailedRows::csv(grid, summary.outcomes), 0644);
  }
  if (request.results) {
    std::vector<RunResultsWorkbook::Entry> entries;
    entries.reserve(summary.outcomes.size());
    for (const auto& outcome : summary.outcomes) {
      std::string detail = fmt::format("Row {}", outcome.row + 2);
      if (!outcome.message.empty()) detail += ": " + outcome.message;
      entries.push_back({outcome.recordId, std::nullopt,
                         outcomeWord(outcome, summary.sent[outcome.row], prepared.plan.operation.kind),
                         std::move(detail)});
    }
    RunResultsWorkbook::write(*request.results, prepared.label, entries);
    written.resultsFile = request.results;
  }
  const auto rows = static_cast<std::int64_t>(summary.outcomes.size());
  report(onProgress, Phase::finished, rows, rows, prepared.object);
  return written;
}

}  // namespace corvane::ImportTask
