#include "app/query_command.hpp"

#include "app/command_error.hpp"

#include <sstream>

#include <gtest/gtest.h>

#include "connections/cli_error.hpp"
#include "connections/tests/fake_cli.hpp"
#include "tools/orgsim/tests/sample_org.hpp"

namespace corvane {
namespace {

class QueryCommandTest : public orgsim::testing::ServerFixture {
 protected:
  std::string runQuery(const std::string& soql) {
    testing::FakeCLI fake;
    fake.script(R"(echo '{"status":0,"result":{"nonScratchOrgs":[{"username":")" +
                store().identity().adminUsername + R"(","alias":"sample","instanceUrl":")" +
                server_->baseUrl() + R"("}]}}')");
    SalesforceCLI cli(fake.options());
    std::ostringstream out;
    CommandContext context{cli, out};
    SalesforceAPI::Client api([this](const std::string&) {
      return SalesforceAPI::Session{
          orgsim::Sessions::issue(store(), "").token, server_->baseUrl(), "62.0", {}};
    });
    QueryCommand::run(context, api, "sample", soql);
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
