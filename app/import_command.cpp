#include "app/import_command.hpp"

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <iostream>
#include <iterator>

#include "import/delimited_text.hpp"
#include "import/import_error.hpp"
#include "import/xlsx_reader.hpp"

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
}

}  // namespace corvane::ImportCommand
