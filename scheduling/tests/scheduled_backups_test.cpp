#include "scheduling/scheduled_backups.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "backup/backup_store.hpp"
#include "platform/durable_file.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

using namespace std::chrono_literals;

SystemTime at(const char* text) { return *IsoTime::parsePlain(text); }

BackupSet scheduled(const std::string& username, BackupSchedule schedule) {
  BackupSet set;
  set.orgKey = "00D" + username.substr(0, 1);
  set.username = username;
  set.schedule = schedule;
  return set;
}

class ScheduledBackupsTest : public ::testing::Test {
 protected:
  TemporaryFolder folder;
  std::filesystem::path root = folder.path() / "Backups";
  std::filesystem::path volumes = folder.path() / "Volumes";
  BackupRegistry registry{folder.path() / "Corvane"};
  std::vector<SetRunRequest> requests;
  std::vector<std::string> told;
  SystemTime now = at("2024-05-10T10:05:00Z");

  HeadlessBackup::Environment environment() {
    HeadlessBackup::Environment env;
    env.now = [this] { return now; };
    env.conditions = [] { return RunConditions{}; };
    env.backupRoot = root;
    env.registryDirectory = folder.path() / "Corvane";
    env.calendar = ScheduleCalendar::utc();
    env.runSet = [this](const SetRunRequest& request) {
      requests.push_back(request);
      if (request.set.username.rfind("gone", 0) == 0)
        throw UserFacingError("The login gone@x.example is no longer known to the Salesforce CLI.");
      if (request.set.username.rfind("crash", 0) == 0) throw std::runtime_error("boom");
      return SetRunOutcome::success();
    };
    env.history = [](const BackupLocation&) { return SetHistory{}; };
    env.volumes = BackupVolumes::inFolder(volumes);
    env.notify = [this](const std::string& text) { told.push_back(text); };
    return env;
  }
};

// The full-copy interval counts from when the last usable full copy started.
TEST(SetHistory, LastFullIsTheStartOfTheLastUsableFullCopy) {
  TemporaryFolder folder;
  const BackupLocation location{folder.path(), "00Dx", "me@x.example"};
  EXPECT_FALSE(readSetHistory(location).lastFull);
  {
    BackupStore store(location);
    auto addRun = [&](RunKind kind, const char* started, const char* finished, const char* result) {
      const auto id = store.insertRun(started, kind, started);
      store.db()
          .prepare("UPDATE runs SET stage = 'done', result = ?, finished_at = ? WHERE id = ?")
          .bindText(1, result)
          .bindText(2, finished)
          .bindInt(3, id)
          .run();
    };
    addRun(RunKind::full, "2024-05-01T03:17:04Z", "2024-05-01T04:40:00Z", "complete");
    addRun(RunKind::changes, "2024-05-02T03:17:02Z", "2024-05-02T03:20:00Z", "complete");
    addRun(RunKind::full, "2024-05-08T03:17:09Z", "2024-05-08T03:19:00Z", "stopped");
  }
  auto history = readSetHistory(location);
  EXPECT_EQ(history.lastFull, at("2024-05-01T03:17:04Z"));
  EXPECT_FALSE(history.unfinishedRun);
  EXPECT_FALSE(history.filesWaitingSince);

  // Documents are owed since the first of the latest runs that left some.
  {
    BackupStore store(location);
    for (const char* started : {"2024-05-09T03:17:00Z", "2024-05-10T03:17:00Z"}) {
      const auto id = store.insertRun(started, RunKind::changes, started);
      store.db()
          .prepare("UPDATE runs SET stage = 'done', result = 'complete', files_waiting = 3 "
                   "WHERE id = ?")
          .bindInt(1, id)
          .run();
    }
  }
  history = readSetHistory(location);
  EXPECT_EQ(history.filesWaitingSince, at("2024-05-09T03:17:00Z"));
  EXPECT_TRUE(history.firstFilesDone);
}

TEST_F(ScheduledBackupsTest, RunsOnlyTheDueSetRecordsItAndWritesLastTick) {
  auto notDue = scheduled("later@x.example", BackupSchedule::daily(2, 0));
  notDue.lastSuccessAt = at("2024-05-10T02:10:00Z");
  registry.save({scheduled("due@x.example", BackupSchedule::hourly()), notDue,
                 scheduled("manual@x.example", BackupSchedule::manual())});

  EXPECT_EQ(HeadlessBackup::run(environment()), 0);
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].set.username, "due@x.example");
  EXPECT_EQ(requests[0].kind, RunKind::full);
  EXPECT_EQ(requests[0].config.location.root, root);
  EXPECT_EQ(registry.load().sets[0].lastSuccessAt, now);
  EXPECT_EQ(registry.load().sets[1].lastSuccessAt, notDue.lastSuccessAt);

  const auto record = LastTick::read(root);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->result, "Ran 1 backup. ");
  EXPECT_EQ(record->startedAt, "2024-05-10T10:05:00Z");
  EXPECT_TRUE(told.empty());

  // The same hour again: nothing is due any more.
  now += 10min;
  EXPECT_EQ(HeadlessBackup::run(environment()), 0);
  EXPECT_EQ(requests.size(), 1u);
  EXPECT_EQ(LastTick::read(root)->result, "Ran 0 backups. ");
}

