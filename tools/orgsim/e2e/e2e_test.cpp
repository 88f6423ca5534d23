// Corvane's CLI bridge against the sample org, once through the `sf` stand-in and once
// through the real Salesforce CLI (when scripts/install-sf-cli could install it).
//
// Each test starts its own sample org on a free loopback port with a fresh state folder,
// logs in with a token the org issued, and then drives Corvane exactly as the app does:
// SalesforceCLI lists, displays and queries through whichever `sf` it was pointed at, and
// the `corvane orgs` commands do the same from the command line. HOME is a temporary
// folder throughout, so no real login is read or touched.
#include <curl/curl.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "connections/salesforce_cli.hpp"
#include "platform/child_process.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/e2e/org_server.hpp"

namespace corvane::e2e {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr const char* kAdmin = "admin@sample.org";

fs::path buildFolder() {
  if (const char* dir = std::getenv("CORVANE_BUILD_DIR")) return dir;
  return CORVANE_E2E_BUILD_DIR;
}

// Where scripts/install-sf-cli puts the real CLI, worked out from the user's real HOME.
fs::path realCliPath(const std::string& home) {
  if (const char* path = std::getenv("CORVANE_REAL_SF")) return path;
  const char* cache = std::getenv("XDG_CACHE_HOME");
  fs::path base = cache && *cache ? fs::path(cache) : fs::path(home) / ".cache";
  return base / "corvane" / "sf-cli-2.150.6" / "node_modules" / ".bin" / "sf";
}

// One GET with a bearer token; the HTTP status, or 0 when nothing answered.
long statusOfGet(const std::string& url, const std::string& token) {
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
  std::string header = "Authorization: Bearer " + token;
  curl_slist* headers = curl_slist_append(nullptr, header.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(
      curl.get(), CURLOPT_WRITEFUNCTION,
      +[](char*, size_t size, size_t count, void*) { return size * count; });
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 30L);
  long status = 0;
  if (curl_easy_perform(curl.get()) == CURLE_OK) {
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
  }
  curl_slist_free_all(headers);
  return status;
}

// One POST of a JSON body to the sample org's admin interface; the HTTP status, or 0.
long statusOfAdminPost(const std::string& url, const std::string& body) {
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
  curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body.c_str());
  curl_easy_setopt(
      curl.get(), CURLOPT_WRITEFUNCTION,
      +[](char*, size_t size, size_t count, void*) { return size * count; });
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 30L);
  long status = 0;
  if (curl_easy_perform(curl.get()) == CURLE_OK) {
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
  }
  curl_slist_free_all(headers);
  return status;
}

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) {
    text.pop_back();
  }
  return text;
}

enum class Cli { standIn, real };

void PrintTo(Cli cli, std::ostream* out) {
  *out << (cli == Cli::standIn ? "the sf stand-in" : "the real Salesforce CLI");
}

std::string nameOf(const ::testing::TestParamInfo<Cli>& info) {
  return info.param == Cli::standIn ? "StandInCli" : "RealCli";
}

class EndToEnd : public ::testing::TestWithParam<Cli> {
 protected:
  void SetUp() override {
    const char* home = std::getenv("HOME");
    originalHome_ = home ? home : "";
    orgsim_ = buildFolder() / "tools" / "orgsim" / "corvane-orgsim";
    standIn_ = buildFolder() / "tools" / "orgsim" / "sf" / "sf";
    sf_ = GetParam() == Cli::standIn ? standIn_ : realCliPath(originalHome_);

    if (!ChildProcess::isExecutableFile(orgsim_) ||
        run(orgsim_, {"--help"}).standardOutput.find("serve") == std::string::npos) {
      GTEST_SKIP() << "skipped: the sample org at " << orgsim_ << " is not built or cannot serve";
    }
    if (!ChildProcess::isExecutableFile(sf_)) {
      GTEST_SKIP() << "skipped: " << (GetParam() == Cli::real ? "the real Salesforce CLI" : "sf")
                   << " is not installed at " << sf_
                   << (GetParam() == Cli::real ? " (scripts/install-sf-cli installs it)" : "");
    }

    // Every `sf` run below, and every one the bridge starts, sees the temporary HOME.
    ::setenv("HOME", folder_.path().c_str(), 1);
    ::setenv("CORVANE_HOME", (folder_.path() / "corvane").c_str(), 1);
    ::setenv("FORCE_COLOR", "0", 1);
    ::setenv("SF_DISABLE_TELEMETRY", "true", 1);
    ::setenv("SF_DISABLE_AUTOUPDATE", "true", 1);
    homeChanged_ = true;

    server_ = std::make_unique<OrgServer>(orgsim_, folder_.path() / "state",
                                          folder_.path() / "orgsim.log");
  }

  void TearDown() override {
    server_.reset();
    if (homeChanged_) ::setenv("HOME", originalHome_.c_str(), 1);
  }

  ProcessResult run(const fs::path& executable, const std::vector<std::string>& arguments,
                    const std::map<std::string, std::string>& extra = {}) {
    ProcessRequest request;
    request.executable = executable;
    request.arguments = arguments;
    request.environment = ChildProcess::currentEnvironment();
    for (const auto& [key, value] : extra) request.environment[key] = value;
    request.timeout = std::chrono::seconds(180);
    return ChildProcess::run(request);
  }

  std::string issueToken(const std::vector<std::string>& extra = {}) {
    std::vector<std::string> arguments{"token", "--state", (folder_.path() / "state").string()};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    ProcessResult result = run(orgsim_, arguments);
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    return trimmed(result.standardOutput);
  }

