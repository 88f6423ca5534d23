// The stand-in against a small fake org: what it asks the org, what it prints, what it keeps.
#include "tools/orgsim/sf/commands.hpp"

#include <httplib.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/tests/temporary_folder.hpp"

namespace corvane::sfstandin {
namespace {

using Json = nlohmann::ordered_json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kAdminToken = "00D000000000001!AQ4AQadminSession";
constexpr const char* kSecondToken = "00D000000000001!AQ4AQsecondSession";

// A loopback server that answers the requests the CLI makes, with Salesforce's shapes.
// Tokens map to users; a token removed from the map is answered with 401 as an expired one.
class FakeOrg {
 public:
  FakeOrg() {
    server_.Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
      answer(request, response);
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
  }
  ~FakeOrg() {
    server_.stop();
    thread_.join();
  }

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

  std::vector<std::string> requests() {
    std::lock_guard lock(mutex_);
    return requests_;
  }
  void clearRequests() {
    std::lock_guard lock(mutex_);
    requests_.clear();
  }
  void expire(const std::string& token) {
    std::lock_guard lock(mutex_);
    users_.erase(token);
  }

  // The next `count` queries answer 500.
  std::atomic<int> queryFailures{0};

 private:
  void answer(const httplib::Request& request, httplib::Response& response) {
    std::string username;
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(request.target);
      std::string authorization = request.get_header_value("Authorization");
      auto user = users_.find(authorization.substr(std::string("Bearer ").size()));
      if (authorization.rfind("Bearer ", 0) != 0 || user == users_.end()) {
        return send(
            response, 401,
            R"([{"message":"Session expired or invalid","errorCode":"INVALID_SESSION_ID"}])");
      }
      username = user->second;
    }
    const std::string& path = request.path;
    std::string soql = request.get_param_value("q");
    if (path == "/services/oauth2/userinfo") {
      return send(response, 200,
                  Json{{"user_id", "005000000000001AAA"},
                       {"organization_id", "00D000000000001EAA"},
                       {"preferred_username", "preferred-" + username}}
                      .dump());
    }
    if (path == "/services/data/v51.0/sobjects/User/005000000000001AAA") {
      return send(response, 200, Json{{"Id", "005000000000001AAA"}, {"Username", username}}.dump());
    }
    if (path == "/services/data") {
      return send(response, 200, R"([{"version":"9.0"},{"version":"63.0"},{"version":"62.0"}])");
    }
    if (path == "/services/data/v63.0") {
      return send(response, 200, R"({"query":"/services/data/v63.0/query"})");
    }
    if (path == "/services/oauth2/singleaccess") {
      return send(response, 200,
                  Json{{"frontdoor_uri", url() + "/secur/frontdoor.jsp?otp=one-time"}}.dump());
    }
    if (path == "/services/data/v63.0/limits") {
      return send(response, 200,
                  R"({"DailyApiRequests":{"Max":15000,"Remaining":14990},)"
                  R"("ConcurrentAsyncGetReportInstances":{"Max":200,"Remaining":200}})");
    }
    if (path == "/services/data/v51.0/query" && soql.find("ScratchOrgInfo") != std::string::npos) {
      return send(response, 200, R"({"totalSize":0,"done":true,"records":[]})");
    }
    if (path == "/services/data/v63.0/query" && soql.find("Organization") != std::string::npos) {
      return send(response, 200,
                  R"({"totalSize":1,"done":true,"records":[{"attributes":{"type":"Organization"},)"
                  R"("Name":"Sample Org","InstanceName":"NA42","IsSandbox":false,)"
                  R"("TrialExpirationDate":null,"NamespacePrefix":null,)"
                  R"("OrganizationType":"Enterprise Edition"}]})");
    }
    if (path == "/services/data/v63.0/query" || path.rfind("/services/data/v63.0/query/", 0) == 0) {
      if (queryFailures > 0) {
        --queryFailures;
        return send(
            response, 500,
            R"([{"message":"An unexpected error occurred.","errorCode":"UNKNOWN_EXCEPTION"}])");
      }
      if (soql.find("Bogus") != std::string::npos) {
        return send(
            response, 400,
            R"([{"message":"No such column 'Bogus' on entity 'Account'.","errorCode":"INVALID_FIELD"}])");
      }
      // Two pages: the first names the second by its locator path.
      if (path == "/services/data/v63.0/query") {
        return send(
            response, 200,
            R"({"totalSize":3,"done":false,"nextRecordsUrl":"/services/data/v63.0/query/01gXX-2000",)"
            R"("records":[{"attributes":{"type":"Account"},"Name":"Zed, \"Ltd\"","Id":"001A","Amount":1.50},)"
            R"({"attributes":{"type":"Account"},"Name":"Äpfel","Id":"001B","Amount":null}]})");
      }
      return send(response, 200,
                  R"({"totalSize":3,"done":true,"records":[{"attributes":{"type":"Account"},)"
                  R"("Name":"Last","Id":"001C","Amount":2}]})");
    }
    send(response, 404, R"([{"message":"not here","errorCode":"NOT_FOUND"}])");
  }

  static void send(httplib::Response& response, int status, const std::string& body) {
    response.status = status;
    response.set_content(body, "application/json");
  }

  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
  std::mutex mutex_;  // guards requests_ and users_
  std::vector<std::string> requests_;
  std::map<std::string, std::string> users_{{kAdminToken, "admin@sample.org"},
                                            {kSecondToken, "second@sample.org"}};
};

