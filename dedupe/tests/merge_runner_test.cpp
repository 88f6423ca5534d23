// The merge runner, the delete path and the preflight against a scripted
// transport: the exact envelope, and each failure rule.
#include "dedupe/merge_runner.hpp"

#include <deque>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "dedupe/change_runner.hpp"
#include "dedupe/resolution_preflight.hpp"

namespace corvane {
namespace {

struct ScriptedFailure : std::runtime_error {
  ScriptedFailure(std::string what, TransportFailure failure)
      : std::runtime_error(std::move(what)), seen(std::move(failure)) {}
  TransportFailure seen;
};

// Answers each call with the next scripted step: a body, or a failure.
class ScriptedTransport : public DedupeTransport {
 public:
  struct Step {
    std::string body;
    std::optional<ScriptedFailure> failure;
  };
  std::deque<Step> steps;
  std::vector<std::string> soapBodies;
  std::vector<std::pair<std::string, QueryItems>> calls;  // path, query
  std::vector<std::string> bodies;

  std::string send(const std::string& method, const std::string& path, const QueryItems& query,
                   const std::optional<std::string>& body) override {
    calls.emplace_back(method + " " + path, query);
    bodies.push_back(body.value_or(""));
    return next();
  }
  std::pair<std::string, ResponseHeaders> getRaw(const std::string&, const QueryItems&,
                                                 const std::string&) override {
    return {next(), {}};
  }
  std::string postSOAP(const std::string&, const std::string& envelope) override {
    soapBodies.push_back(envelope);
    return next();
  }
  TransportFailure classify(const std::exception& error) const override {
    if (const auto* scripted = dynamic_cast<const ScriptedFailure*>(&error)) return scripted->seen;
    return {};
  }

  void reply(std::string body) { steps.push_back({std::move(body), std::nullopt}); }
  void fail(std::string what, TransportFailure failure) {
    steps.push_back({{}, ScriptedFailure(std::move(what), std::move(failure))});
  }

