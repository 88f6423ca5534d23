#include "app/schedule_command.hpp"

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "backup/last_run.hpp"
#include "connections/tests/fake_cli.hpp"
#include "platform/child_process.hpp"
#include "platform/durable_file.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "scheduling/systemd_timer.hpp"
#include "tools/orgsim/tests/sample_org.hpp"

namespace corvane {
namespace {

using ::testing::HasSubstr;
using testing::FakeCLI;
using namespace std::chrono_literals;

class ScheduleCommandTest : public ::testing::Test {
 protected:
  ScheduleCommandTest() {
    fake.script(R"(case "$*" in
  "org list"*) echo '{"status":0,"result":{"nonScratchOrgs":[
      {"username":"admin@acme.example","alias":"acme","orgId":"00D000000000001AAA",
       "connectedStatus":"Connected","instanceUrl":"https://acme.my.salesforce.com"}]}}' ;;
  *) echo '{"status":1,"message":"unexpected"}'; exit 1 ;;
esac)");
    setup.registryDirectory = folder.path() / "Corvane";
    setup.backupRoot = folder.path() / "Backups";
    setup.scheduler = [this] {
      return std::make_unique<SystemdUserTimer>(
          folder.path() / "units", [this](const std::vector<std::string>& arguments) {
            calls.push_back(arguments);
            if (arguments[0] == "restart") active = true;
            if (arguments[0] == "disable") active = false;
            return ServiceCommandResult{arguments[0] == "is-active" && !active ? 3 : 0, ""};
          });
    };
    setup.defaults = {[this] { return minute; }, [this](int m) { minute = m; }, [] { return 41; }};
    setup.executable = "/usr/local/bin/corvane";
  }

  std::string addSet(const ScheduleCommand::SetArguments& arguments) {
    SalesforceCLI cli(fake.options());
    std::ostringstream out;
    CommandContext context{cli, out};
    ScheduleCommand::addSet(context, setup, arguments);
    return out.str();
  }

  template <typename Work>
  std::string run(Work work) {
    SalesforceCLI cli(fake.options());
    std::ostringstream out;
    CommandContext context{cli, out};
    work(context);
    return out.str();
  }

  FakeCLI fake;
  TemporaryFolder folder;
  ScheduleCommand::Setup setup;
  std::vector<std::vector<std::string>> calls;
  bool active = false;
  std::optional<int> minute;
};

TEST(ScheduleArguments, ParsesTheFourFormsAndRefusesOthers) {
  using ScheduleCommand::parseSchedule;
  EXPECT_EQ(parseSchedule({"manual"}), BackupSchedule::manual());
  EXPECT_EQ(parseSchedule({"Hourly"}), BackupSchedule::hourly());
  EXPECT_EQ(parseSchedule({"daily", "02:30"}), BackupSchedule::daily(2, 30));
  EXPECT_EQ(parseSchedule({"weekly", "Sun", "23:05"}), BackupSchedule::weekly(1, 23, 5));
  EXPECT_EQ(parseSchedule({"weekly", "saturday", "0:00"}), BackupSchedule::weekly(7, 0, 0));
  EXPECT_EQ(parseSchedule({"weekly", "2", "10:00"}), BackupSchedule::weekly(2, 10, 0));
  for (const std::vector<std::string>& bad :
       {std::vector<std::string>{}, {"daily"}, {"daily", "24:00"}, {"daily", "2:60"},
        {"daily", "0230"}, {"weekly", "Sunday"}, {"weekly", "Funday", "01:00"},
        {"monthly", "1"}, {"hourly", "05"}}) {
    EXPECT_THROW(parseSchedule(bad), ScheduleCommand::SetArgumentError);
  }
}

