#include "backup/backup_runner.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

#include "backup/backup_csv.hpp"
#include "backup/last_run.hpp"
#include "backup/manifest.hpp"
#include <nlohmann/json.hpp>
#include "connections/api_transport.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/tests/sample_org.hpp"
#include "tools/orgsim/tests/sample_org_api.hpp"

namespace corvane {
namespace {

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

class BackupRunnerTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    api_ = orgsim::testing::adminClient(*server_);
    org_.username = store().identity().adminUsername;
    transport_ = std::make_unique<APITransport>(*api_, org_);
  }

  BackupConfig config(const std::filesystem::path& root) {
    BackupConfig config;
    config.location = {root, "00D", org_.username};
    config.options.onlyObjects = only_;
    config.freeSpaceFloor = 1000;
    config.restThreshold = 100;
    config.bulkPageSize = 40;
    return config;
  }

  RunSummary run(const std::filesystem::path& root, RunKind kind,
                 BackupRunner::ShouldStop shouldStop = {}) {
    BackupRunner runner(
        *transport_, config(root), [](const std::filesystem::path&) { return 1'000'000'000'000; },
        [](const std::filesystem::path&) { return std::nullopt; }, std::chrono::milliseconds(1),
        [] { return std::chrono::system_clock::now(); }, {},
        [this](const BackupProgress& progress) {
          std::lock_guard guard(seenMutex_);
          seen_.push_back(progress);
          pages_ += progress.step == BackupProgress::Step::downloadingRecords;
        });
    runner.setShouldStop(std::move(shouldStop));
    return runner.run(kind);
  }

  // Every id in known_ids for object, as a multiset.
  std::multiset<std::string> knownIds(const std::filesystem::path& root, const std::string& object) {
    BackupStore store(config(root).location);
    auto statement = store.db().prepare("SELECT id FROM known_ids WHERE object = ?");
    statement.bindText(1, object);
    std::multiset<std::string> ids;
    while (statement.step()) ids.insert(statement.columnText(0));
    return ids;
  }

  std::unique_ptr<SalesforceAPI::Client> api_;
  Org org_;
  std::unique_ptr<APITransport> transport_;
  std::vector<std::string> only_{"Account", "Contact"};
  std::mutex seenMutex_;  // guards seen_: progress comes from the copying threads
  std::vector<BackupProgress> seen_;
  std::atomic<int> pages_{0};
  TemporaryFolder first_;
  TemporaryFolder second_;
};

TEST_F(BackupRunnerTest, FullRunCopiesEveryRecordWithItsIdsAndSummaryFiles) {
  const auto accounts = orgsim::testing::addAccounts(store(), 150);
  only_ = {"Account", "Task"};
  auto summary = run(first_.path(), RunKind::full);
  ASSERT_EQ(summary.result, RunResult::complete) << summary.message;
  EXPECT_EQ(summary.records, 150);
  EXPECT_GT(summary.apiRequests, 5);

  // Account (150) went in bulk pages, Contact too; both start with their header.
  const auto accountCSV = readFile(summary.folder / "Account.csv");
  auto page = BackupCSV::scan(accountCSV);
  ASSERT_FALSE(page.header.empty());
  EXPECT_EQ(page.header.front(), "Id");
  EXPECT_EQ(page.records.size(), 150u);
  std::set<std::string> inFile;
  for (const auto& record : page.records) inFile.insert(record.fields.front());
  EXPECT_EQ(inFile, std::set<std::string>(accounts.begin(), accounts.end()));
  auto known = knownIds(first_.path(), "Account");
  EXPECT_EQ(std::set<std::string>(known.begin(), known.end()), inFile);

  for (const char* name : {"Deleted.csv", "Files.csv", "FileLinks.csv", "manifest.json",
                           "READ ME.txt"})
    EXPECT_TRUE(std::filesystem::exists(summary.folder / name)) << name;
  auto manifest = Manifest::read(summary.folder);
  ASSERT_TRUE(manifest);
  EXPECT_EQ(manifest->result, RunResult::complete);
  EXPECT_FALSE(manifest->files.salesforceTimeAtStart.empty());
  auto last = LastRun::read(config(first_.path()).location);
  ASSERT_TRUE(last);
  EXPECT_EQ(last->records, 150);
  EXPECT_EQ(last->folder, summary.folder.filename().string());

  BackupStore backup(config(first_.path()).location);
  auto via = backup.db().prepare("SELECT object, via FROM jobs ORDER BY seq");
  std::map<std::string, std::string> ways;
  while (via.step()) ways[via.columnText(0)] = via.columnText(1);
  EXPECT_EQ(ways["Account"], "bulk");
  bool sawStart = false;
  bool sawFinished = false;
  for (const auto& progress : seen_) {
    sawStart |= progress.step == BackupProgress::Step::starting;
    sawFinished |= progress.step == BackupProgress::Step::objectFinished;
  }
  EXPECT_TRUE(sawStart && sawFinished);
}

