#include "app/import_command.hpp"

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <iostream>
#include <iterator>

#include "app/production_guard.hpp"
#include "connections/api_transport.hpp"
#include "import/delimited_text.hpp"
#include "import/failed_rows.hpp"
#include "import/import_error.hpp"
#include "import/import_fields.hpp"
#include "import/import_journal.hpp"
#include "import/import_mapping.hpp"
#include "import/import_runner.hpp"
#include "import/run_results_workbook.hpp"
#include "workbook/xlsx_reader.hpp"
#include "platform/durable_file.hpp"

namespace corvane::ImportCommand {

namespace {

std::string lowercaseExtension(const std::filesystem::path& path) {
  std::string extension = path.extension().string();
  for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return extension;
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

// Set by the first Ctrl-C of a run; a second one ends the program at once.
std::atomic<bool> interrupted{false};

extern "C" void onInterrupt(int) { interrupted = true; }

// Catches Ctrl-C while it lives, so that a run stops between batches.
class InterruptGuard {
 public:
  InterruptGuard() {
    interrupted = false;
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    action.sa_flags = SA_RESETHAND;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, &previous_);
  }
  ~InterruptGuard() { ::sigaction(SIGINT, &previous_, nullptr); }
  InterruptGuard(const InterruptGuard&) = delete;
  InterruptGuard& operator=(const InterruptGuard&) = delete;

 private:
  struct sigaction previous_ {};
};

std::string count(std::size_t n, const char* one, const char* many) {
  return fmt::format("{} {}", n, n == 1 ? one : many);
}

const char* outcomeWord(const RowOutcome& outcome, bool sent, ImportOperation::Kind kind) {
  if (!sent) return "Not sent";
  if (!outcome.success) return "Failed";
  if (kind == ImportOperation::Kind::remove) return "Deleted";
  return outcome.created ? "Created" : "Updated";
}

void reportOutcome(CommandContext& context, const ImportGrid& grid, const ImportPlan& plan,
                   const ImportRunSummary& summary, const RunOptions& options,
                   const std::string& label) {
  using Kind = ImportOperation::Kind;
  std::ostream& out = context.out;
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
  if (summary.failed + summary.notSent > 0) {
    std::filesystem::path path =
        options.failedRows.value_or(FailedRows::standardPath(options.file));
    Durable::replace(path, FailedRows::csv(grid, summary.outcomes), 0644);
    out << fmt::format(
        "The rows that were not written are in {}, with a column \u201c{}\u201d that says why. "
        "Fix them there and import that file again.\n",
        path.string(), FailedRows::kErrorHeader);
  }
  if (options.results) {
    std::vector<RunResultsWorkbook::Entry> entries;
    entries.reserve(summary.outcomes.size());
    for (const auto& outcome : summary.outcomes) {
      std::string detail = fmt::format("Row {}", outcome.row + 2);
      if (!outcome.message.empty()) detail += ": " + outcome.message;
      entries.push_back({outcome.recordId, std::nullopt,
                         outcomeWord(outcome, summary.sent[outcome.row], plan.operation.kind),
                         std::move(detail)});
    }
    RunResultsWorkbook::write(*options.results, label, entries);
    out << "The outcome of every row is in " << options.results->string() << ".\n";
  }
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

ImportGrid readPasted(std::istream& in) {
  std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  std::optional<ImportGrid> grid = DelimitedText::parsePasted(text);
  if (!grid) {
    throw ImportError::badFile(
        "The pasted text holds no rows. Copy the cells again, header row included, and paste "
        "them.");
  }
  return std::move(*grid);
}

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
  ImportGrid grid =
      options.file == "-" ? readPasted(pasted) : readFile(options.file, options.sheet);
  auto orgs = context.cli.listOrgs(true, context.listTimeout);
  const Org& org = OrgsCommand::findLogin(orgs, options.login);
  nlohmann::json describe = api.importObject(options.object, org);
  std::vector<ImportField> fields = ImportFields::fromDescribe(describe);
  std::string object =
      describe.is_object() ? describe.value("name", options.object) : options.object;

  ImportMapping mapping = ImportMapping::automatic(grid.headers, fields);
  if (options.mapping) mapping.apply(ImportMapping::load(*options.mapping), fields, object);
  for (const auto& assignment : options.overrides) mapping.override(assignment, fields, object);
  mapping.checkDistinct();
  if (options.saveMapping) {
    mapping.save(*options.saveMapping);
    context.out << "Saved the mapping to " << options.saveMapping->string() << ".\n";
  }
  ImportPlan plan = ImportPlan::build(grid, mapping, fields, options.operation, options.coercion);
  printReport(mapping, plan, object, context.out);
  if (options.dryRun || plan.blocked()) return plan;
  if (plan.readyRows() == 0) {
    context.out << "No row is ready to " << plan.operation.verb() << ", so nothing was written.\n";
    return plan;
  }
  ProductionGuard::confirm(org, fmt::format("{} {} {} records", plan.operation.verb(),
                                            plan.readyRows(), object), context.out);

  DedupeAPITransport transport(api, org);
  ImportJournal journal(options.journal.value_or(ImportJournal::standardPath()));
  std::string source =
      options.file == "-" ? std::string("-") : std::filesystem::absolute(options.file).string();
  ImportRunner::Options runOptions{org.username, object, source};
  runOptions.again = options.again;
  ImportRunner runner(transport, journal, runOptions);
  InterruptGuard guard;
  std::size_t lastShown = 0;
  ImportRunSummary summary = runner.run(
      plan, fields,
      [&](const ImportProgress& progress) {
        // A line per thousand rows or so; small imports only show the summary.
        if (progress.rowsToWrite < 1000 || progress.rowsWritten == progress.rowsToWrite ||
            progress.rowsWritten < lastShown + 1000) {
          return;
        }
        lastShown = progress.rowsWritten;
        context.out << fmt::format("Written {} of {} rows...\n", progress.rowsWritten,
                                   progress.rowsToWrite)
                    << std::flush;
      },
      [] { return interrupted.load(); });
  std::string label = describe.is_object() ? describe.value("label", object) : object;
  reportOutcome(context, grid, plan, summary, options, label);
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
      print(readFile(options->file, options->sheet), options->json, context.out);
    };
  });

  auto pasteJSON = std::make_shared<bool>(false);
  CLI::App* paste = import->add_subcommand(
      "paste", "Read pasted tab- or comma-separated text from standard input");
  paste->add_flag("--json", *pasteJSON, "Print the grid as one JSON object");
  paste->callback([&context, &chosen, pasteJSON] {
    chosen = [&context, pasteJSON] { print(readPasted(std::cin), *pasteJSON, context.out); };
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