TEST_F(ScheduleCommandTest, AddingAScheduledSetInstallsTheTimerAndRemovingItTakesItAway) {
  ScheduleCommand::SetArguments arguments;
  arguments.login = "acme";
  arguments.schedule = {"daily", "02:30"};
  arguments.keep = 5;
  arguments.files = true;
  arguments.only = {"Account", "Contact"};
  const auto said = addSet(arguments);
  EXPECT_THAT(said, HasSubstr("Backup set for admin@acme.example saved: daily 02:30"));
  EXPECT_THAT(said, HasSubstr("at minute 41"));
  EXPECT_EQ(minute, 41);

  const auto sets = BackupRegistry(setup.registryDirectory).load().sets;
  ASSERT_EQ(sets.size(), 1u);
  EXPECT_EQ(sets[0].orgKey, "00D000000000001AAA");
  EXPECT_EQ(sets[0].retention, Retention::Policy{5});
  EXPECT_EQ(sets[0].includeFiles, true);
  EXPECT_FALSE(sets[0].includeFormulaFields);  // absent, not false
  const auto service = Durable::readWhole(folder.path() / "units/corvane-backup.service");
  ASSERT_TRUE(service);
  EXPECT_THAT(*service, HasSubstr("ExecStart=\"/usr/local/bin/corvane\" --backup-tick"));

  const auto listed = run([&](CommandContext& c) { ScheduleCommand::listSets(c, setup); });
  EXPECT_THAT(listed, HasSubstr("admin@acme.example"));
  EXPECT_THAT(listed, HasSubstr("last 5 full"));
  const auto shown = run([&](CommandContext& c) { ScheduleCommand::status(c, setup); });
  EXPECT_THAT(shown, HasSubstr("at minute 41 of every hour"));
  EXPECT_THAT(shown, HasSubstr("Loaded: yes"));
  EXPECT_THAT(shown, HasSubstr("Last tick: none yet"));

  const auto setsJSON = nlohmann::json::parse(
      run([&](CommandContext& c) { ScheduleCommand::listSets(c, setup, true); }));
  ASSERT_EQ(setsJSON.at("sets").size(), 1u);
  const auto& listedSet = setsJSON["sets"][0];
  EXPECT_EQ(listedSet.at("username"), "admin@acme.example");
  EXPECT_EQ(listedSet.at("orgKey"), "00D000000000001AAA");
  EXPECT_EQ(listedSet.at("schedule"), "daily 02:30");
  EXPECT_EQ(listedSet.at("fullCopy"), "weekly");
  EXPECT_EQ(listedSet.at("keepLastFulls"), 5);
  EXPECT_TRUE(listedSet.at("lastSuccessAt").is_null());
  EXPECT_EQ(listedSet.at("includeFiles"), true);
  EXPECT_EQ(listedSet.at("onlyObjects"), (nlohmann::json{"Account", "Contact"}));
  EXPECT_EQ(listedSet.at("folder"),
            sets[0].location(setup.backupRoot).folder().string());
  const auto statusJSON =
      nlohmann::json::parse(run([&](CommandContext& c) { ScheduleCommand::status(c, setup, true); }));
  EXPECT_EQ(statusJSON.at("installed"), true);
  EXPECT_EQ(statusJSON.at("scheduler"), "systemd user timer");
  EXPECT_EQ(statusJSON.at("executable"), "/usr/local/bin/corvane");
  EXPECT_EQ(statusJSON.at("minute"), 41);
  EXPECT_EQ(statusJSON.at("tickMinute"), 41);
  EXPECT_EQ(statusJSON.at("loaded"), true);
  EXPECT_TRUE(statusJSON.at("mismatch").is_null());
  EXPECT_TRUE(statusJSON.at("lastTick").is_null());
  for (const char* key : {"schedulerFile", "setsUnreadable", "filesWaitForPower"})
    EXPECT_TRUE(statusJSON.contains(key)) << key;

  const auto removed =
      run([&](CommandContext& c) { ScheduleCommand::removeSet(c, setup, "ADMIN@acme.example"); });
  EXPECT_THAT(removed, HasSubstr("the systemd user timer was removed"));
  EXPECT_FALSE(std::filesystem::exists(folder.path() / "units/corvane-backup.timer"));
  EXPECT_THROW(run([&](CommandContext& c) { ScheduleCommand::removeSet(c, setup, "nobody"); }),
               ScheduleCommand::SetArgumentError);
}

