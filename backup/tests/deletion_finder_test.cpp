#include "backup/deletion_finder.hpp"

#include <gtest/gtest.h>

#include <map>

#include "connections/server_time.hpp"
#include "connections/api_transport.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/org_records.hpp"
#include "tools/orgsim/tests/sample_org.hpp"
#include "tools/orgsim/tests/sample_org_api.hpp"

namespace corvane {
namespace {

using Check = DeletionFinder::Check;
using namespace std::chrono_literals;

TEST(DeletionFinderCheck, IntervalWindowRefusalAndOwedComparison) {
  const SystemTime now = std::chrono::sys_days{std::chrono::year{2024} / 5 / 20} + 10h;
  BackupStore::ObjectState state;
  // Never checked: compare when something was held before, else nothing to look for.
  EXPECT_EQ(DeletionFinder::check(std::nullopt, now, 3600, true), Check::compareIds());
  EXPECT_EQ(DeletionFinder::check(std::nullopt, now, 3600, false), Check::notYet());

  state.deletedChecked = IsoTime::formatPlain(now - 30min);
  EXPECT_EQ(DeletionFinder::check(state, now, 3600, true), Check::notYet());
  state.deletedChecked = IsoTime::formatPlain(now - 2h);
  EXPECT_EQ(DeletionFinder::check(state, now, 3600, true), Check::getDeleted(now - 2h, now));
  // Older than the log Salesforce keeps: only a comparison can be trusted.
  state.deletedChecked = IsoTime::formatPlain(now - 16 * 24h);
  EXPECT_EQ(DeletionFinder::check(state, now, 3600, true), Check::compareIds());
  state.deletedChecked = IsoTime::formatPlain(now - 2h);
  state.getDeletedRefused = true;
  EXPECT_EQ(DeletionFinder::check(state, now, 3600, true), Check::compareIds());
  state.getDeletedRefused = false;
  state.deletedTried = IsoTime::formatPlain(now - 1h);
  EXPECT_EQ(DeletionFinder::check(state, now, 3600, true), Check::compareIds());
  // Salesforce refuses a window of a minute or less.
  state.deletedTried.clear();
  state.deletedChecked = IsoTime::formatPlain(now - 30s);
  EXPECT_EQ(DeletionFinder::check(state, now, 0, true), Check::notYet());
}

TEST(DeletionFinderCheck, AnswerThatIsNotAGetDeletedAnswerIsRefused) {
  auto answer = DeletionFinder::parseAnswer(
      R"({"deletedRecords":[{"id":"001A","deletedDate":"2024-05-07T22:07:19.000+0000"}],)"
      R"("earliestDateAvailable":"2024-05-03T15:57:00.000+0000"})");
  ASSERT_EQ(answer.records.size(), 1u);
  EXPECT_EQ(answer.records[0].id, "001A");
  EXPECT_TRUE(answer.earliestDateAvailable);
  EXPECT_FALSE(answer.latestDateCovered);
  for (const char* bad : {"[]", "{}", "not json", R"({"deletedRecords":[{"deletedDate":"x"}]})",
                          R"({"deletedRecords":{"id":"001"}})"})
    EXPECT_THROW(DeletionFinder::parseAnswer(bad), std::invalid_argument) << bad;
}

class DeletionFinderTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    api_ = orgsim::testing::adminClient(*server_);
    org_.username = store().identity().adminUsername;
    transport_ = std::make_unique<APITransport>(*api_, org_);
    backup_ = BackupStore::open({folder_.path(), "00D", org_.username});
    firstRun_ = backup_->insertRun("first", RunKind::full, "2024-01-01T00:00:00Z");
  }

  // The ids as an earlier run copied them, checked for deletions `checkedAgo` before now.
  void held(const std::string& object, const std::vector<std::string>& ids,
            std::optional<std::chrono::seconds> checkedAgo) {
    auto insert =
        backup_->db().prepare("INSERT INTO known_ids (object, id, seen_run) VALUES (?, ?, ?)");
    for (const auto& id : ids) {
      insert.reset();
      insert.bindText(1, object).bindText(2, id).bindInt(3, firstRun_);
      insert.run();
    }
    backup_->storeWatermark(object, "SystemModstamp", "2024-01-01T00:00:00Z", {"Id"});
    if (checkedAgo)
      backup_->db()
          .prepare("UPDATE objects SET deleted_checked = ? WHERE name = ?")
          .bindText(1, IsoTime::formatPlain(store().now() - *checkedAgo))
          .bindText(2, object)
          .run();
  }

