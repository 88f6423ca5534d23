// XlsxReader on a 100,000-row by 20-column workbook written by libxlsxwriter
// (target: under 2 seconds). Text, numbers, dates, date-times and booleans;
// shared strings as spreadsheet programs write them.
//
// Counters: sheet_xml_MB is the sheet's unpacked size; peak_rss_growth_MB how
// far the process's peak memory rose while reading (the grid included), and
// grid_MB an estimate of the grid's own size.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xlsxwriter.h>
#include <zip.h>

#include <filesystem>
#include <string>

#include "workbook/xlsx_reader.hpp"

namespace {

constexpr int rowCount = 100'000;
constexpr int columnCount = 20;

// Written in a child process, so that the writer's memory does not count.
std::filesystem::path sampleWorkbook() {
  static const std::filesystem::path path = [] {
    auto file = std::filesystem::temp_directory_path() / "corvane-import-bench.xlsx";
    pid_t child = fork();
    if (child == 0) {
      lxw_workbook* workbook = workbook_new(file.c_str());
      lxw_worksheet* sheet = workbook_add_worksheet(workbook, "Contacts");
      lxw_format* date = workbook_add_format(workbook);
      format_set_num_format(date, "yyyy-mm-dd");
      lxw_format* stamp = workbook_add_format(workbook);
      format_set_num_format(stamp, "yyyy-mm-dd hh:mm:ss");
      for (int column = 0; column < columnCount; ++column)
        worksheet_write_string(sheet, 0, static_cast<lxw_col_t>(column),
                               ("Column " + std::to_string(column)).c_str(), nullptr);
      const char* cities[] = {"Berlin", "Paris", "Zürich", "Oslo", "New York", "東京"};
      for (lxw_row_t row = 1; row <= rowCount; ++row) {
        for (lxw_col_t column = 0; column < columnCount; ++column) {
          switch (column % 7) {
            case 0:
              worksheet_write_string(sheet, row, column, ("Person " + std::to_string(row)).c_str(),
                                     nullptr);
              break;
            case 1:
              worksheet_write_string(sheet, row, column, cities[(row + column) % 6], nullptr);
              break;
            case 2:
              worksheet_write_number(sheet, row, column, row * 1.25 + column, nullptr);
              break;
            case 3:
              worksheet_write_number(sheet, row, column, 45000 + row % 3000, date);
              break;
            case 4:
              worksheet_write_number(sheet, row, column, 45000.5 + row % 3000, stamp);
              break;
            case 5:
              worksheet_write_boolean(sheet, row, column, row % 2, nullptr);
              break;
            default:
              worksheet_write_number(sheet, row, column, row % 1000, nullptr);
              break;
          }
        }
      }
      _exit(workbook_close(workbook) == LXW_NO_ERROR ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return file;
  }();
  return path;
}

double sheetXMLMegabytes(const std::filesystem::path& file) {
  int error = 0;
  zip_t* archive = zip_open(file.c_str(), ZIP_RDONLY, &error);
  if (!archive) return 0;
  zip_stat_t stat;
  double size = 0;
  if (zip_stat(archive, "xl/worksheets/sheet1.xml", 0, &stat) == 0)
    size = static_cast<double>(stat.size);
  zip_discard(archive);
  return size / (1 << 20);
}

double peakRSSMegabytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024;
}

void BM_ReadWorkbook(benchmark::State& state) {
  auto file = sampleWorkbook();
  double before = peakRSSMegabytes();
  double gridBytes = 0;
  for (auto _ : state) {
    corvane::XlsxReader reader(file);
    auto grid = reader.readSheet(std::size_t{0});
    if (!grid || grid->rows.size() != rowCount) state.SkipWithError("the sheet did not read whole");
    if (grid) {
      gridBytes = static_cast<double>(grid->rows.memoryUsed());
    }
    benchmark::DoNotOptimize(grid);
  }
  state.counters["sheet_xml_MB"] = sheetXMLMegabytes(file);
  state.counters["peak_rss_growth_MB"] = peakRSSMegabytes() - before;
  state.counters["grid_MB"] = gridBytes / (1 << 20);
}
BENCHMARK(BM_ReadWorkbook)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
