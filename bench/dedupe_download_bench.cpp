// A snapshot download end to end: 1,000,000 Contacts from the sample org through
// a Bulk API query job, the REST client and the snapshot store (target: under 30
// seconds, with memory that does not grow with the row count: compare the peak
// resident size with CORVANE_BENCH_CONTACTS=200000).
//
// The org is generated once into CORVANE_BENCH_DIR (default: the system's temp
// folder) and reused; the server runs in-process on a free loopback port.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "connections/api_transport.hpp"
#include "dedupe/snapshot_downloader.hpp"
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

void BM_SnapshotDownloadContacts(benchmark::State& state) {
  const std::int64_t contacts = contactsWanted();
  const fs::path folder = benchFolder() / ("orgsim-contacts-" + std::to_string(contacts));
  if (!orgsim::OrgStore::exists(folder)) {
    fs::remove_all(folder);
    orgsim::GenerateOptions options;
    options.out = folder;
    options.scale = "tiny";
    options.sizes = {{"Contact", contacts}};
    orgsim::generateOrg(options);
  }
  orgsim::OrgServer server(folder);
  server.start();
  server.store().setSetting("bulkDelayMs", "0");
  SalesforceAPI::Client api([&server](const std::string&) {
    SalesforceAPI::Session session;
    session.instanceUrl = server.baseUrl();
    session.accessToken = orgsim::Sessions::issue(server.store(), "").token;
    return session;
  });
  Org org;
  org.username = server.store().identity().adminUsername;
  DedupeAPITransport transport(api, org);

  SnapshotDownloader::Request request;
  request.objectName = "Contact";
  request.matchFieldNames = {"Name", "Email", "Phone"};
  request.extraFieldNames = {"Title", "Department"};
  request.pageSize = 50'000;
  BulkQueryRunner::Options runnerOptions;
  runnerOptions.firstPollDelay = std::chrono::milliseconds(100);
  runnerOptions.maxPollDelay = std::chrono::milliseconds(500);

  const fs::path snapshot = benchFolder() / "dedupe-download-bench.sqlite";
  std::int64_t rows = 0;
  for (auto _ : state) {
    state.PauseTiming();
    for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(snapshot.string() + suffix);
    RecordStore::Creation creation;
    creation.objectName = "Contact";
    creation.matchFields = {{"Name", "Name", MatchKind::personName, MatchMode::close},
                            {"Email", "Email", MatchKind::email, MatchMode::exact},
                            {"Phone", "Phone", MatchKind::phone, MatchMode::exact}};
    creation.extraFields = request.extraFieldNames;
    auto store = RecordStore::create(snapshot, creation);
    state.ResumeTiming();
    SnapshotDownloader downloader(transport, runnerOptions);
    auto start = std::chrono::steady_clock::now();
    double prepared = 0;
    DownloadPhase result = downloader.download(
        {request}, *store,
        [&](const DownloadPhase& phase) {
          if (phase.kind == DownloadPhase::Kind::downloading && prepared == 0) {
            prepared = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
          }
        },
        {});
    // Seconds until the first page was stored: the org preparing the job's results.
    state.counters["firstPageSeconds"] = prepared;
    rows += result.done;
    state.counters["records"] = static_cast<double>(result.done);
  }
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  state.counters["peakRSS_MB"] = static_cast<double>(usage.ru_maxrss) / 1024.0;
  state.SetItemsProcessed(rows);
  for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(snapshot.string() + suffix);
  server.stop();
}
BENCHMARK(BM_SnapshotDownloadContacts)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
