// The REST client against the sample org, started on a free port by each test.
#include "connections/salesforce_api.hpp"

#include <atomic>
#include <fstream>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "connections/api_transport.hpp"
#include "connections/cli_error.hpp"
#include "tools/orgsim/faults.hpp"
#include "tools/orgsim/tests/sample_org.hpp"

namespace corvane {
namespace {

using SalesforceAPI::APIError;
using SalesforceAPI::Client;
using SalesforceAPI::Session;

class SalesforceAPITest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    org_.username = store().identity().adminUsername;
  }

  // Sessions from the sample org, the first `stale` of them already useless.
  Client::SessionSource source(int stale = 0) {
    return [this, stale](const std::string&) {
      int call = sessionsIssued_++;
      Session session;
      session.instanceUrl = server_->baseUrl();
      session.accessToken = call < stale ? "00Dstale!token" + std::to_string(call)
                                         : orgsim::Sessions::issue(store(), "").token;
      return session;
    };
  }

  void fault(const nlohmann::json& rule) {
    orgsim::Faults::add(store(), orgsim::FaultRule::fromJson(rule));
  }

  Org org_;
  std::atomic<int> sessionsIssued_{0};
};

TEST_F(SalesforceAPITest, QueryStreamFollowsEveryPageInOrder) {
  auto ids = orgsim::testing::addAccounts(store(), 4500);
  Client api(source());
  std::vector<std::string> seen;
  std::vector<std::string> nextUrls;
  api.queryStream("SELECT Id, Name FROM Account WHERE Name LIKE 'Account%' ORDER BY Name", org_,
                  [&](SalesforceAPI::QueryPage page) {
                    EXPECT_EQ(page.totalSize, 4500);
                    EXPECT_EQ(page.done, page.nextRecordsUrl.empty());
                    if (!page.nextRecordsUrl.empty()) nextUrls.push_back(page.nextRecordsUrl);
                    for (const auto& record : page.records)
                      seen.push_back(*record.find("Id")->asString());
                    return true;
                  });
  ASSERT_EQ(seen.size(), 4500u);
  EXPECT_EQ(seen, ids);
  ASSERT_GE(nextUrls.size(), 2u);
  for (const auto& url : nextUrls)
    EXPECT_EQ(url.rfind("/services/data/v62.0/query/", 0), 0u) << url;
}

TEST_F(SalesforceAPITest, ToolingQueriesFollowEveryPage) {
  auto ids = orgsim::testing::addAccounts(store(), 4500);
  Client api(source());
  const auto records =
      api.toolingQuery("SELECT Id FROM Account WHERE Name LIKE 'Account%' ORDER BY Name", org_);
  // The pages come from the Tooling API's own locator path, as Salesforce gives them.
  const auto log = client().Get("/_admin/requests");
  ASSERT_TRUE(log);
  EXPECT_NE(log->body.find("/services/data/v62.0/tooling/query/"), std::string::npos);
  ASSERT_EQ(records.size(), 4500u);
  EXPECT_EQ(records.front()["Id"], ids.front());
  EXPECT_EQ(records.back()["Id"], ids.back());
}

TEST_F(SalesforceAPITest, RetriesOnceWithAFreshSessionAfter401AndCachesIt) {
  Client api(source(1));
  std::string body = api.get("/limits", {}, org_);
  EXPECT_NE(body.find("DailyApiRequests"), std::string::npos);
  EXPECT_EQ(sessionsIssued_, 2);
  auto cached = api.cachedSession("ADMIN@" + org_.username.substr(org_.username.find('@') + 1));
  ASSERT_TRUE(cached);
  EXPECT_EQ(cached->accessToken.rfind("00Dstale", 0), std::string::npos);
  api.get("/limits", {}, org_);
  EXPECT_EQ(sessionsIssued_, 2);  // the refreshed session is reused
}

TEST_F(SalesforceAPITest, ASecond401IsReportedWithoutTheToken) {
  Client api(source(2));
  try {
    api.get("/sobjects/", {}, org_);
    ADD_FAILURE() << "no failure";
  } catch (const APIError& error) {
    EXPECT_EQ(error.kind(), APIError::Kind::http);
    EXPECT_EQ(error.status(), 401);
    EXPECT_EQ(error.message(), "Session expired or invalid");
    EXPECT_EQ(std::string(error.what()).find("00Dstale"), std::string::npos);
  }
  EXPECT_EQ(sessionsIssued_, 2);
}