class StandIn : public ::testing::Test {
 protected:
  Outcome sf(const std::vector<std::string>& arguments, std::optional<std::string> token = {}) {
    Environment environment;
    environment.home = home_.path();
    environment.accessToken = std::move(token);
    environment.connectionCheckTimeout = std::chrono::seconds(5);
    environment.requestTimeout = std::chrono::seconds(10);
    return runCommand(arguments, environment);
  }

  static Json parsed(const Outcome& outcome) {
    Json reply = Json::parse(outcome.standardOutput, nullptr, false);
    EXPECT_FALSE(reply.is_discarded()) << outcome.standardOutput;
    return reply;
  }

  void login(const std::string& token, const std::string& alias) {
    Outcome outcome = sf({"org", "login", "access-token", "--instance-url", org_.url(), "--alias",
                          alias, "--no-prompt", "--json"},
                         token);
    ASSERT_EQ(outcome.exitStatus, 0) << outcome.standardOutput;
  }

  static std::vector<std::string> keysOf(const Json& object) {
    std::vector<std::string> keys;
    for (const auto& item : object.items()) keys.push_back(item.key());
    return keys;
  }

  TemporaryFolder home_;
  FakeOrg org_;
};

TEST_F(StandIn, LogsInWithATokenAskingTheOrgWhatTheRealCliAsks) {
  Outcome outcome = sf({"org", "login", "access-token", "--instance-url", org_.url(), "--alias",
                        "sample", "--no-prompt", "--json"},
                       kAdminToken);
  ASSERT_EQ(outcome.exitStatus, 0) << outcome.standardOutput;
  EXPECT_THAT(outcome.standardOutput, Not(HasSubstr("adminSession")));

  Json reply = parsed(outcome);
  const Json& result = reply["result"];
  EXPECT_EQ(result["username"], "admin@sample.org");  // the User record's name, not the hint
  EXPECT_EQ(result["orgId"], "00D000000000001EAA");
  EXPECT_EQ(result["instanceUrl"], org_.url() + "/");
  EXPECT_EQ(result["instanceApiVersion"], "63.0");  // the highest, compared as numbers
  EXPECT_EQ(result["isDevHub"], true);
  EXPECT_EQ(result["orgEdition"], "Enterprise Edition");
  EXPECT_EQ(result["accessToken"], "[REDACTED] Use 'sf org auth show-access-token' to view");
  EXPECT_THAT(reply["warnings"].back().get<std::string>(),
              HasSubstr("Using insecure protocol: http: on url: " + org_.url()));

  EXPECT_THAT(
      org_.requests(),
      ElementsAre("/services/oauth2/userinfo",
                  "/services/data/v51.0/sobjects/User/005000000000001AAA",
                  "/services/data/v51.0/query?q=SELECT%20Id%20FROM%20ScratchOrgInfo%20limit%201",
                  "/services/data",
                  "/services/data/v63.0/query?q=SELECT%20Name%2C%20InstanceName%2C%20"
                  "IsSandbox%2C%20TrialExpirationDate%2C%20NamespacePrefix%2C%20"
                  "OrganizationType%20FROM%20Organization"));

  Json aliases = parsed(sf({"alias", "list", "--json"}));
  EXPECT_EQ(aliases["result"], Json::parse(R"([{"alias":"sample","value":"admin@sample.org"}])"));
  EXPECT_TRUE(std::filesystem::exists(home_.path() / ".sfdx" / "admin@sample.org.json"));
}