TEST_F(ScheduleCommandTest, StatusListsTheNotificationsNotYetSeenOnce) {
  BackupTickResult result;
  SetTickOutcome failedRun;
  failedRun.username = "admin@acme.example";
  failedRun.kind = SetTickOutcome::Kind::failed;
  failedRun.failure = "The disk is full.";
  result.sets.push_back(failedRun);
  NoticeLedger::update(setup.backupRoot, result, *IsoTime::parsePlain("2024-05-01T10:17:00Z"));

  const auto shown = run([&](CommandContext& c) { ScheduleCommand::status(c, setup); });
  EXPECT_THAT(shown, HasSubstr("Notifications not yet seen:\n  2024-05-01T10:17:00Z: The "
                               "scheduled backup of admin@acme.example did not finish: The disk "
                               "is full.\n"));
  const auto again = run([&](CommandContext& c) { ScheduleCommand::status(c, setup); });
  EXPECT_EQ(again.find("Notifications not yet seen"), std::string::npos) << again;
}

TEST_F(ScheduleCommandTest, UnknownLoginsAndContradictoryOptionsChangeNothing) {
  ScheduleCommand::SetArguments arguments;
  arguments.login = "nobody";
  EXPECT_ANY_THROW(addSet(arguments));
  arguments.login = "acme";
  arguments.keep = 2;
  arguments.keepEverything = true;
  EXPECT_THROW(addSet(arguments), ScheduleCommand::SetArgumentError);
  EXPECT_FALSE(std::filesystem::exists(BackupRegistry(setup.registryDirectory).fileURL()));
  EXPECT_TRUE(calls.empty());
}

// The real program, started the way the timer starts it: runs the tick,
// records it in last-tick.json, and reports the set it could not back up.
TEST_F(ScheduleCommandTest, TheProgramRunsTheTickHeadless) {
  const auto home = folder.path() / "home";
  std::filesystem::create_directories(home);
  BackupSet set;
  set.orgKey = "00D";
  set.username = "gone@acme.example";
  set.schedule = BackupSchedule::hourly();
  BackupRegistry(home).save({set});

  ProcessRequest request;
  request.executable = CORVANE_EXECUTABLE;
  request.arguments = {"--backup-tick"};
  request.environment = {{"PATH", "/usr/bin:/bin"},
                         {"HOME", fake.folder().string()},
                         {"CORVANE_HOME", home.string()},
                         {"CORVANE_SF_PATH", fake.path()}};
  request.timeout = std::chrono::seconds(60);
  const auto result = ChildProcess::run(request);
  EXPECT_EQ(result.exitStatus, 0) << result.standardError;
  const auto tick = LastTick::read(home / "Backups");
  ASSERT_TRUE(tick);
  EXPECT_THAT(tick->result, HasSubstr("The backup of gone@acme.example did not finish"));
  EXPECT_THAT(result.standardError, HasSubstr("gone@acme.example"));
}