  // Logs in with `sf` under the alias "sample". The token travels in the environment.
  void login(const fs::path& sf, const std::string& token) {
    ProcessResult result = run(sf,
                               {"org", "login", "access-token", "--instance-url", server_->url(),
                                "--alias", "sample", "--no-prompt", "--json"},
                               {{"SF_ACCESS_TOKEN", token}});
    ASSERT_EQ(result.exitStatus, 0)
        << result.standardOutput << result.standardError << "\nsample org log:\n"
        << server_->logText();
  }

  std::unique_ptr<SalesforceCLI> bridge() {
    SalesforceCLI::Options options;
    std::string path = sf_.string();
    options.configuredPath = [path] { return path; };
    options.candidates = std::vector<std::string>{};
    options.authFolder = folder_.path() / ".sfdx";
    return std::make_unique<SalesforceCLI>(std::move(options));
  }

  TemporaryFolder folder_;
  std::string originalHome_;
  bool homeChanged_ = false;
  fs::path orgsim_, standIn_, sf_;
  std::unique_ptr<OrgServer> server_;
};

TEST_P(EndToEnd, BridgeListsDisplaysAndQueriesTheSampleOrg) {
  std::string token = issueToken();
  ASSERT_THAT(token, HasSubstr("!"));
  login(sf_, token);
  auto cli = bridge();

  std::vector<Org> orgs = cli->listOrgs(false, std::chrono::seconds(120));
  ASSERT_EQ(orgs.size(), 1u) << server_->logText();
  EXPECT_EQ(orgs[0].username, kAdmin);
  EXPECT_EQ(orgs[0].alias, "sample");
  EXPECT_EQ(orgs[0].instanceUrl, server_->url() + "/");
  EXPECT_EQ(orgs[0].connectedStatusRaw, "Connected");
  EXPECT_EQ(orgs[0].connection(), OrgConnection::connected);

  // display --verbose masks the token; the bridge must fetch it and get a working one.
  SalesforceAPI::Session session = cli->session(kAdmin);
  EXPECT_EQ(session.accessToken, token);
  EXPECT_EQ(session.instanceUrl, server_->url() + "/");
  EXPECT_EQ(statusOfGet(server_->url() + "/services/data/v" + session.apiVersion + "/limits",
                        session.accessToken),
            200);

  nlohmann::json records = cli->auditTrail("sample", std::nullopt);
  EXPECT_TRUE(records.is_array()) << records.dump();

  nlohmann::json limits = cli->limits("sample");
  EXPECT_THAT(limits.dump(), HasSubstr("DailyApiRequests"));

  std::string url = cli->frontDoorURL("sample", std::nullopt, std::string(kAdmin));
  EXPECT_EQ(url.rfind(server_->url(), 0), 0u) << url;
}

TEST_P(EndToEnd, AnExpiredTokenShowsAsALoginThatNeedsAttention) {
  std::string token = issueToken();
  login(sf_, token);
  ASSERT_EQ(statusOfAdminPost(server_->url() + "/_admin/tokens/expire",
                              nlohmann::json{{"token", token}}.dump()),
            200);

  auto cli = bridge();
  std::vector<Org> orgs = cli->listOrgs(false, std::chrono::seconds(120));
  ASSERT_EQ(orgs.size(), 1u);
  EXPECT_NE(orgs[0].connection(), OrgConnection::connected);
  EXPECT_THAT(orgs[0].connectedStatusRaw.value_or(""), HasSubstr("expired"));
  EXPECT_THROW(cli->auditTrail("sample", std::nullopt), CLIError);
}

TEST_P(EndToEnd, CorvaneOrgsCommandsListAndShowTheLogin) {
  fs::path corvane = buildFolder() / "app" / "corvane";
  if (!ChildProcess::isExecutableFile(corvane)) {
    GTEST_SKIP() << "skipped: the corvane program is not built (" << corvane << ")";
  }
  login(sf_, issueToken());
  std::map<std::string, std::string> environment{{"CORVANE_SF_PATH", sf_.string()}};

  ProcessResult list = run(corvane, {"orgs"}, environment);
  EXPECT_EQ(list.exitStatus, 0) << list.standardOutput << list.standardError;
  EXPECT_THAT(list.standardOutput, HasSubstr(kAdmin));
  EXPECT_THAT(list.standardOutput, HasSubstr("sample"));

  ProcessResult show = run(corvane, {"orgs", "show", "sample"}, environment);
  EXPECT_EQ(show.exitStatus, 0) << show.standardOutput << show.standardError;
  EXPECT_THAT(show.standardOutput, HasSubstr(kAdmin));
  EXPECT_THAT(show.standardOutput + show.standardError, ::testing::Not(HasSubstr(issueToken())));
}

// Logins are interchangeable: what one CLI writes, the other reads.
TEST_P(EndToEnd, TheOtherCliReadsThisCLIsLogin) {
  fs::path real = realCliPath(originalHome_);
  if (!ChildProcess::isExecutableFile(real)) {
    GTEST_SKIP() << "skipped: the real Salesforce CLI is not installed at " << real
                 << " (scripts/install-sf-cli installs it)";
  }
  fs::path other = GetParam() == Cli::standIn ? real : standIn_;
  std::string token = issueToken();
  login(sf_, token);

  ProcessResult shown =
      run(other, {"org", "auth", "show-access-token", "--target-org", "sample", "--json"});
  ASSERT_EQ(shown.exitStatus, 0) << shown.standardOutput << shown.standardError;
  auto reply = nlohmann::json::parse(shown.standardOutput);
  EXPECT_EQ(reply["result"]["accessToken"], token);
}

INSTANTIATE_TEST_SUITE_P(Clis, EndToEnd, ::testing::Values(Cli::standIn, Cli::real), nameOf);

}  // namespace
}  // namespace corvane::e2e
