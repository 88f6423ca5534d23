// How fast the sample org's generator writes records: Accounts, the widest of the
// generated objects (addresses, duplicates, free text), in rows per second.
//
//   orgsim_generate_bench --benchmark_filter=Accounts/2000000   (the 2 million row run)
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>

#include "tools/orgsim/generate/generator.hpp"

namespace {

namespace fs = std::filesystem;

void GenerateAccounts(benchmark::State& state) {
  const auto rows = state.range(0);
  fs::path folder =
      fs::temp_directory_path() / ("corvane-generate-bench-" + std::to_string(::getpid()));
  for (auto _ : state) {
    state.PauseTiming();
    fs::remove_all(folder);
    corvane::orgsim::GenerateOptions options;
    options.out = folder;
    options.scale = "tiny";
    options.sizes = {{"Account", rows}};
    state.ResumeTiming();
    corvane::orgsim::generateOrg(options);
  }
  fs::remove_all(folder);
  state.SetItemsProcessed(state.iterations() * rows);
}

BENCHMARK(GenerateAccounts)
    ->Arg(200'000)
    ->Arg(2'000'000)
    ->Unit(benchmark::kSecond)
    ->Iterations(1)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
