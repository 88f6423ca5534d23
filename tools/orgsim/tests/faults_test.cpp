#include "tools/orgsim/faults.hpp"

#include <gtest/gtest.h>

#include "tools/orgsim/sessions.hpp"
#include "tools/orgsim/tests/sample_org.hpp"

namespace corvane::orgsim {
namespace {

using testing::TempFolder;

TEST(GlobTest, StarMatchesAnyRunOfCharactersIncludingSlashes) {
  EXPECT_TRUE(globMatches("*", ""));
  EXPECT_TRUE(globMatches("/services/data/*/query*", "/services/data/v62.0/query/01g-2000"));
  EXPECT_TRUE(globMatches("*/results", "/services/data/v62.0/jobs/query/750/results"));
  EXPECT_FALSE(globMatches("*/results", "/services/data/v62.0/jobs/query/750/results/x"));
  EXPECT_TRUE(globMatches("/a*b*c", "/aXbYbZc"));
  EXPECT_FALSE(globMatches("/a*b*c", "/aXbYbZ"));
  EXPECT_FALSE(globMatches("/limits", "/services/data/v62.0/limits"));
}

TEST(FaultRuleTest, ReadsEveryKindAndRefusesNonsense) {
  EXPECT_EQ(FaultRule::fromJson({{"fault", 503}}).status, 503);
  EXPECT_EQ(FaultRule::fromJson({{"fault", "401"}}).kind, FaultRule::Kind::Status);
  EXPECT_EQ(FaultRule::fromJson({{"fault", "drop"}, {"afterBytes", 10}}).afterBytes, 10);
  EXPECT_EQ(FaultRule::fromJson({{"fault", "UNABLE_TO_LOCK_ROW"}}).kind, FaultRule::Kind::LockRow);
  FaultRule rule = FaultRule::fromJson({{"fault", "delay"}, {"delayMs", 5}, {"method", "get"}});
  EXPECT_EQ(rule.method, "GET");
  EXPECT_EQ(FaultRule::fromJson(rule.toJson()).toJson(), rule.toJson());
  EXPECT_THROW(FaultRule::fromJson({{"fault", "explode"}}), std::invalid_argument);
  EXPECT_THROW(FaultRule::fromJson({{"fault", 200}}), std::invalid_argument);
  EXPECT_THROW(FaultRule::fromJson({{"fault", 500}, {"count", 0}}), std::invalid_argument);
}

TEST(FaultsTest, RulesAreUsedUpInOrderAndOnlyByMatchingRequests) {
  TempFolder folder;
  auto store = OrgStore::open(folder.path());
  Faults::add(*store, FaultRule::fromJson(
                          {{"path", "*/query"}, {"fault", 500}, {"count", 2}, {"method", "GET"}}));
  Faults::add(*store, FaultRule::fromJson({{"path", "*"}, {"fault", "failJob"}}));
  const auto status = {FaultRule::Kind::Status};
  EXPECT_FALSE(Faults::take(*store, "GET", "/services/data/v62.0/limits", status));
  EXPECT_FALSE(Faults::take(*store, "POST", "/services/data/v62.0/query", status));
  EXPECT_TRUE(Faults::take(*store, "GET", "/services/data/v62.0/query", status));
  EXPECT_EQ(Faults::list(*store).front().remaining, 1);
  EXPECT_TRUE(Faults::take(*store, "GET", "/services/data/v62.0/query", status));
  EXPECT_FALSE(Faults::take(*store, "GET", "/services/data/v62.0/query", status));
  // The job rule is only taken where jobs are created.
  auto job = Faults::take(*store, "POST", "/x", {FaultRule::Kind::FailJob});
  ASSERT_TRUE(job);
  EXPECT_TRUE(Faults::list(*store).empty());
}

TEST(FaultsTest, SessionsExpireAfterEveryNthRequestAsOftenAsCounted) {
  TempFolder folder;
  auto store = OrgStore::open(folder.path());
  Faults::add(*store, FaultRule::fromJson({{"path", "/services/Soap/*"},
                                           {"fault", "expireSessions"},
                                           {"every", 3},
                                           {"count", 2}}));
  std::string pattern;
  for (int i = 0; i < 10; ++i)
    pattern += Faults::sessionsExpireNow(*store, "POST", "/services/Soap/u/62.0") ? 'X' : '.';
  EXPECT_EQ(pattern, "...X...X..");
  EXPECT_TRUE(Faults::list(*store).empty());
  EXPECT_FALSE(Faults::sessionsExpireNow(*store, "GET", "/services/data/v62.0/limits"));
  EXPECT_THROW(FaultRule::fromJson({{"fault", "expireSessions"}, {"every", 0}}),
               std::invalid_argument);

  Session one = Sessions::issue(*store, "");
  Session two = Sessions::issue(*store, "");
  EXPECT_EQ(Sessions::expireAll(*store), 2);
  EXPECT_FALSE(Sessions::find(*store, one.token));
  EXPECT_FALSE(Sessions::find(*store, two.token));
}

TEST(SessionsTest, TokensBelongToUsersAndEndWithTheirLifetime) {
  TempFolder folder;
  auto store = OrgStore::open(folder.path());
  auto users = store->writer("User", {"Username", "LastName", "Email", "Alias"});
  std::string grace = users.insert({"grace@sample.org", "Hopper", "g@x.org", "ghop"});
  users.commit();

  Session admin = Sessions::issue(*store, "");
  EXPECT_EQ(admin.username, "admin@sample.org");
  EXPECT_EQ(admin.token.find_first_of(" \t\n"), std::string::npos);
  Session session = Sessions::issue(*store, "GRACE@sample.org", std::chrono::seconds(60));
  EXPECT_EQ(session.userId, grace);
  EXPECT_EQ(session.username, "grace@sample.org");
  EXPECT_NE(session.token, admin.token);
  EXPECT_THROW(Sessions::issue(*store, "nobody@sample.org"), UnknownUser);

  EXPECT_TRUE(Sessions::find(*store, session.token));
  store->advanceClock(std::chrono::seconds(61));
  EXPECT_FALSE(Sessions::find(*store, session.token));
  EXPECT_TRUE(Sessions::find(*store, admin.token));
  EXPECT_EQ(Sessions::expire(*store, "", "admin@sample.org"), 1);
  EXPECT_FALSE(Sessions::find(*store, admin.token));
  EXPECT_FALSE(Sessions::find(*store, "made-up"));
}

}  // namespace
}  // namespace corvane::orgsim
