#include "app/orgs_command.hpp"

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

TEST(FindLogin, PrefersUsernameThenExactAliasAndRefusesGuesses) {
  std::vector<Org> orgs(3);
  orgs[0].username = "one@x.org";
  orgs[0].alias = "Prod";
  orgs[1].username = "prod";
  orgs[2].username = "two@x.org";
  orgs[2].alias = "PROD";
  EXPECT_EQ(OrgsCommand::findLogin(orgs, "ONE@x.org").username, "one@x.org");
  EXPECT_EQ(OrgsCommand::findLogin(orgs, "Prod").username, "prod") << "a username wins";
  orgs[1].username = "three@x.org";
  EXPECT_EQ(OrgsCommand::findLogin(orgs, "PROD").username, "two@x.org");
  try {
    OrgsCommand::findLogin(orgs, "prod");
    FAIL() << "two aliases differ only in case";
  } catch (const CommandError& error) {
    EXPECT_EQ(error.kind(), CommandError::Kind::ambiguousLogin);
  }
  try {
    OrgsCommand::findLogin(orgs, "nobody");
    FAIL();
  } catch (const CommandError& error) {
    EXPECT_EQ(error.kind(), CommandError::Kind::loginNotFound);
  }
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