TEST_F(StandIn, RefusesLoginsItCannotMakeSafelyAndSavesNothing) {
  Outcome noBang =
      sf({"org", "login", "access-token", "--instance-url", org_.url(), "--no-prompt", "--json"},
         "no-org-id-here");
  EXPECT_EQ(noBang.exitStatus, 1);
  EXPECT_EQ(parsed(noBang)["name"], "SfError");

  Outcome missing =
      sf({"org", "login", "access-token", "--instance-url", org_.url(), "--no-prompt", "--json"});
  EXPECT_EQ(parsed(missing)["name"], "SfError");

  Outcome rejected =
      sf({"org", "login", "access-token", "--instance-url", org_.url(), "--no-prompt", "--json"},
         "00D000000000001!unknown");
  EXPECT_EQ(rejected.exitStatus, 1);
  EXPECT_EQ(parsed(rejected)["message"],
            "Could not retrieve the username after successful auth code exchange.\n\nDue to: "
            "Session expired or invalid");

  Outcome remote = sf({"org", "login", "access-token", "--instance-url", "http://example.com",
                       "--no-prompt", "--json"},
                      kAdminToken);
  EXPECT_EQ(remote.exitStatus, 1);
  EXPECT_THAT(parsed(remote)["message"].get<std::string>(), HasSubstr("plain http"));

  EXPECT_EQ(org_.requests().size(), 1u);  // only the rejected token reached the org
  EXPECT_FALSE(std::filesystem::exists(home_.path() / ".sfdx" / "admin@sample.org.json"));
}

TEST_F(StandIn, ListsLoginsWithTheOrgsOwnWordsForTheirConnection) {
  login(kAdminToken, "sample");
  login(kSecondToken, "second");
  org_.expire(kSecondToken);

  Json reply = parsed(sf({"org", "list", "--all", "--json"}));
  EXPECT_EQ(reply["status"], 0);
  EXPECT_THAT(keysOf(reply["result"]),
              ElementsAre("other", "sandboxes", "nonScratchOrgs", "devHubs", "scratchOrgs"));
  const Json& orgs = reply["result"]["nonScratchOrgs"];
  ASSERT_EQ(orgs.size(), 2u);
  EXPECT_EQ(orgs[0]["username"], "admin@sample.org");
  EXPECT_EQ(orgs[0]["connectedStatus"], "Connected");
  EXPECT_EQ(orgs[0]["alias"], "sample");
  EXPECT_EQ(orgs[1]["connectedStatus"], "Session expired or invalid");
  EXPECT_THAT(keysOf(orgs[0]),
              testing::IsSupersetOf({"username", "orgId", "accessToken", "instanceUrl", "loginUrl",
                                     "isDevHub", "instanceApiVersion", "name", "orgEdition",
                                     "isDefaultUsername", "lastUsed", "connectedStatus"}));
  EXPECT_EQ(keysOf(orgs[0]).front(), "username");
  EXPECT_EQ(reply["result"]["devHubs"].size(), 2u);
  EXPECT_THAT(reply.dump(), Not(HasSubstr("Session\"")));
  EXPECT_THAT(reply.dump(), Not(HasSubstr("adminSession")));

  org_.clearRequests();
  Json skipped = parsed(sf({"org", "list", "--all", "--skip-connection-status", "--json"}));
  EXPECT_FALSE(skipped["result"]["nonScratchOrgs"][0].contains("connectedStatus"));
  EXPECT_TRUE(org_.requests().empty());
}

