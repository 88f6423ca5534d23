#include "app/query_command.hpp"

#include "app/command_error.hpp"

#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "platform/durable_file.hpp"
#include "platform/tests/temporary_folder.hpp"

#include "connections/cli_error.hpp"
#include "connections/tests/fake_cli.hpp"
#include "tools/orgsim/tests/sample_org.hpp"

namespace corvane {
namespace {

class QueryCommandTest : public orgsim::testing::ServerFixture {
 protected:
  std::string runQuery(const std::string& soql,
                       QueryCommand::Format format = QueryCommand::Format::json,
                       const std::optional<std::filesystem::path>& output = std::nullopt) {
    testing::FakeCLI fake;
    fake.script(testing::orgListScript(store().identity().adminUsername, server_->baseUrl()));
    SalesforceCLI cli(fake.options());
    std::ostringstream out;
    CommandContext context{cli, out};
    SalesforceAPI::Client api([this](const std::string&) {
      return SalesforceAPI::Session{
          orgsim::Sessions::issue(store(), "").token, server_->baseUrl(), "62.0", {}};
    });
    QueryCommand::run(context, api, "sample", soql, format, output);
    return out.str();
  }
};

TEST_F(QueryCommandTest, PrintsEveryRowAsAJSONLineWithoutAttributes) {
  orgsim::testing::addAccounts(store(), 2100);
  std::string out =
      runQuery("SELECT Name, Owner.Name FROM Account WHERE Name LIKE 'Account%' ORDER BY Name");
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 2100);
  EXPECT_EQ(out.find("attributes"), std::string::npos);
  EXPECT_EQ(out.substr(0, out.find('\n')).rfind(R"({"Name":"Account 0000","Owner":{"Name":)", 0),
            0u)
      << out.substr(0, 200);
}

TEST_F(QueryCommandTest, ASalesforceRefusalIsReportedInItsOwnWords) {
  std::ostringstream err;
  const int status =
      runReportingFailures([&] { runQuery("SELECT NoSuchField__c FROM Account"); }, err);
  EXPECT_EQ(status, 1);
  EXPECT_NE(err.str().find("NoSuchField__c"), std::string::npos) << err.str();
  EXPECT_EQ(err.str().find("unexpected"), std::string::npos) << err.str();
}

TEST_F(QueryCommandTest, WritesCSVAndTSVWithColumnsInSelectListOrder) {
  orgsim::testing::addAccounts(store(), 3);
  const std::string soql =
      "SELECT Owner.Name, Name, AnnualRevenue, Industry FROM Account WHERE Name LIKE 'Account%' "
      "ORDER BY Name LIMIT 2";
  std::string csv = runQuery(soql, QueryCommand::Format::csv);
  std::string owner =
      csv.substr(csv.find('\n') + 1, csv.find(',', csv.find('\n')) - csv.find('\n'));
  EXPECT_EQ(csv, "Owner.Name,Name,AnnualRevenue,Industry\n" + owner + "Account 0000,0,Banking\n" +
                     owner + "Account 0001,1000,Energy\n");
  EXPECT_NE(owner, ",");
  std::string tsv = runQuery(soql, QueryCommand::Format::tsv);
  EXPECT_EQ(tsv.substr(0, tsv.find('\n') + 1), "Owner.Name\tName\tAnnualRevenue\tIndustry\n");
  EXPECT_EQ(std::count(tsv.begin(), tsv.end(), '\n'), 3);
  EXPECT_EQ(
      runQuery("SELECT Id, Name FROM Account WHERE Name = 'nobody'", QueryCommand::Format::csv),
      "Id,Name\n");
  EXPECT_EQ(runQuery("SELECT COUNT() FROM Account", QueryCommand::Format::csv), "COUNT()\n3\n");
  // Names as written in any case take the org's spelling.
  EXPECT_EQ(runQuery("select name, owner.NAME from account where name = 'Account 0002'",
                     QueryCommand::Format::csv),
            "Name,Owner.Name\nAccount 0002," + owner.substr(0, owner.size() - 1) + "\n");
}

TEST_F(QueryCommandTest, AFileAppearsWholeAndAFailedQueryLeavesTheOldOneAlone) {
  orgsim::testing::addAccounts(store(), 2100);
  TemporaryFolder folder;
  const auto file = folder.path() / "accounts.csv";
  EXPECT_EQ(runQuery("SELECT Name FROM Account WHERE Name LIKE 'Account%'",
                     QueryCommand::Format::csv, file),
            "Wrote 2,100 rows to " + file.string() + ".\n");
  auto text = Durable::readWhole(file);
  ASSERT_TRUE(text);
  EXPECT_EQ(std::count(text->begin(), text->end(), '\n'), 2101);
  struct stat info {};
  ASSERT_EQ(::stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  std::ostringstream err;
  EXPECT_EQ(
      runReportingFailures(
          [&] { runQuery("SELECT Nope__c FROM Account", QueryCommand::Format::csv, file); }, err),
      1);
  EXPECT_EQ(Durable::readWhole(file), text);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()),
                          std::filesystem::directory_iterator()),
            1);
}

TEST(QueryCommand, DropsAttributesAtEveryLevelAndKeepsNumberText) {
  auto record = JSONLiteral::parse(
      R"({"attributes":{"type":"Account"},"Amount":123456789012345678901,)"
      R"("Owner":{"attributes":{"type":"User"},"Name":"Ann"},"Contacts":{"records":[{"attributes":{},"Id":"1"}]}})");
  EXPECT_EQ(
      QueryCommand::withoutAttributes(record).dump(),
      R"({"Amount":123456789012345678901,"Owner":{"Name":"Ann"},"Contacts":{"records":[{"Id":"1"}]}})");
}

}  // namespace
}  // namespace corvane
