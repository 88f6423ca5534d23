#include "app/schedule_command.hpp"

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "connections/tests/fake_cli.hpp"
#include "platform/child_process.hpp"
#include "platform/durable_file.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "scheduling/systemd_timer.hpp"

namespace corvane {
namespace {

using ::testing::HasSubstr;
using testing::FakeCLI;

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

  const auto removed =
      run([&](CommandContext& c) { ScheduleCommand::removeSet(c, setup, "ADMIN@acme.example"); });
  EXPECT_THAT(removed, HasSubstr("the systemd user timer was removed"));
  EXPECT_FALSE(std::filesystem::exists(folder.path() / "units/corvane-backup.timer"));
  EXPECT_THROW(run([&](CommandContext& c) { ScheduleCommand::removeSet(c, setup, "nobody"); }),
               ScheduleCommand::SetArgumentError);
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

}  // namespace
}  // namespace corvane