 private:
  std::string next() {
    if (steps.empty()) throw std::logic_error("no scripted answer left");
    Step step = std::move(steps.front());
    steps.pop_front();
    if (step.failure) throw *step.failure;
    return step.body;
  }
};

std::string mergeReply(bool success, std::string code = "", std::string message = "") {
  std::string out =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><soapenv:Envelope "
      "xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "xmlns=\"urn:partner.soap.sforce.com\"><soapenv:Body><mergeResponse><result>";
  if (!success) {
    out += "<errors>";
    if (!message.empty()) out += "<message>" + message + "</message>";
    out += "<statusCode>" + code + "</statusCode></errors>";
  }
  out += "<id>001</id><success>" + std::string(success ? "true" : "false") +
         "</success></result></mergeResponse></soapenv:Body></soapenv:Envelope>";
  return out;
}

PlannedMerge merge(std::string primary, std::string loser, std::int64_t group,
                   std::map<std::string, std::string> values = {}) {
  return {std::move(primary), "", std::move(loser), "", group, std::move(values), "Contact", {}};
}

MergeRunner::Options quick(std::vector<std::chrono::milliseconds>* pauses = nullptr) {
  MergeRunner::Options options;
  options.sleep = [pauses](std::chrono::milliseconds pause) {
    if (pauses) pauses->push_back(pause);
  };
  return options;
}

using Status = MergeRunner::MergeResult::Status;

TEST(MergeRunnerTest, TheEnvelopeIsExactAndEscapesValues) {
  PlannedMerge m = merge("003A", "003B", 1, {{"Description", "a < b & c > d"}, {"Title", "CEO"}});
  EXPECT_EQ(MergeRunner::soapBody(m, "Contact"),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
            "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
            "xmlns:urn=\"urn:partner.soap.sforce.com\" "
            "xmlns:sf=\"urn:sobject.partner.soap.sforce.com\">"
            "<soapenv:Header><urn:SessionHeader><urn:sessionId>SESSION_ID_HERE</urn:sessionId>"
            "</urn:SessionHeader></soapenv:Header><soapenv:Body><urn:merge><urn:request>"
            "<urn:masterRecord><sf:type>Contact</sf:type><sf:Id>003A</sf:Id>"
            "<sf:Description>a &lt; b &amp; c &gt; d</sf:Description><sf:Title>CEO</sf:Title>"
            "</urn:masterRecord><urn:recordToMergeIds>003B</urn:recordToMergeIds></urn:request>"
            "</urn:merge></soapenv:Body></soapenv:Envelope>");
}

TEST(MergeRunnerTest, LockErrorsAreRetriedAfterGrowingPausesThenGiveUp) {
  ScriptedTransport transport;
  transport.reply(mergeReply(false, "UNABLE_TO_LOCK_ROW", "unable to obtain exclusive access"));
  transport.reply(mergeReply(true));
  for (int i = 0; i < 4; ++i) transport.reply(mergeReply(false, "UNABLE_TO_LOCK_ROW", "locked"));
  std::vector<std::chrono::milliseconds> pauses;
  MergeRunner runner(transport, "Contact", quick(&pauses));
  std::vector<std::size_t> progress;
  auto results = runner.run({merge("A", "B", 1), merge("C", "D", 2)},
                            [&](std::size_t done, std::size_t) { progress.push_back(done); });
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[0].status, Status::merged);
  EXPECT_TRUE(results[0].success);
  EXPECT_EQ(results[1].status, Status::failed);
  EXPECT_EQ(results[1].message, "locked");
  EXPECT_EQ(transport.soapBodies.size(), 6u);
  EXPECT_EQ(pauses, (std::vector<std::chrono::milliseconds>{
                        std::chrono::milliseconds(1000), std::chrono::milliseconds(1000),
                        std::chrono::milliseconds(2000), std::chrono::milliseconds(4000)}));
  EXPECT_EQ(progress, (std::vector<std::size_t>{1, 2}));
  EXPECT_FALSE(runner.signedOut());
}

TEST(MergeRunnerTest, ASignOutStopsTheRunAndLeavesTheRestNotAttempted) {
  for (bool asFault : {true, false}) {
    ScriptedTransport transport;
    transport.reply(mergeReply(true));
    if (asFault) {
      transport.fail("INVALID_SESSION_ID: Invalid Session ID found in SessionHeader",
                     {false, 500, "INVALID_SESSION_ID: Invalid Session ID found in SessionHeader"});
    } else {
      transport.fail("Salesforce signed you out.", {true, 401, ""});
    }
    MergeRunner runner(transport, "Contact", quick());
    auto results = runner.run({merge("A", "B", 1), merge("A", "C", 1), merge("D", "E", 2)}, {});
    EXPECT_TRUE(runner.signedOut());
    EXPECT_EQ(results[0].status, Status::merged);
    EXPECT_EQ(results[1].status, Status::notAttempted);
    EXPECT_EQ(results[2].status, Status::notAttempted);
    EXPECT_EQ(transport.soapBodies.size(), 2u);
  }
}

TEST(MergeRunnerTest, AFailedValueCarryingMergeSkipsTheRestOfItsGroup) {
  ScriptedTransport transport;
  transport.reply(mergeReply(false, "FIELD_CUSTOM_VALIDATION_EXCEPTION"));  // no message
  transport.reply(mergeReply(true));
  MergeRunner runner(transport, "Contact", quick());
  auto results = runner.run(
      {merge("A", "B", 1, {{"Email", "x@y"}}), merge("A", "C", 1), merge("D", "E", 2)}, {});
  EXPECT_EQ(results[0].status, Status::failed);
  EXPECT_EQ(results[0].message, "Salesforce reported a failure without details.");
  EXPECT_EQ(results[1].status, Status::skipped);
  EXPECT_EQ(results[1].message,
            "Skipped: the merge carrying your chosen values failed for this group, so the rest "
            "of the group was left untouched for you to retry.");
  EXPECT_EQ(results[2].status, Status::merged);
}

TEST(MergeRunnerTest, NoReadableReplyIsAnUnknownOutcomeAndAFaultIsAFailure) {
  ScriptedTransport transport;
  transport.fail("The connection to Salesforce was lost", {false, 0, ""});
  transport.reply("<html>gateway</html>");
  transport.fail("INVALID_FIELD: No such column 'Foo'", {false, 500, "INVALID_FIELD: No such column 'Foo'"});
  MergeRunner runner(transport, "Contact", quick());
  auto results = runner.run({merge("A", "B", 1), merge("C", "D", 2), merge("E", "F", 3)}, {});
  EXPECT_EQ(results[0].status, Status::unknown);
  EXPECT_EQ(results[0].message,
            "The merge did not complete: The connection to Salesforce was lost. Check these "
            "records in Salesforce before retrying \u2014 the merge may have gone through.");
  EXPECT_EQ(results[1].status, Status::unknown);
  EXPECT_EQ(results[2].status, Status::failed);
  EXPECT_EQ(results[2].message, "INVALID_FIELD: No such column 'Foo'");
}

TEST(MergeRunnerTest, ATransportWithoutSOAPSaysSo) {
  class NoSOAP : public ScriptedTransport {
    std::string postSOAP(const std::string&, const std::string&) override {
      throw SOAPNotSupported();
    }
  } transport;
  MergeRunner runner(transport, "Contact", quick());
  auto results = runner.run({merge("A", "B", 1), merge("C", "D", 2)}, {});
  for (const auto& result : results) {
    EXPECT_EQ(result.message, "This connection does not support merge operations.");
  }
}

TEST(ChangeRunnerTest, DeletesInBatchesRetriesLocksAndStopsOnSignOut) {
  ScriptedTransport transport;
  transport.reply(R"([{"id":"A","success":true,"errors":[]},
                      {"id":"B","success":false,"errors":[{"statusCode":"UNABLE_TO_LOCK_ROW","message":"locked"}]}])");
  transport.reply(R"([{"id":"B","success":true,"errors":[]}])");
  transport.reply(R"([{"id":"C","success":false,"errors":[{"statusCode":"ENTITY_IS_DELETED","message":"entity is deleted"}]},
                      {"id":"D","success":true,"errors":[]}])");
  transport.fail("signed out", {true, 401, ""});
  ChangeRunner::Options options;
  options.batchSize = 2;
  options.sleep = [](std::chrono::milliseconds) {};
  ChangeRunner runner(transport, options);
  std::vector<PlannedChange> deletes;
  for (std::string id : {"A", "B", "C", "D", "E", "F", "G"}) deletes.push_back({id, "", 1, {}, "Case"});
  auto results = runner.deleteRecords(deletes, {});
  using S = ChangeRunner::ChangeResult::Status;
  std::vector<S> statuses;
  for (const auto& r : results) statuses.push_back(r.status);
  EXPECT_EQ(statuses, (std::vector<S>{S::done, S::done, S::failed, S::done,
                                      S::notAttempted, S::notAttempted, S::notAttempted}));
  EXPECT_EQ(results[2].message, "entity is deleted");
  EXPECT_TRUE(runner.signedOut());
  EXPECT_EQ(transport.calls[0].first, "DELETE composite/sobjects");
  EXPECT_EQ(transport.calls[0].second,
            (QueryItems{{"ids", "A,B"}, {"allOrNone", "false"}}));
}

