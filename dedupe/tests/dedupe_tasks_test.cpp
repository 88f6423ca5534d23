// The engine's duplicate tasks as a face drives them: progress as data, a
// stop request honoured part-way with nothing half-written, typed failures.
// The tasks that talk to Salesforce run against the sample org.
#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "dedupe/decision_workbook_task.hpp"
#include "dedupe/match_task.hpp"
#include "dedupe/record_store.hpp"
#include "dedupe/resolution_task.hpp"
#include "dedupe/snapshot_catalog.hpp"
#include "dedupe/snapshot_task.hpp"
#include "dedupe/tests/sample_org_fixture.hpp"

namespace corvane {
namespace {

using Phase = DedupeProgress::Phase;

std::vector<Phase> phasesOf(const std::vector<DedupeProgress>& steps) {
  std::vector<Phase> phases;
  for (const DedupeProgress& step : steps) {
    if (phases.empty() || phases.back() != step.phase) phases.push_back(step.phase);
  }
  return phases;
}

class SampleOrgTaskTest : public testing::DedupeOrgFixture {
 protected:
  Org orgOf(const std::string& login) override {
    Org org = DedupeOrgFixture::orgOf(login);
    if (login == "other") org.username = "other@sample.org";
    return org;
  }

  SnapshotTask::DownloadRequest accounts() {
    SnapshotTask::DownloadRequest request;
    request.match = {SnapshotTask::parseMatchChoice("Name"),
                     SnapshotTask::parseMatchChoice("Industry:text:close")};
    request.extra = {"AnnualRevenue"};
    request.pageSize = 7;
    request.runner.firstPollDelay = std::chrono::milliseconds(5);
    return request;
  }

  bool noSnapshotFiles() {
    const auto folder = SnapshotCatalog::directory(store().identity().orgId);
    return !std::filesystem::exists(folder) || std::filesystem::is_empty(folder);
  }

};

TEST_F(SampleOrgTaskTest, ADownloadReportsItsPhasesAndAStopPausesItToResumeToTheSameRows) {
  orgsim::testing::addAccounts(store(), 25);
  std::vector<DedupeProgress> steps;
  const auto whole = SnapshotTask::download(
      *api_, findLogin_, "sample", "Account", accounts(), {},
      [&steps](const DedupeProgress& step) { steps.push_back(step); });
  EXPECT_FALSE(whole.stopped);
  EXPECT_EQ(whole.records, 25);
  const auto phases = phasesOf(steps);
  ASSERT_GE(phases.size(), 3u);
  EXPECT_EQ(phases.front(), Phase::starting);
  EXPECT_EQ(steps.front().item, whole.snapshot.string());
  EXPECT_EQ(phases.back(), Phase::finished);
  EXPECT_NE(std::find(phases.begin(), phases.end(), Phase::downloading), phases.end());
  EXPECT_EQ(steps.back().done, 25);

  // A stop asked for after the first page pauses between pages.
  std::stop_source stop;
  const auto paused = SnapshotTask::download(
      *api_, findLogin_, "sample", "Account", accounts(), stop.get_token(),
      [&stop](const DedupeProgress& step) {
        if (step.phase == Phase::downloading && step.done > 0) stop.request_stop();
      });
  EXPECT_TRUE(paused.stopped);
  const SnapshotInfo partial = RecordStore::open(paused.snapshot)->info();
  EXPECT_FALSE(partial.complete);
  EXPECT_EQ(partial.recordCount, paused.records);
  EXPECT_LT(paused.records, 25);

  // Another login may not continue it.
  try {
    SnapshotTask::resume(*api_, findLogin_, paused.snapshot, "other", {}, {});
    FAIL() << "another login continued the download";
  } catch (const DedupeError& error) {
    EXPECT_EQ(error.kind(), DedupeError::Kind::otherLogin);
  }
  const auto resumed = SnapshotTask::resume(*api_, findLogin_, paused.snapshot, "", {}, {});
  EXPECT_FALSE(resumed.stopped);
  auto a = RecordStore::open(whole.snapshot);
  auto b = RecordStore::open(paused.snapshot);
  ASSERT_TRUE(b->info().complete);
  std::vector<Rid> all;
  for (Rid rid = 1; rid <= static_cast<Rid>(a->recordCount()); ++rid) all.push_back(rid);
  EXPECT_EQ(a->records(all), b->records(all));

  EXPECT_TRUE(SnapshotTask::resume(*api_, findLogin_, paused.snapshot, "", {}, {}).alreadyComplete);
  const SnapshotTask::Listing listing = SnapshotTask::list(*api_, findLogin_, "sample");
  EXPECT_EQ(listing.snapshots.size(), 2u);
  EXPECT_GT(listing.bytesUsed, 0);
}

TEST_F(SampleOrgTaskTest, RefusedDownloadsAreTypedAndLeaveNoFile) {
  auto request = accounts();
  request.match.push_back({"NoSuchField__c", std::nullopt, std::nullopt});
  try {
    SnapshotTask::download(*api_, findLogin_, "sample", "Account", request, {});
    FAIL() << "an unknown field was accepted";
  } catch (const DedupeError& error) {
    EXPECT_EQ(error.kind(), DedupeError::Kind::unknownField);
  }
  request.match.clear();
  EXPECT_THROW(SnapshotTask::download(*api_, findLogin_, "sample", "Account", request, {}),
               DedupeError);
  // The org refuses a query job on this object: the file made for it goes again.
  request.match = {SnapshotTask::parseMatchChoice("Name")};
  request.extra.clear();
  EXPECT_THROW(SnapshotTask::download(*api_, findLogin_, "sample", "RecentlyViewed", request, {}),
               DownloadError);
  EXPECT_TRUE(noSnapshotFiles());
  EXPECT_THROW(SnapshotTask::remove(home_.path() / "nothing.sqlite"), DedupeError);
}

// Resolving Contacts in the sample org: the check before any change, and a
// stop during the merges that leaves the rest not attempted and says so.
class ResolutionTaskTest : public SampleOrgTaskTest {
 protected:
  void SetUp() override {
    SampleOrgTaskTest::SetUp();
    for (const char* name : {"Peter", "Anna", "Martha"}) {
      for (int copy = 0; copy < 2; ++copy) {
        admin("records/create",
              {{"object", "Contact"},
               {"fields", {{"FirstName", name}, {"LastName", "Twin"},
                           {"Email", std::string(name) + "@x.org"}, {"Department", "Show"}}}});
      }
    }
    SnapshotTask::DownloadRequest request;
    request.match = {SnapshotTask::parseMatchChoice("Name:personName:close"),
                     SnapshotTask::parseMatchChoice("Email:email:exact")};
    request.scope = "Department = 'Show'";
    request.runner.firstPollDelay = std::chrono::milliseconds(5);
    snapshot_ = SnapshotTask::download(*api_, findLogin_, "sample", "Contact", request, {}).snapshot;
  }