TEST_F(ScheduledBackupsTest, ASecondTickExitsAtOnceWhileTheLockIsHeld) {
  registry.save({scheduled("due@x.example", BackupSchedule::hourly())});
  auto held = TickLock::acquire(root);
  ASSERT_TRUE(held);
  EXPECT_FALSE(TickLock::acquire(root));
  EXPECT_EQ(HeadlessBackup::run(environment()), 0);
  EXPECT_TRUE(requests.empty());
  EXPECT_FALSE(LastTick::read(root));

  held.reset();
  EXPECT_EQ(HeadlessBackup::run(environment()), 0);
  EXPECT_EQ(requests.size(), 1u);
}

TEST_F(ScheduledBackupsTest, UnreadableSetsRunNothingAndAreToldOnce) {
  std::filesystem::create_directories(registry.fileURL().parent_path());
  Durable::replace(registry.fileURL(), "{\"sets\": [");
  EXPECT_EQ(HeadlessBackup::run(environment()), 0);
  EXPECT_TRUE(requests.empty());
  EXPECT_EQ(LastTick::read(root)->result.rfind("Your backup settings could not be read", 0), 0u);
  EXPECT_EQ(told.size(), 1u);
  HeadlessBackup::run(environment());
  EXPECT_EQ(told.size(), 1u);
  EXPECT_EQ(*Durable::readWhole(registry.fileURL()), "{\"sets\": [");
}

TEST_F(ScheduledBackupsTest, BadSetsAreRecordedOthersStillRunAndTheLedgerTellsOnce) {
  auto unplugged = scheduled("disk@x.example", BackupSchedule::hourly());
  unplugged.rootPath = (volumes / "BackupDisk/Backups").string();
  // Nobody may create files in /proc, not even root.
  auto unwritable = scheduled("proc@x.example", BackupSchedule::hourly());
  unwritable.rootPath = "/proc";
  std::filesystem::create_directories(volumes);
  registry.save({scheduled("gone@x.example", BackupSchedule::hourly()), unplugged, unwritable,
                 scheduled("crash@x.example", BackupSchedule::hourly()),
                 scheduled("fine@x.example", BackupSchedule::hourly())});

  EXPECT_EQ(HeadlessBackup::run(environment()), 0);
  ASSERT_EQ(requests.size(), 3u);  // the unplugged disk and /proc are never started
  EXPECT_FALSE(std::filesystem::exists(volumes / "BackupDisk")) << "nothing written elsewhere";
  const auto summary = LastTick::read(root)->result;
  EXPECT_EQ(summary.rfind("Ran 3 backups. ", 0), 0u) << summary;
  EXPECT_NE(summary.find("The backup of gone@x.example did not finish: The login gone@x.example "
                         "is no longer known to the Salesforce CLI."),
            std::string::npos);
  EXPECT_NE(summary.find("The backup of disk@x.example did not finish: The disk this backup is "
                         "kept on, BackupDisk, is not connected."),
            std::string::npos)
      << summary;
  EXPECT_NE(summary.find("The backup of proc@x.example did not finish: Corvane cannot write to "
                         "its backup folder /proc/"),
            std::string::npos)
      << summary;
  EXPECT_NE(summary.find("The backup of crash@x.example did not finish: the backup stopped."),
            std::string::npos);
  EXPECT_EQ(told.size(), 4u);
  EXPECT_TRUE(registry.load().sets[4].lastSuccessAt);
  EXPECT_FALSE(registry.load().sets[0].lastSuccessAt);

  // An hour later the same problems: nothing new to tell.
  now += 1h;
  HeadlessBackup::run(environment());
  EXPECT_EQ(told.size(), 4u);

  // The disk comes back and its backup succeeds; when it goes again, that is told again.
  std::filesystem::create_directories(volumes / "BackupDisk/Backups");
  now += 1h;
  HeadlessBackup::run(environment());
  EXPECT_EQ(told.size(), 4u);
  EXPECT_TRUE(registry.load().sets[1].lastSuccessAt);
  std::filesystem::remove_all(volumes / "BackupDisk");
  now += 1h;
  HeadlessBackup::run(environment());
  ASSERT_EQ(told.size(), 5u);
  EXPECT_EQ(told[4].rfind("The scheduled backup of disk@x.example did not finish: The disk this "
                          "backup is kept on, BackupDisk,",
                          0),
            0u)
      << told[4];

  // Between its slots an unplugged disk is normal: nothing is said.
  auto daily = registry.load().sets;
  daily[1].schedule = BackupSchedule::daily(2, 0);
  daily[1].lastSuccessAt = now;
  registry.save(daily);
  now += 1h;
  HeadlessBackup::run(environment());
  EXPECT_EQ(LastTick::read(root)->result.find("disk@x.example"), std::string::npos);
}