TEST_F(ScheduleCommandTest, LaunchReconcilesOnlyWhenTheSetsAndTheTimerDiffer) {
  std::ostringstream err;
  ScheduleCommand::reconcileAtLaunch(setup, err);
  EXPECT_EQ(err.str(), "");
  EXPECT_TRUE(calls.empty()) << "a home without sets is left alone";
  EXPECT_FALSE(minute);

  BackupSet set;
  set.orgKey = "00D";
  set.username = "admin@acme.example";
  set.schedule = BackupSchedule::hourly();
  const BackupRegistry registry(setup.registryDirectory);
  registry.save({set});
  ScheduleCommand::reconcileAtLaunch(setup, err);
  EXPECT_THAT(err.str(), HasSubstr("Scheduled backups are on"));
  EXPECT_TRUE(std::filesystem::exists(folder.path() / "units/corvane-backup.timer"));

  // Nothing changed: only the questions to systemd, nothing done.
  calls.clear();
  err.str("");
  ScheduleCommand::reconcileAtLaunch(setup, err);
  EXPECT_EQ(err.str(), "");
  EXPECT_EQ(calls, (std::vector<std::vector<std::string>>{{"is-active", "corvane-backup.timer"},
                                                          {"is-enabled", "corvane-backup.timer"}}));

  // Stopped behind the program's back: the next start installs it again.
  active = false;
  ScheduleCommand::reconcileAtLaunch(setup, err);
  EXPECT_THAT(err.str(), HasSubstr("Scheduled backups are on"));
  EXPECT_TRUE(active);

  // A stored minute out of range is drawn again; then the timer follows it.
  minute = 60;
  ScheduleCommand::reconcileAtLaunch(setup, err);
  EXPECT_EQ(minute, 41);
  EXPECT_THAT(*Durable::readWhole(folder.path() / "units/corvane-backup.timer"),
              HasSubstr("OnCalendar=*-*-* *:41:00"));

  // Unreadable sets: told, and the timer stays.
  Durable::replace(registry.fileURL(), "not json");
  err.str("");
  calls.clear();
  ScheduleCommand::reconcileAtLaunch(setup, err);
  EXPECT_THAT(err.str(), HasSubstr("Your backup settings could not be read"));
  EXPECT_TRUE(calls.empty());
  EXPECT_TRUE(std::filesystem::exists(folder.path() / "units/corvane-backup.timer"));

  set.schedule = BackupSchedule::manual();
  registry.save({set});
  err.str("");
  ScheduleCommand::reconcileAtLaunch(setup, err);
  EXPECT_THAT(err.str(), HasSubstr("was removed"));
  EXPECT_FALSE(std::filesystem::exists(folder.path() / "units/corvane-backup.timer"));

  // backup-sets.json gone altogether: a timer left behind goes too.
  set.schedule = BackupSchedule::hourly();
  registry.save({set});
  ScheduleCommand::reconcileAtLaunch(setup, err);
  ASSERT_TRUE(std::filesystem::exists(folder.path() / "units/corvane-backup.timer"));
  std::filesystem::remove(registry.fileURL());
  err.str("");
  ScheduleCommand::reconcileAtLaunch(setup, err);
  EXPECT_THAT(err.str(), HasSubstr("was removed"));
  EXPECT_FALSE(std::filesystem::exists(folder.path() / "units/corvane-backup.timer"));
}

#ifdef __linux__
// The program as a user starts it: a command installs the timer for the sets
// (into CORVANE_SCHEDULER_FOLDER, never for the machine's user); the command
// the timer would start runs the tick; and with no schedule left the timer goes.
TEST_F(ScheduleCommandTest, TheProgramInstallsTheTimerWhoseCommandRunsTheTick) {
  const auto home = folder.path() / "home";
  const auto units = folder.path() / "installed";
  std::filesystem::create_directories(home);
  BackupSet set;
  set.orgKey = "00D";
  set.username = "gone@acme.example";
  set.schedule = BackupSchedule::hourly();
  BackupRegistry(home).save({set});

  auto corvane = [&](std::vector<std::string> arguments) {
    ProcessRequest request;
    request.executable = CORVANE_EXECUTABLE;
    request.arguments = std::move(arguments);
    request.environment = {{"PATH", "/usr/bin:/bin"},
                           {"HOME", fake.folder().string()},
                           {"CORVANE_HOME", home.string()},
                           {"CORVANE_SCHEDULER_FOLDER", units.string()},
                           {"CORVANE_SF_PATH", fake.path()}};
    request.timeout = std::chrono::seconds(60);
    return ChildProcess::run(request);
  };
  auto status = corvane({"schedule", "status"});
  EXPECT_EQ(status.exitStatus, 0) << status.standardError;
  EXPECT_THAT(status.standardError, HasSubstr("Scheduled backups are on"));
  EXPECT_THAT(status.standardOutput, HasSubstr("Installed: the systemd user timer"));
  const auto service = Durable::readWhole(units / SystemdUnits::serviceName);
  ASSERT_TRUE(service);
  EXPECT_THAT(*Durable::readWhole(units / "service-commands.log"),
              HasSubstr("systemctl --user enable corvane-backup.timer"));

  EXPECT_THAT(*service, HasSubstr("Environment=\"CORVANE_HOME=" + home.string() + "\"\n"));

  // What systemd would start, run by hand.
  const auto execStart = service->substr(service->find("ExecStart=") + 10);
  const auto line = execStart.substr(0, execStart.find('\n'));
  ASSERT_EQ(line.substr(0, 1), "\"");
  const auto executable = line.substr(1, line.find('"', 1) - 1);
  EXPECT_TRUE(std::filesystem::equivalent(executable, CORVANE_EXECUTABLE));
  EXPECT_EQ(line.substr(line.find('"', 1) + 1), " --backup-tick");
  EXPECT_EQ(corvane({"--backup-tick"}).exitStatus, 0);
  const auto tick = LastTick::read(home / "Backups");
  ASSERT_TRUE(tick);
  EXPECT_THAT(tick->result, HasSubstr("Ran 0 backups. The backup of gone@acme.example"));

  set.schedule = BackupSchedule::manual();
  BackupRegistry(home).save({set});
  status = corvane({"schedule", "status"});
  EXPECT_THAT(status.standardError, HasSubstr("was removed"));
  EXPECT_THAT(status.standardOutput, HasSubstr("Installed: nothing"));
  EXPECT_FALSE(std::filesystem::exists(units / SystemdUnits::timerName));
  EXPECT_THAT(*Durable::readWhole(units / "service-commands.log"),
              HasSubstr("systemctl --user disable --now corvane-backup.timer"));
}
#endif

