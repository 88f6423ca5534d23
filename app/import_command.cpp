#include "app/import_command.hpp"

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <iostream>
#include <iterator>

#include "app/production_guard.hpp"
#include "app/interrupt_stop.hpp"
#include "import/failed_rows.hpp"
#include "import/import_task.hpp"

namespace corvane::ImportCommand {

namespace {

std::string readAll(std::istream& in) {
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

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

void printLine(const std::vector<std::string>& cells, std::string& line, std::ostream& out) {
  line.clear();
  for (std::size_t index = 0; index < cells.size(); ++index) {
    if (index > 0) line += '\t';
    line += escaped(cells[index]);
  }
  line += '\n';
  out << line;
}

std::string count(std::size_t n, const char* one, const char* many) {
  return fmt::format("{} {}", n, n == 1 ? one : many);
}

void reportOutcome(std::ostream& out, const ImportPlan& plan, const ImportTask::Written& written) {
  using Kind = ImportOperation::Kind;
  const auto& summary = written.summary;
  if (summary.resumed)
    out << "This run continued an earlier one of the same file that had stopped.\n";
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
  out << done;
  if (summary.failed > 0) {
    out << "; Salesforce refused " << count(summary.failed, "row", "rows");
  }
  if (summary.notSent > 0) {
    out << "; " << count(summary.notSent, "row was", "rows were")
        << " not sent because of the problems above";
  }
  out << ".\n";
  if (written.failedRowsFile) {
    out << fmt::format(
        "The rows that were not written are in {}, with a column \u201c{}\u201d that says why. "
        "Fix them there and import that file again.\n",
        written.failedRowsFile->string(), FailedRows::kErrorHeader);
  }
  if (written.resultsFile)
    out << "The outcome of every row is in " << written.resultsFile->string() << ".\n";
}

}  // namespace

void print(const ImportGrid& grid, bool json, std::ostream& out) {
  if (json) {
    nlohmann::json object{{"sheetName", nullptr}, {"headers", grid.headers}, {"rows", grid.rows}};
    if (grid.sheetName) object["sheetName"] = *grid.sheetName;
    out << object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
    return;
  }
  if (grid.sheetName) out << "Sheet: " << escaped(*grid.sheetName) << '\n';
  std::string line;
  printLine(grid.headers, line, out);
  for (const auto& row : grid.rows) printLine(row, line, out);
  out << fmt::format("({} {})\n", grid.rows.size(), grid.rows.size() == 1 ? "row" : "rows");
}

void printReport(const ImportMapping& mapping, const ImportPlan& plan, const std::string& object,
                 std::ostream& out) {
  std::size_t width = 0;
  for (const auto& column : mapping.columns) width = std::max(width, column.header.size());
  out << fmt::format("Columns of the file and the fields of {} they fill:\n", object);
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
      out << fmt::format("  {:<{}}  -> {} ({})\n", header, width, *column.field, how);
    } else {
      out << fmt::format("  {:<{}}  (not imported)\n", header, width);
    }
  }
  for (const auto& issue : plan.issues) out << issue.sentence(object, plan.operation) << '\n';
  if (!plan.problems.empty()) {
    out << fmt::format("{} {} to fix:\n", plan.problems.size(),
                       plan.problems.size() == 1 ? "value" : "values");
    for (const auto& problem : plan.problems) out << "  " << problem.sentence() << '\n';
  }
  std::size_t ready = plan.readyRows();
  if (plan.blocked()) {
    out << "Nothing can be imported until the columns above are fixed.\n";
  } else {
    out << fmt::format("{} of {} {} ready to {}", ready, plan.rowCount,
                       plan.rowCount == 1 ? "row is" : "rows are", plan.operation.verb());
    std::size_t bad = plan.rowCount - ready;
    if (bad > 0) out << fmt::format("; {} {} problems", bad, bad == 1 ? "row has" : "rows have");
    out << ".\n";
  }
}

ImportPlan run(CommandContext& context, SalesforceAPI::Client& api, const RunOptions& options,
               std::istream& pasted) {
  const ImportGrid grid =
      options.file == "-" ? ImportTask::readPasted(readAll(pasted))
                          : ImportTask::readFile(options.file, options.sheet);
  const Org org = context.login(options.login);
  const auto prepared = ImportTask::prepare(
      api, org, grid,
      {options.object, options.operation, options.overrides, options.mapping, options.saveMapping,
       options.coercion},
      {});
  if (options.saveMapping)
    context.out << "Saved the mapping to " << options.saveMapping->string() << ".\n";
  const ImportPlan& plan = prepared.plan;
  printReport(prepared.mapping, plan, prepared.object, context.out);
  if (options.dryRun || plan.blocked()) return plan;
  if (plan.readyRows() == 0) {
    context.out << "No row is ready to " << plan.operation.verb() << ", so nothing was written.\n";
    return plan;
  }
  ProductionGuard::confirm(org, fmt::format("{} {} {} records", plan.operation.verb(),
                                            plan.readyRows(), prepared.object), context.out);

  InterruptStop interrupt(true);
  std::int64_t lastShown = 0;
  const auto written = ImportTask::write(
      api, org, grid, prepared,
      {options.file, options.again, options.journal, options.failedRows, options.results},
      interrupt.token(), [&](const ImportTask::Progress& progress) {
        // A line per thousand rows or so; small imports only show the summary.
        if (progress.phase != ImportTask::Phase::writing || progress.total < 1000 ||
            progress.done == progress.total || progress.done < lastShown + 1000) {
          return;
        }
        lastShown = progress.done;
        context.out << fmt::format("Written {} of {} rows...\n", progress.done, progress.total)
                    << std::flush;
      });
  reportOutcome(context.out, plan, written);
  return plan;
}