TEST_F(SalesforceAPITest, FailuresBecomeTypedErrors) {
  Client api(source(), Client::TimeLimits{{1, 5}, {1, 5}, {1, 5}, {1, 5}, {1, 5}});
  auto kindOf = [&](const std::string& path) {
    try {
      api.get(path, {}, org_);
    } catch (const APIError& error) {
      return std::make_pair(error.kind(), error.message());
    }
    return std::make_pair(APIError::Kind::decoding, std::string("no failure"));
  };

  fault({{"path", "*/limits"}, {"fault", "500"}, {"message", "Broken here"}});
  EXPECT_EQ(kindOf("/limits"), std::make_pair(APIError::Kind::http, std::string("Broken here")));

  fault({{"path", "*/limits"}, {"fault", "drop"}, {"afterBytes", 20}});
  EXPECT_EQ(kindOf("/limits").first, APIError::Kind::connection);

  fault({{"path", "*/limits"}, {"fault", "delay"}, {"delayMs", 3000}});
  EXPECT_EQ(kindOf("/limits").first, APIError::Kind::timedOut);

  EXPECT_EQ(kindOf("/sobjects/NoSuchObject/describe").first, APIError::Kind::http);

  Client refused([](const std::string&) -> Session {
    throw CLIError::failed("This org has no active session. Reconnect it and try again.");
  });
  try {
    refused.get("/limits", {}, org_);
    ADD_FAILURE() << "no failure";
  } catch (const APIError& error) {
    EXPECT_EQ(error.kind(), APIError::Kind::noSession);
    EXPECT_EQ(error.description(), "This org has no active session. Reconnect it and try again.");
  }

  Client plain([](const std::string&) {
    return Session{"token", "http://login.example.com", "62.0", {}};
  });
  try {
    plain.get("/limits", {}, org_);
    ADD_FAILURE() << "no failure";
  } catch (const APIError& error) {
    EXPECT_EQ(error.kind(), APIError::Kind::insecure);
  }
}

TEST_F(SalesforceAPITest, DescribesCountsAndDownloads) {
  orgsim::testing::addAccounts(store(), 3);
  Client api(source());
  auto sobjects = api.globalDescribe(org_);
  ASSERT_TRUE(sobjects.is_array());
  EXPECT_FALSE(sobjects.empty());
  auto account = api.describe("Account", org_);
  EXPECT_EQ(account.value("name", ""), "Account");
  auto counts = api.recordCounts(org_);
  EXPECT_NE(std::find_if(counts.begin(), counts.end(),
                         [](const auto& entry) { return entry.first == "Account"; }),
            counts.end());

  orgsim::testing::TempFolder folder;
  auto file = folder.path() / "limits.json";
  std::int64_t bytes = api.download("/limits", file, org_);
  EXPECT_GT(bytes, 0);
  EXPECT_EQ(static_cast<std::int64_t>(std::filesystem::file_size(file)), bytes);

  fault({{"path", "*/limits"}, {"fault", "drop"}, {"afterBytes", 20}});
  EXPECT_THROW(api.download("/limits", file, org_), APIError);
  EXPECT_FALSE(std::filesystem::exists(file));  // no half file left behind
}

TEST_F(SalesforceAPITest, SoapPlaceholderIsReplacedByTheSession) {
  Client api(source());
  std::string envelope =
      R"(<?xml version="1.0" encoding="UTF-8"?><soapenv:Envelope xmlns:soapenv="http://schemas.xmlsoap.org/soap/envelope/" xmlns:urn="urn:partner.soap.sforce.com">)"
      R"(<soapenv:Header><urn:SessionHeader><urn:sessionId>)" +
      std::string(SalesforceAPI::sessionPlaceholder) +
      R"(</urn:sessionId></urn:SessionHeader></soapenv:Header><soapenv:Body><urn:undelete>)"
      R"(<urn:ids>001000000000000AAA</urn:ids></urn:undelete></soapenv:Body></soapenv:Envelope>)";
  std::string reply = api.soap("undelete", envelope, org_);
  EXPECT_NE(reply.find("undeleteResponse"), std::string::npos) << reply;
}

