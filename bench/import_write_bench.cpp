// `corvane import run` without the program around it: 100,000 Account rows
// mapped, coerced and written to the sample org (served in-process on
// loopback) through Bulk API ingest jobs, with the journal on disk. Reports
// rows per second, end to end.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <random>

#include "connections/api_transport.hpp"
#include "import/delimited_text.hpp"
#include "import/import_journal.hpp"
#include "import/import_mapping.hpp"
#include "import/import_runner.hpp"
#include "tools/orgsim/server.hpp"
#include "tools/orgsim/sessions.hpp"

namespace {

using namespace corvane;

void BM_BulkImportRowsPerSecond(benchmark::State& state) {
  auto rows = static_cast<std::size_t>(state.range(0));
  std::filesystem::path folder = std::filesystem::temp_directory_path() /
                                 ("import-write-bench-" + std::to_string(std::random_device{}()));
  std::filesystem::create_directories(folder);
  {
    orgsim::OrgServer server(folder / "state");
    server.start();
    server.store().setSetting("bulkDelayMs", "0");
    server.store().setSetting("dailyApiMax", "100000000");
    SalesforceAPI::Client api([&](const std::string&) {
      return SalesforceAPI::Session{
          orgsim::Sessions::issue(server.store(), "").token, server.baseUrl(), "62.0", {}};
    });
    Org org;
    org.username = server.store().identity().adminUsername;
    DedupeAPITransport transport(api, org);
    std::vector<ImportField> fields = ImportFields::fromDescribe(nlohmann::json::parse(
        transport.send("GET", "sobjects/Account/describe", {}, std::nullopt)));
    int round = 0;
    for (auto _ : state) {
      std::string csv = "Account Name,Industry,Annual Revenue,Website\n";
      for (std::size_t row = 0; row < rows; ++row) {
        csv += "Bench " + std::to_string(round) + "-" + std::to_string(row) + "," +
               (row % 2 ? "Banking" : "Energy") + "," + std::to_string(row * 10) +
               ",https://example.com/" + std::to_string(row) + "\n";
      }
      ImportGrid grid = *DelimitedText::parse(csv, ',');
      ++round;
      ImportMapping mapping = ImportMapping::automatic(grid.headers, fields);
      ImportPlan plan =
          ImportPlan::build(grid, mapping, fields, *ImportOperation::parse("insert"), {});
      ImportJournal journal(folder / "journal.sqlite");
      ImportRunner::Options options{org.username, "Account", "bench.csv"};
      options.pollInterval = std::chrono::milliseconds(20);
      ImportRunner runner(transport, journal, options);
      ImportRunSummary summary = runner.run(plan, fields);
      if (summary.created != rows) state.SkipWithError("not every row was created");
      state.counters["requests"] = summary.requests;
    }
    state.counters["rows/s"] = benchmark::Counter(static_cast<double>(state.iterations() * rows),
                                                  benchmark::Counter::kIsRate);
  }
  std::error_code error;
  std::filesystem::remove_all(folder, error);
}
BENCHMARK(BM_BulkImportRowsPerSecond)
    ->Arg(100'000)
    ->Unit(benchmark::kSecond)
    ->Iterations(1)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
