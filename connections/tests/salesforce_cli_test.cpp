// The bridge against a fake `sf`: finding it, running it, and what each
// command makes of good, bad and hostile replies.
#include "connections/salesforce_cli.hpp"

#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "connections/tests/fake_cli.hpp"

namespace corvane {
namespace {

using ::testing::ElementsAre;
using testing::FakeCLI;
using testing::fixturePath;
using ::testing::HasSubstr;
using testing::makeExecutable;
using ::testing::Not;
using testing::TemporaryFolder;
using testing::writeFile;

constexpr const char* kToken = "00D000000000001!AQ4AQFakeTokenForLocalOrg123";

CLIError::Kind kindOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const CLIError& error) {
    return error.kind();
  }
  ADD_FAILURE() << "no CLIError was thrown";
  return CLIError::Kind::failed;
}

std::string descriptionOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const CLIError& error) {
    return error.description();
  }
  ADD_FAILURE() << "no CLIError was thrown";
  return {};
}

// A fake that answers `org display` and `org auth show-access-token` from reply files.
void answerDisplayAndToken(FakeCLI& fake, const std::string& display, const std::string& token) {
  fake.reply("display.json", display);
  fake.reply("token.json", token);
  fake.script(R"(case "$*" in
  "org display"*) cat display.json ;;
  "org auth show-access-token"*) cat token.json ;;
  *) echo '{"status":1,"message":"unexpected call"}'; exit 1 ;;
esac)");
}

std::string fixture(const char* name) { return testing::fixtureText(name); }

TEST(LocateCLI, SkipsANonExecutableConfiguredPathAndTakesTheFirstExecutableCandidate) {
  TemporaryFolder folder;
  const auto plain = folder.path() / "plain-sf";
  const auto first = folder.path() / "first" / "sf";
  const auto second = folder.path() / "second" / "sf";
  writeFile(plain, "#!/bin/sh\n");
  for (const auto& path : {first, second}) {
    std::filesystem::create_directories(path.parent_path());
    writeFile(path, "#!/bin/sh\n");
    makeExecutable(path);
  }
  std::string configured = plain.string();
  SalesforceCLI::Options options;
  options.configuredPath = [&configured] { return configured; };
  options.candidates = std::vector<std::string>{(folder.path() / "missing" / "sf").string(),
                                                first.string(), second.string()};
  options.loginShell = "/nonexistent/shell";
  SalesforceCLI cli(options);
  EXPECT_EQ(cli.locateCLI(), first.string());

  configured = second.string();
  EXPECT_EQ(cli.locateCLI(), second.string()) << "a changed configured path replaces the old one";

  configured = "relative/sf";
  std::filesystem::remove(first);
  EXPECT_EQ(cli.locateCLI(), second.string()) << "a relative path is never run";
}

TEST(LocateCLI, AsksALoginShellLastAndSkipsItsGreetings) {
  TemporaryFolder folder;
  const auto sf = folder.path() / "bin" / "sf";
  std::filesystem::create_directories(sf.parent_path());
  writeFile(sf, "#!/bin/sh\n");
  makeExecutable(sf);
  const auto shell = folder.path() / "shell";
  writeFile(shell,
            "#!/bin/sh\n[ \"$1 $2\" = '-lc command -v sf' ] || exit 3\n"
            "echo 'Good morning!'\necho '/not/this/one'\necho '" +
                sf.string() + "'\n");
  makeExecutable(shell);

  SalesforceCLI::Options options;
  options.configuredPath = [] { return std::string(); };
  options.candidates = std::vector<std::string>{};
  options.loginShell = shell.string();
  SalesforceCLI cli(options);
  EXPECT_EQ(cli.locateCLI(), sf.string());

  writeFile(shell, "#!/bin/sh\necho '/usr/share/doc'\n");
  makeExecutable(shell);
  std::filesystem::remove(sf);
  EXPECT_EQ(cli.locateCLI(), std::nullopt);
  EXPECT_EQ(kindOf([&] { cli.listOrgs(false, std::chrono::seconds(5)); }),
            CLIError::Kind::notFound);
  EXPECT_EQ(cli.connectionStatus("u@x.org", std::chrono::seconds(5)), std::nullopt);
}

