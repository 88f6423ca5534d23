// Restores against the sample org: a mass delete with purge undone with the
// children and documents, an overwrite undone with --fields, and restores
// stopped part-way that resume without creating anything twice.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <type_traits>

#include "backup/backup_runner.hpp"
#include "backup/restore_journal.hpp"
#include "backup/restore_task.hpp"
#include "connections/api_transport.hpp"
#include "platform/sqlite_db.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/org_records.hpp"
#include "tools/orgsim/schema.hpp"
#include "tools/orgsim/tests/sample_org.hpp"
#include "tools/orgsim/tests/sample_org_api.hpp"

namespace corvane {
namespace {

using namespace std::chrono_literals;
using Action = RestoreTask::Record::Action;
using Json = nlohmann::json;

class RestoreTaskTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    api_ = orgsim::testing::adminClient(*server_);
    org_.username = store().identity().adminUsername;
    transport_ = std::make_unique<APITransport>(*api_, org_);
    admin_ = store().identity().adminUserId;
  }

  BackupConfig config() {
    BackupConfig config;
    config.location = {backups_.path(), "00D", org_.username};
    config.options.onlyObjects =
        std::vector<std::string>{"Account", "Contact", "ContentVersion", "ContentDocumentLink"};
    config.freeSpaceFloor = 1000;
    config.restThreshold = 100'000;
    config.purgeCheckInterval = 0;
    config.retention = Retention::Policy::keepEverything();
    return config;
  }

  RunSummary backup(RunKind kind) {
    BackupRunner runner(
        *transport_, config(), [](const std::filesystem::path&) { return 1'000'000'000'000; },
        [](const std::filesystem::path&) { return std::nullopt; }, 1ms,
        [this] { return store().now(); }, {}, {});
    auto summary = runner.run(kind);
    store().advanceClock(2min);
    return summary;
  }

  RestoreTask::Request request() {
    RestoreTask::Request request;
    request.location = config().location;
    request.object = "Account";
    request.deleted = true;
    request.journal = journal_.path() / "journal.sqlite";
    return request;
  }

  // Accounts with a parent for every fifth, two Contacts each with values of
  // every kind, and a document on the first Account.
  // Writes a picklist value the org does not have ("Buggy Whips") into the
  // Industry the backups hold for the Account with this id, where it was "Banking".
  void giveAnInactiveIndustry(const std::string& id) {
    bool found = false;
    for (const auto& entry :
         std::filesystem::recursive_directory_iterator(config().location.folder())) {
      if (entry.path().filename() != "Account.csv") continue;
      std::string csv;
      {
        std::ifstream in(entry.path());
        std::stringstream text;
        text << in.rdbuf();
        csv = text.str();
      }
      const auto row = csv.find(id);
      if (row == std::string::npos) continue;
      const auto at = csv.find("\"Banking\"", row);
      ASSERT_NE(at, std::string::npos);
      csv.replace(at, 9, "\"Buggy Whips\"");
      std::ofstream(entry.path(), std::ios::trunc) << csv;
      found = true;
    }
    ASSERT_TRUE(found) << id;
  }

  // An org of that many Accounts, backed up, then every Account deleted and
  // purged from the Recycle Bin, and a changes run that saw it.
  void backedUpThenPurged(int accounts) {
    makeOrg(accounts);
    ASSERT_EQ(backup(RunKind::full).result, RunResult::complete);
    removeAll(accounts_);
    ASSERT_EQ(orgsim::OrgRecords::purge(store(), "Account", {}), accounts);
    store().advanceClock(2min);
    ASSERT_EQ(backup(RunKind::changes).result, RunResult::complete);
  }

  void expectDocumentsSkipped(const std::function<void(const std::filesystem::path&)>& spoil,
                              const std::string& reason);

  void makeOrg(int accounts) {
    accounts_ = orgsim::testing::addAccounts(store(), accounts);
    const auto* account = orgsim::Schema::object("Account");
    for (int i = 1; i < accounts; i += 5)
      ASSERT_TRUE(orgsim::OrgRecords::update(store(), *account, accounts_[i],
                                             Json{{"ParentId", accounts_[i - 1]}}, admin_)
                      .success);
    auto writer = store().writer("Contact", {"LastName", "AccountId", "Description", "Birthdate",
                                             "Email"});
    for (int i = 0; i < accounts; ++i)
      for (int c = 0; c < 2; ++c)
        contacts_.push_back(writer.insert(
            {"Contact " + std::to_string(i) + "-" + std::to_string(c), accounts_[i],
             "First line, \"quoted\"\nsecond line", "1980-02-29",
             "c" + std::to_string(i) + "." + std::to_string(c) + "@example.com"}));
    writer.commit();
    auto reply = client().Post("/services/data/v62.0/sobjects/ContentVersion", auth(),
                               Json{{"Title", "Contract"},
                                    {"PathOnClient", "Contract.pdf"},
                                    {"VersionData", "JVBERi0xLjQgY29udHJhY3Q="},  // "%PDF-1.4 contract"
                                    {"FirstPublishLocationId", accounts_[0]}}
                                   .dump(),
                               "application/json");
    ASSERT_TRUE(reply);
    ASSERT_EQ(reply->status, 201) << reply->body;
  }

  void removeAll(const std::vector<std::string>& ids) {
    for (const auto& id : ids) ASSERT_TRUE(orgsim::OrgRecords::remove(store(), id, admin_).success);
  }