TEST_F(StandIn, AnOrgThatCannotBeReachedIsReportedAsTheRealCliReportsIt) {
  {
    FakeOrg gone;
    Outcome outcome = sf({"org", "login", "access-token", "--instance-url", gone.url(), "--alias",
                          "gone", "--no-prompt", "--json"},
                         kAdminToken);
    ASSERT_EQ(outcome.exitStatus, 0);
  }  // the org stops here
  Json display = parsed(sf({"org", "display", "--target-org", "gone", "--json"}));
  EXPECT_EQ(display["result"]["connectedStatus"], "fetch failed");
  EXPECT_EQ(display["warnings"][0], "unable to refresh auth for org");

  Outcome query = sf({"data", "query", "-o", "gone", "-q", "SELECT Id FROM Account", "--json"});
  EXPECT_EQ(query.exitStatus, 10);
  EXPECT_EQ(parsed(query)["message"], "fetch failed");
}

TEST_F(StandIn, DisplaysASessionAndHandsOutItsTokenOnlyWhenAsked) {
  login(kAdminToken, "sample");
  Outcome display = sf({"org", "display", "--target-org", "sample", "--verbose", "--json"});
  ASSERT_EQ(display.exitStatus, 0);
  Json reply = parsed(display);
  EXPECT_THAT(keysOf(reply["result"]), ElementsAre("id", "apiVersion", "accessToken", "instanceUrl",
                                                   "username", "connectedStatus", "alias"));
  EXPECT_EQ(reply["result"]["connectedStatus"], "Connected");
  EXPECT_EQ(reply["result"]["apiVersion"], "63.0");
  EXPECT_THAT(display.standardOutput, Not(HasSubstr("adminSession")));

  Json token = parsed(
      sf({"org", "auth", "show-access-token", "--target-org", "admin@sample.org", "--json"}));
  EXPECT_EQ(token["result"]["accessToken"], kAdminToken);
  EXPECT_EQ(token["warnings"].size(), 1u);

  org_.expire(kAdminToken);
  Json stale = parsed(sf({"org", "auth", "show-access-token", "-o", "sample", "--json"}));
  EXPECT_EQ(stale["warnings"][0], "Unable to refresh auth for org. Access token may be stale.");
  Json expired = parsed(sf({"org", "display", "-o", "sample", "--json"}));
  EXPECT_EQ(expired["result"]["connectedStatus"], "Session expired or invalid");
}

TEST_F(StandIn, FailuresUseTheRealCliFrameAndExitStatus) {
  login(kAdminToken, "sample");
  Outcome unknown = sf({"org", "display", "--target-org", "sampel", "--verbose", "--json"});
  EXPECT_EQ(unknown.exitStatus, 2);
  Json reply = parsed(unknown);
  EXPECT_THAT(keysOf(reply),
              ElementsAre("name", "message", "exitCode", "actions", "context", "stack", "cause",
                          "warnings", "code", "status", "commandName"));
  EXPECT_EQ(reply["name"], "NamedOrgNotFoundError");
  EXPECT_EQ(reply["message"],
            "Parsing --target-org \n\tNo authorization information found for sampel.\nSee more "
            "help with --help");
  EXPECT_EQ(reply["actions"][0],
            "It looks like you mistyped the username or alias. Did you mean \"sample\"?");
  EXPECT_EQ(reply["status"], 2);
  EXPECT_EQ(reply["context"], "OrgDisplayCommand");

  Outcome logout = sf({"org", "logout", "--target-org", "nobody", "--no-prompt", "--json"});
  EXPECT_EQ(logout.exitStatus, 1);
  EXPECT_EQ(parsed(logout)["message"],
            "No authenticated org found with the nobody username or alias.");

  Outcome badFlag = sf({"org", "list", "--bogus", "--json"});
  EXPECT_NE(badFlag.exitStatus, 0);
  EXPECT_EQ(parsed(badFlag)["context"], "OrgListCommand");

  Outcome unsupported = sf({"project", "deploy", "start", "--json"});
  EXPECT_NE(unsupported.exitStatus, 0);
  EXPECT_THAT(parsed(unsupported)["message"].get<std::string>(), HasSubstr("does not answer"));
}

TEST_F(StandIn, OpensTheFrontDoorForAPath) {
  login(kAdminToken, "sample");
  org_.clearRequests();
  Json reply = parsed(sf({"org", "open", "-o", "sample", "--url-only", "--path",
                          "/lightning/setup/SetupOneHome/home", "--json"}));
  EXPECT_EQ(reply["result"]["url"], org_.url() + "/secur/frontdoor.jsp?otp=one-time");
  EXPECT_EQ(reply["result"]["username"], "admin@sample.org");
  EXPECT_THAT(org_.requests(),
              ElementsAre("/services/data/v63.0",
                          "/services/oauth2/singleaccess?redirect_uri=%2Flightning%2Fsetup%2F"
                          "SetupOneHome%2Fhome"));

  org_.expire(kAdminToken);
  Outcome refused = sf({"org", "open", "-o", "sample", "--url-only", "--json"});
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_EQ(parsed(refused)["name"], "INVALID_SESSION_ID");
}