TEST(RunningSF, AChildPastItsLimitIsStoppedAndReportedAsTimedOut) {
  FakeCLI fake;
  fake.script("exec sleep 30");
  auto options = fake.options();
  options.limits.session = std::chrono::milliseconds(300);
  SalesforceCLI cli(options);
  EXPECT_EQ(kindOf([&] { cli.session("u@x.org"); }), CLIError::Kind::timedOut);
  EXPECT_EQ(kindOf([&] { cli.listOrgs(true, std::chrono::milliseconds(300)); }),
            CLIError::Kind::timedOut);
}

TEST(RunningSF, MegabytesOnBothPipesDoNotBlockTheChild) {
  FakeCLI fake;
  fake.reply("result.json", nlohmann::json::parse(fixture("org-list-all.json"))["result"].dump());
  fake.script(
      "head -c 3000000 /dev/zero | tr '\\0' e >&2\n"
      "printf '{\"padding\":\"'; head -c 3000000 /dev/zero | tr '\\0' w\n"
      "printf '\",\"status\":0,\"result\":'; cat result.json; echo '}'");
  SalesforceCLI cli(fake.options());
  const auto orgs = cli.listOrgs(false, std::chrono::seconds(30));
  ASSERT_EQ(orgs.size(), 1u);
  EXPECT_EQ(orgs[0].username, "admin@sample.org");
}

TEST(RunningSF, OutputThatIsNotAJSONObjectIsBadOutput) {
  FakeCLI fake;
  SalesforceCLI cli(fake.options());
  for (const char* body : {"echo 'Hello, world'", "true", "echo '[1,2,3]'", "echo '{\"status\":0'",
                           "echo 'oops' >&2; exit 1", "printf '{\"status\":0,\"result\":[]}'"}) {
    SCOPED_TRACE(body);
    fake.script(body);
    EXPECT_EQ(kindOf([&] { cli.listOrgs(false, std::chrono::seconds(10)); }),
              CLIError::Kind::badOutput);
  }
  fake.script("echo 'oops' >&2; exit 1");
  EXPECT_EQ(cli.connectionStatus("u@x.org", std::chrono::seconds(10)), std::nullopt);
  EXPECT_TRUE(cli.listMetadata("sample", "ApexClass").empty());
}

TEST(RunningSF, AFailureReplyGivesItsCleanedMessageOrTheCommandsFallback) {
  FakeCLI fake;
  SalesforceCLI cli(fake.options());
  fake.reply("unknown.json", fixture("org-display-unknown.json"));
  fake.script("cat unknown.json; exit 2");
  EXPECT_EQ(descriptionOf([&] { cli.session("nobody@example.com"); }),
            "No authorization information found for nobody@example.com.");

  fake.script("echo '{\"status\":1}'; exit 1");
  EXPECT_EQ(descriptionOf([&] { cli.listOrgs(false, std::chrono::seconds(10)); }),
            "The Salesforce CLI reported an error.");
  EXPECT_EQ(descriptionOf([&] { cli.limits("sample"); }), "Could not read limits.");
  EXPECT_EQ(descriptionOf([&] { cli.auditTrail("sample", std::nullopt); }),
            "Could not read the audit trail.");
  EXPECT_EQ(descriptionOf([&] { cli.metadataTypeNames("sample"); }),
            "Could not read metadata types.");

  fake.script("echo '{\"status\":1,\"message\":\"See more help with --help\"}'");
  EXPECT_EQ(descriptionOf([&] { cli.limits("sample"); }), "Could not read limits.")
      << "a message that is all decoration falls back too";

  // Older CLIs wrote the failure reply to standard error.
  fake.script("echo '{\"status\":1,\"message\":\"Old style.\"}' >&2; exit 1");
  EXPECT_EQ(descriptionOf([&] { cli.limits("sample"); }), "Old style.");
}

