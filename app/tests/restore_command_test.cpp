#include "app/restore_command.hpp"

#include <gtest/gtest.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <sstream>

#include "app/command_error.hpp"
#include "app/production_guard.hpp"
#include "backup/backup_runner.hpp"
#include "connections/api_transport.hpp"
#include "connections/tests/fake_cli.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/org_records.hpp"
#include "tools/orgsim/tests/sample_org.hpp"
#include "tools/orgsim/tests/sample_org_api.hpp"
#include "workbook/xlsx_reader.hpp"

namespace corvane {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;

class RestoreCommandTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    ::setenv("CORVANE_HOME", (home_.path() / "home").c_str(), 1);
    api_ = orgsim::testing::adminClient(*server_);
    login("");
  }
  void TearDown() override {
    ::unsetenv("CORVANE_HOME");
    ServerFixture::TearDown();
  }

  // The sample org as the CLI lists it; extra adds keys (such as a production org's).
  void login(const std::string& extra) {
    fake_.script(testing::orgListScript(store().identity().adminUsername, server_->baseUrl(),
                                        R"("orgId":"00D000000000001AAA",)" + extra));
    cli_ = std::make_unique<SalesforceCLI>(fake_.options());
  }

  BackupLocation location() {
    return {home_.path() / "Backups", "00D000000000001AAA", store().identity().adminUsername};
  }

  void backup(RunKind kind) {
    Org org;
    org.username = store().identity().adminUsername;
    APITransport transport(*api_, org);
    BackupConfig config;
    config.location = location();
    config.options.onlyObjects = std::vector<std::string>{"Account"};
    config.freeSpaceFloor = 1000;
    config.purgeCheckInterval = 0;
    BackupRunner runner(
        transport, config, [](const std::filesystem::path&) { return 1'000'000'000'000; },
        [](const std::filesystem::path&) { return std::nullopt; }, 1ms,
        [this] { return store().now(); }, {}, {});
    ASSERT_EQ(runner.run(kind).result, RunResult::complete);
    store().advanceClock(2min);
  }

  RestoreCommand::Arguments arguments() {
    RestoreCommand::Arguments arguments;
    arguments.login = "sample";
    arguments.object = "Account";
    arguments.root = (home_.path() / "Backups").string();
    arguments.deleted = true;
    return arguments;
  }

  // What a command printed, or the sentence it failed with.
  std::string run(const RestoreCommand::Arguments& arguments) {
    std::ostringstream out;
    std::ostringstream err;
    CommandContext context{*cli_, out};
    runReportingFailures([&] { RestoreCommand::restore(context, *api_, arguments); }, err);
    return out.str() + err.str();
  }

  // Three Accounts backed up, then deleted: one stays in the bin, two are purged.
  std::vector<std::string> deleteThree() {
    auto ids = orgsim::testing::addAccounts(store(), 3);
    backup(RunKind::full);
    for (const auto& id : ids)
      EXPECT_TRUE(orgsim::OrgRecords::remove(store(), id, store().identity().adminUserId).success);
    orgsim::OrgRecords::purge(store(), "", {ids[1], ids[2]});
    store().advanceClock(2min);
    backup(RunKind::changes);
    return ids;
  }

  TemporaryFolder home_;
  testing::FakeCLI fake_;
  std::unique_ptr<SalesforceCLI> cli_;
  std::unique_ptr<SalesforceAPI::Client> api_;
};

