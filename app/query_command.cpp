#include "app/query_command.hpp"

#include <cerrno>
#include <cstdio>

#include <CLI/CLI.hpp>

#include "connections/cli_error.hpp"
#include "platform/durable_file.hpp"
#include "query/query_export.hpp"
#include "query/result_table.hpp"

namespace corvane::QueryCommand {

namespace {

// Where the rows go: the command's output, or a file written under a
// temporary name beside it and put in place only when everything is written.
class RowSink {
 public:
  RowSink(std::ostream& out, const std::optional<std::filesystem::path>& target)
      : out_(out), target_(target) {
    if (!target_) return;
    std::filesystem::path folder = target_->parent_path();
    if (folder.empty()) folder = ".";
    temporary_ = folder / ("." + target_->filename().string() + ".corvane-partial");
    file_.emplace(DurableFile::open(*temporary_, 0600));
    file_->truncate(0);
  }
  RowSink(const RowSink&) = delete;
  RowSink& operator=(const RowSink&) = delete;
  ~RowSink() {
    if (!temporary_ || finished_) return;
    file_.reset();
    std::error_code ignored;
    std::filesystem::remove(*temporary_, ignored);
  }

  // Writes and empties text; false when the output has gone away.
  bool write(std::string& text) {
    if (file_) {
      file_->append(text);
    } else {
      out_ << text;
      out_.flush();
    }
    text.clear();
    return file_ || static_cast<bool>(out_);
  }

  void finish() {
    if (!file_) return;
    file_->sync();
    file_->close();
    if (std::rename(temporary_->c_str(), target_->c_str()) != 0)
      throw FileError(FileError::Kind::replace, *target_, errno);
    finished_ = true;
  }

 private:
  std::ostream& out_;
  std::optional<std::filesystem::path> target_;
  std::optional<std::filesystem::path> temporary_;
  std::optional<DurableFile> file_;
  bool finished_ = false;
};

std::string withThousands(std::int64_t number) {
  std::string digits = std::to_string(number);
  for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3)
    digits.insert(static_cast<std::size_t>(at), ",");
  return digits;
}

}  // namespace

JSONLiteral withoutAttributes(JSONLiteral record) {
  if (auto* members = record.asObject()) {
    JSONLiteral::Object kept;
    kept.reserve(members->size());
    for (auto& [name, value] : *members) {
      if (name != "attributes")
        kept.emplace_back(std::move(name), withoutAttributes(std::move(value)));
    }
    return JSONLiteral::object(std::move(kept));
  }
  if (auto* items = record.asArray()) {
    for (auto& item : *items) item = withoutAttributes(std::move(item));
  }
  return record;
}

std::int64_t run(CommandContext& context, SalesforceAPI::Client& api, const std::string& login,
                 const std::string& soql, Format format,
                 const std::optional<std::filesystem::path>& output) {
  auto orgs = context.cli.listOrgs(true, context.listTimeout);
  const Org& org = OrgsCommand::findLogin(orgs, login);
  RowSink sink(context.out, output);

  const bool table = format != Format::json;
  std::vector<ResultTable::Column> columns =
      table ? ResultTable::columns(soql) : std::vector<ResultTable::Column>();
  const bool countOnly = table && ResultTable::isCountOnly(soql);
  bool headerWritten = false;
  std::string text;
  auto writeHeader = [&] {
    std::vector<std::string> names;
    for (const auto& column : columns) names.push_back(column.name);
    if (format == Format::csv) {
      QueryExport::appendCSVLine(text, names);
    } else {
      QueryExport::appendTSVHeader(text, names);
    }
    headerWritten = true;
  };
  auto writeRow = [&](const std::vector<std::string>& cells) {
    if (format == Format::csv) {
      QueryExport::appendCSVLine(text, cells);
    } else {
      QueryExport::appendTSVLine(text, cells);
    }
  };

  std::int64_t rows = 0;
  std::int64_t totalSize = 0;
  api.queryStream(soql, org, [&](SalesforceAPI::QueryPage page) {
    totalSize = page.totalSize;
    if (table && !headerWritten && !page.records.empty()) {
      // FIELDS(...) and the like: the first record tells the columns.
      if (columns.empty()) columns = ResultTable::columns(page.records.front());
      columns = ResultTable::withRecordNames(std::move(columns), page.records);
      writeHeader();
    }
    for (auto& record : page.records) {
      if (!table) {
        withoutAttributes(std::move(record)).dump(text);
        text += '\n';
      } else {
        writeRow(ResultTable::cells(record, columns));
      }
      ++rows;
    }
    return sink.write(text);
  });
  if (table && countOnly && rows == 0) {
    columns = {{"COUNT()", {}}};
    writeHeader();
    writeRow({std::to_string(totalSize)});
    rows = 1;
  }
  if (table && !headerWritten) writeHeader();
  sink.write(text);
  sink.finish();
  if (output) {
    context.out << "Wrote " << withThousands(rows) << (rows == 1 ? " row" : " rows") << " to "
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
  query->callback([&context, &chosen, options] {
    chosen = [&context, options] {
      SalesforceAPI::Client api(
          [&context](const std::string& username) { return context.cli.session(username); });
      run(context, api, options->login, options->soql, options->format, options->output);
    };
  });
}

}  // namespace corvane::QueryCommand
