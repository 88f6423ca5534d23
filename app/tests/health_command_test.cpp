// `corvane health` against the sample org, through the `sf` stand-in where the
// command goes through the CLI, and straight to the org's REST API and status
// service where it does not.
#include "app/health_command.hpp"

#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include <gtest/gtest.h>

#include "app/command_error.hpp"
#include "connections/cli_error.hpp"
#include "health/health_error.hpp"
#include "platform/child_process.hpp"
#include "platform/durable_file.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/tests/sample_org.hpp"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

fs::path standInPath() {
  const char* build = std::getenv("CORVANE_BUILD_DIR");
  return fs::path(build ? build : ".") / "tools" / "orgsim" / "sf" / "sf";
}

class HealthCommandTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    if (!ChildProcess::isExecutableFile(standInPath())) {
      GTEST_SKIP() << "the sf stand-in is not built at " << standInPath();
    }
    ServerFixture::SetUp();
    const char* home = std::getenv("HOME");
    home_ = home ? home : "";
    ::setenv("HOME", temporary_.path().c_str(), 1);
    ::setenv("CORVANE_HOME", (temporary_.path() / "corvane").c_str(), 1);
    ProcessRequest request;
    request.executable = standInPath();
    request.arguments = {"org",     "login",  "access-token", "--instance-url", server_->baseUrl(),
                         "--alias", "sample", "--no-prompt",  "--json"};
    request.environment = ChildProcess::currentEnvironment();
    request.environment["SF_ACCESS_TOKEN"] = token_;
    request.timeout = std::chrono::seconds(60);
    ProcessResult login = ChildProcess::run(request);
    ASSERT_EQ(login.exitStatus, 0) << login.standardOutput << login.standardError;

    SalesforceCLI::Options options;
    const std::string path = standInPath().string();
    options.configuredPath = [path] { return path; };
    options.candidates = std::vector<std::string>{};
    options.authFolder = temporary_.path() / ".sfdx";
    cli_ = std::make_unique<SalesforceCLI>(std::move(options));
    context_ = std::make_unique<CommandContext>(CommandContext{*cli_, out_});
  }

  void TearDown() override {
    if (!home_.empty()) ::setenv("HOME", home_.c_str(), 1);
    ::unsetenv("CORVANE_HOME");
    ServerFixture::TearDown();
  }

  std::string take() {
    std::string text = out_.str();
    out_.str("");
    return text;
  }

  // The sentence the command runner prints for the failure of `command`.
  std::string failureOf(const std::function<void()>& command) {
    std::ostringstream err;
    EXPECT_EQ(runReportingFailures(command, err), 1);
    return err.str();
  }

  StatusService::Options statusOptions() {
    StatusService::Options options;
    options.baseURL = server_->baseUrl();
    options.token = StatusToken::load();
    options.timeout = std::chrono::seconds(5);
    return options;
  }

  TemporaryFolder temporary_;
  std::string home_;
  std::unique_ptr<SalesforceCLI> cli_;
  std::ostringstream out_;
  std::unique_ptr<CommandContext> context_;
};

TEST_F(HealthCommandTest, LimitsAreSortedBySharedUsedWithThoseOverEightyPercentCalledOut) {
  admin("settings", {{"dailyApiMax", 100}, {"dailyApiUsedOffset", 90}});
  HealthCommand::limits(*context_, "sample", {HealthCommand::Format::json, std::nullopt});
  json limits = json::parse(take());
  ASSERT_TRUE(limits.is_array() && !limits.empty());
  EXPECT_EQ(limits[0]["name"], "DailyApiRequests");
  EXPECT_EQ(limits[0]["overWarning"], true);
  for (std::size_t i = 1; i < limits.size(); ++i) {
    EXPECT_GE(limits[i - 1]["share"].get<double>(), limits[i]["share"].get<double>());
  }
  HealthCommand::limits(*context_, "sample", {});
  EXPECT_NE(take().find("over 80%"), std::string::npos);
}