// The tick wired to the real backup run, against the sample org.
class ScheduledRunTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    orgsim::testing::addAccounts(store(), 30);
    org.username = store().identity().adminUsername;
    org.orgId = "00D000000000001AAA";
    std::filesystem::create_directories(home.path() / "Volumes");
  }

  BackupSet set(const std::string& username, BackupSchedule schedule) {
    BackupSet result;
    result.orgKey = "00D000000000001AAA";
    result.username = username;
    result.schedule = schedule;
    result.onlyObjects = std::vector<std::string>{"Account"};
    return result;
  }

  HeadlessBackup::Environment environment() {
    HeadlessBackup::Environment env;
    env.now = [this] { return now; };
    env.conditions = [] { return RunConditions{}; };
    env.backupRoot = root;
    env.registryDirectory = home.path();
    env.calendar = ScheduleCalendar::utc();
    env.volumes = BackupVolumes::inFolder(home.path() / "Volumes");
    env.notify = [this](const std::string& text) { told.push_back(text); };
    ScheduleTask::OrgAccess access;
    access.logins = [this] {
      ++listings;
      return std::vector<Org>{org};
    };
    access.session = [this](const std::string&) {
      return SalesforceAPI::Session{orgsim::Sessions::issue(store(), "").token,
                                    server_->baseUrl(), "62.0", {}};
    };
    access.progress = [this](const BackupProgress& progress) {
      if (duringRun) std::exchange(duringRun, nullptr)(progress);
    };
    env.runSet = ScheduleTask::backupSetRunner(std::move(access));
    return env;
  }

  TemporaryFolder home;
  std::filesystem::path root = home.path() / "Backups";
  BackupRegistry registry{home.path()};
  Org org;
  SystemTime now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  std::vector<std::string> told;
  int listings = 0;
  std::function<void(const BackupProgress&)> duringRun;
};

TEST_F(ScheduledRunTest, ATickBacksUpOnlyTheDueSetWhileASecondTickExitsOnTheLock) {
  auto notDue = set("later@acme.example", BackupSchedule::daily(2, 0));
  notDue.lastSuccessAt = now;
  registry.save({set(org.username, BackupSchedule::hourly()), notDue});

  // While the backup runs, the program is started the way the timer starts it.
  FakeCLI fake;
  ProcessResult second;
  duringRun = [&](const BackupProgress&) {
    ProcessRequest request;
    request.executable = CORVANE_EXECUTABLE;
    request.arguments = {"--backup-tick"};
    request.environment = {{"PATH", "/usr/bin:/bin"},
                           {"HOME", fake.folder().string()},
                           {"CORVANE_HOME", home.path().string()},
                           {"CORVANE_SF_PATH", fake.path()}};
    request.timeout = std::chrono::seconds(60);
    second = ChildProcess::run(request);
    EXPECT_EQ(LastTick::read(root)->result, LastTick::checking);
  };
  ASSERT_EQ(HeadlessBackup::run(environment()), 0);

  EXPECT_EQ(second.exitStatus, 0) << second.standardError;
  EXPECT_EQ(second.standardError, "");
  EXPECT_FALSE(std::filesystem::exists(fake.folder() / "calls.log")) << "the second tick ran sf";
  EXPECT_FALSE(duringRun) << "the run reported no progress";

  const auto sets = registry.load().sets;
  EXPECT_EQ(sets[0].lastSuccessAt, now);
  EXPECT_EQ(sets[1].lastSuccessAt, notDue.lastSuccessAt);
  EXPECT_EQ(listings, 1);
  EXPECT_EQ(LastTick::read(root)->result, "Ran 1 backup. ");
  const auto last = LastRun::read(sets[0].location(root));
  ASSERT_TRUE(last);
  EXPECT_EQ(last->kind, "full");
  EXPECT_EQ(last->records, 30);
  EXPECT_TRUE(told.empty());

  // The next hour's tick takes the changes only.
  now += 1h;
  ASSERT_EQ(HeadlessBackup::run(environment()), 0);
  EXPECT_EQ(LastRun::read(sets[0].location(root))->kind, "changes");
  EXPECT_EQ(registry.load().sets[0].lastSuccessAt, now);
}