  std::vector<Json> records(const std::string& soql) {
    std::vector<Json> out;
    for (auto page = query(soql);; page = getJson(page["nextRecordsUrl"].get<std::string>())) {
      for (const auto& record : page["records"]) out.push_back(record);
      if (page.value("done", true) || !page.contains("nextRecordsUrl")) break;
    }
    return out;
  }

  // Name -> Id of every live Account.
  std::map<std::string, std::string> liveAccounts() {
    std::map<std::string, std::string> out;
    for (const auto& record : records("SELECT Id, Name FROM Account"))
      EXPECT_TRUE(out.emplace(record["Name"], record["Id"]).second)
          << "two Accounts named " << record["Name"];
    return out;
  }

  TemporaryFolder backups_;
  TemporaryFolder journal_;
  std::unique_ptr<SalesforceAPI::Client> api_;
  Org org_;
  std::unique_ptr<APITransport> transport_;
  std::string admin_;
  std::vector<std::string> accounts_;
  std::vector<std::string> contacts_;
};

TEST_F(RestoreTaskTest, AMassDeleteWithPurgeComesBackWithChildrenLinksAndDocuments) {
  makeOrg(30);
  ASSERT_EQ(backup(RunKind::full).result, RunResult::complete);
  removeAll(accounts_);
  removeAll(contacts_);
  // The first twenty Accounts and their Contacts leave the bin; the rest stay.
  std::vector<std::string> purged(accounts_.begin(), accounts_.begin() + 20);
  purged.insert(purged.end(), contacts_.begin(), contacts_.begin() + 40);
  ASSERT_EQ(orgsim::OrgRecords::purge(store(), "", purged), 60);
  store().advanceClock(2min);
  ASSERT_EQ(backup(RunKind::changes).result, RunResult::complete);

  auto request = this->request();
  request.withChildren = true;
  const auto plan = RestoreTask::plan(*transport_, request);
  std::map<std::pair<std::string, Action>, int> counts;
  for (const auto& record : plan.records) ++counts[{record.object, record.action}];
  EXPECT_EQ(counts[std::make_pair(std::string("Account"), Action::undelete)], 10);
  EXPECT_EQ(counts[std::make_pair(std::string("Account"), Action::create)], 20);
  EXPECT_EQ(counts[std::make_pair(std::string("Contact"), Action::undelete)], 20);
  EXPECT_EQ(counts[std::make_pair(std::string("Contact"), Action::create)], 40);
  EXPECT_EQ(counts[std::make_pair(std::string("ContentVersion"), Action::create)], 1);
  // Parents before children: no create refers to one that comes later.
  std::set<std::string> before;
  for (const auto& record : plan.records) {
    for (const auto& value : record.values)
      if (value.literal == RestoreTask::FieldValue::Literal::reference && value.field != "OwnerId")
        for (const auto& later : plan.records)
          if (later.action == Action::create && later.id.substr(0, 15) == value.text.substr(0, 15))
            EXPECT_TRUE(before.count(later.id)) << record.id << " before its parent " << later.id;
    before.insert(record.id);
  }

  auto result = RestoreTask::run(*transport_, request);
  EXPECT_EQ(result.failed, 0u);
  EXPECT_EQ(result.restored, 91u);
  auto live = liveAccounts();
  ASSERT_EQ(live.size(), 30u);
  std::map<std::string, std::string> newId;  // old Account id -> the one now
  for (const auto& record : result.plan.records)
    if (record.object == "Account") newId[record.id] = record.newId;
  for (int i = 20; i < 30; ++i) EXPECT_EQ(newId[accounts_[i]], accounts_[i]);  // undeleted

  // Values and links as they were backed up.
  const auto restored = records(
      "SELECT Id, Name, ParentId, AnnualRevenue, Industry FROM Account ORDER BY Name");
  for (int i = 0; i < 30; ++i) {
    const auto& record = restored[static_cast<std::size_t>(i)];
    EXPECT_EQ(record["AnnualRevenue"].get<double>(), i * 1000.0);
    if (i % 5 == 1)
      EXPECT_EQ(record["ParentId"], newId[accounts_[i - 1]]) << record["Name"];
    else
      EXPECT_TRUE(record["ParentId"].is_null());
  }
  const auto contacts =
      records("SELECT LastName, AccountId, Description, Birthdate, Account.Name FROM Contact");
  ASSERT_EQ(contacts.size(), 60u);
  for (const auto& contact : contacts) {
    const std::string name = contact["LastName"];
    const int account = std::stoi(name.substr(8));
    EXPECT_EQ(contact["AccountId"], newId[accounts_[static_cast<std::size_t>(account)]]) << name;
    EXPECT_EQ(contact["Description"], "First line, \"quoted\"\nsecond line");
    EXPECT_EQ(contact["Birthdate"], "1980-02-29");
  }
  const auto documents = records(
      "SELECT Id, Title, Checksum, FirstPublishLocationId FROM ContentVersion WHERE "
      "FirstPublishLocationId = '" + newId[accounts_[0]] + "'");
  ASSERT_EQ(documents.size(), 1u);
  EXPECT_EQ(documents[0]["Title"], "Contract");
  EXPECT_EQ(*store().body("ContentVersion", documents[0]["Id"].get<std::string>()),
            "%PDF-1.4 contract");

  // Again: nothing is left, nothing is written.
  const auto again = RestoreTask::run(*transport_, request);
  EXPECT_TRUE(again.nothingLeft());
  EXPECT_EQ(again.restored, 0u);
  EXPECT_EQ(liveAccounts().size(), 30u);
  EXPECT_EQ(records("SELECT Id FROM Contact").size(), 60u);
}

