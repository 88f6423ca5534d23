// The engines' transports: counting from many threads, and a REST backup read
// through the app's adapter against the sample org.
#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "connections/rest_query_runner.hpp"
#include "connections/api_transport.hpp"
#include "connections/counting_transport.hpp"
#include "tools/orgsim/tests/sample_org.hpp"

namespace corvane {
namespace {

// Answers everything at once; throws on the paths it is told to.
class EchoTransport : public BackupTransport {
 public:
  std::atomic<int> calls{0};
  std::string send(const std::string&, const std::string& path, const QueryItems&,
                   const std::optional<std::string>&) override {
    ++calls;
    if (path == "/fail") throw std::runtime_error("refused");
    return path;
  }
  std::pair<std::string, ResponseHeaders> getRaw(const std::string& path, const QueryItems&,
                                                 const std::string&) override {
    ++calls;
    return {path, {}};
  }
  std::string postSOAP(const std::string& action, const std::string&) override {
    ++calls;
    return action;
  }
  std::int64_t download(const std::string&, const std::filesystem::path&) override {
    ++calls;
    return 1;
  }
};

TEST(CountingTransport, CountsEveryCallFromManyThreadsExactly) {
  EchoTransport inner;
  CountingTransport counting(inner);
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&counting] {
      for (int i = 0; i < 250; ++i) {
        switch (i % 5) {
          case 0:
            counting.send("GET", "/x", {}, std::nullopt);
            break;
          case 1:
            counting.getRaw("/x", {}, "text/csv");
            break;
          case 2:
            counting.postSOAP("merge", "<e/>");
            break;
          case 3:
            counting.download("/x", "/dev/null");
            break;
          case 4:
            EXPECT_THROW(counting.send("GET", "/fail", {}, std::nullopt), std::runtime_error);
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counting.count(), 2000);
  EXPECT_EQ(inner.calls, 2000);
}

class APITransportTest : public orgsim::testing::ServerFixture {};

TEST_F(APITransportTest, RestQueryRunnerCopiesEveryRecordThroughTheAdapter) {
  orgsim::testing::addAccounts(store(), 2500, "2024-01-05T10:00:00.000Z");
  SalesforceAPI::Client api([this](const std::string&) {
    return SalesforceAPI::Session{
        orgsim::Sessions::issue(store(), "").token, server_->baseUrl(), "62.0", {}};
  });
  Org org;
  org.username = store().identity().adminUsername;
  APITransport adapter(api, org);
  CountingTransport counting(adapter);
  RestQueryRunner runner(counting, 0, nullptr);
  std::string csv;
  auto outcome = runner.fetchPages(
      "SELECT Id, Name, CreatedDate FROM Account WHERE Name LIKE 'Account%' ORDER BY Name",
      RestQueryRunner::Operation::query, {"Id", "Name", "CreatedDate"},
      {"id", "string", "datetime"}, "", folder_.path(),
      [&](const RestPage::Result& page) { csv += page.csv; });
  EXPECT_EQ(outcome.records, 2500);
  EXPECT_EQ(outcome.pages, counting.count());
  EXPECT_GE(outcome.pages, 2);
  EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 2500);
  EXPECT_NE(csv.find("\"Account 2499\",\"2024-01-05T10:00:00.000Z\"\n"), std::string::npos)
      << csv.substr(csv.size() - 200);

  auto [body, headers] = counting.getRaw("/limits", {}, "application/json");
  EXPECT_NE(body.find("DailyApiRequests"), std::string::npos);
  EXPECT_TRUE(headers.count("Date"));
}

}  // namespace
}  // namespace corvane