void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen) {
  CLI::App* import = app.add_subcommand("import", "Read spreadsheets and pasted text for import");
  import->require_subcommand(1);

  struct ReadOptions {
    std::string file;
    std::optional<std::string> sheet;
    bool json = false;
  };
  auto options = std::make_shared<ReadOptions>();
  CLI::App* read = import->add_subcommand(
      "read", "Read a .csv, .tsv, .txt or .xlsx file into its headers and rows");
  read->add_option("FILE", options->file, "The file to read")->required();
  read->add_option("--sheet", options->sheet, "The workbook sheet to read (standard: the first)");
  read->add_flag("--json", options->json, "Print the grid as one JSON object");
  read->callback([&context, &chosen, options] {
    chosen = [&context, options] {
      print(ImportTask::readFile(options->file, options->sheet), options->json, context.out);
    };
  });

  auto pasteJSON = std::make_shared<bool>(false);
  CLI::App* paste = import->add_subcommand(
      "paste", "Read pasted tab- or comma-separated text from standard input");
  paste->add_flag("--json", *pasteJSON, "Print the grid as one JSON object");
  paste->callback([&context, &chosen, pasteJSON] {
    chosen = [&context, pasteJSON] {
      print(ImportTask::readPasted(readAll(std::cin)), *pasteJSON, context.out);
    };
  });

  struct RunText {
    RunOptions options;
    std::string operation;
    std::optional<std::string> dateOrder;
    std::optional<std::string> timeZone;
  };
  auto runText = std::make_shared<RunText>();
  CLI::App* runCommand = import->add_subcommand(
      "run", "Map a file onto an object's fields, check every value, and import the rows");
  runCommand->add_option("LOGIN", runText->options.login, "Username or alias of the login")
      ->required();
  runCommand->add_option("OBJECT", runText->options.object, "API name of the object")->required();
  runCommand->add_option("FILE", runText->options.file, "The file, or - for pasted text")
      ->required();
  runCommand->add_option("--sheet", runText->options.sheet, "The workbook sheet to read");
  runCommand
      ->add_option("--operation", runText->operation,
                   "insert, update, upsert:EXTERNAL_ID_FIELD or delete")
      ->required()
      ->check([](const std::string& text) {
        return ImportOperation::parse(text)
                   ? std::string()
                   : "must be insert, update, upsert:EXTERNAL_ID_FIELD or delete";
      });
  runCommand->add_option(
      "--map", runText->options.overrides,
      "\"Header=Field\" to choose a column's field, \"Header=\" to leave it out");
  runCommand->add_option("--mapping", runText->options.mapping, "A saved mapping to use");
  runCommand->add_option("--save-mapping", runText->options.saveMapping,
                         "Save the mapping used to this file");
  runCommand->add_option("--date-order", runText->dateOrder, "Order of dates that are not ISO")
      ->check(CLI::IsMember({"dmy", "mdy", "ymd"}));
  runCommand
      ->add_option("--time-zone", runText->timeZone,
                   "Zone of date-times written without one: a name such as Europe/Berlin, or an "
                   "offset such as +01:00 (standard: UTC)")
      ->check([](const std::string& text) {
        if (ValueCoercion::utcOffsetMinutes(text) || NamedTimeZone::known(text))
          return std::string();
        return std::string(TimeZoneError(text).what());
      });
  runCommand->add_flag("--dry-run", runText->options.dryRun,
                       "Check the file and report, writing nothing");
  runCommand->add_flag("--again", runText->options.again,
                       "Import the rows even though an earlier run already imported them");
  runCommand->add_option("--results", runText->options.results,
                         "Write the outcome of every row to this .xlsx workbook");
  runCommand->add_option("--failed-rows", runText->options.failedRows,
                         "Where the rows that were not written go, as CSV (standard: beside "
                         "the file, \"NAME - failed rows.csv\")");
  runCommand->callback([&context, &chosen, runText] {
    runText->options.operation = *ImportOperation::parse(runText->operation);
    if (runText->dateOrder) {
      runText->options.coercion.dateOrder = *runText->dateOrder == "dmy"   ? DateOrder::dmy
                                            : *runText->dateOrder == "mdy" ? DateOrder::mdy
                                                                           : DateOrder::ymd;
    }
    if (runText->timeZone) {
      if (auto offset = ValueCoercion::utcOffsetMinutes(*runText->timeZone)) {
        runText->options.coercion.utcOffsetMinutes = *offset;
      } else {
        runText->options.coercion.timeZone = NamedTimeZone::named(*runText->timeZone);
      }
    }
    chosen = [&context, runText] {
      SalesforceAPI::Client api(
          [&context](const std::string& username) { return context.cli.session(username); });
      run(context, api, runText->options, std::cin);
    };
  });
}

}  // namespace corvane::ImportCommand
