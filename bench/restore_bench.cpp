// `corvane backup restore` without the program around it: 2,000 Contacts (sent
// in collections of 200) and 10,000 (through a Bulk API ingest job) backed up,
// deleted and purged, then created again from the backup
// against the sample org (served in-process on loopback), with the journal on
// disk. Reports records per second, and the share of the time spent waiting
// for the org's answers (the rest is Corvane's own: reading the backup,
// planning, building requests, reading replies, the journal).
#include <benchmark/benchmark.h>

#include <chrono>
#include <filesystem>
#include <random>

#include "backup/backup_runner.hpp"
#include "backup/restore_task.hpp"
#include "connections/api_transport.hpp"
#include "tools/orgsim/org_records.hpp"
#include "tools/orgsim/server.hpp"
#include "tools/orgsim/sessions.hpp"

namespace {

using namespace corvane;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Passes every call on and adds up the time spent waiting for answers.
class TimedTransport : public BackupTransport {
 public:
  explicit TimedTransport(BackupTransport& inner) : inner_(inner) {}
  Clock::duration waited{0};
  int requests = 0;

  template <typename Call>
  auto timed(Call call) {
    const auto start = Clock::now();
    auto result = call();
    waited += Clock::now() - start;
    ++requests;
    return result;
  }
  std::string send(const std::string& method, const std::string& path, const QueryItems& query,
                   const std::optional<std::string>& body) override {
    return timed([&] { return inner_.send(method, path, query, body); });
  }
  std::pair<std::string, ResponseHeaders> getRaw(const std::string& path, const QueryItems& query,
                                                 const std::string& accept) override {
    return timed([&] { return inner_.getRaw(path, query, accept); });
  }
  std::string postSOAP(const std::string& action, const std::string& envelope) override {
    return timed([&] { return inner_.postSOAP(action, envelope); });
  }
  std::int64_t download(const std::string& path, const std::filesystem::path& file) override {
    return timed([&] { return inner_.download(path, file); });
  }
  TransportFailure classify(const std::exception& error) const override {
    return inner_.classify(error);
  }

 private:
  BackupTransport& inner_;
};

void BM_RestoreContacts(benchmark::State& state) {
  const auto count = static_cast<int>(state.range(0));
  const auto folder = std::filesystem::temp_directory_path() /
                      ("restore-bench-" + std::to_string(std::random_device{}()));
  std::filesystem::create_directories(folder);
  {
    orgsim::OrgServer server(folder / "state");
    server.start();
    auto& store = server.store();
    store.setSetting("bulkDelayMs", "0");
    store.setSetting("dailyApiMax", "100000000");
    SalesforceAPI::Client api([&](const std::string&) {
      return SalesforceAPI::Session{orgsim::Sessions::issue(store, "").token, server.baseUrl(),
                                    "62.0", {}};
    });
    Org org;
    org.username = store.identity().adminUsername;
    APITransport transport(api, org);

    std::string account;
    {
      auto writer = store.writer("Account", {"Name"});
      account = writer.insert({"Bench Account"});
      writer.commit();
    }
    std::vector<std::string> contacts;
    {
      auto writer = store.writer(
          "Contact", {"FirstName", "LastName", "AccountId", "Email", "Birthdate", "Description"});
      for (int i = 0; i < count; ++i)
        contacts.push_back(writer.insert(
            {"First" + std::to_string(i), "Last" + std::to_string(i), account,
             "c" + std::to_string(i) + "@example.com", "1980-02-29", "Line one\nline two"}));
      writer.commit();
    }
    BackupConfig config;
    config.location = {folder / "Backups", "00D", org.username};
    config.options.onlyObjects = std::vector<std::string>{"Contact"};
    config.freeSpaceFloor = 1000;
    config.purgeCheckInterval = 0;
    auto backup = [&](RunKind kind) {
      BackupRunner runner(
          transport, config, [](const std::filesystem::path&) { return 1'000'000'000'000; },
          [](const std::filesystem::path&) { return std::nullopt; }, 1ms,
          [&] { return store.now(); }, {}, {});
      runner.run(kind);
      store.advanceClock(2min);
    };
    backup(RunKind::full);
    for (const auto& id : contacts) orgsim::OrgRecords::remove(store, id, store.identity().adminUserId);
    orgsim::OrgRecords::purge(store, "Contact", {});
    store.advanceClock(2min);
    backup(RunKind::changes);

    RestoreTask::Request request;
    request.location = config.location;
    request.object = "Contact";
    request.deleted = true;
    request.journal = folder / "journal.sqlite";
    for (auto _ : state) {
      TimedTransport timed(transport);
      const auto start = Clock::now();
      const auto result = RestoreTask::run(timed, request);
      const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
      if (result.restored != static_cast<std::size_t>(count))
        state.SkipWithError("not every Contact was restored");
      state.counters["records/s"] = count / seconds;
      state.counters["orgShare"] = std::chrono::duration<double>(timed.waited).count() / seconds;
      state.counters["requests"] = timed.requests;
    }
  }
  std::filesystem::remove_all(folder);
}

BENCHMARK(BM_RestoreContacts)->Arg(2'000)->Arg(10'000)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
