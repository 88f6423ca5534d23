#include "connections/org_listing.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "connections/tests/fake_cli.hpp"

namespace corvane {
namespace {

using testing::FakeCLI;

// Two logins that the list of all logins reports with the refresh-token error;
// checked alone, one is fine and one really needs a new login.
void answerWithTwoDoubtfulLogins(FakeCLI& fake) {
  fake.script(R"(case "$*" in
  "org list"*) echo '{"status":0,"result":{"nonScratchOrgs":[
      {"username":"good@x.org","alias":"good","connectedStatus":"RefreshTokenAuthError",
       "instanceUrl":"https://good.my.salesforce.com","isSandbox":false},
      {"username":"bad@x.org","connectedStatus":"RefreshTokenAuthError",
       "instanceUrl":"https://bad.sandbox.my.salesforce.com"}]}}' ;;
  "org display --target-org good@x.org"*)
    echo '{"status":0,"result":{"username":"good@x.org","connectedStatus":"Connected"}}' ;;
  "org display --target-org bad@x.org"*)
    echo '{"status":0,"result":{"username":"bad@x.org","connectedStatus":"RefreshTokenAuthError"}}' ;;
  *) echo '{"status":1,"message":"unexpected"}'; exit 1 ;;
esac)");
}

TEST(OrgListing, ReportsEachLoginInDoubtAsItIsCheckedAlone) {
  FakeCLI fake;
  answerWithTwoDoubtfulLogins(fake);
  SalesforceCLI cli(fake.options());
  std::vector<OrgListing::Progress> seen;
  const auto orgs = OrgListing::list(cli, {}, {}, [&](const OrgListing::Progress& progress) {
    seen.push_back(progress);
  });
  ASSERT_EQ(orgs.size(), 2u);
  EXPECT_EQ(orgs[0].connection(), OrgConnection::needsLogin);
  EXPECT_EQ(orgs[1].connection(), OrgConnection::connected);
  EXPECT_EQ(orgs[1].checkedAlone, true);
  using Phase = OrgListing::Phase;
  EXPECT_EQ(seen, (std::vector<OrgListing::Progress>{{Phase::listing, 0, 0, ""},
                                                    {Phase::checking, 0, 2, "bad@x.org"},
                                                    {Phase::checking, 1, 2, "good@x.org"},
                                                    {Phase::finished, 2, 2, ""}}));
}

TEST(OrgListing, AStopAfterTheListChecksNoLogin) {
  FakeCLI fake;
  answerWithTwoDoubtfulLogins(fake);
  SalesforceCLI cli(fake.options());
  std::stop_source source;
  EXPECT_THROW(OrgListing::list(cli, {}, source.get_token(),
                                [&](const OrgListing::Progress&) { source.request_stop(); }),
               TaskStopped);
  EXPECT_EQ(fake.calls().size(), 1u) << "only the list was asked for";
}

TEST(OrgListing, ShowChecksTheNamedLoginAloneAndRefusesAnUnknownOne) {
  FakeCLI fake;
  answerWithTwoDoubtfulLogins(fake);
  SalesforceCLI cli(fake.options());
  const Org org = OrgListing::show(cli, "GOOD", {}, {});
  EXPECT_EQ(org.username, "good@x.org");
  EXPECT_EQ(org.connectedStatusRaw, "Connected");
  try {
    OrgListing::show(cli, "nobody", {}, {});
    FAIL();
  } catch (const LoginError& error) {
    EXPECT_EQ(error.kind(), LoginError::Kind::loginNotFound);
    EXPECT_THAT(error.description(), ::testing::HasSubstr("sf org login web --alias nobody"));
  }
}

TEST(OrgListing, FindLoginPrefersUsernameThenExactAliasAndRefusesGuesses) {
  std::vector<Org> orgs(3);
  orgs[0].username = "one@x.org";
  orgs[0].alias = "Prod";
  orgs[1].username = "prod";
  orgs[2].username = "two@x.org";
  orgs[2].alias = "PROD";
  EXPECT_EQ(OrgListing::findLogin(orgs, "ONE@x.org").username, "one@x.org");
  EXPECT_EQ(OrgListing::findLogin(orgs, "Prod").username, "prod") << "a username wins";
  orgs[1].username = "three@x.org";
  EXPECT_EQ(OrgListing::findLogin(orgs, "PROD").username, "two@x.org");
  try {
    OrgListing::findLogin(orgs, "prod");
    FAIL() << "two aliases differ only in case";
  } catch (const LoginError& error) {
    EXPECT_EQ(error.kind(), LoginError::Kind::ambiguousLogin);
  }
}

}  // namespace
}  // namespace corvane
