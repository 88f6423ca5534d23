// A backup run end to end: 1,000,000 Contacts from the sample org through a
// Bulk API query job, then page -> CSV -> commit -> known_ids (target: at least
// 150,000 rows a second, with memory that does not grow with the row count:
// compare the peak resident size with CORVANE_BENCH_CONTACTS=200000). A second
// benchmark counts the requests of a changes run over an org where nothing changed.
//
// The org is generated once into CORVANE_BENCH_DIR (default: the system's temp
// folder) and reused; the server runs in-process on a free loopback port.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "backup/backup_runner.hpp"
#include "connections/api_transport.hpp"
#include "tools/orgsim/generate/generator.hpp"
#include "tools/orgsim/org_store.hpp"
#include "tools/orgsim/server.hpp"
#include "tools/orgsim/sessions.hpp"

namespace {

namespace fs = std::filesystem;
using namespace corvane;

std::int64_t contactsWanted() {
  const char* text = std::getenv("CORVANE_BENCH_CONTACTS");
  return text != nullptr ? std::atoll(text) : 1'000'000;
}

fs::path benchFolder() {
  const char* text = std::getenv("CORVANE_BENCH_DIR");
  return text != nullptr ? fs::path(text) : fs::temp_directory_path() / "corvane-bench";
}

// The sample org with that many Contacts, generated on first use.
fs::path orgFolder(std::int64_t contacts) {
  const fs::path folder = benchFolder() / ("orgsim-contacts-" + std::to_string(contacts));
  if (!orgsim::OrgStore::exists(folder)) {
    fs::remove_all(folder);
    orgsim::GenerateOptions options;
    options.out = folder;
    options.scale = "tiny";
    options.sizes = {{"Contact", contacts}};
    orgsim::generateOrg(options);
  }
  return folder;
}

struct Backup {
  explicit Backup(const fs::path& org)
      : server(org), api([this](const std::string&) {
          SalesforceAPI::Session session;
          session.instanceUrl = server.baseUrl();
          session.accessToken = orgsim::Sessions::issue(server.store(), "").token;
          return session;
        }) {
    server.start();
    server.store().setSetting("bulkDelayMs", "0");
    login.username = server.store().identity().adminUsername;
    transport = std::make_unique<APITransport>(api, login);
  }

  // Processor seconds of this process so far (every thread, the server's too).
  static double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  }

  // One run into root; copyingSeconds is the time from the first page to the
  // end of the object (the job's preparation by the sample org left out), and
  // copyingCPU the processor time spent in it.
  RunSummary run(const fs::path& root, RunKind kind, double& copyingSeconds) {
    double ignored = 0;
    return run(root, kind, copyingSeconds, ignored);
  }
  RunSummary run(const fs::path& root, RunKind kind, double& copyingSeconds, double& copyingCPU) {
    BackupConfig config;
    config.location = {root, "00D", login.username};
    config.options.onlyObjects = std::vector<std::string>{"Contact"};
    config.freeSpaceFloor = 0;
    std::chrono::steady_clock::time_point first, last;
    double firstCPU = 0, lastCPU = 0;
    bool started = false;
    BackupRunner runner(
        *transport, config, [](const fs::path&) { return std::nullopt; },
        [](const fs::path&) { return std::nullopt; }, std::chrono::milliseconds(50),
        [] { return std::chrono::system_clock::now(); }, {},
        [&](const BackupProgress& progress) {
          if (progress.step == BackupProgress::Step::downloadingRecords && !started) {
            started = true;
            first = std::chrono::steady_clock::now();
            firstCPU = cpuSeconds();
          }
          if (progress.step == BackupProgress::Step::objectFinished) {
            last = std::chrono::steady_clock::now();
            lastCPU = cpuSeconds();
          }
        });
    auto summary = runner.run(kind);
    copyingSeconds = started ? std::chrono::duration<double>(last - first).count() : 0;
    copyingCPU = started ? lastCPU - firstCPU : 0;
    return summary;
  }

  orgsim::OrgServer server;
  SalesforceAPI::Client api;
  Org login;
  std::unique_ptr<APITransport> transport;
};

void BM_BackupRunContacts(benchmark::State& state) {
  const std::int64_t contacts = contactsWanted();
  Backup backup(orgFolder(contacts));
  const fs::path root = benchFolder() / "backup-run-bench";
  std::int64_t rows = 0;
  double copying = 0;
  double copyingCPU = 0;
  for (auto _ : state) {
    state.PauseTiming();
    fs::remove_all(root);
    state.ResumeTiming();
    double seconds = 0;
    double cpu = 0;
    auto summary = backup.run(root, RunKind::full, seconds, cpu);
    if (summary.result != "complete") {
      state.SkipWithError(summary.message.c_str());
      break;
    }
    rows += summary.records;
    copying += seconds;
    copyingCPU += cpu;
  }
  // Live rows (the generated org keeps a few in its Recycle Bin).
  state.counters["rows"] = static_cast<double>(rows) / static_cast<double>(state.iterations());
  state.counters["copying_rows_per_cpu_second"] =
      copyingCPU > 0 ? static_cast<double>(rows) / copyingCPU : 0;
  state.counters["rows_per_second"] =
      benchmark::Counter(static_cast<double>(rows), benchmark::Counter::kIsRate);
  state.counters["copying_rows_per_second"] = copying > 0 ? static_cast<double>(rows) / copying : 0;
}
BENCHMARK(BM_BackupRunContacts)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();

void BM_QuietChangesRunRequests(benchmark::State& state) {
  Backup backup(orgFolder(std::min<std::int64_t>(contactsWanted(), 20'000)));
  const fs::path root = benchFolder() / "backup-quiet-bench";
  fs::remove_all(root);
  double seconds = 0;
  backup.run(root, RunKind::full, seconds);
  std::int64_t requests = 0;
  for (auto _ : state) {
    // The org's watermarks are whole seconds: let the full run's second pass.
    state.PauseTiming();
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    state.ResumeTiming();
    requests = backup.run(root, RunKind::changes, seconds).apiRequests;
  }
  state.counters["requests"] = static_cast<double>(requests);
  state.counters["objects"] = 1;
}
BENCHMARK(BM_QuietChangesRunRequests)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
