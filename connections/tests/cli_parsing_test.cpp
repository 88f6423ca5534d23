// The pure functions that read the CLI's replies: every recorded reply, and
// replies of every wrong shape.
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "connections/salesforce_cli.hpp"
#include "connections/tests/fake_cli.hpp"

namespace corvane {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using testing::fixture;
using testing::fixtureText;

TEST(CLIFixtures, OrgListsOfNewAndOlderCLIsGiveOneRecordPerLogin) {
  for (const char* name :
       {"org-list-all.json", "org-list-all-skip.json", "older-cli-org-list-all.json"}) {
    SCOPED_TRACE(name);
    const auto orgs = SalesforceCLI::mergeOrgArrays(fixture(name));
    ASSERT_EQ(orgs.size(), 1u) << "the Dev Hub stands in two lists";
    const Org& org = orgs.front();
    EXPECT_EQ(org.username, "admin@sample.org");
    EXPECT_EQ(org.alias, "sample");
    EXPECT_EQ(org.orgId, "00D000000000001EAA");
    EXPECT_EQ(org.instanceUrl, "http://127.0.0.1:18778/");
    EXPECT_TRUE(org.isDevHub);
    EXPECT_EQ(org.type(), OrgType::devHub);
    EXPECT_TRUE(org.lastUsed.has_value());
    EXPECT_EQ(org.expirationDate, std::nullopt) << "trailExpirationDate is null";
  }
  const auto current = SalesforceCLI::mergeOrgArrays(fixture("org-list-all.json")).front();
  EXPECT_EQ(current.connection(), OrgConnection::connected);
  EXPECT_EQ(current.edition, "Enterprise Edition");
  EXPECT_EQ(current.instanceDisplay(), "NA42");
  EXPECT_EQ(current.isSandbox, false);
  EXPECT_EQ(IsoTime::formatFractional(*current.lastUsed), "2026-11-22T10:32:09.851Z");
  const auto skipped = SalesforceCLI::mergeOrgArrays(fixture("org-list-all-skip.json")).front();
  EXPECT_EQ(skipped.connectedStatusRaw, std::nullopt);
  EXPECT_EQ(skipped.connection(), OrgConnection::unknown);
  EXPECT_TRUE(SalesforceCLI::mergeOrgArrays(fixture("org-list-empty.json")).empty());
}

TEST(CLIFixtures, EveryOtherReplyReadsAsExpected) {
  const json display = fixture("org-display-verbose.json")["result"];
  EXPECT_TRUE(SalesforceCLI::payloadIsFor(display, "ADMIN@sample.org"));
  EXPECT_FALSE(SalesforceCLI::payloadIsFor(display, "other@sample.org"));
  EXPECT_FALSE(SalesforceCLI::isUsableToken(display["accessToken"].get<std::string>()));
  EXPECT_TRUE(
      SalesforceCLI::payloadIsFor(fixture("org-display.json")["result"], "admin@sample.org"));
  EXPECT_TRUE(SalesforceCLI::isUsableToken(
      fixture("older-cli-org-display-verbose.json")["result"]["accessToken"].get<std::string>()));
  EXPECT_TRUE(SalesforceCLI::isUsableToken(
      fixture("show-access-token.json")["result"]["accessToken"].get<std::string>()));

  EXPECT_EQ(SalesforceCLI::parseAliasOwners(fixture("alias-list.json")),
            (std::map<std::string, std::string>{{"sample", "admin@sample.org"}}));
  const auto owners = SalesforceCLI::parseAliasOwners(fixture("alias-list-2.json"));
  ASSERT_TRUE(owners);
  EXPECT_EQ(owners->at("other@sample.org"), "admin@sample.org");
  EXPECT_EQ(SalesforceCLI::logoutCollateral("Other@Sample.org", *owners), "admin@sample.org")
      << "logging out other@sample.org would hit admin@sample.org";
  EXPECT_EQ(SalesforceCLI::logoutCollateral("admin@sample.org", *owners), std::nullopt);

  EXPECT_THAT(*SalesforceCLI::loggedOutUsernames(fixture("org-logout.json")),
              ElementsAre("admin@sample.org"));
  EXPECT_TRUE(fixture("org-list-limits.json")["result"].is_array());
  EXPECT_TRUE(fixture("data-query.json")["result"]["records"].is_array());
}

TEST(CLIFixtures, FailureRepliesGiveTheCLIsOwnSentence) {
  const auto message = [](const char* name) {
    return SalesforceCLI::cleanError(fixture(name)["message"].get<std::string>());
  };
  EXPECT_EQ(message("org-display-unknown.json"),
            "No authorization information found for nobody@example.com.");
  EXPECT_EQ(message("org-open-url.json"), "not here");
  EXPECT_EQ(message("metadata-types.json"), "not here") << "a JSON list of errors is unwrapped";
}

TEST(CLIFixtures, EveryRecordedFileDecodesAsAReply) {
  for (const auto& entry : std::filesystem::directory_iterator(CORVANE_CONNECTIONS_FIXTURES)) {
    SCOPED_TRACE(entry.path().filename().string());
    const auto reply = SalesforceCLI::decodeReply(testing::readFile(entry.path()));
    ASSERT_TRUE(reply);
    EXPECT_TRUE(reply->contains("status"));
  }
}

json listReply(const json& nonScratch, const json& devHubs = json::array()) {
  return {{"status", 0}, {"result", {{"nonScratchOrgs", nonScratch}, {"devHubs", devHubs}}}};
}

TEST(MergeOrgArrays, KeepsTheRicherRecordTheFirstOnATieAndSortsByLowerCasedUsername) {
  const json plain = {{"username", "b@x.org"}, {"name", "Plain"}};
  const json richer = {{"username", "b@x.org"}, {"alias", "bee"}, {"isDevHub", true}};
  auto orgs = SalesforceCLI::mergeOrgArrays(listReply(json::array({plain}), json::array({richer})));
  ASSERT_EQ(orgs.size(), 1u);
  EXPECT_EQ(orgs[0].alias, "bee");

  const json twin = {{"username", "b@x.org"}, {"name", "Twin"}, {"isDevHub", true}};
  orgs = SalesforceCLI::mergeOrgArrays(listReply(json::array({plain}), json::array({twin})));
  ASSERT_EQ(orgs.size(), 1u);
  EXPECT_EQ(orgs[0].name, "Plain") << "equal scores keep the first read";
  EXPECT_TRUE(orgs[0].isDevHub) << "standing in devHubs makes it a Dev Hub";

  const json many = json::array({{{"username", "c@x.org"}},
                                 {{"username", "B@x.org"}},
                                 {{"username", "a@x.org"}},
                                 {{"username", ""}},
                                 {{"alias", "nameless"}}});
  orgs = SalesforceCLI::mergeOrgArrays(listReply(many));
  std::vector<std::string> names;
  for (const auto& org : orgs) names.push_back(org.username);
  EXPECT_THAT(names, ElementsAre("a@x.org", "B@x.org", "c@x.org"));
}

TEST(MergeOrgArrays, AConnectedRecordOutweighsAliasAndName) {
  const json decorated = {{"username", "u@x.org"}, {"alias", "u"}, {"name", "U"}};
  const json connected = {{"username", "u@x.org"}, {"connectedStatus", "Connected"}};
  const auto orgs =
      SalesforceCLI::mergeOrgArrays(listReply(json::array({decorated}), json::array({connected})));
  ASSERT_EQ(orgs.size(), 1u);
  EXPECT_EQ(orgs[0].connection(), OrgConnection::connected);
}

TEST(MergeOrgArrays, LoginsToOneOrgShareTheOrgsFacts) {
  const json first = {{"username", "a@x.org"},
                      {"orgId", "00D000000000001EAA"},
                      {"name", "Acme"},
                      {"orgEdition", "Enterprise Edition"},
                      {"isSandbox", false}};
  const json second = {{"username", "b@x.org"}, {"orgId", "00D000000000001"}};
  const json other = {{"username", "c@x.org"}, {"orgId", "00d000000000001EAA"}};
  const json scratch = {{"username", "s@x.org"}, {"status", "Active"}};
  const auto orgs =
      SalesforceCLI::mergeOrgArrays(listReply(json::array({first, second, other, scratch})));
  ASSERT_EQ(orgs.size(), 4u);
  EXPECT_EQ(orgs[1].name, "Acme") << "a 15-character id names the same org";
  EXPECT_EQ(orgs[1].type(), OrgType::other) << "no instance URL: still not production";
  EXPECT_EQ(orgs[1].edition, "Enterprise Edition");
  EXPECT_EQ(orgs[2].name, std::nullopt) << "ids that differ in case name different orgs";
  EXPECT_EQ(orgs[3].isScratch, true) << "only scratch orgs carry a scratch status";
  EXPECT_EQ(orgs[3].connection(), OrgConnection::connected);
}

TEST(ParseOrg, MapsKeysAndTreatsEmptyTextAsAbsent) {
  const auto org = SalesforceCLI::parseOrg(json::parse(R"({
      "username":"s@x.org","alias":"","orgEdition":"Developer Edition","status":"Active",
      "isExpired":false,"isScratch":true,"createdOrgInstance":"CS9",
      "expirationDate":null,"trailExpirationDate":"2024-05-01"})"));
  ASSERT_TRUE(org);
  EXPECT_EQ(org->alias, std::nullopt);
  EXPECT_EQ(org->edition, "Developer Edition");
  EXPECT_EQ(org->scratchStatus, "Active");
  EXPECT_EQ(org->expirationDate, IsoTime::parseDay("2024-05-01"));
  EXPECT_EQ(org->connection(), OrgConnection::connected);
  EXPECT_EQ(SalesforceCLI::parseOrg(json::parse(R"({"alias":"x"})")), std::nullopt);
}

TEST(ParseDate, AcceptsIsoAndDayTextsOnly) {
  EXPECT_EQ(SalesforceCLI::parseDate("2024-05-01"), IsoTime::parseDay("2024-05-01"));
  EXPECT_TRUE(SalesforceCLI::parseDate("2024-05-01T10:00:00.123Z"));
  EXPECT_TRUE(SalesforceCLI::parseDate("2024-05-01T10:00:00Z"));
  EXPECT_TRUE(SalesforceCLI::parseDate("2024-05-01T10:00:00.000+0000"));
  EXPECT_FALSE(SalesforceCLI::parseDate("05/01/2024"));
  EXPECT_FALSE(SalesforceCLI::parseDate(1714521600));
  EXPECT_FALSE(SalesforceCLI::parseDate(nullptr));
}

TEST(Tokens, OnlyARealLookingTokenIsUsable) {
  EXPECT_TRUE(SalesforceCLI::isUsableToken("00D5g000000abcd!AQ4AQ.x_y"));
  EXPECT_FALSE(SalesforceCLI::isUsableToken(""));
  EXPECT_FALSE(SalesforceCLI::isUsableToken("00D!REDACTED"));
  EXPECT_FALSE(SalesforceCLI::isUsableToken("00D5g!AQ4 AQ"));
  EXPECT_FALSE(SalesforceCLI::isUsableToken("00D5g!AQ4\tAQ"));
  EXPECT_FALSE(SalesforceCLI::isUsableToken("00D5g000000abcdAQ4AQ"));
}

TEST(CleanError, KeepsTheSentenceDropsDecorationAndHidesTokens) {
  EXPECT_EQ(SalesforceCLI::cleanError("\n  \x1b[31mError\x1b[0m: it broke.  \n\n"),
            "Error: it broke.");
  EXPECT_EQ(SalesforceCLI::cleanError("First line.\n\tSecond line.\n    at foo (bar.js:1:2)\n"
                                      "See more help with --help"),
            "First line.\nSecond line.");
  EXPECT_EQ(SalesforceCLI::cleanError("See more help with --help"), "");
  const std::string token = "00D000000000001!AQ4AQFakeTokenForLocalOrg123";
  const std::string cleaned = SalesforceCLI::cleanError("Bad token '" + token + "' refused");
  EXPECT_EQ(cleaned.find(token), std::string::npos);
  EXPECT_EQ(cleaned, "Bad token '[token hidden]' refused");
  EXPECT_EQ(SalesforceCLI::cleanError("Hello! World!"), "Hello! World!");
  EXPECT_LE(SalesforceCLI::cleanError(std::string(100'000, 'x')).size(), 2010u);
}

TEST(LoginShellProbe, TakesTheFirstLineThatIsAPathToSf) {
  EXPECT_EQ(SalesforceCLI::pathFromShellOutput(
                "Welcome back!\n/usr/bin/fortune says hi\n  /home/u/.npm/bin/sf  \n/opt/sf\n"),
            "/home/u/.npm/bin/sf");
  EXPECT_EQ(SalesforceCLI::pathFromShellOutput("sf: aliased to npx sf\nsf\n"), std::nullopt);
  EXPECT_EQ(SalesforceCLI::pathFromShellOutput(""), std::nullopt);
}

TEST(ChildEnvironment, AddsToolFoldersOnceAndSwitchesOffColourAndTelemetry) {
  auto env = SalesforceCLI::childEnvironment({{"PATH", "/usr/bin::/opt/homebrew/bin:"}}, "/h");
  EXPECT_EQ(env["PATH"].rfind("/usr/bin:/opt/homebrew/bin:", 0), 0u);
  EXPECT_EQ(env["PATH"].find("::"), std::string::npos) << "no empty entry (the current folder)";
  EXPECT_EQ(env["PATH"].find("/opt/homebrew/bin", 20), std::string::npos);
  EXPECT_NE(env["PATH"].find("/h/.npm-global/bin"), std::string::npos);
  EXPECT_EQ(env["HOME"], "/h");
  EXPECT_EQ(env["FORCE_COLOR"], "0");
  EXPECT_EQ(env["SF_DISABLE_TELEMETRY"], "true");
  EXPECT_EQ(env["SF_DISABLE_AUTOUPDATE"], "true");
  EXPECT_EQ(env["SFDX_DISABLE_DNS_CHECK"], "true");

  env = SalesforceCLI::childEnvironment({{"HOME", "/real"}}, "/h");
  EXPECT_EQ(env["HOME"], "/real");
  EXPECT_EQ(env["PATH"].rfind("/opt/homebrew/bin", 0), 0u) << "a missing PATH counts as empty";
}

TEST(LoginFiles, ListsLoginsAndSpotsNewAndRewrittenOnes) {
  testing::TemporaryFolder folder;
  for (const char* name : {"a@x.org.json", "b@x.org.sandbox.json", "alias.json", "c@x.org.txt"}) {
    testing::writeFile(folder.path() / name, "{}");
  }
  std::filesystem::create_directory(folder.path() / "d@x.org.json");
  const auto baseline = SalesforceCLI::loginUsernames(folder.path());
  EXPECT_EQ(baseline.size(), 1u);
  EXPECT_TRUE(baseline.contains("a@x.org"));
  EXPECT_TRUE(SalesforceCLI::loginUsernames(folder.path() / "missing").empty());

  auto now = baseline;
  now["e@x.org"] = SystemTime{};
  EXPECT_EQ(SalesforceCLI::newLogin(now, baseline), "e@x.org");
  EXPECT_EQ(SalesforceCLI::newLogin(baseline, baseline), std::nullopt);
  EXPECT_FALSE(SalesforceCLI::wasRewritten("a@x.org", now, baseline));
  now["a@x.org"] += std::chrono::seconds(1);
  EXPECT_TRUE(SalesforceCLI::wasRewritten("a@x.org", now, baseline));
  EXPECT_FALSE(SalesforceCLI::wasRewritten("e@x.org", now, baseline));
}

// Replaces every value in a reply, one at a time, by values of every other
// type: no parser may throw or crash, whatever shape the CLI answers with.
TEST(ParsersOnWrongShapes, NeverThrowOrCrash) {
  const std::vector<json> oddValues = {nullptr,
                                       0,
                                       -1.5,
                                       true,
                                       "",
                                       "x",
                                       json::array(),
                                       json::array({1, "a", nullptr}),
                                       json::object(),
                                       json::parse(R"({"username":7,"result":[]})")};
  const auto exercise = [](const json& reply) {
    (void)SalesforceCLI::mergeOrgArrays(reply);
    (void)SalesforceCLI::parseAliasOwners(reply);
    (void)SalesforceCLI::loggedOutUsernames(reply);
    (void)SalesforceCLI::parseOrg(reply);
    (void)SalesforceCLI::payloadIsFor(reply, "u@x.org");
    (void)SalesforceCLI::parseDate(reply);
    if (reply.is_object() && reply.contains("result")) {
      (void)SalesforceCLI::parseOrg(reply["result"]);
      (void)SalesforceCLI::payloadIsFor(reply["result"], "u@x.org");
    }
  };
  std::vector<json> replies;
  for (const auto& entry : std::filesystem::directory_iterator(CORVANE_CONNECTIONS_FIXTURES)) {
    replies.push_back(json::parse(testing::readFile(entry.path())));
  }
  replies.push_back(json::parse(R"({"result":{"nonScratchOrgs":[{"username":"u@x.org",
      "alias":1,"isDevHub":"true","lastUsed":5,"isSandbox":"no","connectedStatus":{}}]}})"));
  for (const auto& original : replies) {
    const json flat = original.flatten();
    for (const auto& [pointer, value] : flat.items()) {
      for (const auto& odd : oddValues) {
        json mutated = original;
        mutated[json::json_pointer(pointer)] = odd;
        EXPECT_NO_THROW(exercise(mutated)) << pointer;
      }
    }
    for (const auto& odd : oddValues) {
      json mutated = original;
      if (mutated.contains("result")) mutated["result"] = odd;
      EXPECT_NO_THROW(exercise(mutated));
      EXPECT_NO_THROW(exercise(odd));
    }
  }
}

TEST(DecodeReply, ReadsOneObjectEvenAfterStrayLinesAndRefusesEverythingElse) {
  EXPECT_TRUE(SalesforceCLI::decodeReply(R"({"status":0})"));
  EXPECT_TRUE(SalesforceCLI::decodeReply("(node:1) Warning: something\n{\"status\":0}\n"));
  EXPECT_FALSE(SalesforceCLI::decodeReply(""));
  EXPECT_FALSE(SalesforceCLI::decodeReply("[1,2]"));
  EXPECT_FALSE(SalesforceCLI::decodeReply("Hello\n{broken"));
  EXPECT_FALSE(SalesforceCLI::decodeReply("}{"));
  std::mt19937 random(7);
  const std::string text = fixtureText("org-list-all.json");
  for (int round = 0; round < 300; ++round) {
    std::string damaged = text;
    for (int i = 0; i < 5; ++i) damaged[random() % damaged.size()] = static_cast<char>(random());
    damaged.resize(random() % (damaged.size() + 1));
    const auto reply = SalesforceCLI::decodeReply(damaged);
    if (reply) {
      EXPECT_NO_THROW((void)SalesforceCLI::mergeOrgArrays(*reply));
    }
  }
}

}  // namespace
}  // namespace corvane