TEST_F(RestoreTaskTest, FieldsPutOldValuesBackOnLiveRecordsAndCreateNothing) {
  makeOrg(6);
  ASSERT_EQ(backup(RunKind::full).result, RunResult::complete);
  const auto* account = orgsim::Schema::object("Account");
  for (int i = 0; i < 4; ++i)
    ASSERT_TRUE(orgsim::OrgRecords::update(store(), *account, accounts_[i],
                                           Json{{"Industry", "Retail"}, {"AnnualRevenue", 7}},
                                           admin_)
                    .success);
  removeAll({accounts_[5]});

  auto request = this->request();
  request.deleted = false;
  request.ids = accounts_;
  request.ids[0] = accounts_[0].substr(0, 15);  // as typed from a page address
  request.fields = {"Industry", "AnnualRevenue"};
  const auto plan = RestoreTask::plan(*transport_, request);
  ASSERT_EQ(plan.records.size(), 6u);
  EXPECT_EQ(plan.records[0].id, accounts_[0]);
  EXPECT_EQ(plan.records[0].action, Action::update);
  EXPECT_EQ(plan.records[0].changes,
            (std::vector<RestoreTask::FieldChange>{{"Industry", "Retail", "Banking"},
                                                   {"AnnualRevenue", "7", "0"}}));
  EXPECT_EQ(plan.records[1].changes[0], (RestoreTask::FieldChange{"Industry", "Retail", "Energy"}));
  EXPECT_EQ(plan.records[4].action, Action::skip);  // never changed
  EXPECT_EQ(plan.records[5].action, Action::skip);  // not live
  EXPECT_NE(plan.records[5].reason.find("not live"), std::string::npos);

  const auto result = RestoreTask::run(*transport_, request);
  EXPECT_EQ(result.restored, 4u);
  const auto now = records("SELECT Name, Industry, AnnualRevenue FROM Account ORDER BY Name");
  ASSERT_EQ(now.size(), 5u);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(now[static_cast<std::size_t>(i)]["Industry"], i % 2 == 0 ? "Banking" : "Energy");
    EXPECT_EQ(now[static_cast<std::size_t>(i)]["AnnualRevenue"].get<double>(), i * 1000.0);
  }
  EXPECT_TRUE(RestoreTask::run(*transport_, request).nothingLeft());

  request.fields = {"Nonsense__c"};
  try {
    RestoreTask::plan(*transport_, request);
    FAIL() << "an unknown field was accepted";
  } catch (const RestoreError& error) {
    EXPECT_EQ(error.kind(), RestoreError::Kind::unknownField);
  }
}

class RestoreResumeTest : public RestoreTaskTest {
 protected:
  // 500 Accounts with 1,000 Contacts, backed up, deleted and purged.
  void SetUp() override {
    RestoreTaskTest::SetUp();
    makeOrg(500);
    ASSERT_EQ(backup(RunKind::full).result, RunResult::complete);
    removeAll(accounts_);
    removeAll(contacts_);
    ASSERT_EQ(orgsim::OrgRecords::purge(store(), "Account", {}), 500);
    ASSERT_EQ(orgsim::OrgRecords::purge(store(), "Contact", {}), 1000);
    store().advanceClock(2min);
    ASSERT_EQ(backup(RunKind::changes).result, RunResult::complete);
  }

  // Every Account once, every Contact once and on its own Account.
  void expectWholeAndOnce() {
    const auto live = liveAccounts();
    EXPECT_EQ(live.size(), 500u);
    const auto contacts = records("SELECT LastName, Account.Name FROM Contact");
    EXPECT_EQ(contacts.size(), 1000u);
    std::set<std::string> names;
    for (const auto& contact : contacts) {
      const std::string name = contact["LastName"];
      EXPECT_TRUE(names.insert(name).second) << "twice: " << name;
      char expected[32];
      std::snprintf(expected, sizeof expected, "Account %04d", std::stoi(name.substr(8)));
      EXPECT_EQ(contact["Account"]["Name"], expected) << name;
    }
  }
};

TEST_F(RestoreResumeTest, AStopBetweenBatchesResumesWhereItWas) {
  auto request = this->request();
  request.withChildren = true;
  std::stop_source stop;
  const auto first = RestoreTask::run(
      *transport_, request, stop.get_token(), [&](const RestoreTask::Progress& progress) {
        if (progress.phase == RestoreTask::Phase::creating && progress.done >= 600)
          stop.request_stop();
      });
  EXPECT_TRUE(first.stopped);
  EXPECT_GT(first.restored, 0u);
  EXPECT_LT(first.restored, 1501u);

  const auto second = RestoreTask::run(*transport_, request);
  EXPECT_FALSE(second.stopped);
  EXPECT_EQ(second.failed, 0u);
  EXPECT_EQ(first.restored + second.restored, 1501u);
  expectWholeAndOnce();
  EXPECT_TRUE(RestoreTask::run(*transport_, request).nothingLeft());
}