// The SOAP API says a session has ended with HTTP 500 and the fault code
// INVALID_SESSION_ID; that is retried once with a fresh session, like a 401.
TEST_F(SalesforceAPITest, SoapRetriesOnceWithAFreshSessionAfterInvalidSessionId) {
  auto ids = orgsim::testing::addAccounts(store(), 1);
  const std::string envelope =
      R"(<?xml version="1.0" encoding="UTF-8"?><soapenv:Envelope xmlns:soapenv="http://schemas.xmlsoap.org/soap/envelope/" xmlns:urn="urn:partner.soap.sforce.com">)"
      R"(<soapenv:Header><urn:SessionHeader><urn:sessionId>)" +
      std::string(SalesforceAPI::sessionPlaceholder) +
      R"(</urn:sessionId></urn:SessionHeader></soapenv:Header><soapenv:Body><urn:undelete>)"
      R"(<urn:ids>)" + ids[0] + R"(</urn:ids></urn:undelete></soapenv:Body></soapenv:Envelope>)";
  {
    Client api(source(1));
    EXPECT_NE(api.soap("undelete", envelope, org_).find("undeleteResponse"), std::string::npos);
    EXPECT_EQ(sessionsIssued_, 2);
  }
  sessionsIssued_ = 0;
  Client api(source(2));
  try {
    api.soap("undelete", envelope, org_);
    ADD_FAILURE() << "no failure";
  } catch (const APIError& error) {
    EXPECT_EQ(error.status(), 500);
    EXPECT_EQ(error.message().rfind("INVALID_SESSION_ID", 0), 0u) << error.message();
    EXPECT_EQ(std::string(error.what()).find("00Dstale"), std::string::npos);
    DedupeAPITransport transport(api, org_);
    EXPECT_TRUE(transport.classify(error).signedOut);
  }
  EXPECT_EQ(sessionsIssued_, 2);
}

TEST_F(SalesforceAPITest, ThreadsShareTheClientAndItsSession) {
  Client api(source());
  std::atomic<int> done{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 10; ++i) {
        if (api.get("/limits", {}, org_).find("DailyApiRequests") != std::string::npos) ++done;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(done, 40);
  EXPECT_LE(sessionsIssued_, 4);
}

TEST(SalesforceAPI, BuildsURLsFromTheSession) {
  Session session{"t", "https://acme.my.salesforce.com/", "61.0", {}};
  EXPECT_EQ(Client::url(session, "/query", {{"q", "SELECT Id FROM Account WHERE Name = 'A&B'"}}),
            "https://acme.my.salesforce.com/services/data/v61.0/query?q=SELECT%20Id%20FROM%20"
            "Account%20WHERE%20Name%20%3D%20%27A%26B%27");
  EXPECT_EQ(Client::url(session, "/services/data/v61.0/query/01gXX-2000", {}),
            "https://acme.my.salesforce.com/services/data/v61.0/query/01gXX-2000");
  EXPECT_EQ(Client::url(session, "sobjects/", {}),
            "https://acme.my.salesforce.com/services/data/v61.0/sobjects/");

  EXPECT_TRUE(Client::isAllowedInstanceURL("https://acme.my.salesforce.com"));
  EXPECT_TRUE(Client::isAllowedInstanceURL("http://127.0.0.1:8080"));
  EXPECT_TRUE(Client::isAllowedInstanceURL("http://localhost"));
  EXPECT_TRUE(Client::isAllowedInstanceURL("http://[::1]:99/"));
  EXPECT_FALSE(Client::isAllowedInstanceURL("http://acme.my.salesforce.com"));
  EXPECT_FALSE(Client::isAllowedInstanceURL("http://127.0.0.1.evil.com"));
  EXPECT_FALSE(Client::isAllowedInstanceURL("http://localhost.evil.com"));
  EXPECT_FALSE(Client::isAllowedInstanceURL("http://user@evil.com"));
  EXPECT_FALSE(Client::isAllowedInstanceURL("ftp://127.0.0.1"));
}

TEST(SalesforceAPI, ErrorMessageComesFromEitherBodyFormElseTheStatus) {
  EXPECT_EQ(APIError::message(R"([{"message":"Bad field","errorCode":"INVALID_FIELD"}])", 400),
            "Bad field");
  EXPECT_EQ(APIError::message(R"({"message":"Object form","errorCode":"X"})", 400), "Object form");
  EXPECT_EQ(APIError::message("<html>Bad gateway</html>", 502), "Salesforce returned HTTP 502");
  EXPECT_EQ(APIError::message(R"([{"message":5}])", 400), "Salesforce returned HTTP 400");
  EXPECT_EQ(APIError::message("[]", 404), "Salesforce returned HTTP 404");
  EXPECT_EQ(APIError::http(502, "Salesforce returned HTTP 502").description(),
            "Salesforce returned HTTP 502.");
  EXPECT_EQ(APIError::decoding().description(), "Salesforce returned data that could not be read.");
}

}  // namespace
}  // namespace corvane
