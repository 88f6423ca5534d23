#include "app/query_command.hpp"

#include <CLI/CLI.hpp>

#include "platform/number_text.hpp"
#include "query/query_task.hpp"
#include "query/result_writer.hpp"

namespace corvane::QueryCommand {

JSONLiteral withoutAttributes(JSONLiteral record) {
  return QueryTask::withoutAttributes(std::move(record));
}

std::int64_t run(CommandContext& context, SalesforceAPI::Client& api, const std::string& login,
                 const std::string& soql, Format format,
                 const std::optional<std::filesystem::path>& output) {
  const Org org = context.login(login);
  const auto shape = ResultWriter::shapeFor(format);
  std::optional<ResultWriter> writer;
  if (output) {
    writer.emplace(*output, format);
  } else {
    writer.emplace(context.out, format);
  }
  auto outcome = QueryTask::run(api, org, {soql, shape}, {},
                                [&](QueryRows&& rows) { return writer->write(rows); });
  writer->finish(outcome);
  const std::int64_t rows = writer->rows();
  if (output) {
    context.out << "Wrote " << NumberText::grouped(rows) << (rows == 1 ? " row" : " rows") << " to "
                << output->string() << ".\n";
    context.out.flush();
  }
  return rows;
}

void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen) {
  CLI::App* query =
      app.add_subcommand("query", "Run a SOQL query and print its rows as JSON lines, CSV or TSV");
  struct Options {
    std::string login;
    std::string soql;
    Format format = Format::json;
    std::optional<std::filesystem::path> output;
  };
  auto options = std::make_shared<Options>();
  query->add_option("LOGIN", options->login, "A username or alias")->required();
  query->add_option("SOQL", options->soql, "The query, such as \"SELECT Id, Name FROM Account\"")
      ->required();
  const std::map<std::string, Format> formats = {
      {"json", Format::json}, {"csv", Format::csv}, {"tsv", Format::tsv}};
  query
      ->add_option("--format", options->format,
                   "json (one record per line, the default), csv or tsv")
      ->transform(CLI::CheckedTransformer(formats, CLI::ignore_case));
  query->add_option("-o,--output", options->output,
                    "Write the rows to this file (replaced only when the query has finished)");
  whenChosen(query, chosen, [&context, options] {
    auto api = context.api();
    run(context, api, options->login, options->soql, options->format, options->output);
  });
}

}  // namespace corvane::QueryCommand
