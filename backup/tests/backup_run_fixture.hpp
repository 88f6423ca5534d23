// A backup of the sample org, run in-process: the fixture the runner's tests share.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "backup/backup_runner.hpp"
#include "connections/api_transport.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/tests/sample_org.hpp"
#include "tools/orgsim/tests/sample_org_api.hpp"

namespace corvane::testing {

inline std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// Passes every call on, letting a test change what comes back.
class TamperingTransport : public BackupTransport {
 public:
  using Edit = std::function<void(const std::string& path, std::string& body)>;
  explicit TamperingTransport(BackupTransport& inner) : inner_(inner) {}
  std::string send(const std::string& method, const std::string& path, const QueryItems& query,
                   const std::optional<std::string>& body) override {
    auto reply = inner_.send(method, path, query, body);
    if (edit) edit(path, reply);
    return reply;
  }
  std::pair<std::string, ResponseHeaders> getRaw(const std::string& path, const QueryItems& query,
                                                 const std::string& accept) override {
    auto reply = inner_.getRaw(path, query, accept);
    if (edit) edit(path, reply.first);
    return reply;
  }
  std::string postSOAP(const std::string& action, const std::string& envelope) override {
    return inner_.postSOAP(action, envelope);
  }
  std::int64_t download(const std::string& path, const std::filesystem::path& file) override {
    return inner_.download(path, file);
  }
  TransportFailure classify(const std::exception& error) const override {
    return inner_.classify(error);
  }
  Edit edit;

 private:
  BackupTransport& inner_;
};

class BackupRunFixture : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    api_ = orgsim::testing::adminClient(*server_);
    org_.username = store().identity().adminUsername;
    transport_ = std::make_unique<APITransport>(*api_, org_);
    tampering_ = std::make_unique<TamperingTransport>(*transport_);
  }

  BackupConfig config(const std::filesystem::path& root) {
    BackupConfig config;
    config.location = {root, "00D", org_.username};
    config.options.onlyObjects = only_;
    config.freeSpaceFloor = 1000;
    config.restThreshold = restThreshold_;
    config.bulkPageSize = 40;
    config.downloadFileBodies = downloadFiles_;
    return config;
  }

  RunSummary run(const std::filesystem::path& root, RunKind kind,
                 BackupRunner::ShouldStop shouldStop = {}) {
    BackupRunner runner(
        *tampering_, config(root),
        [this](const std::filesystem::path& folder) -> std::optional<std::int64_t> {
          return freeSpace_ ? freeSpace_(folder) : 1'000'000'000'000;
        },
        [this](const std::filesystem::path&) { return fileSystem_; }, std::chrono::milliseconds(1),
        [] { return std::chrono::system_clock::now(); }, {},
        [this](const BackupProgress& progress) {
          std::lock_guard guard(seenMutex_);
          seen_.push_back(progress);
          pages_ += progress.step == BackupProgress::Step::downloadingRecords;
        });
    runner.setShouldStop(std::move(shouldStop));
    return runner.run(kind);
  }

  // Makes the next count requests whose path matches misbehave.
  void fault(const nlohmann::json& rule) { admin("faults", rule); }

  std::multiset<std::string> knownIds(const std::filesystem::path& root,
                                      const std::string& object) {
    BackupStore backup(config(root).location);
    auto statement = backup.db().prepare("SELECT id FROM known_ids WHERE object = ?");
    statement.bindText(1, object);
    std::multiset<std::string> ids;
    while (statement.step()) ids.insert(statement.columnText(0));
    return ids;
  }

  // (state, reason) of an object's records job in a run.
  std::pair<std::string, std::string> job(const std::filesystem::path& root, std::int64_t runId,
                                          const std::string& object) {
    BackupStore backup(config(root).location);
    auto statement = backup.db().prepare(
        "SELECT state, reason FROM jobs WHERE run_id = ? AND object = ? AND purpose = 'records'");
    statement.bindInt(1, runId).bindText(2, object);
    if (!statement.step()) return {};
    return {statement.columnText(0), statement.columnText(1)};
  }

  // Runs until the run is no longer stopped (at most a few times).
  RunSummary runToTheEnd(const std::filesystem::path& root, RunKind kind) {
    RunSummary summary;
    for (int attempt = 0; attempt < 5; ++attempt) {
      summary = run(root, kind);
      if (summary.result != RunResult::stopped) break;
    }
    return summary;
  }

  std::unique_ptr<SalesforceAPI::Client> api_;
  Org org_;
  std::unique_ptr<APITransport> transport_;
  std::unique_ptr<TamperingTransport> tampering_;
  std::vector<std::string> only_{"Account", "Contact"};
  int restThreshold_ = 100;
  bool downloadFiles_ = true;
  std::function<std::optional<std::int64_t>(const std::filesystem::path&)> freeSpace_;
  std::optional<BackupFileSystem> fileSystem_;
  std::mutex seenMutex_;  // guards seen_: progress comes from the copying threads
  std::vector<BackupProgress> seen_;
  std::atomic<int> pages_{0};
  TemporaryFolder first_;
  TemporaryFolder second_;
};

}  // namespace corvane::testing