TEST(RunningSF, AProgramThatCannotStartIsReportedAsSuch) {
  FakeCLI fake;
  writeFile(fake.path(), "#!/nonexistent/interpreter\n");
  makeExecutable(fake.path());
  SalesforceCLI cli(fake.options());
  const auto text = descriptionOf([&] { cli.limits("sample"); });
  EXPECT_EQ(text.rfind("Could not launch the Salesforce CLI: ", 0), 0u) << text;
  // Said once: not "Could not launch ...: Could not start ...".
  EXPECT_EQ(text.find("Could not start"), std::string::npos) << text;
  EXPECT_EQ(text.find("Could not", 1), std::string::npos) << text;
}

TEST(Session, AMaskedTokenIsFetchedWithTheSecondCommand) {
  FakeCLI fake;
  answerDisplayAndToken(fake, fixture("org-display-verbose.json"),
                        fixture("show-access-token.json"));
  SalesforceCLI cli(fake.options());
  const auto session = cli.session("admin@sample.org");
  EXPECT_EQ(session.accessToken, kToken);
  EXPECT_EQ(session.instanceUrl, "http://127.0.0.1:18778/");
  EXPECT_EQ(session.apiVersion, "63.0");
  EXPECT_THAT(fake.calls(),
              ElementsAre("org display --target-org admin@sample.org --verbose --json",
                          "org auth show-access-token --target-org admin@sample.org --json"));
}

TEST(Session, AnOlderCLIsPrintedTokenIsUsedAsItIs) {
  FakeCLI fake;
  answerDisplayAndToken(fake, fixture("older-cli-org-display-verbose.json"), "not json");
  SalesforceCLI cli(fake.options());
  EXPECT_EQ(cli.session("admin@sample.org").accessToken, kToken);
  EXPECT_EQ(fake.calls().size(), 1u);
}

TEST(Session, AnApiVersionThatIsNotTextGivesTheDefault) {
  FakeCLI fake;
  answerDisplayAndToken(
      fake, R"({"status":0,"result":{"instanceUrl":"https://a.my.salesforce.com","apiVersion":63,
               "accessToken":"00D000000000001!AQ4AQFakeTokenForLocalOrg123"}})",
      "");
  SalesforceCLI cli(fake.options());
  EXPECT_EQ(cli.session("a@x.org").apiVersion, "62.0");
}

TEST(Session, RefusesWhatWouldActOnTheWrongOrgOrLeakTheToken) {
  FakeCLI fake;
  SalesforceCLI cli(fake.options());
  const std::string masked = fixture("org-display-verbose.json");

  answerDisplayAndToken(fake, masked, fixture("show-access-token.json"));
  EXPECT_EQ(descriptionOf([&] { cli.session("someone.else@sample.org"); }),
            "The Salesforce CLI answered for a different user than someone.else@sample.org."
            "\n\nRemove this login and add it again to repair it.");

  answerDisplayAndToken(fake, masked,
                        R"({"status":0,"result":{"accessToken":"[REDACTED] use the other one"}})");
  EXPECT_EQ(descriptionOf([&] { cli.session("admin@sample.org"); }),
            "The Salesforce CLI did not give this app a login token for admin@sample.org."
            "\n\nReconnect the org and try again:\n    sf org login web --target-org "
            "admin@sample.org\n\nIf it keeps happening, updating the Salesforce CLI usually "
            "fixes it.");

  answerDisplayAndToken(fake, masked, R"({"status":1,"message":"Command not found."})");
  EXPECT_THAT(descriptionOf([&] { cli.session("admin@sample.org"); }),
              HasSubstr("did not give this app a login token"));

  answerDisplayAndToken(fake, R"({"status":0,"result":{"username":"admin@sample.org"}})", "");
  EXPECT_EQ(descriptionOf([&] { cli.session("admin@sample.org"); }),
            "This org has no active session. Reconnect it and try again.");

  answerDisplayAndToken(fake, R"({"status":0,"result":{"instanceUrl":"http://acme.example.com",
      "accessToken":"00D000000000001!AQ4AQFakeTokenForLocalOrg123"}})",
                        "");
  EXPECT_THAT(descriptionOf([&] { cli.session("admin@sample.org"); }),
              HasSubstr("not secure (http://acme.example.com)"));
}

