#include "app/complete_command.hpp"

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/command_error.hpp"
#include "connections/tests/fake_cli.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/tests/sample_org.hpp"

namespace corvane {
namespace {

using ::testing::HasSubstr;

class CompleteCommandTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    fake_.script(testing::orgListScript(store().identity().adminUsername, server_->baseUrl()));
  }

  // Completes with the sample org; when offline, every session request fails,
  // so only the cache can answer.
  struct Request {
    std::string text;
    std::optional<std::size_t> cursor = std::nullopt;
    bool json = false;
    bool refresh = false;
  };

  std::string complete(const Request& request, bool offline = false) {
    CompleteCommand::Options options;
    options.text = request.text;
    options.cursor = request.cursor;
    options.json = request.json;
    options.refresh = request.refresh;
    SalesforceCLI cli(fake_.options());
    std::ostringstream out;
    CommandContext context{cli, out};
    SalesforceAPI::Client api([this, offline](const std::string&) -> SalesforceAPI::Session {
      if (offline) throw std::runtime_error("offline");
      ++sessions_;
      return SalesforceAPI::Session{
          orgsim::Sessions::issue(store(), "").token, server_->baseUrl(), "62.0", {}};
    });
    options.login = "sample";

    CompleteCommand::run(context, api, options, cache_.path());
    return out.str();
  }

  testing::FakeCLI fake_;
  TemporaryFolder cache_;
  int sessions_ = 0;
};

TEST_F(CompleteCommandTest, OffersTheOrgsObjectsAndPicklistValuesFromItsDescribe) {
  EXPECT_EQ(complete({.text = "SELECT Id FROM Accoun"}),
            "COMPLETION      DETAIL           KIND\n"
            "Account         standard object  object\n"
            "AccountFeed     standard object  object\n"
            "AccountHistory  standard object  object\n");
  const std::string text = "SELECT Id FROM Account WHERE Industry = 'Ban' LIMIT 5";
  std::string json = complete({.text = text, .cursor = 44, .json = true});
  EXPECT_EQ(
      json,
      R"({"replace":{"start":40,"end":45},"completions":[)"
      R"({"text":"'Banking'","display":"Banking","detail":"picklist value","kind":"picklistValue"}]})"
      "\n");
}

TEST_F(CompleteCommandTest, FollowsRelationshipPathsAndAnswersFromTheCacheAfterwards) {
  const std::string first = complete({.text = "SELECT Owner.User FROM Account"
                                              " WHERE Name != null",
                                      .cursor = 17});
  EXPECT_THAT(first, HasSubstr("Owner.Username"));
  const int fetched = sessions_;
  EXPECT_GT(fetched, 0);
  // The same request again needs no session at all: the files answer it.
  EXPECT_EQ(
      complete({.text = "SELECT Owner.User FROM Account WHERE Name != null", .cursor = 17}, true),
      first);
  // --refresh goes back to the org.
  std::ostringstream err;
  EXPECT_EQ(runReportingFailures(
                [&] {
                  complete(
                      {.text = "SELECT Owner.User FROM Account", .cursor = 17, .refresh = true},
                      true);
                },
                err),
            1);
}

TEST_F(CompleteCommandTest, ACursorPastTheEndIsRefusedInCharacters) {
  std::ostringstream err;
  EXPECT_EQ(runReportingFailures([&] { complete({.text = "SELECT \u00E9", .cursor = 9}); }, err),
            1);
  EXPECT_EQ(err.str(),
            "The cursor 9 lies past the end of the text, which has 8 characters. Give a cursor "
            "from 0 to 8, counted in characters.\n");
  // Clause keywords need no describe data and no session.
  EXPECT_THAT(complete({.text = "SEL"}, true), HasSubstr("SELECT"));
}

}  // namespace
}  // namespace corvane