// Ends the process's view of the org at one call, as a kill would: before
// the request leaves, or after the org has done it and before the answer is read.
class KillingTransport : public BackupTransport {
 public:
  KillingTransport(BackupTransport& inner, int killAt, bool afterTheOrg)
      : inner_(inner), killAt_(killAt), afterTheOrg_(afterTheOrg) {}
  std::string send(const std::string& method, const std::string& path, const QueryItems& query,
                   const std::optional<std::string>& body) override {
    return call([&] { return inner_.send(method, path, query, body); });
  }
  std::pair<std::string, ResponseHeaders> getRaw(const std::string& path, const QueryItems& query,
                                                 const std::string& accept) override {
    return call([&] { return inner_.getRaw(path, query, accept); });
  }
  std::string postSOAP(const std::string& action, const std::string& envelope) override {
    return call([&] { return inner_.postSOAP(action, envelope); });
  }
  std::int64_t download(const std::string& path, const std::filesystem::path& file) override {
    return call([&] { return inner_.download(path, file); });
  }
  bool killed = false;

 private:
  template <typename Call>
  std::invoke_result_t<Call> call(Call forward) {
    if (++calls_ != killAt_) return forward();
    killed = true;
    if (afterTheOrg_) forward();
    throw std::runtime_error("killed");
  }
  BackupTransport& inner_;
  int killAt_;
  bool afterTheOrg_;
  int calls_ = 0;
};

TEST_F(RestoreResumeTest, KilledAtRandomPointsItResumesWithoutDuplicatesOrBrokenLinks) {
  auto request = this->request();
  request.withChildren = true;
  std::mt19937 random(23);
  int kills = 0;
  for (int attempt = 0; attempt < 40; ++attempt) {
    KillingTransport dying(*transport_, std::uniform_int_distribution<int>(1, 14)(random),
                           random() % 2 == 0);
    try {
      const auto result = RestoreTask::run(dying, request);
      if (!dying.killed) break;
    } catch (const std::exception&) {
      ASSERT_TRUE(dying.killed) << "failed without a kill";
    }
    ++kills;
  }
  EXPECT_GE(kills, 4);
  expectWholeAndOnce();
  EXPECT_EQ(records("SELECT Id FROM ContentVersion WHERE Title = 'Contract'").size(), 2u);
  EXPECT_TRUE(RestoreTask::run(*transport_, request).nothingLeft());
}

TEST_F(RestoreResumeTest, ABatchWhoseReplyWasLostIsFoundInTheOrgNotSentAgain) {
  auto request = this->request();
  request.withChildren = true;
  // The first collection reaches the org, and its reply is cut off.
  admin("faults", {{"path", "/services/data/*/composite/sobjects"},
                   {"method", "POST"},
                   {"fault", "drop"},
                   {"afterBytes", 10},
                   {"count", 1}});
  bool failed = false;
  try {
    RestoreTask::run(*transport_, request);
  } catch (const std::exception&) {
    failed = true;
  }
  RestoreJournal journal(request.journal);
  std::size_t unknown = 0;
  for (const auto& [key, entry] : journal.entries("00D/" + org_.username))
    unknown += entry.state == "sent";
  ASSERT_TRUE(failed) << "the cut-off reply went unnoticed";
  EXPECT_EQ(unknown, 200u);

  const auto second = RestoreTask::run(*transport_, request);
  EXPECT_EQ(second.failed, 0u);
  expectWholeAndOnce();
}

TEST_F(RestoreTaskTest, AReferenceToARecordNeitherLiveNorRestoredIsLeftEmptyAndNamed) {
  makeOrg(3);
  ASSERT_EQ(backup(RunKind::full).result, RunResult::complete);
  removeAll({accounts_[0], accounts_[1]});
  ASSERT_EQ(orgsim::OrgRecords::purge(store(), "Account", {}), 2);
  store().advanceClock(2min);
  ASSERT_EQ(backup(RunKind::changes).result, RunResult::complete);

  auto request = this->request();
  request.deleted = false;
  request.ids = {accounts_[1]};  // its parent, accounts_[0], stays gone
  const auto plan = RestoreTask::plan(*transport_, request);
  ASSERT_EQ(plan.records.size(), 1u);
  EXPECT_EQ(plan.records[0].action, Action::create);
  EXPECT_EQ(plan.records[0].unresolved, (std::vector<std::string>{"ParentId (" + accounts_[0] + ")"}));
  const auto result = RestoreTask::run(*transport_, request);
  ASSERT_EQ(result.restored, 1u);
  const auto now = records("SELECT Name, ParentId FROM Account WHERE Name = 'Account 0001'");
  ASSERT_EQ(now.size(), 1u);
  EXPECT_TRUE(now[0]["ParentId"].is_null());

  // The parent restored afterwards is created once, known as restored from
  // then on, and the reference left empty is filled in.
  request.ids = {accounts_[0]};
  const auto parentPlan = RestoreTask::plan(*transport_, request);
  ASSERT_EQ(parentPlan.records.size(), 2u);
  EXPECT_EQ(parentPlan.records[1].action, Action::update);
  EXPECT_EQ(parentPlan.records[1].id, accounts_[1]);
  EXPECT_EQ(parentPlan.records[1].changes,
            (std::vector<RestoreTask::FieldChange>{{"ParentId", "", accounts_[0]}}));
  const auto parent = RestoreTask::run(*transport_, request);
  ASSERT_EQ(parent.restored, 2u);
  const auto both = liveAccounts();
  EXPECT_EQ(records("SELECT ParentId FROM Account WHERE Name = 'Account 0001'")[0]["ParentId"],
            both.at("Account 0000"));
  const auto after = RestoreTask::plan(*transport_, request);
  ASSERT_EQ(after.records.size(), 1u);
  EXPECT_NE(after.records[0].reason.find("Restored earlier"), std::string::npos);
  EXPECT_TRUE(RestoreTask::run(*transport_, request).nothingLeft());
}

