#include "health/health_task.hpp"

#include <gtest/gtest.h>

#include "connections/org_listing.hpp"
#include "connections/tests/fake_cli.hpp"
#include "health/health_error.hpp"

namespace corvane {
namespace {

using testing::FakeCLI;

// One login, "sample" (admin@sample.org on instance NA42), and its limits.
void answerWithOneLogin(FakeCLI& fake) {
  fake.reply("list.json", testing::fixtureText("org-list-all.json"));
  fake.script(R"(case "$*" in
  "org list --all"*) cat list.json ;;
  "org list limits"*) echo '{"status":0,"result":[
      {"name":"DailyApiRequests","max":15000,"remaining":3000},
      {"name":"DataStorageMB","max":100,"remaining":90}]}' ;;
  *) echo '{"status":1,"message":"unexpected"}'; exit 1 ;;
esac)");
}

HealthTask::Source sourceOf(SalesforceCLI& cli) { return {cli, std::chrono::seconds(60)}; }

TEST(HealthTask, LimitsReportTheLoginThenTheQuestionThenTheCount) {
  FakeCLI fake;
  answerWithOneLogin(fake);
  SalesforceCLI cli(fake.options());
  std::vector<HealthTask::Progress> seen;
  const auto usages = HealthTask::limits(sourceOf(cli), "sample", {}, [&](const HealthTask::Progress& p) {
    seen.push_back(p);
  });
  ASSERT_EQ(usages.size(), 2u);
  EXPECT_EQ(usages.front().name, "DailyApiRequests") << "the highest share used comes first";
  using Phase = HealthTask::Phase;
  EXPECT_EQ(seen, (std::vector<HealthTask::Progress>{{Phase::findingLogin, 0, 0, ""},
                                                    {Phase::asking, 0, 1, "limits"},
                                                    {Phase::finished, 2, 2, ""}}));
}

TEST(HealthTask, AStopBeforeTheQuestionAsksTheOrgNothing) {
  FakeCLI fake;
  answerWithOneLogin(fake);
  SalesforceCLI cli(fake.options());
  std::stop_source source;
  EXPECT_THROW(HealthTask::limits(sourceOf(cli), "sample", source.get_token(),
                                  [&](const HealthTask::Progress&) { source.request_stop(); }),
               TaskStopped);
  EXPECT_EQ(fake.calls().size(), 1u) << "only the logins were listed";

  source = {};
  source.request_stop();
  EXPECT_THROW(HealthTask::emailDomains({"example.org"}, {}, {}, source.get_token()), TaskStopped);
}

TEST(HealthTask, FailuresAreTyped) {
  FakeCLI fake;
  answerWithOneLogin(fake);
  SalesforceCLI cli(fake.options());
  EXPECT_THROW(HealthTask::limits(sourceOf(cli), "nobody", {}), LoginError);

  fake.script(R"(echo '{"status":0,"result":{"nonScratchOrgs":[{"username":"x@y.org"}]}}')");
  try {
    HealthTask::instance(sourceOf(cli), "x@y.org", std::nullopt, {}, {});
    FAIL() << "the login has no instance on record";
  } catch (const HealthError& error) {
    EXPECT_EQ(error.kind(), HealthError::Kind::noInstance);
  }
}

}  // namespace
}  // namespace corvane
