#include <gtest/gtest.h>

#include <sys/stat.h>

#include "platform/child_process.hpp"
#include "platform/durable_file.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "scheduling/backup_schedule_setup.hpp"
#include "scheduling/launch_agent.hpp"
#include "scheduling/systemd_timer.hpp"

namespace corvane {
namespace {

using Calls = std::vector<std::vector<std::string>>;

// Records every call; "print" / "is-active" answer whether something is loaded.
struct Recorder {
  Calls calls;
  bool loaded = false;
  bool enabled = false;
  int bootstrapStatus = 0;

  ServiceCommandRunner runner() {
    return [this](const std::vector<std::string>& arguments) -> ServiceCommandResult {
      calls.push_back(arguments);
      const auto& verb = arguments.front();
      if (verb == "print" || verb == "is-active") return {loaded ? 0 : 3, ""};
      if (verb == "is-enabled") return {enabled ? 0 : 1, ""};
      if (verb == "enable") enabled = true;
      if (verb == "bootstrap" || verb == "restart") {
        if (bootstrapStatus == 0) loaded = true;
        return {bootstrapStatus, ""};
      }
      if (verb == "bootout" || verb == "disable") loaded = enabled = false;
      return {0, ""};
    };
  }
};

TEST(LaunchAgentPlist, HoldsExactlyTheAgentsKeysAndReadsBack) {
  const auto text = LaunchAgentPlist::contents("/Applications/Corvane.app/Contents/MacOS/Corvane", 17);
  for (const char* expected : {
           "<key>Label</key>\n\t<string>com.veskar.corvane.backup</string>",
           "<string>/Applications/Corvane.app/Contents/MacOS/Corvane</string>\n\t\t<string>--backup-tick</string>",
           "<key>StartCalendarInterval</key>\n\t<dict>\n\t\t<key>Minute</key>\n\t\t<integer>17</integer>",
           "<key>ProcessType</key>\n\t<string>Background</string>",
           "<key>LowPriorityIO</key>\n\t<true/>",
           "<key>LimitLoadToSessionType</key>\n\t<string>Aqua</string>",
           "<key>AssociatedBundleIdentifiers</key>\n\t<array>\n\t\t<string>com.veskar.corvane</string>",
           "<key>StandardOutPath</key>\n\t<string>/dev/null</string>",
           "<key>StandardErrorPath</key>\n\t<string>/dev/null</string>",
       }) {
    EXPECT_NE(text.find(expected), std::string::npos) << expected << "\n" << text;
  }
  const auto parsed = LaunchAgentPlist::parse(text);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->executablePath, "/Applications/Corvane.app/Contents/MacOS/Corvane");
  EXPECT_EQ(parsed->minute, 17);
  EXPECT_FALSE(LaunchAgentPlist::parse("<plist><dict></dict></plist>"));
  EXPECT_FALSE(LaunchAgentPlist::parse("garbage"));
}

TEST(LaunchAgentManager, InstallsOnceRemovesWhenNoLongerWanted) {
  TemporaryFolder folder;
  Recorder launchctl;
  LaunchAgentManager agent(folder.path() / "LaunchAgents", 501, launchctl.runner());
  const std::filesystem::path app = "/Applications/Corvane.app/Contents/MacOS/Corvane";
  const auto plist = (folder.path() / "LaunchAgents/com.veskar.corvane.backup.plist").string();

  EXPECT_EQ(agent.reconcile(false, app, 17), BackupScheduler::Outcome::unchanged);
  EXPECT_EQ(launchctl.calls, (Calls{{"print", "gui/501/com.veskar.corvane.backup"}}));

  launchctl.calls.clear();
  EXPECT_EQ(agent.reconcile(true, app, 17), BackupScheduler::Outcome::installed);
  EXPECT_EQ(launchctl.calls, (Calls{{"print", "gui/501/com.veskar.corvane.backup"},
                                    {"bootout", "gui/501/com.veskar.corvane.backup"},
                                    {"enable", "gui/501/com.veskar.corvane.backup"},
                                    {"bootstrap", "gui/501", plist}}));
  EXPECT_EQ(*Durable::readWhole(plist), LaunchAgentPlist::contents(app, 17));
  EXPECT_EQ(agent.current(false), (SchedulerState{true, app.string(), 17, std::nullopt}));

  // Same wish: nothing but the question.
  launchctl.calls.clear();
  EXPECT_EQ(agent.reconcile(true, app, 17), BackupScheduler::Outcome::unchanged);
  EXPECT_EQ(launchctl.calls.size(), 1u);
  // Booted out behind the program's back: bootstrapped again.
  launchctl.loaded = false;
  EXPECT_EQ(agent.reconcile(true, app, 17), BackupScheduler::Outcome::installed);
  EXPECT_TRUE(launchctl.loaded);
  // A new minute rewrites and reloads.
  EXPECT_EQ(agent.reconcile(true, app, 42), BackupScheduler::Outcome::installed);
  EXPECT_EQ(agent.current(true).minute, 42);

  launchctl.calls.clear();
  EXPECT_EQ(agent.reconcile(false, app, 42), BackupScheduler::Outcome::removed);
  EXPECT_EQ(launchctl.calls, (Calls{{"print", "gui/501/com.veskar.corvane.backup"},
                                    {"bootout", "gui/501/com.veskar.corvane.backup"}}));
  EXPECT_FALSE(std::filesystem::exists(plist));
}

TEST(LaunchAgentManager, RefusesUnsafeLocationsAndReportsARefusedBootstrap) {
  TemporaryFolder folder;
  Recorder launchctl;
  LaunchAgentManager agent(folder.path(), 501, launchctl.runner());
  const std::pair<const char*, const char*> cases[] = {
      {"/private/var/folders/x/AppTranslocation/ABC/d/Corvane.app/Contents/MacOS/Corvane",
       "macOS is running Corvane from a temporary copy"},
      {"/Volumes/Corvane/Corvane.app/Contents/MacOS/Corvane",
       "Corvane is running from the disk image or from another disk."},
      {"", "Corvane could not tell where it is installed"},
  };
  for (const auto& [path, message] : cases) {
    try {
      agent.reconcile(true, path, 5);
      ADD_FAILURE() << path;
    } catch (const SchedulerError& error) {
      EXPECT_EQ(error.description().rfind(message, 0), 0u) << error.description();
    }
  }
  EXPECT_FALSE(std::filesystem::exists(agent.fileURL()));

  launchctl.bootstrapStatus = 5;
  try {
    agent.reconcile(true, "/Applications/Corvane.app/Contents/MacOS/Corvane", 5);
    ADD_FAILURE();
  } catch (const SchedulerError& error) {
    EXPECT_EQ(error.description(),
              "macOS did not accept the backup schedule. Check that Corvane is allowed under Login "
              "Items in System Settings.");
  }
}

TEST(SystemdUserTimer, WritesUnitsEnablesTheTimerAndRemovesThem) {
  TemporaryFolder folder;
  Recorder systemctl;
  const auto units = folder.path() / "systemd/user";
  SystemdUserTimer timer(units, systemctl.runner());
  const std::filesystem::path exe = "/opt/my tools/100%/corvane";

  EXPECT_EQ(timer.reconcile(true, exe, 7), BackupScheduler::Outcome::installed);
  EXPECT_EQ(systemctl.calls, (Calls{{"is-active", "corvane-backup.timer"},
                                    {"daemon-reload"},
                                    {"enable", "corvane-backup.timer"},
                                    {"restart", "corvane-backup.timer"}}));
  const auto service = *Durable::readWhole(units / "corvane-backup.service");
  EXPECT_NE(service.find("ExecStart=\"/opt/my tools/100%%/corvane\" --backup-tick\n"),
            std::string::npos);
  EXPECT_NE(service.find("Type=oneshot"), std::string::npos);
  const auto timerText = *Durable::readWhole(units / "corvane-backup.timer");
  EXPECT_NE(timerText.find("OnCalendar=*-*-* *:07:00\n"), std::string::npos);
  EXPECT_NE(timerText.find("WantedBy=timers.target"), std::string::npos);
  // A tick missed while the machine was off or asleep runs when it wakes.
  EXPECT_NE(timerText.find("Persistent=true\n"), std::string::npos);
  EXPECT_EQ(timer.current(false), (SchedulerState{true, exe.string(), 7, std::nullopt}));

  systemctl.calls.clear();
  EXPECT_EQ(timer.reconcile(true, exe, 7), BackupScheduler::Outcome::unchanged);
  EXPECT_EQ(systemctl.calls, (Calls{{"is-active", "corvane-backup.timer"},
                                    {"is-enabled", "corvane-backup.timer"}}));

  // Disabled behind the program's back (still running until logout), or
  // stopped: installed again.
  systemctl.enabled = false;
  EXPECT_EQ(timer.reconcile(true, exe, 7), BackupScheduler::Outcome::installed);
  EXPECT_TRUE(systemctl.enabled);
  systemctl.loaded = false;
  EXPECT_EQ(timer.reconcile(true, exe, 7), BackupScheduler::Outcome::installed);
  EXPECT_TRUE(systemctl.loaded);

  systemctl.calls.clear();
  EXPECT_EQ(timer.reconcile(false, exe, 7), BackupScheduler::Outcome::removed);
  EXPECT_EQ(systemctl.calls, (Calls{{"is-active", "corvane-backup.timer"},
                                    {"is-enabled", "corvane-backup.timer"},
                                    {"disable", "--now", "corvane-backup.timer"},
                                    {"daemon-reload"}}));
  EXPECT_FALSE(std::filesystem::exists(units / "corvane-backup.service"));
  EXPECT_FALSE(std::filesystem::exists(units / "corvane-backup.timer"));
  EXPECT_EQ(timer.reconcile(false, exe, 7), BackupScheduler::Outcome::unchanged);
}

TEST(SystemdUserTimer, CarriesTheProgramsHomeAndReinstallsWhenItChanges) {
  TemporaryFolder folder;
  Recorder systemctl;
  const auto units = folder.path() / "systemd/user";
  const std::filesystem::path exe = "/usr/bin/corvane";
  SystemdUserTimer plain(units, systemctl.runner());
  EXPECT_EQ(plain.reconcile(true, exe, 7), BackupScheduler::Outcome::installed);
  EXPECT_EQ(Durable::readWhole(units / "corvane-backup.service")->find("Environment="),
            std::string::npos);

  SystemdUserTimer withHome(units, systemctl.runner(), "/data/100% \"corvane\"");
  EXPECT_EQ(withHome.reconcile(true, exe, 7), BackupScheduler::Outcome::installed);
  EXPECT_NE(Durable::readWhole(units / "corvane-backup.service")
                ->find("Environment=\"CORVANE_HOME=/data/100%% \\\"corvane\\\"\"\n"),
            std::string::npos);
  EXPECT_EQ(withHome.reconcile(true, exe, 7), BackupScheduler::Outcome::unchanged);
}

TEST(SystemdUserTimer, UnitsPassSystemdsOwnCheck) {
  if (!ChildProcess::isExecutableFile("/usr/bin/systemd-analyze"))
    GTEST_SKIP() << "systemd-analyze is not installed";
  TemporaryFolder folder;
  Durable::writeWhole(folder.path() / "corvane-backup.service",
                      SystemdUnits::service("/bin/true", "/home/a \"b\"/100%"));
  Durable::writeWhole(folder.path() / "corvane-backup.timer", SystemdUnits::timer(7));
  ProcessRequest request;
  request.executable = "/usr/bin/systemd-analyze";
  request.arguments = {"verify", "--man=no", (folder.path() / "corvane-backup.timer").string(),
                       (folder.path() / "corvane-backup.service").string()};
  request.environment = ChildProcess::currentEnvironment();
  request.timeout = std::chrono::seconds(30);
  const auto verified = ChildProcess::run(request);
  EXPECT_EQ(verified.exitStatus, 0) << verified.standardOutput << verified.standardError;

  request.arguments = {"calendar", "--iterations=2", "*-*-* *:07:00"};
  const auto calendar = ChildProcess::run(request);
  EXPECT_EQ(calendar.exitStatus, 0) << calendar.standardError;
  EXPECT_NE(calendar.standardOutput.find(":07:00"), std::string::npos);
}

TEST(BackupScheduleSetup, TickMinuteStaysWithin1To59) {
  std::optional<int> stored;
  int draws = 0;
  BackupScheduleSetup::Defaults defaults{[&] { return stored; },
                                         [&](int minute) { stored = minute; },
                                         [&] { ++draws; return 23; }};
  for (const std::optional<int> bad : {std::optional<int>{}, std::optional<int>{0},
                                       std::optional<int>{60}, std::optional<int>{-4}}) {
    stored = bad;
    EXPECT_EQ(BackupScheduleSetup::tickMinute(defaults), 23);
    EXPECT_EQ(stored, 23);
  }
  stored = 1;
  EXPECT_EQ(BackupScheduleSetup::tickMinute(defaults), 1);
  stored = 59;
  EXPECT_EQ(BackupScheduleSetup::tickMinute(defaults), 59);
  EXPECT_EQ(draws, 4);
}

TEST(BackupScheduleSetup, FollowsTheSetsAndLeavesThingsAloneWhenTheyAreUnreadable) {
  TemporaryFolder folder;
  BackupRegistry registry(folder.path());
  Recorder systemctl;
  SystemdUserTimer timer(folder.path() / "units", systemctl.runner());
  std::optional<int> stored = 12;
  BackupScheduleSetup::Defaults defaults{[&] { return stored; }, [&](int m) { stored = m; },
                                         [] { return 30; }};
  const std::filesystem::path exe = "/usr/local/bin/corvane";
  using Kind = BackupScheduleSetup::Result::Kind;

  BackupSet set;
  set.orgKey = "o";
  set.username = "a@b.c";
  registry.upsert(set);  // manual only
  EXPECT_EQ(BackupScheduleSetup::reconcileAtLaunch(registry, timer, defaults, false, exe).kind,
            Kind::unchanged);
  set.schedule = BackupSchedule::daily(1, 0);
  registry.upsert(set);
  EXPECT_EQ(BackupScheduleSetup::reconcileAtLaunch(registry, timer, defaults, true, exe).kind,
            Kind::unchanged);  // the demo installs nothing
  EXPECT_FALSE(timer.current(false).installed);
  const auto installed = BackupScheduleSetup::reconcileAtLaunch(registry, timer, defaults, false, exe);
  EXPECT_EQ(installed.kind, Kind::installed);
  EXPECT_EQ(timer.current(false).minute, 12);

  Durable::replace(registry.fileURL(), "{not json");
  const auto unreadable = BackupScheduleSetup::reconcileAtLaunch(registry, timer, defaults, false, exe);
  EXPECT_EQ(unreadable.kind, Kind::setsUnreadable);
  EXPECT_NE(unreadable.message.find("could not be read"), std::string::npos);
  EXPECT_TRUE(timer.current(false).installed);

  registry.save({});
  EXPECT_EQ(BackupScheduleSetup::reconcileAtLaunch(registry, timer, defaults, false, exe).kind,
            Kind::removed);
  EXPECT_FALSE(timer.current(false).installed);
}

}  // namespace
}  // namespace corvane