TEST(Session, NoErrorTextEverHoldsTheToken) {
  FakeCLI fake;
  SalesforceCLI cli(fake.options());
  const std::string token = kToken;
  const std::vector<std::pair<std::string, std::string>> replies = {
      {R"({"status":1,"message":"Refused token )" + token + R"(\n\tsee more"})", ""},
      {R"({"status":0,"result":{"username":"x@y.org","accessToken":")" + token + R"("}})", ""},
      {R"({"status":0,"result":{"accessToken":")" + token +
           R"(","instanceUrl":"http://evil.example.com"}})",
       ""},
      {fixture("org-display-verbose.json"),
       R"({"status":1,"message":"Token )" + token + R"( is expired"})"},
      {R"({"status":0,"result":{"accessToken":")" + token + R"("}})", ""},
  };
  for (const auto& [display, second] : replies) {
    answerDisplayAndToken(fake, display, second);
    EXPECT_THAT(descriptionOf([&] { cli.session("admin@sample.org"); }),
                Not(HasSubstr("FakeTokenForLocalOrg")));
  }
  fake.script(std::string("echo '{\"status\":1,\"message\":\"bad ") + token + "\"}'");
  EXPECT_THAT(descriptionOf([&] { cli.limits("sample"); }), Not(HasSubstr("FakeToken")));
  EXPECT_THAT(descriptionOf([&] { cli.frontDoorURL("sample", std::nullopt, std::nullopt); }),
              Not(HasSubstr("FakeToken")));
}

TEST(Logout, RefusesWhenAnAliasWouldMakeItHitAnotherLogin) {
  FakeCLI fake;
  SalesforceCLI cli(fake.options());
  Org org;
  org.username = "other@sample.org";
  const std::map<std::string, std::string> aliases = {{"Other@sample.org", "admin@sample.org"}};
  EXPECT_EQ(descriptionOf([&] { cli.logout(org, aliases); }),
            "Not removed. An alias named other@sample.org points at a different login, "
            "admin@sample.org, and the Salesforce CLI would log out both. Rename that alias "
            "first.");
  EXPECT_TRUE(fake.calls().empty()) << "nothing was run";
  EXPECT_EQ(descriptionOf([&] { cli.logout(Org{}, std::nullopt); }), "This login has no username.");
}

TEST(Logout, ReportsASecondLoginThatTheCLILoggedOutToo) {
  FakeCLI fake;
  SalesforceCLI cli(fake.options());
  Org org;
  org.username = "admin@sample.org";
  org.alias = "sample";
  fake.reply("logout.json", fixture("org-logout.json"));
  fake.script("cat logout.json");
  EXPECT_NO_THROW(cli.logout(org, std::map<std::string, std::string>{}));
  EXPECT_THAT(fake.calls(),
              ElementsAre("org logout --target-org admin@sample.org --no-prompt --json"));

  fake.script(R"(echo '{"status":0,"result":["ADMIN@sample.org","second@sample.org"]}')");
  EXPECT_EQ(descriptionOf([&] { cli.logout(org, std::nullopt); }),
            "The Salesforce CLI also logged out second@sample.org. Add that login again to "
            "restore it.");
}

TEST(AliasOwners, AnUnreadableListIsRefusedRatherThanGuessed) {
  FakeCLI fake;
  SalesforceCLI cli(fake.options());
  fake.reply("aliases.json", fixture("alias-list-2.json"));
  fake.script("cat aliases.json");
  EXPECT_EQ(cli.aliasOwners().at("other@sample.org"), "admin@sample.org");
  for (const char* body : {"echo '{\"status\":0,\"result\":{}}'", "echo nonsense",
                           "echo '{\"status\":1,\"message\":\"broken\"}'"}) {
    fake.script(body);
    EXPECT_EQ(descriptionOf([&] { cli.aliasOwners(); }),
              "The Salesforce CLI's list of aliases could not be read, so it is not safe to "
              "remove a login right now. Try again in a moment.");
  }
}

