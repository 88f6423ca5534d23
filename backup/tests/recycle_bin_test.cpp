#include "backup/recycle_bin.hpp"

#include <gtest/gtest.h>

#include "connections/api_transport.hpp"
#include "tools/orgsim/faults.hpp"
#include "tools/orgsim/org_records.hpp"
#include "tools/orgsim/tests/sample_org.hpp"
#include "tools/orgsim/tests/sample_org_api.hpp"

namespace corvane {
namespace {

using Kind = RecycleBin::Outcome::Kind;

// Answers every call with the same body.
class FixedTransport : public DedupeTransport {
 public:
  explicit FixedTransport(std::string body) : body_(std::move(body)) {}
  std::string send(const std::string&, const std::string&, const QueryItems&,
                   const std::optional<std::string>&) override {
    return body_;
  }
  std::pair<std::string, ResponseHeaders> getRaw(const std::string&, const QueryItems&,
                                                 const std::string&) override {
    return {body_, {}};
  }
  std::string postSOAP(const std::string&, const std::string&) override { return body_; }

 private:
  std::string body_;
};

TEST(RecycleBinAnswers, AnythingButAListOfRecordsGivesTheSentence) {
  const std::vector<std::string> ids{"001000000000001AAA"};
  for (const char* body : {"<html>maintenance</html>", "[]", R"({"totalSize":1})",
                           R"({"records":{"Id":"001000000000001AAA"}})",
                           R"({"records":[{"Id":"001000000000001AAA"}]})",
                           R"({"records":["001000000000001AAA"]})"}) {
    FixedTransport transport(body);
    RecycleBin bin(transport);
    try {
      bin.check("Account", ids);
      ADD_FAILURE() << body;
    } catch (const RecycleBinError& error) {
      EXPECT_STREQ(error.what(),
                   "Salesforce answered a Recycle Bin check with something that was not a list "
                   "of records.");
    }
  }
}

TEST(RecycleBinAnswers, UndeleteRepliesAndFaults) {
  const auto results = RecycleBin::parseUndelete(
      "<soapenv:Envelope><soapenv:Body><undeleteResponse><result><id>001A</id><success>true"
      "</success></result><result><errors><message>Entity is not in the recycle bin</message>"
      "<statusCode>UNDELETE_FAILED</statusCode></errors><id>001B</id><success>false</success>"
      "</result></undeleteResponse></soapenv:Body></soapenv:Envelope>",
      2);
  ASSERT_EQ(results.size(), 2u);
  EXPECT_TRUE(results[0].success);
  EXPECT_FALSE(results[1].success);
  EXPECT_EQ(results[1].reason, "UNDELETE_FAILED: Entity is not in the recycle bin");

  const auto fault = RecycleBin::parseUndelete(
      "<soapenv:Fault><faultcode>sf:INVALID_SESSION_ID</faultcode><faultstring>Invalid Session "
      "ID found in SessionHeader</faultstring></soapenv:Fault>",
      3);
  EXPECT_EQ(fault.size(), 3u);
  EXPECT_EQ(fault[2].reason, "Invalid Session ID found in SessionHeader");
  // A reply with fewer results than ids cannot be matched to them.
  EXPECT_THROW(RecycleBin::parseUndelete("<undeleteResponse></undeleteResponse>", 1),
               RecycleBinError);
}

class RecycleBinTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    api_ = orgsim::testing::adminClient(*server_);
    org_.username = store().identity().adminUsername;
    transport_ = std::make_unique<DedupeAPITransport>(*api_, org_);
  }

  std::unique_ptr<SalesforceAPI::Client> api_;
  Org org_;
  std::unique_ptr<DedupeAPITransport> transport_;
};