  DeletionFinder::Outcome find(const std::vector<DeletionFinder::Target>& targets,
                               DeletionFinder::Options options = {}) {
    const auto run = backup_->insertRun("next " + std::to_string(++runs_), RunKind::changes,
                                        "2024-01-02T00:00:00Z");
    options.purgeCheckInterval = 0;
    DeletionFinder finder(*transport_, *backup_, lock_, run, store().now(), options);
    comparing_.clear();
    auto outcome = finder.findAll(
        targets,
        [this](bool comparing, const std::string& object, int, int) {
          if (comparing) comparing_.push_back(object);
        },
        nullptr);
    lastRun_ = run;
    return outcome;
  }

  // id -> how, of what the last find marked deleted.
  std::map<std::string, std::string> found() {
    std::map<std::string, std::string> out;
    for (const auto& deletion : backup_->deletions(lastRun_)) out[deletion.id] = deletion.how;
    return out;
  }

  void remove(const std::string& id) {
    ASSERT_TRUE(orgsim::OrgRecords::remove(store(), id, store().identity().adminUserId).success);
  }

  orgsim::testing::TempFolder folder_;
  std::unique_ptr<SalesforceAPI::Client> api_;
  Org org_;
  std::unique_ptr<APITransport> transport_;
  std::shared_ptr<BackupStore> backup_;
  std::recursive_mutex lock_;
  std::int64_t firstRun_ = 0;
  std::int64_t lastRun_ = 0;
  int runs_ = 0;
  std::vector<std::string> comparing_;
};

TEST_F(DeletionFinderTest, DeleteLogNamesRecycleBinDeletionsWithTheirDates) {
  auto ids = orgsim::testing::addAccounts(store(), 5);
  held("Account", ids, 2h);
  remove(ids[1]);
  remove(ids[3]);
  store().advanceClock(2min);

  auto outcome = find({{"Account", false, 3}});
  EXPECT_EQ(outcome.found, 2);
  EXPECT_TRUE(outcome.failed.empty());
  EXPECT_TRUE(comparing_.empty()) << "the log sufficed; no id job";
  EXPECT_EQ(found(), (std::map<std::string, std::string>{{ids[1], "recycleBin"},
                                                          {ids[3], "recycleBin"}}));
  for (const auto& deletion : backup_->deletions(lastRun_))
    EXPECT_TRUE(ServerTime::parse(deletion.at)) << deletion.at;
  EXPECT_FALSE(backup_->objectState("Account")->getDeletedRefused);
  EXPECT_EQ(backup_->knownCount("Account"), 3);

  // The next check starts where this one ended: nothing is found twice.
  store().advanceClock(2min);
  EXPECT_EQ(find({{"Account", false, 3}}).found, 0);
}

TEST_F(DeletionFinderTest, RefusedDeleteLogFallsBackToComparingIdsFromThenOn) {
  auto ids = orgsim::testing::addAccounts(store(), 4);
  held("Account", ids, 2h);
  remove(ids[0]);
  store().advanceClock(2min);
  admin("faults", {{"path", "/services/data/*/sobjects/Account/deleted*"},
                   {"fault", "status"},
                   {"status", 400},
                   {"message", "sObject type 'Account' is not supported."},
                   {"count", 1}});

  auto outcome = find({{"Account", false, 3}});
  EXPECT_EQ(outcome.found, 1);
  EXPECT_EQ(comparing_, std::vector<std::string>{"Account"});
  EXPECT_EQ(found(), (std::map<std::string, std::string>{{ids[0], "missing"}}));
  EXPECT_TRUE(backup_->objectState("Account")->getDeletedRefused);
  EXPECT_TRUE(backup_->objectState("Account")->deletedTried.empty());

  // Remembered: the next run compares again (now in bulk), without asking for the log.
  remove(ids[2]);
  store().advanceClock(2min);
  DeletionFinder::Options bulk;
  bulk.restThreshold = 0;
  bulk.firstPollDelay = 1ms;
  outcome = find({{"Account", false, 2}}, bulk);
  EXPECT_EQ(found(), (std::map<std::string, std::string>{{ids[2], "missing"}}));
  EXPECT_EQ(comparing_, std::vector<std::string>{"Account"});
}

