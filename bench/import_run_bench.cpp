// Mapping and value coercion of a 100,000-row by 20-column grid (target: under
// 1 second), the work `corvane import run` does before anything is sent.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "import/import_plan.hpp"

namespace {

using namespace corvane;

std::vector<ImportField> benchFields() {
  std::vector<ImportField> fields;
  auto add = [&](std::string name, std::string type, int length = 0) {
    ImportField f;
    f.name = name;
    f.label = name;
    f.type = std::move(type);
    f.length = length;
    f.precision = 18;
    f.scale = 2;
    f.createable = f.updateable = true;
    if (f.type == "picklist") f.picklistValues = {"Hot", "Warm", "Cold", "Unknown"};
    fields.push_back(std::move(f));
  };
  const char* types[] = {"string",  "currency", "date",  "datetime", "picklist",
                         "boolean", "email",    "phone", "int",      "reference"};
  for (int i = 0; i < 20; ++i) {
    add("Field" + std::to_string(i) + "__c", types[i % 10], 80);
  }
  return fields;
}

ImportGrid benchGrid(std::size_t rows) {
  ImportGrid grid;
  for (int i = 0; i < 20; ++i) grid.headers.push_back("field " + std::to_string(i));
  const char* cells[] = {
      "Acme Widgets Ltd", "$12,345.67",      "2024-03-31", "2024-03-31 14:30", "warm", "yes",
      "ana@example.com",  "+1 415 555 0100", "1,234",      "001xx000003DGb2"};
  std::vector<std::string> row;
  for (int i = 0; i < 20; ++i) row.emplace_back(cells[i % 10]);
  for (std::size_t i = 0; i < rows; ++i) grid.rows.push_back(row);
  return grid;
}

void BM_MapAndCoerce(benchmark::State& state) {
  auto fields = benchFields();
  ImportGrid grid = benchGrid(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    ImportMapping mapping = ImportMapping::automatic(grid.headers, fields);
    ImportPlan plan =
        ImportPlan::build(grid, mapping, fields, *ImportOperation::parse("insert"), {});
    benchmark::DoNotOptimize(plan.values.data());
    if (!plan.problems.empty()) state.SkipWithError("unexpected problems");
  }
  state.SetItemsProcessed(state.iterations() * state.range(0) * 20);
}
BENCHMARK(BM_MapAndCoerce)->Arg(100'000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