TEST(FrontDoor, UsesTheTargetRuleAndRefusesAnotherUser) {
  FakeCLI fake;
  SalesforceCLI cli(fake.options());
  fake.script(R"(echo '{"status":0,"result":{"url":"https://a/secur/frontdoor.jsp?sid=x",
      "username":"admin@sample.org"}}')");
  Org org;
  org.username = "admin@sample.org";
  org.alias = "sample";
  EXPECT_EQ(cli.frontDoorURL(org, "/lightning/setup"), "https://a/secur/frontdoor.jsp?sid=x");
  EXPECT_THAT(fake.calls(), ElementsAre("org open --target-org sample --url-only --json --path "
                                        "/lightning/setup"));
  org.username = "other@sample.org";
  EXPECT_EQ(descriptionOf([&] { cli.frontDoorURL(org); }),
            "The Salesforce CLI opened this org as a different user than other@sample.org. "
            "Remove this login and add it again to repair it.");
  EXPECT_EQ(descriptionOf([&] { cli.frontDoorURL(Org{}); }),
            "This org has no alias or username to open.");
}

TEST(LoginWeb, StartsInTheBackgroundWithAliasAndInstance) {
  FakeCLI fake;
  SalesforceCLI cli(fake.options());
  fake.script("exit 0");
  auto child = cli.startLoginWeb("acme", "https://acme.my.salesforce.com");
  for (int i = 0; i < 1000 && !child.poll(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(child.poll(), 0);
  EXPECT_THAT(
      fake.calls(),
      ElementsAre("org login web --alias acme --instance-url https://acme.my.salesforce.com"));

  writeFile(fake.path(), "#!/nonexistent/interpreter\n");
  makeExecutable(fake.path());
  EXPECT_THAT(descriptionOf([&] { cli.startLoginWeb(std::nullopt, std::nullopt); }),
              HasSubstr("Could not start the login flow: "));
}

TEST(OrgHealth, RetrieveKeepsTheUsersProjectFile) {
  FakeCLI fake;
  SalesforceCLI cli(fake.options());
  fake.script(R"(echo '{"status":0,"result":{"files":[]}}')");
  TemporaryFolder project;
  const auto file = project.path() / "sfdx-project.json";

  // A project with its own folder: force-app is added, not as the default, and
  // every other key stays as the user wrote it, in their order.
  writeFile(file, R"({"name": "mine", "packageDirectories": [{"path": "src", "default": true}],)"
                  R"( "sourceApiVersion": "59.0", "plugins": {"x": 1}})");
  cli.retrieve("sample", {"ApexClass:Foo"}, project.path());
  const auto kept = nlohmann::ordered_json::parse(testing::readFile(file));
  EXPECT_EQ(kept.dump(),
            R"({"name":"mine","packageDirectories":[{"path":"src","default":true},)"
            R"({"path":"force-app"}],"sourceApiVersion":"59.0","plugins":{"x":1}})");
  EXPECT_TRUE(std::filesystem::is_directory(project.path() / "force-app"));

  // One that already has the folder is not touched at all.
  const std::string complete =
      R"({"packageDirectories":[{"path":"force-app","default":true}],"name":"x"})";
  writeFile(file, complete);
  cli.retrieve("sample", {"ApexClass:Foo"}, project.path());
  EXPECT_EQ(testing::readFile(file), complete);

  // One that is not a project file refuses the retrieval and stays as it is.
  writeFile(file, "{ not json");
  const auto calls = fake.calls().size();
  EXPECT_THAT(descriptionOf([&] { cli.retrieve("sample", {"ApexClass:Foo"}, project.path()); }),
              HasSubstr("already holds an sfdx-project.json"));
  EXPECT_EQ(testing::readFile(file), "{ not json");
  EXPECT_EQ(fake.calls().size(), calls);
}

TEST(OrgHealth, CommandLinesAndWhatIsReadFromThem) {
  FakeCLI fake;
  SalesforceCLI cli(fake.options());
  fake.script(R"(case "$*" in
  "data query"*) echo '{"status":0,"result":{"records":[{"Action":"x"}]}}' ;;
  "org list metadata-types"*)
    echo '{"status":0,"result":{"metadataObjects":[{"xmlName":"ApexClass"},{"xmlName":3}]}}' ;;
  "org list metadata "*) echo '{"status":0,"result":[{"fullName":"Foo"},7]}' ;;
  "project retrieve"*) echo '{"status":0,"result":{"files":[]}}' ;;
  *) echo '{"status":0,"result":[]}' ;;
