#include "scheduling/schedule_task.hpp"

#include <gtest/gtest.h>

#include "platform/durable_file.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "scheduling/systemd_timer.hpp"
#include "tools/orgsim/tests/sample_org.hpp"

namespace corvane {
namespace {

using namespace std::chrono_literals;

class ScheduleTaskTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    setup_.registryDirectory = folder_.path() / "Corvane";
    setup_.backupRoot = folder_.path() / "Backups";
    setup_.scheduler = [this] {
      return std::make_unique<SystemdUserTimer>(
          folder_.path() / "units", [this](const std::vector<std::string>& arguments) {
            if (arguments[0] == "restart") active_ = true;
            if (arguments[0] == "disable") active_ = false;
            return ServiceCommandResult{arguments[0] == "is-active" && !active_ ? 3 : 0, ""};
          });
    };
    setup_.defaults = {[this] { return minute_; }, [this](int m) { minute_ = m; },
                       [] { return 17; }};
    setup_.executable = "/usr/local/bin/corvane";
  }

  BackupSet accountSet() {
    BackupSet set;
    set.orgKey = "00D000000000001AAA";
    set.username = store().identity().adminUsername;
    set.schedule = BackupSchedule::hourly();
    set.onlyObjects = std::vector<std::string>{"Account"};
    return set;
  }

  ScheduleTask::OrgAccess access(std::stop_token stop = {}) {
    ScheduleTask::OrgAccess access;
    Org org;
    org.username = store().identity().adminUsername;
    access.logins = [org] { return std::vector<Org>{org}; };
    access.session = [this](const std::string&) {
      return SalesforceAPI::Session{orgsim::Sessions::issue(store(), "").token,
                                    server_->baseUrl(), "62.0", {}};
    };
    access.progress = [this](const BackupProgress& progress) { steps_.push_back(progress.step); };
    access.stop = std::move(stop);
    return access;
  }

  SetRunRequest request() {
    const auto set = accountSet();
    return {set, set.config(setup_.backupRoot), RunKind::full, false};
  }

  TemporaryFolder folder_;
  ScheduleTask::Setup setup_;
  bool active_ = false;
  std::optional<int> minute_;
  std::vector<BackupProgress::Step> steps_;
};

TEST_F(ScheduleTaskTest, AScheduledRunReportsItsStepsAndAStopEndsItForTheNextRunToResume) {
  orgsim::testing::addAccounts(store(), 20);
  std::stop_source source;
  source.request_stop();
  const auto stopped = ScheduleTask::backupSetRunner(access(source.get_token()))(request());
  EXPECT_FALSE(stopped.succeeded);
  EXPECT_TRUE(stopped.started);
  EXPECT_NE(stopped.failure.find("stopped"), std::string::npos) << stopped.failure;

  steps_.clear();
  const auto finished = ScheduleTask::backupSetRunner(access())(request());
  EXPECT_TRUE(finished.succeeded) << finished.failure;
  ASSERT_FALSE(steps_.empty());
  EXPECT_EQ(steps_.front(), BackupProgress::Step::starting);
}

TEST_F(ScheduleTaskTest, ALoginTheCLINoLongerKnowsStartsNoRun) {
  auto gone = access();
  gone.logins = [] { return std::vector<Org>{}; };
  const auto outcome = ScheduleTask::backupSetRunner(std::move(gone))(request());
  EXPECT_FALSE(outcome.started);
  EXPECT_NE(outcome.failure.find("no longer known to the Salesforce CLI"), std::string::npos);
  EXPECT_TRUE(steps_.empty());
}

TEST_F(ScheduleTaskTest, SavingKeepsAReplacedSetsHistoryAndInstallsTheTimer) {
  auto set = accountSet();
  const SystemTime first = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  auto saved = ScheduleTask::saveSet(setup_, set, first);
  EXPECT_NE(saved.notice.find("at minute 17"), std::string::npos) << saved.notice;
  EXPECT_EQ(saved.set.created, first);

  set.username = "ADMIN" + set.username.substr(5);
  set.schedule = BackupSchedule::daily(2, 30);
  saved = ScheduleTask::saveSet(setup_, set, first + 24h);
  EXPECT_EQ(saved.set.created, first) << "the set replaced is the same login";
  EXPECT_EQ(saved.notice, "") << "the timer was already there";
  ASSERT_EQ(ScheduleTask::sets(setup_).size(), 1u);

  const auto status = ScheduleTask::status(setup_);
  EXPECT_TRUE(status.installed);
  EXPECT_EQ(status.minute, 17);
  EXPECT_EQ(status.mismatch(), "");
}

TEST_F(ScheduleTaskTest, FailuresAreTyped) {
  try {
    ScheduleTask::removeSet(setup_, "nobody@x.org");
    FAIL();
  } catch (const BackupSetError& error) {
    EXPECT_EQ(error.kind(), BackupSetError::Kind::noSuchSet);
  }
  std::filesystem::create_directories(setup_.registryDirectory);
  Durable::replace(BackupRegistry(setup_.registryDirectory).fileURL(), "not json");
  try {
    ScheduleTask::sets(setup_);
    FAIL();
  } catch (const BackupSetError& error) {
    EXPECT_EQ(error.kind(), BackupSetError::Kind::setsUnreadable);
  }
  EXPECT_EQ(ScheduleTask::status(setup_).wish, ScheduleWish::unknown);
  EXPECT_NE(ScheduleTask::reconcileAtLaunch(setup_).find("could not be read"), std::string::npos);
}

}  // namespace
}  // namespace corvane
