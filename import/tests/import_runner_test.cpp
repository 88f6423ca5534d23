#include "import/import_runner.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "connections/api_transport.hpp"
#include "import/delimited_text.hpp"
#include "import/import_mapping.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/tests/sample_org.hpp"
#include "tools/orgsim/tests/sample_org_api.hpp"

namespace corvane {
namespace {

using ::testing::HasSubstr;

// What a crash looks like from inside: the process is gone before the reply
// is read. Not a std::exception, so nothing on the way catches it.
struct Crash {};

// Passes calls on, and "crashes" right after the chosen write reached the org.
class CrashingTransport : public DedupeTransport {
 public:
  explicit CrashingTransport(DedupeTransport& inner) : inner_(inner) {}
  std::string send(const std::string& method, const std::string& path, const QueryItems& query,
                   const std::optional<std::string>& body) override {
    std::string reply = inner_.send(method, path, query, body);
    bool write =
        path.starts_with("composite/") || (path.starts_with("jobs/ingest/") && method == "PATCH");
    if (write && ++writes_ == crashAfterWrite) throw Crash{};
    return reply;
  }
  std::pair<std::string, ResponseHeaders> getRaw(const std::string& path, const QueryItems& query,
                                                 const std::string& accept) override {
    return inner_.getRaw(path, query, accept);
  }
  std::string postSOAP(const std::string& action, const std::string& envelope) override {
    return inner_.postSOAP(action, envelope);
  }
  TransportFailure classify(const std::exception& error) const override {
    return inner_.classify(error);
  }

  int crashAfterWrite = 0;

 private:
  DedupeTransport& inner_;
  int writes_ = 0;
};

class ImportRunnerTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    api_ = orgsim::testing::adminClient(*server_);
    org_.username = store().identity().adminUsername;
    transport_ = std::make_unique<DedupeAPITransport>(*api_, org_);
    fields_ = ImportFields::fromDescribe(getJson("/services/data/v62.0/sobjects/Account/describe"));
    journalPath_ = folder_.path() / "Import" / "journal.sqlite";
  }

  ImportPlan plan(const std::string& csv, const std::string& operation = "insert") {
    ImportGrid grid = *DelimitedText::parse(csv, ',');
    ImportMapping mapping = ImportMapping::automatic(grid.headers, fields_);
    return ImportPlan::build(grid, mapping, fields_, *ImportOperation::parse(operation), {});
  }

  ImportRunSummary run(const ImportPlan& plan, DedupeTransport& transport,
                       std::size_t batchSize = 2, const std::string& object = "Account") {
    ImportJournal journal(journalPath_);
    ImportRunner::Options options{"admin", object, "accounts.csv", batchSize};
    options.bulkThreshold = bulkThreshold_;
    options.bulkJobRows = 3;
    options.pollInterval = std::chrono::milliseconds(5);
    options.settleDelay = std::chrono::milliseconds(0);
    options.again = again_;
    ImportRunner runner(transport, journal, options);
    return runner.run(plan, fields_, [this](const ImportProgress& p) { progress_.push_back(p); });
  }

  // Live Accounts by name, counted.
  std::map<std::string, int> accountsByName() {
    std::map<std::string, int> names;
    nlohmann::json page = query("SELECT Name FROM Account");
    for (const auto& record : page["records"]) ++names[record["Name"].get<std::string>()];
    return names;
  }

  std::unique_ptr<SalesforceAPI::Client> api_;
  Org org_;
  std::unique_ptr<DedupeAPITransport> transport_;
  std::vector<ImportField> fields_;
  std::filesystem::path journalPath_;
  std::vector<ImportProgress> progress_;
  std::size_t bulkThreshold_ = 2000;
  bool again_ = false;
};

