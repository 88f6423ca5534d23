// Accuracy of the matcher on the sample org's Contacts against the org's own
// ground truth (ground-truth.csv: which records are the same person):
// precision, recall and F1 of the pairs implied by the groups, at each
// strictness (auto included), for two choices of match fields. The Contacts
// go the real way: a Bulk API download from the sample org (in-process) into
// a snapshot.
//
// The org is generated once into CORVANE_BENCH_DIR (default: the system's temp
// folder) with CORVANE_BENCH_ORG_CONTACTS Contacts (default 20,000) and reused.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "connections/api_transport.hpp"
#include "dedupe/matcher.hpp"
#include "dedupe/snapshot_downloader.hpp"
#include "tools/orgsim/generate/generator.hpp"
#include "tools/orgsim/generate/ground_truth.hpp"
#include "tools/orgsim/org_store.hpp"
#include "tools/orgsim/server.hpp"
#include "tools/orgsim/sessions.hpp"

namespace {

namespace fs = std::filesystem;
using namespace corvane;

std::int64_t contactsWanted() {
  const char* text = std::getenv("CORVANE_BENCH_ORG_CONTACTS");
  return text != nullptr ? std::atoll(text) : 20'000;
}

fs::path benchFolder() {
  const char* text = std::getenv("CORVANE_BENCH_DIR");
  return text != nullptr ? fs::path(text) : fs::temp_directory_path() / "corvane-bench";
}

using Pair = std::pair<std::string, std::string>;

Pair ordered(std::string a, std::string b) {
  if (b < a) std::swap(a, b);
  return {a, b};
}

// The Contact pairs that the ground truth says are one person (ids cut to 15).
std::set<Pair> truePairs(const fs::path& org) {
  std::ifstream in(org / std::string(orgsim::GroundTruth::kFileName));
  std::map<std::string, std::vector<std::string>> byEntity;
  std::string line;
  std::getline(in, line);  // header
  while (std::getline(in, line)) {
    auto first = line.find(',');
    auto second = line.find(',', first + 1);
    if (first == std::string::npos || second == std::string::npos) continue;
    if (line.substr(0, first) != "Contact") continue;
    byEntity[line.substr(second + 1)].push_back(line.substr(first + 1, 15));
  }
  std::set<Pair> pairs;
  for (const auto& [entity, ids] : byEntity) {
    for (std::size_t i = 0; i < ids.size(); ++i) {
      for (std::size_t j = i + 1; j < ids.size(); ++j) pairs.insert(ordered(ids[i], ids[j]));
    }
  }
  return pairs;
}

struct Prepared {
  fs::path snapshot;
  std::set<Pair> truth;
};

// Generates the org once, downloads its Contacts into a snapshot once.
const Prepared& prepared(const std::vector<MatchField>& fields, const std::string& tag) {
  static std::map<std::string, Prepared> cache;
  if (auto found = cache.find(tag); found != cache.end()) return found->second;
  const std::int64_t contacts = contactsWanted();
  const fs::path folder = benchFolder() / ("orgsim-truth-" + std::to_string(contacts));
  if (!orgsim::OrgStore::exists(folder)) {
    fs::remove_all(folder);
    orgsim::GenerateOptions options;
    options.out = folder;
    options.scale = "tiny";
    options.sizes = {{"Contact", contacts}};
    orgsim::generateOrg(options);
  }
  Prepared out;
  out.truth = truePairs(folder);
  out.snapshot = benchFolder() / ("dedupe-truth-" + tag + ".sqlite");
  for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(out.snapshot.string() + suffix);

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
  for (const MatchField& field : fields) request.matchFieldNames.push_back(field.name);
  request.pageSize = 50'000;
  RecordStore::Creation creation;
  creation.objectName = "Contact";
  creation.matchFields = fields;
  auto store = RecordStore::create(out.snapshot, creation);
  BulkQueryRunner::Options runnerOptions;
  runnerOptions.firstPollDelay = std::chrono::milliseconds(50);
  SnapshotDownloader(transport, runnerOptions).download({request}, *store, {}, {});
  store->close();
  server.stop();
  return cache.emplace(tag, std::move(out)).first->second;
}

void measure(benchmark::State& state, const std::vector<MatchField>& fields, const std::string& tag) {
  const Prepared& data = prepared(fields, tag);
  MatchSettings settings;
  settings.strictness = static_cast<Strictness>(state.range(0));
  MatchOutcome outcome;
  auto store = RecordStore::open(data.snapshot);
  for (auto _ : state) outcome = Matcher::findDuplicates(*store, settings, {}, {}, {});

  std::vector<Rid> all;
  for (const DuplicateGroup& group : outcome.groups) {
    all.insert(all.end(), group.members.begin(), group.members.end());
  }
  std::map<Rid, std::string> sfid;
  for (auto& [rid, id] : store->sfids(all)) sfid[rid] = id.substr(0, 15);
  std::int64_t found = 0;
  std::int64_t right = 0;
  for (const DuplicateGroup& group : outcome.groups) {
    for (std::size_t i = 0; i < group.members.size(); ++i) {
      for (std::size_t j = i + 1; j < group.members.size(); ++j) {
        ++found;
        if (data.truth.count(ordered(sfid[group.members[i]], sfid[group.members[j]])) > 0) ++right;
      }
    }
  }
  const double precision = found > 0 ? static_cast<double>(right) / static_cast<double>(found) : 0;
  const double recall = data.truth.empty() ? 0
                                           : static_cast<double>(right) /
                                                 static_cast<double>(data.truth.size());
  state.counters["precision"] = precision;
  state.counters["recall"] = recall;
  state.counters["F1"] = precision + recall > 0 ? 2 * precision * recall / (precision + recall) : 0;
  state.counters["truePairs"] = static_cast<double>(data.truth.size());
  state.counters["foundPairs"] = static_cast<double>(found);
  state.counters["records"] = static_cast<double>(outcome.stats.recordsScanned);
  state.SetLabel(std::string(rawValue(settings.strictness)));
}

// Name (close) and e-mail (close).
void BM_SampleOrgNameEmail(benchmark::State& state) {
  measure(state,
          {{"Name", "Name", MatchKind::personName, MatchMode::close},
           {"Email", "Email", MatchKind::email, MatchMode::close}},
          "name-email");
}

// Name (close) and phone (close).
void BM_SampleOrgNamePhone(benchmark::State& state) {
  measure(state,
          {{"Name", "Name", MatchKind::personName, MatchMode::close},
           {"Phone", "Phone", MatchKind::phone, MatchMode::close}},
          "name-phone");
}

// Name alone (close): the ceiling a second field's blanks take away from.
void BM_SampleOrgName(benchmark::State& state) {
  measure(state, {{"Name", "Name", MatchKind::personName, MatchMode::close}}, "name");
}

BENCHMARK(BM_SampleOrgNameEmail)->DenseRange(0, 3)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_SampleOrgNamePhone)->DenseRange(0, 3)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_SampleOrgName)->DenseRange(0, 3)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