TEST_F(StandIn, QueriesEveryPageAndKeepsRecordsAsTheOrgSentThem) {
  login(kAdminToken, "sample");
  org_.queryFailures = 2;  // retried like the real CLI, not reported
  Outcome outcome = sf({"data", "query", "--target-org", "sample", "-q",
                        "SELECT Name, Id, Amount FROM Account", "--json"});
  ASSERT_EQ(outcome.exitStatus, 0) << outcome.standardOutput;
  Json result = parsed(outcome)["result"];
  EXPECT_THAT(keysOf(result), ElementsAre("records", "totalSize", "done"));
  EXPECT_EQ(result["totalSize"], 3);
  EXPECT_EQ(result["done"], true);
  ASSERT_EQ(result["records"].size(), 3u);
  EXPECT_THAT(keysOf(result["records"][0]), ElementsAre("attributes", "Name", "Id", "Amount"));
  EXPECT_EQ(result["records"][0]["Name"], "Zed, \"Ltd\"");
  EXPECT_EQ(result["records"][1]["Name"], "Äpfel");
  EXPECT_EQ(result["records"][2]["Id"], "001C");

  Outcome invalid =
      sf({"data", "query", "-o", "sample", "-q", "SELECT Bogus FROM Account", "--json"});
  EXPECT_EQ(invalid.exitStatus, 1);
  Json failure = parsed(invalid);
  EXPECT_EQ(failure["name"], "INVALID_FIELD");
  EXPECT_EQ(failure["data"]["errorCode"], "INVALID_FIELD");
  EXPECT_EQ(failure["message"], "No such column 'Bogus' on entity 'Account'.");

  org_.queryFailures = 6;  // more than the retries: the org's error is reported
  Outcome broken = sf({"data", "query", "-o", "sample", "-q", "SELECT Id FROM Account", "--json"});
  EXPECT_EQ(parsed(broken)["name"], "UNKNOWN_EXCEPTION");
}

TEST_F(StandIn, ReadsLimitsInTheOrgsOrder) {
  login(kAdminToken, "sample");
  Json reply = parsed(sf({"org", "list", "limits", "--target-org", "sample", "--json"}));
  EXPECT_EQ(reply["result"],
            Json::parse(R"([{"name":"DailyApiRequests","max":15000,"remaining":14990},
      {"name":"ConcurrentAsyncGetReportInstances","max":200,"remaining":200}])"));

  org_.expire(kAdminToken);
  Outcome expired = sf({"org", "list", "limits", "-o", "sample", "--json"});
  EXPECT_EQ(expired.exitStatus, 1);
  EXPECT_EQ(parsed(expired)["code"], "INVALID_SESSION_ID");
}

TEST_F(StandIn, LogoutForgetsTheLoginAndItsAliasesOnly) {
  login(kAdminToken, "sample");
  login(kSecondToken, "second");
  EXPECT_EQ(sf({"alias", "set", "admin=admin@sample.org"}).exitStatus, 0);

  Json reply = parsed(sf({"org", "logout", "--target-org", "sample", "--no-prompt", "--json"}));
  EXPECT_EQ(reply["result"], Json::parse(R"(["admin@sample.org"])"));
  EXPECT_EQ(parsed(sf({"alias", "list", "--json"}))["result"],
            Json::parse(R"([{"alias":"second","value":"second@sample.org"}])"));
  EXPECT_EQ(sf({"org", "display", "-o", "admin@sample.org", "--json"}).exitStatus, 2);
  EXPECT_EQ(sf({"org", "display", "-o", "second", "--json"}).exitStatus, 0);

  Outcome badAlias = sf({"alias", "set", "no-equals-sign", "--json"});
  EXPECT_EQ(parsed(badAlias)["name"], "InvalidArgumentFormatError");
}

}  // namespace
}  // namespace corvane::sfstandin
