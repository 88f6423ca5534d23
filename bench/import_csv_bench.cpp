// DelimitedText::parse on 100 MB of CSV (target: at least 100 MB/s): quoted
// fields with commas and doubled quotes, line breaks inside quotes, CR LF
// endings and about one non-ASCII name in ten.
#include <benchmark/benchmark.h>

#include <string>

#include "import/delimited_text.hpp"

namespace {

const std::string& sampleCSV() {
  static const std::string text = [] {
    std::string out = "Id,First Name,Last Name,Email,Company,Street,City,Amount,Created,Note\r\n";
    const char* firsts[] = {"Ada", "Grace", "Zoë", "Linus", "Margaret", "Björn", "Ken", "Barbara"};
    const char* cities[] = {"Berlin", "\"Paris, FR\"", "Zürich", "Oslo", "\"New York\"", "東京"};
    for (std::size_t row = 0; out.size() < (std::size_t{100} << 20); ++row) {
      out += "003A00000";
      out += std::to_string(1000000 + row);
      out += ',';
      out += firsts[row % 8];
      out += ",Lovelace-";
      out += std::to_string(row % 977);
      out += ",person";
      out += std::to_string(row);
      out += "@example.com,\"Acme, Inc. \"\"Main\"\"\",";
      out += std::to_string(row % 400);
      out += " High Street,";
      out += cities[row % 6];
      out += ',';
      out += std::to_string(row * 37 % 100000);
      out += ".50,2024-03-";
      out += std::to_string(10 + row % 18);
      out += (row % 50 == 0) ? ",\"first line\nsecond line\"\r\n" : ",plain note text\r\n";
    }
    return out;
  }();
  return text;
}

void BM_ParseCSV(benchmark::State& state) {
  const std::string& text = sampleCSV();
  std::size_t rows = 0;
  for (auto _ : state) {
    auto grid = corvane::DelimitedText::parse(text, ',');
    rows = grid ? grid->rows.size() : 0;
    benchmark::DoNotOptimize(grid);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
  state.counters["rows"] = static_cast<double>(rows);
}
BENCHMARK(BM_ParseCSV)->Unit(benchmark::kMillisecond)->MinTime(3);

}  // namespace

BENCHMARK_MAIN();
