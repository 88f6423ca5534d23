// Storing snapshot pages: CSV parsed, three match fields normalised and the
// rows inserted with two extras, one transaction per 50,000-row page (target:
// at least 200,000 rows a second).
#include <benchmark/benchmark.h>

#include <filesystem>
#include <random>
#include <string>

#include "dedupe/csv_stream.hpp"
#include "dedupe/record_store.hpp"

namespace {

namespace fs = std::filesystem;
using namespace corvane;

std::string page(std::size_t rows, std::size_t offset) {
  static const char* first[] = {"Anna", "Bertrand", "Catherine", "José", "Eleanor", "Hiroshi"};
  static const char* last[] = {"O'Brien", "Smith", "Müller", "Nguyen", "Thompson", "Kowalski"};
  std::string csv =
      "\"Id\",\"Name\",\"CreatedDate\",\"LastModifiedDate\",\"Email\",\"Phone\",\"Title\","
      "\"Department\"\n";
  std::mt19937 random(static_cast<unsigned>(offset));
  for (std::size_t i = 0; i < rows; ++i) {
    std::string name = std::string(first[random() % 6]) + " " + last[random() % 6];
    std::string id = "003" + std::to_string(1'000'000'000'000'000ULL + offset + i).substr(4);
    csv += "\"" + id + "\",\"" + name + "\",\"2024-01-05T10:00:00.000Z\","
           "\"2024-02-05T10:00:00.000Z\",\"" + std::to_string(random() % 100000) +
           "@Example.com\",\"+1 (415) 555-" + std::to_string(1000 + random() % 9000) +
           "\",\"Head of \"\"Sales\"\"\",\"Sales, West\"\n";
  }
  return csv;
}

void BM_IngestPages(benchmark::State& state) {
  const std::size_t rowsPerPage = 50'000;
  std::vector<std::string> pages{page(rowsPerPage, 0), page(rowsPerPage, rowsPerPage)};
  fs::path folder = fs::temp_directory_path() / "corvane-bench-ingest";
  std::int64_t rows = 0;
  for (auto _ : state) {
    state.PauseTiming();
    fs::remove_all(folder);
    fs::create_directories(folder);
    RecordStore::Creation creation;
    creation.objectName = "Contact";
    creation.matchFields = {{"Name", "Name", MatchKind::personName, MatchMode::close},
                            {"Email", "Email", MatchKind::email, MatchMode::exact},
                            {"Phone", "Phone", MatchKind::phone, MatchMode::exact}};
    creation.extraFields = {"Title", "Department"};
    auto store = RecordStore::create(folder / "bench.sqlite", creation);
    state.ResumeTiming();
    std::vector<RecordStore::Incoming> incoming;
    for (const std::string& csv : pages) {
      incoming.clear();
      CsvStream::parsePage(
          csv, [](const CsvStream::Row&) {},
          [&incoming](const CsvStream::Row& row) {
            incoming.push_back({std::string(row[0]), std::string(row[1]), std::string(row[2]),
                                std::string(row[3]),
                                {std::string(row[1]), std::string(row[4]), std::string(row[5])},
                                {std::string(row[6]), std::string(row[7])}});
          });
      store->ingest(incoming, "next");
      rows += static_cast<std::int64_t>(incoming.size());
    }
  }
  fs::remove_all(folder);
  state.SetItemsProcessed(rows);
}
BENCHMARK(BM_IngestPages)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