TEST(ChangeRunnerTest, UpdatesSendEachRecordsFieldsWithItsType) {
  ScriptedTransport transport;
  transport.reply(R"([{"id":"003A","success":true,"errors":[]},{"id":"003B","success":false,"errors":[]}])");
  ChangeRunner runner(transport);
  auto results = runner.updateRecords(
      {{"003A", "", 1, {{"Title", "CFO & <Board>"}}, "Contact"}, {"003B", "", 2, {{"Dup__c", "003C"}}, "Contact"}},
      {});
  EXPECT_EQ(results[0].status, ChangeRunner::ChangeResult::Status::done);
  EXPECT_EQ(results[1].message, "Salesforce reported a failure without details.");
  EXPECT_EQ(transport.calls[0].first, "PATCH composite/sobjects");
  EXPECT_EQ(nlohmann::json::parse(transport.bodies[0]),
            nlohmann::json::parse(R"({"allOrNone":false,"records":[
              {"attributes":{"type":"Contact"},"id":"003A","Title":"CFO & <Board>"},
              {"attributes":{"type":"Contact"},"id":"003B","Dup__c":"003C"}]})"));
}

TEST(PreflightTest, SortsRecordsIntoFreshChangedAndMissing) {
  ScriptedTransport transport;
  transport.reply(R"({"totalSize":2,"done":true,"records":[
      {"attributes":{"type":"Contact"},"Id":"003000000000001AAA","LastModifiedDate":"2024-01-05T10:00:00.000+0000"},
      {"attributes":{"type":"Contact"},"Id":"003000000000002AAA","LastModifiedDate":"2024-02-01T08:00:00.000+0000"}]})");
  ResolutionPlan plan;
  plan.merges = {{"003000000000001AAA", "2024-01-05T10:00:00.000Z", "003000000000002AAA",
                  "2024-01-05T10:00:00.000Z", 1, {}, "Contact", {}},
                 {"003000000000001AAA", "2024-01-05T10:00:00.000Z", "003000000000003AAA",
                  "2024-01-05T10:00:00.000Z", 1, {}, "Contact", {}}};
  auto records = ResolutionPreflight::recordsOf(plan);
  ASSERT_EQ(records.size(), 3u);  // the primary once
  ResolutionPreflight preflight(transport);
  auto outcome = preflight.check(records);
  ASSERT_EQ(outcome.fresh.size(), 1u);
  ASSERT_EQ(outcome.changed.size(), 1u);
  ASSERT_EQ(outcome.missing.size(), 1u);
  EXPECT_EQ(outcome.changed[0].sfid, "003000000000002AAA");
  EXPECT_EQ(outcome.missing[0].sfid, "003000000000003AAA");
  EXPECT_EQ(transport.calls[0].second[0].second,
            "SELECT Id, LastModifiedDate FROM Contact WHERE Id IN ('003000000000001AAA', "
            "'003000000000002AAA', '003000000000003AAA')");

  transport.reply(R"({"done":true,"records":[]})");
  try {
    preflight.require(records);
    FAIL();
  } catch (const PreflightError& error) {
    EXPECT_STREQ(error.what(), "Download a fresh copy before changing these records.");
  }
  transport.reply("not json");
  try {
    preflight.check(records);
    FAIL();
  } catch (const PreflightError& error) {
    EXPECT_EQ(error.kind(), PreflightError::Kind::unreadableReply);
  }
}

}  // namespace
}  // namespace corvane