TEST_F(ImportRunnerTest, InsertsInBatchesAndReportsEachRowsOutcome) {
  // The file claims more room for Name than the org gives, so the org refuses row 3.
  for (auto& field : fields_) {
    if (field.name == "Name") field.length = 1000;
  }
  ImportPlan accounts = plan("Name,Industry,AnnualRevenue\nAcme,Banking,\"1,200\"\nBeta,,\n" +
                             std::string(300, 'x') + ",,\nGamma,,\n,,\n");
  ImportRunSummary summary = run(accounts, *transport_);

  ASSERT_EQ(summary.outcomes.size(), 5u);
  EXPECT_TRUE(summary.outcomes[0].success);
  EXPECT_TRUE(summary.outcomes[0].created);
  EXPECT_EQ(summary.outcomes[0].recordId.substr(0, 3), "001");
  EXPECT_FALSE(summary.outcomes[2].success);
  EXPECT_THAT(summary.outcomes[2].message, HasSubstr("STRING_TOO_LONG"));
  EXPECT_FALSE(summary.sent[4]);
  EXPECT_THAT(summary.outcomes[4].message, HasSubstr("Not sent: Row 6, column"));
  EXPECT_EQ(summary.created, 3u);
  EXPECT_EQ(summary.failed, 1u);
  EXPECT_EQ(summary.notSent, 1u);
  EXPECT_FALSE(summary.resumed);
  EXPECT_EQ(summary.requests, 1 + 2);  // the allowance, then two batches of two
  ASSERT_FALSE(progress_.empty());
  EXPECT_EQ(progress_.back().rowsWritten, 4u);
  EXPECT_EQ(progress_.back().rowsToWrite, 4u);

  nlohmann::json acme = query("SELECT AnnualRevenue, Industry FROM Account WHERE Name = 'Acme'");
  EXPECT_EQ(acme["records"][0]["AnnualRevenue"], 1200);
  EXPECT_EQ(acme["records"][0]["Industry"], "Banking");

  // The same rows again are refused unless asked for; then they are a new import.
  try {
    run(accounts, *transport_);
    ADD_FAILURE() << "the finished import ran again";
  } catch (const ImportRunError& error) {
    EXPECT_EQ(error.kind(), ImportRunError::Kind::alreadyImported);
  }
  again_ = true;
  ImportRunSummary again = run(accounts, *transport_);
  EXPECT_FALSE(again.resumed);
  EXPECT_EQ(accountsByName()["Acme"], 2);
}

TEST_F(ImportRunnerTest, AReplyLostAfterTheOrgWroteTheBatchIsSettledWithoutDuplicates) {
  admin("faults",
        {{"path", "/services/data/*/composite/sobjects"}, {"fault", "drop"}, {"count", 1}});
  ImportRunSummary summary =
      run(plan("Name,Website\nOne,a.example\nOne,a.example\nTwo,\n"), *transport_);
  EXPECT_EQ(summary.created, 3u);
  EXPECT_EQ(summary.failed, 0u);
  std::map<std::string, int> names = accountsByName();
  EXPECT_EQ(names["One"], 2);
  EXPECT_EQ(names["Two"], 1);
  EXPECT_NE(summary.outcomes[0].recordId, summary.outcomes[1].recordId);
  EXPECT_EQ(summary.requests, 1 + 1 + 1 + 1);  // allowance, lost batch, check, last batch
}

TEST_F(ImportRunnerTest, ARunKilledAfterAWriteResumesAndNeverInsertsARowTwice) {
  // Identical rows on both sides of the crash: the one already known keeps its record.
  ImportPlan accounts = plan("Name,Description\nSame,d\nOther,e\nSame,d\nNew,f\nLast,g\n");
  CrashingTransport crashing(*transport_);
  crashing.crashAfterWrite = 2;  // the second batch reaches the org, its reply never read
  EXPECT_THROW(run(accounts, crashing), Crash);
  EXPECT_EQ(accountsByName()["Same"], 2);

  ImportRunSummary resumed = run(accounts, *transport_);
  EXPECT_TRUE(resumed.resumed);
  EXPECT_EQ(resumed.created, 5u);
  std::map<std::string, int> names = accountsByName();
  EXPECT_EQ(names["Same"], 2);
  EXPECT_EQ(names["Other"], 1);
  EXPECT_EQ(names["New"], 1);
  EXPECT_EQ(names["Last"], 1);
  EXPECT_EQ(resumed.requests, 1 + 1 + 1);  // allowance, the check, the last batch
}

TEST_F(ImportRunnerTest, UpdatesAndDeletesResumeToo) {
  auto ids = orgsim::testing::addAccounts(store(), 3);
  std::string csv = "Id,Industry\n";
  for (const auto& id : ids) csv += id + ",Energy\n";
  ImportRunSummary updated = run(plan(csv, "update"), *transport_);
  EXPECT_EQ(updated.changed, 3u);
  EXPECT_EQ(query("SELECT Id FROM Account WHERE Industry = 'Energy'")["totalSize"], 3);

  ImportPlan deletes = plan("Id\n" + ids[0] + "\n" + ids[1] + "\n" + ids[2] + "\n", "delete");
  CrashingTransport crashing(*transport_);
  crashing.crashAfterWrite = 1;
  EXPECT_THROW(run(deletes, crashing), Crash);
  ImportRunSummary deleted = run(deletes, *transport_);
  EXPECT_TRUE(deleted.resumed);
  EXPECT_EQ(deleted.changed, 3u);
  EXPECT_EQ(deleted.failed, 0u);
  EXPECT_EQ(query("SELECT Id FROM Account")["totalSize"], 0);
}

