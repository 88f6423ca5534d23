// BackupCSV::scan on CSV shaped like a Bulk API result: every value quoted,
// some with doubled quotes, line breaks and non-ASCII text.
#include <benchmark/benchmark.h>

#include <string>

#include "backup/backup_csv.hpp"

namespace {

const std::string& sampleCSV() {
  static const std::string data = [] {
    std::string out;
    std::vector<std::string> header;
    for (int f = 0; f < 20; ++f) header.push_back("Field" + std::to_string(f) + "__c");
    out += corvane::BackupCSV::line(header);
    std::vector<std::string> row(20);
    for (int i = 0; out.size() < 50'000'000; ++i) {
      row[0] = "001" + std::to_string(1'000'000'000 + i) + "AAA";
      row[1] = "Account " + std::to_string(i);
      row[2] = "2024-01-05T10:00:00.000Z";
      row[3] = std::to_string(i * 1000) + ".25";
      row[4] = i % 7 == 0 ? "Line one\nline \"two\"" : "Straße 12, Zürich";
      for (int f = 5; f < 20; ++f)
        row[static_cast<std::size_t>(f)] = f % 3 == 0 ? "" : "value " + std::to_string(f);
      out += corvane::BackupCSV::line(row);
    }
    return out;
  }();
  return data;
}

void BM_ScanStreaming(benchmark::State& state) {
  const std::string& data = sampleCSV();
  for (auto _ : state) {
    std::size_t rows = 0;
    corvane::BackupCSV::scan(data, nullptr, [&](const corvane::BackupCSV::Record&) {
      ++rows;
      return true;
    });
    benchmark::DoNotOptimize(rows);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * data.size()));
}
BENCHMARK(BM_ScanStreaming)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