TEST_F(HealthCommandTest, AuditTrailIsNewestFirstAndQuotesInAFilterCannotChangeTheQuery) {
  auto writer = store().writer("SetupAuditTrail", {"Action", "Section", "Display", "CreatedDate"});
  writer.insert(
      {"changedProfile", "Manage Users", "Changed profile of Bob", "2024-01-05T10:00:00.000Z"});
  writer.insert(
      {"createdCF", "Customize Accounts", "Created field Tier", "2024-03-01T09:00:00.000Z"});
  writer.insert({"loginAs", "Manage Users", "Logged in as Bob", "2024-02-01T09:00:00.000Z"});
  writer.commit();
  HealthCommand::audit(*context_, "sample", {}, {HealthCommand::Format::json, std::nullopt});
  json all = json::parse(take());
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0]["display"], "Created field Tier");
  EXPECT_EQ(all[0]["user"], "Sample Admin");
  for (std::size_t i = 1; i < all.size(); ++i) {
    EXPECT_GE(all[i - 1]["createdDate"].get<std::string>(),
              all[i]["createdDate"].get<std::string>());
  }
  // A value that would close its literal and add "OR Id != ''" matches nothing instead.
  for (const char* hostile : {"x' OR Id != '", "x\\' OR Id != \\'", "%", "_"}) {
    AuditFilter filter;
    filter.user = hostile;
    HealthCommand::audit(*context_, "sample", filter, {HealthCommand::Format::json, std::nullopt});
    EXPECT_EQ(json::parse(take()).size(), 0u) << hostile;
  }
  AuditFilter users;
  users.section = "manage";
  users.since = AuditTrail::parseSince("2024-01-06");
  HealthCommand::audit(*context_, "sample", users, {});
  const std::string table = take();
  EXPECT_NE(table.find("Logged in as Bob"), std::string::npos) << table;
  EXPECT_NE(table.find("1 change."), std::string::npos) << table;

  // A date in the future leaves nothing; CSV goes to the file asked for.
  AuditFilter filter;
  filter.since = AuditTrail::parseSince("2199-01-01");
  const fs::path file = temporary_.path() / "audit.csv";
  HealthCommand::audit(*context_, "sample", filter, {HealthCommand::Format::table, file});
  EXPECT_EQ(Durable::readWhole(file), "CreatedDate,CreatedBy.Name,Section,Action,Display\r\n");
}

TEST_F(HealthCommandTest, ListsMetadataAndRetrievesComponentsIntoAProject) {
  HealthCommand::metadata(*context_, "sample", std::nullopt,
                          {HealthCommand::Format::json, std::nullopt});
  json types = json::parse(take());
  EXPECT_NE(std::find(types.begin(), types.end(), "ApexClass"), types.end()) << types;

  HealthCommand::metadata(*context_, "sample", "ApexClass", {});
  const std::string table = take();
  EXPECT_NE(table.find("AccountService"), std::string::npos) << table;
  EXPECT_NE(table.find("2 ApexClass components."), std::string::npos) << table;

  const fs::path project = temporary_.path() / "project";
  HealthCommand::retrieve(*context_, "sample", {"ApexClass:AccountService", "Layout"}, project, {});
  const std::string summary = take();
  json settings = json::parse(*Durable::readWhole(project / "sfdx-project.json"));
  EXPECT_EQ(settings["packageDirectories"][0]["path"], "force-app");
  EXPECT_EQ(settings["sourceApiVersion"], "62.0");
  const fs::path source = project / "force-app" / "main" / "default";
  EXPECT_NE(Durable::readWhole(source / "classes" / "AccountService.cls")
                .value_or("")
                .find("class AccountService"),
            std::string::npos)
      << summary;
  EXPECT_TRUE(fs::exists(source / "classes" / "AccountService.cls-meta.xml"));
  EXPECT_TRUE(fs::exists(source / "layouts" / "Account-Account Layout.layout-meta.xml"));
  EXPECT_FALSE(fs::exists(source / "classes" / "AccountServiceTest.cls"));
}

TEST_F(HealthCommandTest, ARetrieveWithNoComponentsFailsAtOnce) {
  const fs::path project = temporary_.path() / "nothing";
  EXPECT_EQ(failureOf([&] { HealthCommand::retrieve(*context_, "nobody", {}, project, {}); }),
            "No components selected.\n");
  EXPECT_FALSE(fs::exists(project));
}