TEST_F(ImportRunnerTest, UpsertsCreateThenUpdateByExternalId) {
  fields_ =
      ImportFields::fromDescribe(getJson("/services/data/v62.0/sobjects/Invoice__c/describe"));
  std::string op = "upsert:invoice_number__c";
  ImportRunSummary first =
      run(plan("Invoice Number,Invoice Name,Amount\nINV-1,First,10\nINV-2,Second,20\n", op),
          *transport_, 200, "Invoice__c");
  EXPECT_EQ(first.created, 2u);
  ImportRunSummary second =
      run(plan("Invoice Number,Invoice Name,Amount\ninv-1,First again,11\nINV-3,Third,30\n", op),
          *transport_, 200, "Invoice__c");
  EXPECT_EQ(second.created, 1u);
  EXPECT_EQ(second.changed, 1u);
  EXPECT_EQ(second.outcomes[0].recordId, first.outcomes[0].recordId);
  nlohmann::json invoices =
      query("SELECT Name, Amount__c FROM Invoice__c WHERE Invoice_Number__c = 'INV-1'");
  EXPECT_EQ(invoices["totalSize"], 1);
  EXPECT_EQ(invoices["records"][0]["Name"], "First again");
}

TEST_F(ImportRunnerTest, LargeImportsGoThroughBulkJobsThatAResumedRunFindsAgain) {
  bulkThreshold_ = 2;
  for (auto& field : fields_) {
    if (field.name == "Name") field.length = 1000;
  }
  ImportPlan accounts = plan("Name,Description\nB1,x\nB2,\"a, \"\"quoted\"\" one\"\nB1,x\n" +
                             std::string(300, 'y') + ",\nB5,\nB6,\nB7,\n");
  CrashingTransport crashing(*transport_);
  crashing.crashAfterWrite = 2;  // the second job is closed, its results never read
  EXPECT_THROW(run(accounts, crashing), Crash);

  ImportRunSummary summary = run(accounts, *transport_);
  EXPECT_TRUE(summary.resumed);
  EXPECT_EQ(summary.created, 6u);
  EXPECT_EQ(summary.failed, 1u);
  EXPECT_THAT(summary.outcomes[3].message, HasSubstr("STRING_TOO_LONG"));
  EXPECT_EQ(summary.outcomes[1].recordId.substr(0, 3), "001");
  std::map<std::string, int> names = accountsByName();
  EXPECT_EQ(names["B1"], 2);
  EXPECT_EQ(names["B5"], 1);
  EXPECT_EQ(names["B7"], 1);
  EXPECT_EQ(names.size(), 5u);
}

TEST_F(ImportRunnerTest, StopsWithASentenceWhenTheAllowanceOrTheSessionRunsOut) {
  ImportPlan accounts = plan("Name\nA\nB\nC\n");
  admin("settings", {{"dailyApiMax", 20}, {"dailyApiUsedOffset", 17}});
  try {
    run(accounts, *transport_);
    ADD_FAILURE() << "the run went ahead";
  } catch (const ImportRunError& error) {
    EXPECT_EQ(error.kind(), ImportRunError::Kind::allowance);
    EXPECT_THAT(error.what(), HasSubstr("the import needs 2 more requests, and only 0 can be"));
  }
  EXPECT_EQ(query("SELECT Id FROM Account")["totalSize"], 0);
  admin("settings", {{"dailyApiMax", 15000}, {"dailyApiUsedOffset", 0}});

  admin("faults",
        {{"path", "/services/data/*/composite/sobjects"}, {"fault", "503"}, {"count", 10}});
  try {
    run(accounts, *transport_);
    ADD_FAILURE() << "the run went ahead";
  } catch (const ImportRunError& error) {
    EXPECT_EQ(error.kind(), ImportRunError::Kind::connectionLost);
    EXPECT_THAT(error.what(), HasSubstr("run the same import again to continue"));
  }
}

TEST(ImportRunKey, TheSameRowsAndChoicesGiveTheSameKey) {
  std::vector<ImportField> fields(1);
  fields[0].name = "Name";
  fields[0].type = "string";
  fields[0].createable = true;
  auto build = [&](const std::string& csv, const std::string& operation) {
    ImportGrid grid = *DelimitedText::parse(csv, ',');
    return ImportPlan::build(grid, ImportMapping::automatic(grid.headers, fields), fields,
                             *ImportOperation::parse(operation), {});
  };
  std::string key = ImportRunner::runKey(build("Name\nA\n", "insert"), "u", "Account");
  EXPECT_EQ(key, ImportRunner::runKey(build("name\nA\n", "insert"), "u", "Account"));
  EXPECT_NE(key, ImportRunner::runKey(build("Name\nB\n", "insert"), "u", "Account"));
  EXPECT_NE(key, ImportRunner::runKey(build("Name\nA\n", "insert"), "v", "Account"));
  EXPECT_NE(key, ImportRunner::runKey(build("Name\nA\nA\n", "insert"), "u", "Account"));
}

}  // namespace
}  // namespace corvane