TEST_F(RecycleBinTest, CheckAndPutBackRoundTripOverManyBatches) {
  // More than one batch, so that batches are joined back in the order given.
  auto ids = orgsim::testing::addAccounts(store(), RecycleBin::batchSize + 20);
  const auto admin = store().identity().adminUserId;
  for (std::size_t i = 0; i < ids.size(); i += 2)
    ASSERT_TRUE(orgsim::OrgRecords::remove(store(), ids[i], admin).success);
  orgsim::OrgRecords::purge(store(), "", {ids[0]});

  std::vector<std::string> asked = ids;
  asked.push_back("not an id");
  asked[2] = asked[2].substr(0, 15);  // the 15-character form of the same record
  RecycleBin bin(*transport_);
  auto checked = bin.check("Account", asked);
  ASSERT_EQ(checked.size(), asked.size());
  EXPECT_EQ(checked[0].kind, Kind::notInTheBin);
  EXPECT_EQ(checked[1].kind, Kind::alreadyBack);
  EXPECT_EQ(checked[2].kind, Kind::putBack);
  EXPECT_EQ(checked[2].id, asked[2]);
  EXPECT_EQ(checked.back().kind, Kind::refused);
  EXPECT_EQ(checked[ids.size() - 2].kind, Kind::putBack);  // in the second batch

  auto back = bin.putBack("Account", asked);
  int putBack = 0;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    const auto expected = i == 0 ? Kind::notInTheBin : i % 2 == 1 ? Kind::alreadyBack : Kind::putBack;
    EXPECT_EQ(back[i].kind, expected) << i << " " << RecycleBin::toText(back[i]);
    putBack += back[i].kind == Kind::putBack;
  }
  EXPECT_EQ(putBack, static_cast<int>(ids.size() / 2) - 1);
  EXPECT_EQ(store().count("Account"), static_cast<std::int64_t>(ids.size()) - 1);

  // Everything that was in the bin is back now.
  for (const auto& outcome : bin.check("Account", {ids[2], ids[4]}))
    EXPECT_EQ(outcome.kind, Kind::alreadyBack);
}

// Every session ends after each request or two: each call that meets an
// ended session is repeated once with a fresh one, and the put-back finishes.
TEST_F(RecycleBinTest, PutBackFinishesWhileSessionsKeepExpiring) {
  auto ids = orgsim::testing::addAccounts(store(), 300);
  const auto admin = store().identity().adminUserId;
  for (const auto& id : ids) ASSERT_TRUE(orgsim::OrgRecords::remove(store(), id, admin).success);
  this->admin("faults", {{"path", "/services/*"}, {"fault", "expireSessions"}, {"every", 1},
                         {"count", 1000}});
  RecycleBin bin(*transport_);
  const auto back = bin.putBack("Account", ids);
  ASSERT_EQ(back.size(), ids.size());
  for (std::size_t i = 0; i < back.size(); ++i)
    EXPECT_EQ(back[i].kind, Kind::putBack) << i << " " << RecycleBin::toText(back[i]);
  EXPECT_EQ(store().count("Account"), 300);
  EXPECT_GE(orgsim::Faults::list(store()).front().remaining, 1);
  EXPECT_LT(orgsim::Faults::list(store()).front().remaining, 1000) << "no session ever ended";
}

TEST_F(RecycleBinTest, RecordsThatCannotBePutBackAreRefusedWithSalesforcesWords) {
  auto ids = orgsim::testing::addAccounts(store(), 2);
  ASSERT_TRUE(
      orgsim::OrgRecords::remove(store(), ids[0], store().identity().adminUserId).success);
  admin("faults", {{"path", "/services/Soap/*"}, {"fault", "500"}, {"message", "Try later"},
                   {"count", 1}});
  RecycleBin bin(*transport_);
  auto outcomes = bin.putBack("Account", ids);
  EXPECT_EQ(outcomes[0].kind, Kind::refused);
  EXPECT_NE(RecycleBin::toText(outcomes[0]).find("refused("), std::string::npos);
  EXPECT_EQ(outcomes[1].kind, Kind::alreadyBack);
}

}  // namespace
}  // namespace corvane