TEST_F(ScheduledRunTest, BadSetsAreToldOnceAndTheGoodOneStillRuns) {
  auto unplugged = set(org.username, BackupSchedule::daily(0, 0));
  unplugged.username = "disk@acme.example";
  unplugged.rootPath = (home.path() / "Volumes/Archive/Backups").string();
  auto unwritable = set("proc@acme.example", BackupSchedule::daily(0, 0));
  unwritable.rootPath = "/proc";  // nobody may create files there, not even root
  registry.save({set("gone@acme.example", BackupSchedule::daily(0, 0)), unplugged, unwritable,
                 set(org.username, BackupSchedule::daily(0, 0))});

  ASSERT_EQ(HeadlessBackup::run(environment()), 0);
  const auto summary = LastTick::read(root)->result;
  EXPECT_EQ(summary.rfind("Ran 1 backup. ", 0), 0u) << summary;
  EXPECT_THAT(summary, HasSubstr("The backup of gone@acme.example did not finish: The login "
                                 "gone@acme.example is no longer known to the Salesforce CLI"));
  EXPECT_THAT(summary, HasSubstr("The backup of disk@acme.example did not finish: The disk this "
                                 "backup is kept on, Archive, is not connected."));
  EXPECT_THAT(summary, HasSubstr("The backup of proc@acme.example did not finish: Corvane cannot "
                                 "write to its backup folder"));
  EXPECT_TRUE(registry.load().sets[3].lastSuccessAt);
  EXPECT_FALSE(std::filesystem::exists(home.path() / "Volumes/Archive"));
  ASSERT_EQ(told.size(), 3u);
  EXPECT_THAT(told[0], HasSubstr("gone@acme.example"));

  // An hour later the same sets are still due and still stuck: nothing is told again.
  now += 1h;
  ASSERT_EQ(HeadlessBackup::run(environment()), 0);
  EXPECT_EQ(told.size(), 3u);
  EXPECT_THAT(LastTick::read(root)->result, HasSubstr("Ran 0 backups. The backup of gone@"));
}

TEST_F(ScheduledRunTest, CorruptSetsRunNothingAndTheNextChangeKeepsThemAside) {
  Durable::replace(registry.fileURL(), "{\"format\": 1, \"sets\": [{\"orgKey\": ");
  ASSERT_EQ(HeadlessBackup::run(environment()), 0);
  EXPECT_EQ(listings, 0);
  EXPECT_FALSE(std::filesystem::exists(root / "00D000000000001AAA"));
  EXPECT_THAT(LastTick::read(root)->result, HasSubstr("could not be read, so nothing was run"));

  registry.upsert(set(org.username, BackupSchedule::hourly()));
  std::vector<std::filesystem::path> aside;
  for (const auto& entry : std::filesystem::directory_iterator(home.path()))
    if (entry.path().filename().string().rfind("backup-sets-unreadable-", 0) == 0)
      aside.push_back(entry.path());
  ASSERT_EQ(aside.size(), 1u);
  EXPECT_EQ(aside[0].filename().string().find(':'), std::string::npos);
  EXPECT_EQ(*Durable::readWhole(aside[0]), "{\"format\": 1, \"sets\": [{\"orgKey\": ");
  EXPECT_EQ(registry.load().sets.size(), 1u);
}

}  // namespace
}  // namespace corvane