  std::filesystem::path snapshot_;
};

TEST_F(ResolutionTaskTest, ChangesOnlyAfterACleanCheckAndAStopLeavesTheRestNotAttempted) {
  ResolutionTask::Request request;
  request.forApply = true;
  const auto resolution = ResolutionTask::plan(*api_, findLogin_, snapshot_, request, {});
  ASSERT_EQ(resolution.plan.merges.size(), 3u);
  ASSERT_TRUE(resolution.org);

  std::vector<DedupeProgress> steps;
  const auto record = [&steps](const DedupeProgress& step) { steps.push_back(step); };
  const auto checked = ResolutionTask::check(*api_, resolution, {}, record);
  ASSERT_EQ(steps.size(), 1u);
  EXPECT_EQ(steps.front().phase, Phase::checking);
  EXPECT_EQ(steps.front().total, 6);
  EXPECT_TRUE(checked.allFresh());
  EXPECT_EQ(checked.fresh.size(), 6u);

  // An unchecked plan (or one whose check found changes) changes nothing.
  ResolutionPreflight::Outcome stale = checked;
  stale.changed.push_back(stale.fresh.back());
  EXPECT_THROW(ResolutionTask::apply(*api_, resolution, stale, {}, {}), PreflightError);

  std::stop_source stop;
  steps.clear();
  const auto outcome = ResolutionTask::apply(
      *api_, resolution, checked, {}, stop.get_token(), [&](const DedupeProgress& step) {
        steps.push_back(step);
        if (step.done == 1) stop.request_stop();
      });
  EXPECT_EQ(phasesOf(steps), std::vector<Phase>{Phase::changing});
  EXPECT_TRUE(outcome.stopped);
  EXPECT_EQ(outcome.done, 1u);
  EXPECT_EQ(outcome.notDone, 2u);
  ASSERT_EQ(outcome.merges.size(), 3u);
  EXPECT_EQ(outcome.merges[2].status, MergeRunner::MergeResult::Status::notAttempted);
  try {
    outcome.throwIfIncomplete();
    FAIL() << "a stopped run counted as complete";
  } catch (const DedupeError& error) {
    EXPECT_EQ(error.kind(), DedupeError::Kind::stoppedPartWay);
    EXPECT_EQ(error.description(),
              "Stopped as you asked: 1 change was made, 2 were not. Download a fresh copy and "
              "apply again to finish.");
  }
  const auto left = query("SELECT Id FROM Contact WHERE Department = 'Show'", 200);
  EXPECT_EQ(left["records"].size(), 5u);

  // A plan asked to stop before it starts gives nothing.
  std::stop_source early;
  early.request_stop();
  try {
    ResolutionTask::plan(*api_, findLogin_, snapshot_, request, early.get_token());
    FAIL() << "a stopped plan was made";
  } catch (const DedupeError& error) {
    EXPECT_EQ(error.kind(), DedupeError::Kind::stopped);
  }
}

}  // namespace
}  // namespace corvane