TEST_F(RestoreCommandTest, DryRunPlansThenTheRunRestoresAndTheThirdHasNothingLeft) {
  const auto ids = deleteThree();
  auto dry = arguments();
  dry.dryRun = true;
  const auto text = run(dry);
  EXPECT_THAT(text, HasSubstr("undelete\tAccount\t" + ids[0]));
  EXPECT_THAT(text, HasSubstr("create\tAccount\t" + ids[1]));
  EXPECT_THAT(text, HasSubstr("Plan: 1 to undelete, 2 to create. Nothing was written"));
  EXPECT_EQ(store().count("Account"), 0);

  dry.json = true;
  const auto planned = nlohmann::json::parse(run(dry));
  ASSERT_EQ(planned["records"].size(), 3u);
  EXPECT_EQ(planned["records"][0]["id"], ids[0]);
  EXPECT_EQ(planned["records"][0]["object"], "Account");
  EXPECT_EQ(planned["records"][0]["action"], "undelete");
  EXPECT_FALSE(planned["records"][0].contains("newId"));

  auto real = arguments();
  real.json = true;
  real.results = (home_.path() / "restore.xlsx").string();
  const auto done = nlohmann::json::parse(run(real));
  XlsxReader workbook(real.results);
  const auto sheet = workbook.readSheet(0);
  ASSERT_TRUE(sheet);
  EXPECT_EQ(sheet->headers,
            (std::vector<std::string>{"Object", "Action", "Old Id", "New Id", "Outcome", "Message"}));
  ASSERT_EQ(sheet->rows.size(), 3u);
  EXPECT_EQ(std::string(sheet->cell(1, 2)), ids[1]);
  EXPECT_EQ(std::string(sheet->cell(1, 3)), done["records"][1]["newId"]);
  EXPECT_EQ(std::string(sheet->cell(1, 4)), "restored");
  EXPECT_EQ(done["restored"], 3);
  for (const auto& record : done["records"]) {
    EXPECT_EQ(record["result"], "restored");
    EXPECT_TRUE(record["newId"].is_string());
  }
  EXPECT_EQ(done["records"][0]["newId"], ids[0]);
  EXPECT_NE(done["records"][1]["newId"], ids[1]);
  EXPECT_TRUE(done["failures"].is_null());
  EXPECT_EQ(store().count("Account"), 3);

  EXPECT_THAT(run(arguments()), HasSubstr("Nothing is left to restore"));
  EXPECT_EQ(store().count("Account"), 3);
}

TEST_F(RestoreCommandTest, AProductionLoginIsAskedFirstAndAFailureListIsWrittenBesideTheJournal) {
  deleteThree();
  login(R"("isSandbox":false,)");
  if (ProductionGuard::Answers::standard().inputIsTerminal()) GTEST_SKIP() << "run from a terminal";
  EXPECT_THAT(run(arguments()), HasSubstr("--yes"));
  EXPECT_EQ(store().count("Account"), 0);

  ProductionGuard::Answers::standard().yes = true;
  // A name longer than the field holds, as if the backup had been edited: that
  // record fails with Salesforce's words, the rest go on.
  for (const auto& entry : std::filesystem::recursive_directory_iterator(location().folder())) {
    if (entry.path().filename() != "Account.csv") continue;
    std::ifstream in(entry.path());
    std::stringstream text;
    text << in.rdbuf();
    std::string csv = text.str();
    const auto at = csv.find("Account 0001");
    if (at != std::string::npos) csv.replace(at, 12, std::string(300, 'x'));
    in.close();
    std::ofstream(entry.path(), std::ios::trunc) << csv;
  }
  const auto text = run(arguments());
  ProductionGuard::Answers::standard().yes = false;
  EXPECT_THAT(text, HasSubstr("2 restored, 1 failed"));
  EXPECT_THAT(text, HasSubstr("STRING_TOO_LONG"));
  const auto named = text.find("The failures are in ");
  ASSERT_NE(named, std::string::npos);
  const std::string file = text.substr(named + 20, text.find(".csv.", named) + 4 - named - 20);
  EXPECT_EQ(std::filesystem::path(file).parent_path(), home_.path() / "home" / "Restore");
  std::ifstream failures(file);
  std::stringstream rows;
  rows << failures.rdbuf();
  EXPECT_THAT(rows.str(), HasSubstr("STRING_TOO_LONG"));
  EXPECT_EQ(std::filesystem::status(file).permissions() & std::filesystem::perms::all,
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  EXPECT_EQ(store().count("Account"), 2);

  // The refused record is left alone from then on, until asked for again.
  const auto again = run(arguments());
  EXPECT_THAT(again, HasSubstr("Nothing is left to restore"));
  EXPECT_THAT(again, HasSubstr("1 record Salesforce refused in an earlier run was left alone; "
                               "--retry-failed sends it again."));
  auto retry = arguments();
  retry.retryFailed = true;
  ProductionGuard::Answers::standard().yes = true;
  const auto retried = run(retry);
  ProductionGuard::Answers::standard().yes = false;
  EXPECT_THAT(retried, HasSubstr("0 restored, 1 failed, 2 restored earlier"));
}

}  // namespace
}  // namespace corvane