TEST_F(RestoreTaskTest, ChildrenRestoredBeforeTheirParentPointAtItOnceItIsBack) {
  makeOrg(3);
  ASSERT_EQ(backup(RunKind::full).result, RunResult::complete);
  removeAll({accounts_[0], contacts_[0], contacts_[1]});
  ASSERT_EQ(orgsim::OrgRecords::purge(store(), "", {accounts_[0], contacts_[0], contacts_[1]}), 3);
  store().advanceClock(2min);
  ASSERT_EQ(backup(RunKind::changes).result, RunResult::complete);

  // The Contacts first: their Account is gone, so AccountId is left empty.
  auto request = this->request();
  request.object = "Contact";
  request.deleted = false;
  request.ids = {contacts_[0], contacts_[1]};
  ASSERT_EQ(RestoreTask::run(*transport_, request).restored, 2u);
  for (const auto& contact : records("SELECT AccountId FROM Contact WHERE LastName IN ('Contact 0-0', 'Contact 0-1')"))
    EXPECT_TRUE(contact["AccountId"].is_null());

  // Then the Account: both Contacts get it back, as the plan says.
  request.object = "Account";
  request.ids = {accounts_[0]};
  const auto plan = RestoreTask::plan(*transport_, request);
  std::size_t patches = 0;
  for (const auto& record : plan.records)
    if (record.object == "Contact") {
      ++patches;
      EXPECT_EQ(record.action, Action::update);
      EXPECT_EQ(record.changes, (std::vector<RestoreTask::FieldChange>{{"AccountId", "", accounts_[0]}}));
    }
  EXPECT_EQ(patches, 2u);
  const auto result = RestoreTask::run(*transport_, request);
  EXPECT_EQ(result.restored, 3u);
  EXPECT_EQ(result.failed, 0u);
  const auto account = liveAccounts().at("Account 0000");
  const auto contacts = records("SELECT AccountId FROM Contact WHERE LastName IN ('Contact 0-0', 'Contact 0-1')");
  ASSERT_EQ(contacts.size(), 2u);
  for (const auto& contact : contacts) EXPECT_EQ(contact["AccountId"], account);
  for (const auto& record : result.plan.records) {
    if (record.object == "Contact") EXPECT_EQ(record.result, "restored") << record.message;
  }
  EXPECT_TRUE(RestoreTask::run(*transport_, request).nothingLeft());
  request.object = "Contact";
  request.ids = {contacts_[0], contacts_[1]};
  EXPECT_TRUE(RestoreTask::run(*transport_, request).nothingLeft());
}

TEST_F(RestoreTaskTest, ADocumentOnSeveralRecordsIsUploadedOnceAndLinkedToEach) {
  makeOrg(3);
  // The contract is published on Account 0, and shared with Account 1 and a Contact.
  const std::string document =
      records("SELECT ContentDocumentId FROM ContentVersion WHERE Title = 'Contract'")[0]
                 ["ContentDocumentId"];
  for (const auto& link : {Json{{"ContentDocumentId", document},
                                {"LinkedEntityId", accounts_[1]},
                                {"ShareType", "C"},
                                {"Visibility", "InternalUsers"}},
                           Json{{"ContentDocumentId", document},
                                {"LinkedEntityId", contacts_[2]},
                                {"ShareType", "C"},
                                {"Visibility", "InternalUsers"}}}) {
    auto reply = client().Post("/services/data/v62.0/sobjects/ContentDocumentLink", auth(),
                               link.dump(), "application/json");
    ASSERT_TRUE(reply);
    ASSERT_EQ(reply->status, 201) << reply->body;
  }
  // Salesforce links a document to a record once.
  auto twice = client().Post("/services/data/v62.0/sobjects/ContentDocumentLink", auth(),
                             Json{{"ContentDocumentId", document}, {"LinkedEntityId", accounts_[1]}}.dump(),
                             "application/json");
  ASSERT_TRUE(twice);
  EXPECT_EQ(twice->status, 400);
  EXPECT_NE(twice->body.find("DUPLICATE_VALUE"), std::string::npos) << twice->body;

  ASSERT_EQ(backup(RunKind::full).result, RunResult::complete);
  removeAll(accounts_);
  removeAll(contacts_);
  ASSERT_EQ(orgsim::OrgRecords::purge(store(), "Account", {}), 3);
  ASSERT_EQ(orgsim::OrgRecords::purge(store(), "Contact", {}), 6);
  store().advanceClock(2min);
  ASSERT_EQ(backup(RunKind::changes).result, RunResult::complete);

  auto request = this->request();
  request.withChildren = true;
  auto result = RestoreTask::run(*transport_, request);
  EXPECT_EQ(result.failed, 0u);
  std::map<std::string, std::string> newId;
  std::size_t uploads = 0;
  std::size_t links = 0;
  for (const auto& record : result.plan.records) {
    newId[record.id] = record.newId;
    uploads += record.object == "ContentVersion" && record.result == "restored";
    links += record.object == "ContentDocumentLink" && record.result == "restored";
  }
  EXPECT_EQ(uploads, 1u);
  EXPECT_EQ(links, 2u);
  std::string version;
  std::string publishedOn;  // the upload's record; the others are linked
  for (const auto& record : result.plan.records)
    if (record.object == "ContentVersion") {
      version = record.newId;
      publishedOn = newId[record.parentId];
    }
  const auto versions =
      records("SELECT ContentDocumentId FROM ContentVersion WHERE Id = '" + version + "'");
  ASSERT_EQ(versions.size(), 1u);
  const std::string restored = versions[0]["ContentDocumentId"];
  auto linksNow = [&] {
    std::map<std::string, std::pair<std::string, std::string>> out;
    for (const auto& link : records("SELECT LinkedEntityId, ShareType, Visibility FROM "
                                    "ContentDocumentLink WHERE ContentDocumentId = '" + restored + "'"))
      out[link["LinkedEntityId"]] = {link["ShareType"], link["Visibility"]};
    return out;
  };
  const auto linked = linksNow();
  for (const auto& record : {accounts_[0], accounts_[1], contacts_[2]}) {
    ASSERT_TRUE(linked.count(newId[record])) << record;
    if (newId[record] != publishedOn && record != accounts_[0]) {
      EXPECT_EQ(linked.at(newId[record]), std::make_pair(std::string("C"), std::string("InternalUsers")));
    }
  }

  // Links whose answer was lost go again; Salesforce's refusal of a second
  // link settles them, and none is made twice.
  RestoreJournal journal(request.journal);
  std::vector<RestoreJournal::Entry> lost;
  for (const auto& [key, entry] : journal.entries("00D/" + org_.username))
    if (entry.action == "link") lost.push_back(entry);
  ASSERT_EQ(lost.size(), 2u);
  journal.recordSending("00D/" + org_.username, lost);
  const auto again = RestoreTask::run(*transport_, request);
  EXPECT_EQ(again.failed, 0u);
  EXPECT_EQ(again.restored, 2u);
  EXPECT_EQ(linksNow(), linked);
  EXPECT_TRUE(RestoreTask::run(*transport_, request).nothingLeft());
}

