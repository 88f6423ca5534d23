// The merge runner against the sample org while sessions keep ending: each
// merge call that meets an ended session is repeated once with a fresh one.
#include <gtest/gtest.h>

#include "connections/api_transport.hpp"
#include "connections/salesforce_api.hpp"
#include "dedupe/merge_runner.hpp"
#include "tools/orgsim/faults.hpp"
#include "tools/orgsim/sessions.hpp"
#include "tools/orgsim/tests/sample_org.hpp"

namespace corvane {
namespace {

class MergeSessionExpiryTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    api_ = std::make_unique<SalesforceAPI::Client>([this](const std::string&) {
      ++sessionsIssued_;
      return SalesforceAPI::Session{orgsim::Sessions::issue(store(), "").token,
                                    server_->baseUrl(), "62.0", {}};
    });
    org_.username = store().identity().adminUsername;
    transport_ = std::make_unique<DedupeAPITransport>(*api_, org_);
  }

  std::unique_ptr<SalesforceAPI::Client> api_;
  Org org_;
  std::unique_ptr<DedupeAPITransport> transport_;
  int sessionsIssued_ = 0;
};

TEST_F(MergeSessionExpiryTest, FiftyGroupsAllMergeWhileSessionsExpireEveryFewCalls) {
  const auto ids = orgsim::testing::addAccounts(store(), 100);
  std::vector<PlannedMerge> merges;
  for (std::int64_t group = 0; group < 50; ++group) {
    merges.push_back({ids[static_cast<std::size_t>(group * 2)], "",
                      ids[static_cast<std::size_t>(group * 2 + 1)], "", group, {}, "Account", {}});
  }
  admin("faults", {{"path", "/services/Soap/*"}, {"fault", "expireSessions"}, {"every", 3},
                   {"count", 1000}});

  MergeRunner runner(*transport_, "Account");
  const auto results = runner.run(merges, nullptr);
  ASSERT_EQ(results.size(), merges.size());
  for (const auto& result : results)
    EXPECT_EQ(result.status, MergeRunner::MergeResult::Status::merged)
        << result.index << " " << result.message.value_or("");
  EXPECT_FALSE(runner.signedOut());
  EXPECT_EQ(store().count("Account"), 50);
  // 50 calls, three per session: a fresh session after each third.
  EXPECT_GE(sessionsIssued_, 50 / 3);
}

}  // namespace
}  // namespace corvane
