#include "app/import_command.hpp"

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <iostream>
#include <iterator>

#include "platform/interrupt_stop.hpp"
#include "app/production_guard.hpp"
#include "import/import_report.hpp"
#include "import/import_task.hpp"

namespace corvane::ImportCommand {

namespace {

std::string readAll(std::istream& in) {
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace

void print(const ImportGrid& grid, bool json, std::ostream& out) {
  out << (json ? ImportReport::gridJSON(grid) : ImportReport::gridText(grid));
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
  context.out << ImportReport::mappingText(prepared.mapping, plan, prepared.object);
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
  context.out << ImportReport::outcomeText(plan, written);
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
  whenChosen(read, chosen, [&context, options] {
    print(ImportTask::readFile(options->file, options->sheet), options->json, context.out);
  });

  auto pasteJSON = std::make_shared<bool>(false);
  CLI::App* paste = import->add_subcommand(
      "paste", "Read pasted tab- or comma-separated text from standard input");
  paste->add_flag("--json", *pasteJSON, "Print the grid as one JSON object");
  whenChosen(paste, chosen, [&context, pasteJSON] {
    print(ImportTask::readPasted(readAll(std::cin)), *pasteJSON, context.out);
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
      auto api = context.api();
      run(context, api, runText->options, std::cin);
    };
  });
}

}  // namespace corvane::ImportCommand