// Restores two Accounts with their documents after spoil(body) has been done
// to every body in the backup's Files folder: the Accounts come back, each
// document is skipped with reason, and a further run finds nothing left.
void RestoreTaskTest::expectDocumentsSkipped(
    const std::function<void(const std::filesystem::path&)>& spoil, const std::string& reason) {
  backedUpThenPurged(2);
  for (const auto& body : std::filesystem::directory_iterator(config().location.filesFolder()))
    if (body.is_regular_file()) spoil(body.path());

  auto request = this->request();
  request.withChildren = true;
  const auto result = RestoreTask::run(*transport_, request);
  EXPECT_EQ(result.restored, 2u);
  bool named = false;
  for (const auto& record : result.plan.records)
    if (record.object == "ContentVersion") {
      EXPECT_EQ(record.action, Action::skip);
      EXPECT_EQ(record.reason, reason);
      named = true;
    }
  EXPECT_TRUE(named);
  EXPECT_TRUE(RestoreTask::run(*transport_, request).nothingLeft());
}

TEST_F(RestoreTaskTest, ADocumentWhoseBodyIsGoneFromTheBackupIsSkippedAndNamed) {
  expectDocumentsSkipped([](const std::filesystem::path& body) { std::filesystem::remove(body); },
                         "Its body is missing from the Files folder.");
}

TEST_F(RestoreTaskTest, ADocumentWhoseBodyWasDamagedSinceTheBackupIsSkippedAndNamed) {
  expectDocumentsSkipped(
      [](const std::filesystem::path& body) {
        std::ofstream(body, std::ios::app) << "damage";
      },
      "Its body in the Files folder does not match the checksum Salesforce gave for it.");
}

TEST_F(RestoreTaskTest, ARecordSalesforceRefusesFailsWithItsWordsAndTheRestGoOn) {
  backedUpThenPurged(4);
  // A picklist value the org no longer has, as the backup holds it for one record.
  giveAnInactiveIndustry(accounts_[2]);
  const auto result = RestoreTask::run(*transport_, request());
  EXPECT_EQ(result.restored, 3u);
  ASSERT_EQ(result.failed, 1u);
  for (const auto& record : result.plan.records)
    if (record.id == accounts_[2]) {
      EXPECT_EQ(record.result, "failed");
      EXPECT_NE(record.message.find("INVALID_OR_NULL_FOR_RESTRICTED_PICKLIST"), std::string::npos)
          << record.message;
    }
  EXPECT_EQ(store().count("Account"), 3);

  // Later runs leave it alone and say why, until asked to try it again.
  const auto again = RestoreTask::run(*transport_, request());
  EXPECT_TRUE(again.nothingLeft());
  EXPECT_EQ(again.failedEarlier, 1u);
  for (const auto& record : again.plan.records) {
    if (record.id == accounts_[2])
      EXPECT_EQ(record.reason.rfind("failed in an earlier run: INVALID_OR_NULL_FOR_RESTRICTED_PICKLIST", 0), 0u)
          << record.reason;
  }
  auto retry = request();
  retry.retryFailed = true;
  const auto retried = RestoreTask::run(*transport_, retry);
  EXPECT_EQ(retried.failed, 1u);
  EXPECT_EQ(retried.earlier, 3u);
  EXPECT_EQ(store().count("Account"), 3);
  EXPECT_TRUE(RestoreTask::run(*transport_, request()).nothingLeft());
}