TEST_F(BackupRunnerTest, StoppedRunResumesToTheSameBytesWithoutDuplicateIds) {
  orgsim::testing::addAccounts(store(), 230);
  auto whole = run(first_.path(), RunKind::full);
  ASSERT_EQ(whole.result, RunResult::complete) << whole.message;

  // Stop after a few pages each time, until the run completes.
  RunSummary summary;
  int attempts = 0;
  std::vector<std::string> folders;
  do {
    pages_ = 0;
    summary = run(second_.path(), RunKind::full, [&] { return pages_ >= 2; });
    folders.push_back(summary.folder.filename().string());
    ASSERT_LT(++attempts, 30);
    if (summary.result == RunResult::stopped) {
      EXPECT_EQ(summary.message,
                "The backup was stopped. It carries on where it stopped the next time it runs.");
    }
  } while (summary.result == RunResult::stopped);
  ASSERT_EQ(summary.result, RunResult::complete) << summary.message;
  EXPECT_GT(attempts, 2);
  for (const auto& folder : folders) EXPECT_EQ(folder, folders.front()) << "one folder, resumed";

  for (const char* name : {"Account.csv"})
    EXPECT_EQ(readFile(summary.folder / name), readFile(whole.folder / name)) << name;
  for (const char* object : {"Account"}) {
    auto ids = knownIds(second_.path(), object);
    EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), ids.size());
    EXPECT_EQ(ids, knownIds(first_.path(), object)) << object;
  }
}

TEST_F(BackupRunnerTest, ThirdStopAtTheSamePointGivesTheRunUpAndTheNextStartsFresh) {
  orgsim::testing::addAccounts(store(), 20);
  auto always = [] { return true; };
  auto first = run(first_.path(), RunKind::full, always);
  EXPECT_EQ(first.result, RunResult::stopped);
  EXPECT_EQ(run(first_.path(), RunKind::full, always).result, RunResult::stopped);
  EXPECT_EQ(run(first_.path(), RunKind::full, always).result, RunResult::stopped);
  auto third = run(first_.path(), RunKind::full, always);
  EXPECT_EQ(third.result, RunResult::gaveUp);
  EXPECT_EQ(third.message,
            "This backup stopped 3 times at the same point, so it was given up on and the next "
            "one starts fresh. What it had already read is kept.");
  auto fresh = run(first_.path(), RunKind::full);
  EXPECT_EQ(fresh.result, RunResult::complete) << fresh.message;
  EXPECT_NE(fresh.folder, first.folder);
  EXPECT_EQ(fresh.records, 20);
}

TEST_F(BackupRunnerTest, ChangesRunCopiesExactlyWhatChangedAndSkipsObjectsWithoutChanges) {
  const auto accounts = orgsim::testing::addAccounts(store(), 120);
  only_ = {"Account", "Task"};
  // Watermarks are whole seconds of the org's clock: let each step fall in a second of its own.
  auto nextSecond = [] { std::this_thread::sleep_for(std::chrono::milliseconds(1100)); };
  nextSecond();
  auto full = run(first_.path(), RunKind::full);
  ASSERT_EQ(full.result, RunResult::complete) << full.message;

  nextSecond();
  transport_->send("PATCH", "/sobjects/Account/" + accounts[7], {},
                   std::string(R"({"Name": "Renamed"})"));
  const auto created = nlohmann::json::parse(transport_->send(
      "POST", "/sobjects/Account", {}, std::string(R"({"Name": "Brand new"})")));
  const std::string newId = created.at("id").get<std::string>();
  nextSecond();

  auto changes = run(first_.path(), RunKind::changes);
  ASSERT_EQ(changes.result, RunResult::complete) << changes.message;
  EXPECT_NE(changes.folder, full.folder);
  auto page = BackupCSV::scan(readFile(changes.folder / "Account.csv"));
  std::set<std::string> ids;
  for (const auto& record : page.records) ids.insert(record.fields.front());
  EXPECT_EQ(ids, (std::set<std::string>{accounts[7], newId}));
  EXPECT_EQ(changes.records, 2);
  EXPECT_TRUE(knownIds(first_.path(), "Account").count(newId));

  // Nothing changed since: each object costs one count request, and nothing is copied.
  auto quiet = run(first_.path(), RunKind::changes);
  ASSERT_EQ(quiet.result, RunResult::complete) << quiet.message;
  EXPECT_EQ(quiet.records, 0);
  EXPECT_LE(quiet.apiRequests, 10);
  BackupStore backup(config(first_.path()).location);
  auto reasons = backup.db().prepare("SELECT reason FROM jobs WHERE run_id = ? AND object = ?");
  reasons.bindInt(1, quiet.runId).bindText(2, "Account");
  ASSERT_TRUE(reasons.step());
  EXPECT_EQ(reasons.columnText(0), "No changes since the last backup.");
}

}  // namespace
}  // namespace corvane