esac)");
  EXPECT_EQ(cli.auditTrail("sample", "Section = 'Users'").size(), 1u);
  EXPECT_THAT(cli.metadataTypeNames("sample"), ElementsAre("ApexClass"));
  EXPECT_EQ(cli.listMetadata("sample", "ApexClass").size(), 1u);
  EXPECT_TRUE(cli.limits("sample").is_array());

  TemporaryFolder project;
  EXPECT_EQ(descriptionOf([&] { cli.retrieve("sample", {}, project.path()); }),
            "No components selected.");
  EXPECT_TRUE(cli.retrieve("sample", {"ApexClass:Foo", "CustomObject:Bar__c"}, project.path())
                  .contains("files"));
  const auto written =
      nlohmann::json::parse(testing::readFile(project.path() / "sfdx-project.json"));
  EXPECT_EQ(written["packageDirectories"][0]["path"], "force-app");
  EXPECT_EQ(written["packageDirectories"][0]["default"], true);
  EXPECT_EQ(written["sourceApiVersion"], "62.0");
  EXPECT_EQ(written["namespace"], "");
  EXPECT_EQ(fake.lastWorkingFolder(), std::filesystem::canonical(project.path()).string());
  EXPECT_EQ(descriptionOf([&] { cli.limits(""); }), "This org has no alias or username.");

  EXPECT_THAT(
      fake.calls(),
      ElementsAre("data query --target-org sample -q SELECT Action, Section, CreatedDate, "
                  "CreatedBy.Name, Display FROM SetupAuditTrail WHERE Section = 'Users' ORDER BY "
                  "CreatedDate DESC LIMIT 2000 --json",
                  "org list metadata-types --target-org sample --json",
                  "org list metadata --metadata-type ApexClass --target-org sample --json",
                  "org list limits --target-org sample --json",
                  "project retrieve start --target-org sample --json --metadata ApexClass:Foo "
                  "--metadata CustomObject:Bar__c"));
}

TEST(ConnectionStatus, ReadsTheStatusOfThisLoginOnly) {
  FakeCLI fake;
  SalesforceCLI cli(fake.options());
  fake.reply("display.json", fixture("org-display.json"));
  fake.script("cat display.json");
  EXPECT_EQ(cli.connectionStatus("admin@sample.org", std::chrono::seconds(10)), "Connected");
  EXPECT_EQ(cli.connectionStatus("other@sample.org", std::chrono::seconds(10)), std::nullopt);
  EXPECT_EQ(fake.calls().front(), "org display --target-org admin@sample.org --json");
}

TEST(ListOrgs, PassesTheSkipSwitchAndRefusesAReplyWithoutLists) {
  FakeCLI fake;
  SalesforceCLI cli(fake.options());
  fake.reply("list.json", fixture("org-list-all-skip.json"));
  fake.script("cat list.json");
  EXPECT_EQ(cli.listOrgs(true, std::chrono::seconds(10)).size(), 1u);
  EXPECT_THAT(fake.calls(), ElementsAre("org list --all --json --skip-connection-status"));
  fake.script(R"(echo '{"status":0}')");
  EXPECT_EQ(kindOf([&] { cli.listOrgs(false, std::chrono::seconds(10)); }),
            CLIError::Kind::badOutput);
}

}  // namespace
}  // namespace corvane