// The ledger is set aside only when it holds bad JSON. One that cannot be read
// just now stays where it is; the notices are told, since telling twice beats
// never telling.
TEST_F(ScheduledBackupsTest, ALedgerThatCannotBeReadJustNowIsLeftInPlace) {
  registry.save({scheduled("gone@x.example", BackupSchedule::hourly())});
  const auto ledger = root / NoticeLedger::fileName;
  std::filesystem::create_directories(ledger);  // reading it fails like an I/O error
  HeadlessBackup::run(environment());
  EXPECT_EQ(told.size(), 1u);
  EXPECT_TRUE(std::filesystem::is_directory(ledger));
  for (const auto& entry : std::filesystem::directory_iterator(root))
    EXPECT_EQ(entry.path().filename().string().find("unreadable"), std::string::npos)
        << entry.path();

  std::filesystem::remove(ledger);
  Durable::replace(ledger, "{\"notices\": ");
  now += 1h;
  HeadlessBackup::run(environment());
  EXPECT_EQ(told.size(), 2u);
  bool setAside = false;
  for (const auto& entry : std::filesystem::directory_iterator(root))
    setAside |= entry.path().filename().string().rfind("notifications-unreadable-", 0) == 0;
  EXPECT_TRUE(setAside);
  EXPECT_TRUE(nlohmann::json::parse(*Durable::readWhole(ledger)).is_object());
}

// Unusual deletions and documents owed for more than three days are told once
// each, and kept as not yet seen until the program shows them.
TEST_F(ScheduledBackupsTest, DeletionsAndOwedDocumentsAreToldOnceAndKeptUntilSeen) {
  registry.save({scheduled("alarm@x.example", BackupSchedule::hourly()),
                 scheduled("owes@x.example", BackupSchedule::hourly())});
  auto env = environment();
  env.runSet = [](const SetRunRequest& request) {
    auto outcome = SetRunOutcome::success();
    if (request.set.username == "alarm@x.example")
      outcome.unusualDeletions = {{"Account", 120, 5, 1000}};
    return outcome;
  };
  env.history = [this](const BackupLocation& location) {
    SetHistory history;
    if (location.username == "owes@x.example") history.filesWaitingSince = now - 100h;
    return history;
  };
  HeadlessBackup::run(env);
  ASSERT_EQ(told.size(), 2u);
  EXPECT_EQ(told[0],
            "The scheduled backup of alarm@x.example found unusually many records deleted (125 "
            "Account). Check with \"corvane backup deleted alarm@x.example\" that this was meant.");
  EXPECT_EQ(told[1].rfind("The backup of owes@x.example has owed documents for 4 days", 0), 0u)
      << told[1];

  now += 1h;
  HeadlessBackup::run(env);
  EXPECT_EQ(told.size(), 2u);

  auto unseen = NoticeLedger::unseen(root);
  ASSERT_EQ(unseen.size(), 2u);
  EXPECT_EQ(unseen[0].text, told[0]);
  NoticeLedger::markSeen(root);
  EXPECT_TRUE(NoticeLedger::unseen(root).empty());

  // Caught up: the problems go; when they come back they are told again.
  env.runSet = [](const SetRunRequest&) { return SetRunOutcome::success(); };
  env.history = [](const BackupLocation&) { return SetHistory{}; };
  now += 1h;
  HeadlessBackup::run(env);
  EXPECT_EQ(told.size(), 2u);
  env.runSet = [](const SetRunRequest&) {
    auto outcome = SetRunOutcome::success();
    outcome.unusualDeletions = {{"Account", 120, 5, 1000}};
    return outcome;
  };
  now += 1h;
  HeadlessBackup::run(env);
  EXPECT_EQ(told.size(), 4u);
  EXPECT_EQ(NoticeLedger::unseen(root).size(), 2u);
}

TEST_F(ScheduledBackupsTest, WaitsAreSummarisedWithTheRetryAndPowerWaitsTakeFilesIntoAccount) {
  auto files = scheduled("files@x.example", BackupSchedule::hourly());
  files.includeFiles = true;
  registry.save({files, scheduled("records@x.example", BackupSchedule::hourly())});
  auto env = environment();
  env.conditions = [] { return RunConditions{true, true}; };
  env.heavyWorkWaitsForPower = true;
  HeadlessBackup::run(env);
  // Only the set with file bodies still to fetch waits; the other runs.
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].set.username, "records@x.example");
  EXPECT_EQ(LastTick::read(root)->result,
            "Ran 1 backup. The backup of files@x.example is waiting for mains power. It will try "
            "again within the hour.");

  env.conditions = [] { return RunConditions{false, false}; };
  now += 1h;
  HeadlessBackup::run(env);
  EXPECT_EQ(LastTick::read(root)->result,
            "Ran 0 backups. The backup of files@x.example is waiting for a network connection. "
            "The backup of records@x.example is waiting for a network connection. It will try "
            "again within the hour.");
}

}  // namespace
}  // namespace corvane
