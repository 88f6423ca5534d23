#include "app/orgs_command.hpp"

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/command_error.hpp"
#include "connections/tests/fake_cli.hpp"
#include "platform/child_process.hpp"

namespace corvane {
namespace {

using testing::FakeCLI;
using ::testing::HasSubstr;

// Two logins that the list of all logins reports with the refresh-token error;
// checked alone, one is fine and one really needs a new login.
void answerWithTwoDoubtfulLogins(FakeCLI& fake) {
  fake.script(R"(case "$*" in
  "org list"*) echo '{"status":0,"result":{"nonScratchOrgs":[
      {"username":"good@x.org","alias":"good","connectedStatus":"RefreshTokenAuthError",
       "instanceUrl":"https://good.my.salesforce.com","isSandbox":false},
      {"username":"bad@x.org","connectedStatus":"RefreshTokenAuthError","isDefaultUsername":true,
       "instanceUrl":"https://bad.sandbox.my.salesforce.com"}]}}' ;;
  "org display --target-org good@x.org"*)
    echo '{"status":0,"result":{"username":"good@x.org","connectedStatus":"Connected"}}' ;;
  "org display --target-org bad@x.org"*)
    echo '{"status":0,"result":{"username":"bad@x.org","connectedStatus":"RefreshTokenAuthError"}}' ;;
  *) echo '{"status":1,"message":"unexpected"}'; exit 1 ;;
esac)");
}

TEST(OrgsList, ShowsEachLoginWithItsKindStateAndInstance) {
  FakeCLI fake;
  fake.reply("list.json", testing::fixtureText("org-list-all.json"));
  fake.script("cat list.json");
  SalesforceCLI cli(fake.options());
  std::ostringstream out;
  CommandContext context{cli, out};
  OrgsCommand::list(context, false);
  EXPECT_EQ(out.str(),
            "USERNAME          ALIAS   KIND     CONNECTION  INSTANCE\n"
            "admin@sample.org  sample  Dev Hub  connected   NA42\n");
}

TEST(OrgsList, LoginsInDoubtAreCheckedAloneBeforeTheyAreShown) {
  FakeCLI fake;
  answerWithTwoDoubtfulLogins(fake);
  SalesforceCLI cli(fake.options());
  std::ostringstream out;
  CommandContext context{cli, out};
  OrgsCommand::list(context, false);
  EXPECT_EQ(out.str(),
            "USERNAME             ALIAS  KIND        CONNECTION   INSTANCE\n"
            "bad@x.org (default)  -      sandbox     needs login  bad.sandbox.my.salesforce.com\n"
            "good@x.org           good   production  connected    good.my.salesforce.com\n");
}

TEST(OrgsShow, FindsTheLoginByAliasAndChecksItAlone) {
  FakeCLI fake;
  answerWithTwoDoubtfulLogins(fake);
  SalesforceCLI cli(fake.options());
  std::ostringstream out;
  CommandContext context{cli, out};
  OrgsCommand::show(context, "GOOD");
  EXPECT_THAT(out.str(), HasSubstr("Username:            good@x.org\n"));
  EXPECT_THAT(out.str(),
              HasSubstr("CLI status:          Connected (this login checked on its own)"));
  EXPECT_THAT(out.str(), HasSubstr("Connection:          connected: Connected.\n"));
  EXPECT_THAT(fake.calls(), ::testing::ElementsAre("org list --all --json --skip-connection-status",
                                                   "org display --target-org good@x.org --json"));
}

TEST(OrgsJSON, ListsEveryLoginWithStableKeysAndShowsOneInFull) {
  FakeCLI fake;
  answerWithTwoDoubtfulLogins(fake);
  SalesforceCLI cli(fake.options());
  std::ostringstream out;
  CommandContext context{cli, out};
  OrgsCommand::list(context, false, true);
  const auto list = nlohmann::json::parse(out.str());
  ASSERT_EQ(list.at("logins").size(), 2u);
  const auto& bad = list["logins"][0];
  EXPECT_EQ(bad.at("username"), "bad@x.org");
  EXPECT_TRUE(bad.at("alias").is_null());
  EXPECT_EQ(bad.at("kind"), "sandbox");
  EXPECT_EQ(bad.at("connection"), "needs login");
  EXPECT_EQ(bad.at("host"), "bad.sandbox.my.salesforce.com");
  EXPECT_EQ(bad.at("isDefault"), true);
  EXPECT_EQ(bad.at("checkedAlone"), true);
  EXPECT_EQ(list["logins"][1].at("alias"), "good");

  out.str("");
  OrgsCommand::show(context, "good", true);
  const auto login = nlohmann::json::parse(out.str());
  EXPECT_EQ(login.at("username"), "good@x.org");
  EXPECT_EQ(login.at("connection"), "connected");
  EXPECT_EQ(login.at("cliStatus"), "Connected");
  EXPECT_EQ(login.at("instanceUrl"), "https://good.my.salesforce.com");
  EXPECT_EQ(login.at("sandbox"), false);
  EXPECT_TRUE(login.at("expiry").is_null());
  for (const char* key : {"orgId", "loginUrl", "name", "edition", "instanceName", "lastUsed",
                          "expires", "devHub", "scratch", "expired", "scratchStatus"})
    EXPECT_TRUE(login.contains(key)) << key;
}

// The program itself: exit status and where its words go.
ProcessResult runCorvane(const FakeCLI& fake, std::vector<std::string> arguments) {
  ProcessRequest request;
  request.executable = CORVANE_EXECUTABLE;
  request.arguments = std::move(arguments);
  request.environment = {{"PATH", "/usr/bin:/bin"},
                         {"HOME", fake.folder().string()},
                         {"CORVANE_HOME", (fake.folder() / "support").string()},
                         {"CORVANE_SF_PATH", fake.path()}};
  request.timeout = std::chrono::seconds(60);
  return ChildProcess::run(request);
}

TEST(CorvaneProgram, ReportsFailuresOnStandardErrorWithANonZeroStatus) {
  FakeCLI fake;
  fake.reply("list.json", testing::fixtureText("org-list-all.json"));
  fake.script("cat list.json");

  auto result = runCorvane(fake, {"--version"});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_THAT(result.standardOutput, HasSubstr("corvane "));

  result = runCorvane(fake, {"orgs", "--no-status"});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_THAT(result.standardOutput, HasSubstr("admin@sample.org  sample"));

  result = runCorvane(fake, {"orgs", "show", "nobody"});
  EXPECT_NE(result.exitStatus, 0);
  EXPECT_EQ(result.standardOutput, "");
  EXPECT_EQ(result.standardError, CommandError::loginNotFound("nobody").description() + "\n");

  fake.script("echo '{\"status\":1,\"message\":\"The CLI is broken.\"}'; exit 1");
  result = runCorvane(fake, {"orgs"});
  EXPECT_NE(result.exitStatus, 0);
  EXPECT_EQ(result.standardError, "The CLI is broken.\n");
}

}  // namespace
}  // namespace corvane