TEST_F(DeletionFinderTest, PurgedLogFallsBackAndNamesWhatLeftAsPurged) {
  auto ids = orgsim::testing::addAccounts(store(), 4);
  held("Account", ids, 2h);
  remove(ids[0]);
  store().advanceClock(1min);
  remove(ids[1]);
  orgsim::OrgRecords::purge(store(), "", {ids[0]});
  store().advanceClock(2min);

  auto outcome = find({{"Account", false, 2}});
  EXPECT_EQ(outcome.found, 2);
  EXPECT_EQ(found(), (std::map<std::string, std::string>{{ids[0], "purged"},
                                                          {ids[1], "recycleBin"}}));
}

TEST_F(DeletionFinderTest, AWindowRefusedAfterAPurgeIsComparedWithoutGivingUpOnTheLog) {
  auto ids = orgsim::testing::addAccounts(store(), 3);
  held("Account", ids, 2h);
  remove(ids[2]);
  orgsim::OrgRecords::purge(store(), "", {ids[2]});
  store().advanceClock(2min);
  admin("faults", {{"path", "/services/data/*/sobjects/Account/deleted*"},
                   {"fault", "status"},
                   {"status", 400},
                   {"message", "startDate is before the earliest date available"},
                   {"count", 1}});
  find({{"Account", false, 2}});
  EXPECT_EQ(found(), (std::map<std::string, std::string>{{ids[2], "purged"}}));
  EXPECT_FALSE(backup_->objectState("Account")->getDeletedRefused);
}

TEST_F(DeletionFinderTest, IdJobsBeyondTheRunsBudgetWaitForTheNextRun) {
  auto accounts = orgsim::testing::addAccounts(store(), 3);
  held("Account", accounts, std::nullopt);
  std::vector<std::string> contacts;
  {
    auto writer = store().writer("Contact", {"LastName"});
    for (const char* name : {"Ames", "Bell", "Cole"}) contacts.push_back(writer.insert({name}));
    writer.commit();
  }
  held("Contact", contacts, std::nullopt);
  remove(accounts[0]);
  remove(contacts[1]);

  DeletionFinder::Options one;
  one.maxIdJobsPerRun = 1;
  auto outcome = find({{"Account", false, 2}, {"Contact", false, 2}}, one);
  EXPECT_EQ(outcome.waiting, std::vector<std::string>{"Contact"});
  EXPECT_EQ(found(), (std::map<std::string, std::string>{{accounts[0], "missing"}}));
  EXPECT_FALSE(backup_->objectState("Contact")->deletedTried.empty());

  outcome = find({{"Contact", false, 2}}, one);
  EXPECT_TRUE(outcome.waiting.empty());
  EXPECT_EQ(found(), (std::map<std::string, std::string>{{contacts[1], "missing"}}));
  EXPECT_TRUE(backup_->objectState("Contact")->deletedTried.empty());
}

TEST_F(DeletionFinderTest, WholeCopyComparesForFreeAndDocumentsTakeTheirVersions) {
  held("ContentDocument", {"069000000000001AAA", "069000000000002AAA"}, std::nullopt);
  held("ContentVersion", {"068000000000001AAA", "068000000000002AAA"}, std::nullopt);
  backup_->db().exec(
      "INSERT INTO file_versions (id, object, document_id) VALUES ('068000000000001AAA', "
      "'ContentVersion', '069000000000001AAA'), ('068000000000002AAA', 'ContentVersion', "
      "'069000000000002AAA')");
  const auto run = backup_->insertRun("whole", RunKind::full, "2024-01-02T00:00:00Z");
  // This run copied document 2 again; document 1 is gone.
  backup_->db()
      .prepare("UPDATE known_ids SET seen_run = ? WHERE id = '069000000000002AAA'")
      .bindInt(1, run)
      .run();
  DeletionFinder finder(*transport_, *backup_, lock_, run, store().now(), {});
  auto outcome = finder.findAll({{"ContentDocument", true, 1}}, nullptr, nullptr);
  EXPECT_EQ(outcome.found, 1);

  std::map<std::string, std::string> gone;
  for (const auto& deletion : backup_->deletions(run)) gone[deletion.id] = deletion.how;
  EXPECT_EQ(gone, (std::map<std::string, std::string>{{"068000000000001AAA", "missing"},
                                                       {"069000000000001AAA", "missing"}}));
  for (const auto& version : backup_->fileVersions())
    EXPECT_EQ(version.deleted, version.id == "068000000000001AAA") << version.id;
  EXPECT_FALSE(backup_->objectState("ContentDocument")->deletedChecked.empty());
}

}  // namespace
}  // namespace corvane