TEST_F(RestoreTaskTest, AFieldsUpdateSalesforceRefusedIsNotSentAgainUntilItChangesOrIsRetried) {
  makeOrg(3);
  ASSERT_EQ(backup(RunKind::full).result, RunResult::complete);
  const auto* account = orgsim::Schema::object("Account");
  for (const auto& id : accounts_) {
    ASSERT_TRUE(orgsim::OrgRecords::update(store(), *account, id,
                                           Json{{"Industry", "Retail"}, {"AnnualRevenue", 7}},
                                           admin_)
                    .success);
  }
  giveAnInactiveIndustry(accounts_[0]);
  auto request = this->request();
  request.deleted = false;
  request.ids = accounts_;
  request.fields = {"Industry"};
  const auto result = RestoreTask::run(*transport_, request);
  EXPECT_EQ(result.restored, 2u);
  ASSERT_EQ(result.failed, 1u);

  const auto again = RestoreTask::run(*transport_, request);
  EXPECT_TRUE(again.nothingLeft());
  EXPECT_EQ(again.failedEarlier, 1u);
  EXPECT_EQ(again.plan.records[0].reason.rfind(
                "failed in an earlier run: INVALID_OR_NULL_FOR_RESTRICTED_PICKLIST", 0),
            0u)
      << again.plan.records[0].reason;

  // Asked for other values, the record is sent again: only the one refused is left alone.
  request.fields = {"Industry", "AnnualRevenue"};
  const auto wider = RestoreTask::plan(*transport_, request);
  EXPECT_EQ(wider.records[0].action, Action::update);
  request.fields = {"Industry"};
  request.retryFailed = true;
  const auto retried = RestoreTask::run(*transport_, request);
  EXPECT_EQ(retried.failed, 1u);
  EXPECT_EQ(retried.failedEarlier, 0u);
}

TEST_F(RestoreTaskTest, APlanJustMadeIsWrittenWithoutAskingTheOrgAgain) {
  backedUpThenPurged(3);
  const auto queries = [&] {
    int count = 0;
    const auto log = getJson("/_admin/requests?limit=100000");
    for (const auto& entry : log["requests"])
      count += entry.value("path", "").find("/query") != std::string::npos;
    return count;
  };
  const auto plan = RestoreTask::plan(*transport_, request());
  ASSERT_EQ(plan.toWrite(), 3u);
  const int planned = queries();
  const auto result = RestoreTask::run(*transport_, request(), {}, {}, &plan);
  EXPECT_EQ(result.restored, 3u);
  EXPECT_EQ(queries(), planned) << "the run asked the org again what the plan knew";
  EXPECT_TRUE(RestoreTask::run(*transport_, request()).nothingLeft());
}

TEST_F(RestoreTaskTest, ARestoreThatWouldSpendTheLastTenthOfTheAllowanceDoesNotStart) {
  backedUpThenPurged(3);
  const auto used = getJson("/_admin/settings")["dailyApiUsed"].get<std::int64_t>();
  admin("settings", {{"dailyApiMax", 1000}, {"dailyApiUsedOffset", 900 - used}});
  try {
    RestoreTask::run(*transport_, request());
    FAIL() << "the restore started";
  } catch (const RestoreError& error) {
    EXPECT_EQ(error.kind(), RestoreError::Kind::allowanceTooLow);
  }
  EXPECT_EQ(store().count("Account"), 0);
}

TEST_F(RestoreTaskTest, JournalIsPrivateToItsOwner) {
  RestoreJournal journal(journal_.path() / "deep" / "journal.sqlite");
  journal.recordSending("org", {{"Account", "001000000000001AAA", "create", "sent", "", "", 1,
                                 "2026-01-01T00:00:00.000Z", "{}", "", ""}});
  const auto perms = std::filesystem::status(journal_.path() / "deep" / "journal.sqlite").permissions();
  EXPECT_EQ(perms & std::filesystem::perms::all,
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  EXPECT_EQ(journal.find("org", "001000000000001")->state, "sent");
}

TEST_F(RestoreTaskTest, AJournalWrittenBeforeReferencesWereKeptStillServes) {
  const auto path = journal_.path() / "old.sqlite";
  {
    auto db = SQLiteDB::open(path);
    db->exec(
        "CREATE TABLE restored(org TEXT NOT NULL, key TEXT NOT NULL, object TEXT NOT NULL, "
        "old_id TEXT NOT NULL, action TEXT NOT NULL, state TEXT NOT NULL, new_id TEXT NOT NULL "
        "DEFAULT '', message TEXT NOT NULL DEFAULT '', batch INTEGER NOT NULL DEFAULT 0, sent_at "
        "TEXT NOT NULL DEFAULT '', sent_body TEXT NOT NULL DEFAULT '', job_id TEXT NOT NULL "
        "DEFAULT '', PRIMARY KEY(org, key)) WITHOUT ROWID;"
        "INSERT INTO restored(org, key, object, old_id, action, state, new_id) VALUES('org', "
        "'001000000000001', 'Account', '001000000000001AAA', 'create', 'done', '001000000000009AAA');");
  }
  RestoreJournal journal(path);
  EXPECT_EQ(journal.find("org", "001000000000001AAA")->newId, "001000000000009AAA");
  // A record's own entry and a patch of it live side by side.
  journal.recordSending("org", {{"Account", "001000000000001AAA", "patch", "sent", "", "", 2,
                                 "2026-01-01T00:00:00.000Z", "", "", "{}"}});
  RestoreJournal::Entry patched{"Account", "001000000000001AAA", "patch", "done",
                                "001000000000009AAA", "", 2, "", "", "", ""};
  journal.recordOutcomes("org", {patched});
  const auto entries = journal.entries("org");
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries.at("001000000000001").state, "done");
  EXPECT_EQ(entries.at("patch:001000000000001").state, "done");
}

}  // namespace
}  // namespace corvane