TEST_F(HealthCommandTest, InstanceStatusAsksForATokenWhenTheServiceWantsOne) {
  HealthCommand::instance(*context_, "sample", std::nullopt, statusOptions(), {});
  const std::string table = take();
  EXPECT_NE(table.find("Scheduled Maintenance"), std::string::npos) << table;

  admin("status", {{"token", "pat-123"},
                   {"status", "MAJOR_INCIDENT_CORE"},
                   {"incidents", json::parse(R"([{"id": 7, "IncidentImpacts": [{"severity":
                     "major", "type": "serviceDisruption", "startTime": "2024-01-05T08:00:00Z"}],
                     "IncidentEvents": [{"message": "Logins fail.", "createdAt": "2024-01-05T08:05:00Z"}]}])")}});
  std::string missing = failureOf(
      [&] { HealthCommand::instance(*context_, "sample", std::nullopt, statusOptions(), {}); });
  EXPECT_NE(missing.find("asks for a personal access token"), std::string::npos) << missing;
  EXPECT_NE(missing.find("corvane health status-token"), std::string::npos) << missing;

  std::istringstream wrong("old-token\n");
  HealthCommand::statusToken(*context_, wrong, false);
  std::string refused = failureOf(
      [&] { HealthCommand::instance(*context_, "sample", std::nullopt, statusOptions(), {}); });
  EXPECT_NE(refused.find("refused the saved personal access token"), std::string::npos);
  EXPECT_EQ(refused.find("old-token"), std::string::npos);

  std::istringstream right("  pat-123 \n");
  HealthCommand::statusToken(*context_, right, false);
  struct stat info {};
  ASSERT_EQ(::stat((temporary_.path() / "corvane" / "status-token").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  take();
  HealthCommand::instance(*context_, "sample", std::nullopt, statusOptions(),
                          {HealthCommand::Format::json, std::nullopt});
  json status = json::parse(take());
  EXPECT_EQ(status["status"], "MAJOR_INCIDENT_CORE");
  EXPECT_EQ(status["incidents"][0]["title"], "Logins fail.");

  std::string unknown = failureOf(
      [&] { HealthCommand::instance(*context_, "sample", "NA999", statusOptions(), {}); });
  EXPECT_NE(unknown.find("does not know the instance NA999"), std::string::npos) << unknown;
}

TEST_F(HealthCommandTest, AnUnreachableStatusServiceIsASentenceWithinItsTimeLimit) {
  // A listener that accepts connections and never answers.
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::listen(fd, 4);
  socklen_t length = sizeof address;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  StatusService::Options options;
  options.baseURL = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  options.timeout = std::chrono::milliseconds(500);
  const auto start = std::chrono::steady_clock::now();
  std::string silent =
      failureOf([&] { HealthCommand::instance(*context_, "sample", "EU46", options, {}); });
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  EXPECT_NE(silent.find("could not be reached (no answer within the time limit)"),
            std::string::npos)
      << silent;
  ::close(fd);

  options.baseURL = "http://status.example.com";
  std::string insecure =
      failureOf([&] { HealthCommand::instance(*context_, "sample", "EU46", options, {}); });
  EXPECT_NE(insecure.find("must begin with https://"), std::string::npos) << insecure;
}

TEST_F(HealthCommandTest, ReleaseUpdatesWithTheirDueDatesOrAPlainSayingSoWhenHidden) {
  SalesforceAPI::Client api([this](const std::string&) {
    return SalesforceAPI::Session{
        orgsim::Sessions::issue(store(), "").token, server_->baseUrl(), "62.0", {}};
  });
  HealthCommand::releaseUpdates(*context_, api, "sample",
                                {HealthCommand::Format::json, std::nullopt});
  json updates = json::parse(take());
  ASSERT_EQ(updates.size(), 3u);
  EXPECT_EQ(updates[0]["developerName"], "EnforceRichTextSanitisation");
  EXPECT_EQ(updates[2]["dueDate"], nullptr);

  admin("faults", {{"path", "/services/data/*/tooling/query*"},
                   {"fault", 400},
                   {"message", "sObject type 'ReleaseUpdate' is not supported."},
                   {"count", 1}});
  std::string hidden =
      failureOf([&] { HealthCommand::releaseUpdates(*context_, api, "sample", {}); });
  EXPECT_NE(hidden.find("does not show its release updates through the API"), std::string::npos)
      << hidden;
  EXPECT_NE(hidden.find("Setup, Release Updates"), std::string::npos);
}

}  // namespace
}  // namespace corvane
