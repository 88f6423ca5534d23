// ApiAllowance, ServerTime and RestQueryRunner against a scripted transport.
#include <deque>

#include <gtest/gtest.h>

#include "connections/api_allowance.hpp"
#include "connections/rest_query_runner.hpp"
#include "connections/server_time.hpp"

namespace corvane {
namespace {

using namespace std::chrono;

// Answers calls from a script and records what was asked.
class ScriptedTransport : public DedupeTransport {
 public:
  struct Call {
    std::string method, path;
    QueryItems query;
  };
  std::deque<std::pair<std::string, ResponseHeaders>> replies;
  std::vector<Call> calls;

  std::string send(const std::string& method, const std::string& path, const QueryItems& query,
                   const std::optional<std::string>&) override {
    calls.push_back({method, path, query});
    return next().first;
  }
  std::pair<std::string, ResponseHeaders> getRaw(const std::string& path, const QueryItems& query,
                                                 const std::string&) override {
    calls.push_back({"GET", path, query});
    return next();
  }
  std::string postSOAP(const std::string&, const std::string&) override { return {}; }

 private:
  std::pair<std::string, ResponseHeaders> next() {
    if (replies.empty()) throw std::runtime_error("no more replies");
    auto reply = replies.front();
    replies.pop_front();
    return reply;
  }
};

TEST(ServerTime, ParsesOnlyTheHTTPDateForm) {
  auto date = ServerTime::parseHTTPDate("Tue, 05 Mar 2024 10:11:12 GMT");
  ASSERT_TRUE(date);
  EXPECT_EQ(*date, sys_days{2024y / March / 5} + 10h + 11min + 12s);
  EXPECT_EQ(ServerTime::soqlLiteral(*date + 999ms), "2024-03-05T10:11:12Z");
  for (const char* bad : {"Tue, 5 Mar 2024 10:11:12 GMT", "Tue, 05 Mar 2024 10:11:12 UTC",
                          "Tue, 05 Xyz 2024 10:11:12 GMT", "Tue, 31 Feb 2024 10:11:12 GMT",
                          "Tue, 05 Mar 2024 25:11:12 GMT", "2024-03-05T10:11:12Z",
                          "Tue, 05 Mar 2024 10:11:12 GMT ", "T1e, 05 Mar 2024 10:11:12 GMT", ""}) {
    EXPECT_FALSE(ServerTime::parseHTTPDate(bad)) << bad;
  }
}

TEST(ServerTime, ReadsRecordDateTimesInUTC) {
  auto expected = sys_days{2024y / January / 5} + 10h;
  EXPECT_EQ(ServerTime::parse("2024-01-05T10:00:00.000+0000"), expected);
  EXPECT_EQ(ServerTime::parse("2024-01-05T10:00:00Z"), expected);
  EXPECT_EQ(ServerTime::parse("2024-01-05"), sys_days{2024y / January / 5});
  EXPECT_FALSE(ServerTime::parse("yesterday"));
  EXPECT_EQ(ServerTime::soqlLiteral(sys_days{1999y / December / 31} + 23h + 59min + 59s),
            "1999-12-31T23:59:59Z");
}

TEST(ApiAllowance, ReadsLimitsAndTheServersClock) {
  ScriptedTransport transport;
  transport.replies.push_back(
      {R"({"DailyApiRequests":{"Max":15000,"Remaining":1400},"DailyBulkApiBatches":{}})",
       {{"Date", "Tue, 05 Mar 2024 10:11:12 GMT"}}});
  ApiAllowance allowance = ApiAllowance::ready(transport);
  EXPECT_EQ(transport.calls.at(0).path, "/limits");
  EXPECT_EQ(allowance.max, 15000);
  EXPECT_EQ(allowance.remaining, 1400);
  EXPECT_EQ(allowance.serverDate, sys_days{2024y / March / 5} + 10h + 11min + 12s);
  EXPECT_TRUE(allowance.isBelow(0.1));
  EXPECT_EQ(allowance.headroom(0.1), 0);
  allowance.remaining = 2000;
  EXPECT_FALSE(allowance.isBelow(0.1));
  EXPECT_EQ(allowance.headroom(0.1), 500);

  ApiAllowance unknown{0, 0, std::nullopt};
  EXPECT_FALSE(unknown.isBelow(0.99));
  EXPECT_EQ(unknown.headroom(0.5), std::numeric_limits<std::int64_t>::max());
}

TEST(ApiAllowance, AnUnreadableReplyNamesTheOrgsLimits) {
  for (const char* body :
       {"<html>", "[]", R"({"DailyApiRequests":{"Max":"x","Remaining":1}})", R"({"Other":{}})"}) {
    ScriptedTransport transport;
    transport.replies.push_back({body, {}});
    try {
      ApiAllowance::ready(transport);
      ADD_FAILURE() << "accepted " << body;
    } catch (const AllowanceError& error) {
      EXPECT_NE(std::string(error.what()).find("the org's limits"), std::string::npos);
    }
  }
}

std::string page(const std::string& id, const std::string& next) {
  std::string nextField = next.empty() ? "" : R"(,"nextRecordsUrl":")" + next + "\"";
  return R"({"done":)" + std::string(next.empty() ? "true" : "false") + nextField +
         R"(,"records":[{"Id":")" + id + R"("}]})";
}

TEST(RestQueryRunner, FollowsNextRecordsUrlAsItStandsAndCommitsEachPage) {
  ScriptedTransport transport;
  transport.replies.push_back({page("a", "/services/data/v62.0/query/01g-1"), {}});
  transport.replies.push_back({page("b", "/services/data/v62.0/query/01g-2"), {}});
  transport.replies.push_back({page("c", ""), {}});
  RestQueryRunner runner(transport, 100, [](const std::filesystem::path&) { return 1000; });
  std::string committed;
  auto outcome = runner.fetchPages("SELECT Id FROM Account", RestQueryRunner::Operation::queryAll,
                                   {"Id"}, {}, "", "/tmp", [&](const RestPage::Result& result) {
                                     committed += result.csv;
                                     // A page is committed before the next is asked for.
                                     EXPECT_EQ(transport.calls.size(),
                                               static_cast<std::size_t>(committed.size() / 4));
                                   });
  EXPECT_EQ(committed, "\"a\"\n\"b\"\n\"c\"\n");
  EXPECT_EQ(outcome.records, 3);
  EXPECT_EQ(outcome.pages, 3);
  ASSERT_EQ(transport.calls.size(), 3u);
  EXPECT_EQ(transport.calls[0].path, "/queryAll");
  EXPECT_EQ(transport.calls[0].query, (QueryItems{{"q", "SELECT Id FROM Account"}}));
  EXPECT_EQ(transport.calls[1].path, "/services/data/v62.0/query/01g-1");
  EXPECT_TRUE(transport.calls[1].query.empty());
  EXPECT_EQ(transport.calls[2].path, "/services/data/v62.0/query/01g-2");
}

TEST(RestQueryRunner, StopsBeforeWritingMoreWhenSpaceFallsUnderTheFloor) {
  ScriptedTransport transport;
  transport.replies.push_back({page("a", "/services/data/v62.0/query/01g-1"), {}});
  std::int64_t free = 1000;
  RestQueryRunner runner(transport, 500, [&](const std::filesystem::path&) { return free; });
  int pages = 0;
  auto outcome = runner.fetchPages("q", RestQueryRunner::Operation::query, {"Id"}, {}, "", "/tmp",
                                   [&](const RestPage::Result&) {
                                     ++pages;
                                     free = 10;
                                   });
  EXPECT_EQ(pages, 1);
  EXPECT_TRUE(outcome.stoppedForSpace);
  EXPECT_EQ(outcome.next, "/services/data/v62.0/query/01g-1");
  EXPECT_EQ(transport.calls.at(0).path, "/query");
  EXPECT_EQ(transport.calls.size(), 1u);
}

TEST(RestQueryRunner, AnUnreadablePageStopsAfterTheCommittedOnes) {
  ScriptedTransport transport;
  transport.replies.push_back({page("a", "/services/data/v62.0/query/01g-1"), {}});
  transport.replies.push_back({R"({"records":[{"Id":)", {}});
  RestQueryRunner runner(transport, 0, nullptr);
  int pages = 0;
  try {
    runner.fetchPages("q", RestQueryRunner::Operation::query, {"Id"}, {}, "", "/tmp",
                      [&](const RestPage::Result&) { ++pages; });
    ADD_FAILURE() << "no failure";
  } catch (const PageUnreadable& error) {
    EXPECT_EQ(std::string(error.what()).rfind("A page of this object could not be read: ", 0), 0u);
  }
  EXPECT_EQ(pages, 1);
}

}  // namespace
}  // namespace corvane