namespace corvane {
namespace {

// The tasks on a snapshot on disk: matching and the decision workbook.
class SnapshotFileTaskTest : public ::testing::Test {
 protected:
  void SetUp() override {
    RecordStore::Creation creation;
    creation.orgId = "00D000000000001";
    creation.objectName = "Contact";
    creation.objectLabel = "Contact";
    creation.matchFields = {{"Name", "Full Name", MatchKind::personName, MatchMode::close},
                            {"Email", "Email", MatchKind::email, MatchMode::exact}};
    url_ = folder_.path() / "contacts.sqlite";
    const auto row = [](std::string id, std::string name, std::string email) {
      return RecordStore::Incoming{id, name, "", "", {name, email}, {}};
    };
    RecordStore::create(url_, creation)
        ->ingest({row("003000000000001", "Martha Jones", "m@x.com"),
                  row("003000000000002", "Marhta Jones", "m@x.com"),
                  row("003000000000003", "Peter Quinn", "p@x.com"),
                  row("003000000000004", "Peter Quinn", "p@x.com")},
                 "null");
  }

  TemporaryFolder folder_;
  std::filesystem::path url_;
};

TEST_F(SnapshotFileTaskTest, MatchReportsItsStepsAndHandsBackTheGroupedRecords) {
  std::vector<DedupeProgress> steps;
  const MatchTask::Outcome outcome = MatchTask::run(
      url_, {}, {}, [&steps](const DedupeProgress& step) { steps.push_back(step); });
  ASSERT_EQ(outcome.match.groups.size(), 2u);
  EXPECT_EQ(outcome.records.size(), 4u);
  EXPECT_EQ(outcome.fields.size(), 2u);
  ASSERT_FALSE(steps.empty());
  EXPECT_EQ(phasesOf(steps), std::vector<Phase>{Phase::matching});
  EXPECT_EQ(steps.front().text, "Reading your local copy");

  EXPECT_THROW(MatchTask::run(folder_.path() / "missing.sqlite", {}, {}), DedupeError);
  try {
    MatchTask::exclude(url_, {"003000000000001", "003999999999999"});
    FAIL() << "an unknown record was marked";
  } catch (const DedupeError& error) {
    EXPECT_EQ(error.kind(), DedupeError::Kind::unknownRecord);
  }
  EXPECT_TRUE(RecordStore::open(url_)->exclusions().empty());
}

TEST_F(SnapshotFileTaskTest, AStoppedExportWritesNeitherTheWorkbookNorTheGroups) {
  const auto workbook = folder_.path() / "decisions.xlsx";
  std::stop_source stop;
  try {
    DecisionWorkbookTask::exportWorkbook(url_, workbook, {}, stop.get_token(),
                                         [&stop](const DedupeProgress&) { stop.request_stop(); });
    FAIL() << "a stopped export went on";
  } catch (const DedupeError& error) {
    EXPECT_EQ(error.kind(), DedupeError::Kind::stopped);
  }
  EXPECT_FALSE(std::filesystem::exists(workbook));
  EXPECT_FALSE(RecordStore::open(url_)->meta("decisionWorkbookGroups"));

  std::vector<DedupeProgress> steps;
  const auto exported = DecisionWorkbookTask::exportWorkbook(
      url_, workbook, {}, {}, [&steps](const DedupeProgress& step) { steps.push_back(step); });
  EXPECT_EQ(exported.groups.size(), 2u);
  EXPECT_EQ(exported.recordCount, 4u);
  ASSERT_FALSE(steps.empty());
  EXPECT_EQ(steps.back().phase, Phase::writing);
  EXPECT_EQ(steps.back().item, workbook.string());
  EXPECT_TRUE(std::filesystem::exists(workbook));
  const auto decisions = DecisionWorkbookTask::readDecisions(url_, workbook, {});
  EXPECT_EQ(decisions.untouched, 4);
  EXPECT_TRUE(decisions.keeps.empty() && decisions.deletes.empty());
}

}  // namespace
}  // namespace corvane