namespace corvane {
namespace {

// Over 2,000 records go through Bulk API ingest jobs.
class RestoreBulkTest : public RestoreTaskTest {
 protected:
  void SetUp() override {
    RestoreTaskTest::SetUp();
    accounts_ = orgsim::testing::addAccounts(store(), 2100);
    ASSERT_EQ(backup(RunKind::full).result, RunResult::complete);
    removeAll(accounts_);
    ASSERT_EQ(orgsim::OrgRecords::purge(store(), "Account", {}), 2100);
    store().advanceClock(2min);
    ASSERT_EQ(backup(RunKind::changes).result, RunResult::complete);
  }

  int requestsTo(const std::string& part) {
    auto log = getJson("/_admin/requests?limit=100000");
    int count = 0;
    for (const auto& entry : log["requests"])
      count += entry.value("path", "").find(part) != std::string::npos;
    return count;
  }
};

TEST_F(RestoreBulkTest, ManyRecordsAreCreatedByAnIngestJobAndALostAnswerIsSettledFromIt) {
  // The answer to closing the job is lost; the job runs all the same.
  admin("faults", {{"path", "/services/data/*/jobs/ingest/*"},
                   {"method", "PATCH"},
                   {"fault", "drop"},
                   {"afterBytes", 5},
                   {"count", 1}});
  EXPECT_ANY_THROW(RestoreTask::run(*transport_, request()));
  const auto second = RestoreTask::run(*transport_, request());
  EXPECT_EQ(second.failed, 0u);
  EXPECT_EQ(second.earlier + second.restored, 2100u);
  EXPECT_EQ(liveAccounts().size(), 2100u);
  EXPECT_EQ(requestsTo("/composite/sobjects"), 0);
  EXPECT_GE(requestsTo("/jobs/ingest"), 3);
  EXPECT_TRUE(RestoreTask::run(*transport_, request()).nothingLeft());
}

// Asks for a stop once the org has said that an ingest job is still running.
class StopWhileTheJobRuns : public BackupTransport {
 public:
  StopWhileTheJobRuns(BackupTransport& inner, std::stop_source& stop) : inner_(inner), stop_(stop) {}
  std::string send(const std::string& method, const std::string& path, const QueryItems& query,
                   const std::optional<std::string>& body) override {
    auto reply = inner_.send(method, path, query, body);
    if (method == "GET" && path.find("jobs/ingest/") != std::string::npos &&
        reply.find("InProgress") != std::string::npos && !stop_.stop_requested()) {
      stoppedAt = std::chrono::steady_clock::now();
      stop_.request_stop();
    }
    return reply;
  }
  std::pair<std::string, ResponseHeaders> getRaw(const std::string& path, const QueryItems& query,
                                                 const std::string& accept) override {
    return inner_.getRaw(path, query, accept);
  }
  std::string postSOAP(const std::string& action, const std::string& envelope) override {
    return inner_.postSOAP(action, envelope);
  }
  std::int64_t download(const std::string& path, const std::filesystem::path& file) override {
    return inner_.download(path, file);
  }
  TransportFailure classify(const std::exception& error) const override {
    return inner_.classify(error);
  }
  std::chrono::steady_clock::time_point stoppedAt;

 private:
  BackupTransport& inner_;
  std::stop_source& stop_;
};

TEST_F(RestoreBulkTest, AStopWhileAJobRunsLeavesItToTheNextRunWhichReadsItsResults) {
  admin("settings", {{"bulkDelayMs", 6000}});
  std::stop_source stop;
  StopWhileTheJobRuns stopping(*transport_, stop);
  const auto first = RestoreTask::run(stopping, request(), stop.get_token());
  EXPECT_TRUE(first.stopped);
  EXPECT_LT(std::chrono::steady_clock::now() - stopping.stoppedAt, 3s) << "the stop waited for the job";
  EXPECT_EQ(first.restored, 0u);
  RestoreJournal journal(request().journal);
  std::set<std::string> jobs;
  for (const auto& [key, entry] : journal.entries("00D/" + org_.username)) {
    EXPECT_EQ(entry.state, "sent");
    jobs.insert(entry.jobId);
  }
  ASSERT_EQ(jobs.size(), 1u);
  EXPECT_FALSE(jobs.begin()->empty());

  const auto second = RestoreTask::run(*transport_, request());
  EXPECT_FALSE(second.stopped);
  EXPECT_EQ(second.failed, 0u);
  EXPECT_EQ(second.earlier, 2100u);
  EXPECT_EQ(liveAccounts().size(), 2100u);
  int created = 0;
  int uploaded = 0;
  const auto log = getJson("/_admin/requests?limit=100000");
  for (const auto& entry : log["requests"]) {
    const std::string path = entry.value("path", "");
    created += entry.value("method", "") == "POST" && path.ends_with("/jobs/ingest");
    uploaded += entry.value("method", "") == "PUT" && path.ends_with("/batches");
  }
  EXPECT_EQ(created, 1);
  EXPECT_EQ(uploaded, 1);
  EXPECT_TRUE(RestoreTask::run(*transport_, request()).nothingLeft());
}

}  // namespace
}  // namespace corvane
