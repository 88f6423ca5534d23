#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "dedupe/match_report.hpp"
#include "dedupe/plan_report.hpp"
#include "dedupe/snapshot_report.hpp"

namespace corvane {
namespace {

using ::testing::HasSubstr;

SnapshotRecord record(Rid rid, const std::string& sfid, const std::string& name) {
  SnapshotRecord out;
  out.rid = rid;
  out.sfid = sfid;
  out.name = name;
  out.created = "2024-01-0" + std::to_string(rid) + "T00:00:00Z";
  out.values = {name, name + "@acme.example"};
  return out;
}

// Two groups of Contacts: one merged into its oldest record, one held back.
ResolutionTask::Resolution twoGroups() {
  ResolutionTask::Resolution resolution;
  resolution.info.objectLabel = "Contact";
  resolution.info.recordCount = 40;
  ResolvedGroup merged;
  merged.group.id = 1;
  merged.records = {record(1, "003A", "Anna Bell"), record(2, "003B", "Ana Bell")};
  merged.keeperRid = 1;
  ResolvedGroup held;
  held.group.id = 2;
  held.records = {record(3, "003C", "Carl"), record(4, "003D", "Karl")};
  held.keeperRid = 3;
  resolution.groups = {merged, held};
  resolution.plan.action = ResolutionAction::merge();
  resolution.plan.groupCount = 1;
  PlannedMerge merge;
  merge.primary = "003A";
  merge.loser = "003B";
  merge.groupId = 1;
  merge.fieldValues = {{"Email", "anna@acme.example"}};
  merge.fieldSources = {{"Email", "003B"}};
  resolution.plan.merges = {merge};
  resolution.plan.heldBack = {{2, 2}};
  return resolution;
}

TEST(PlanReport, APlanNamesTheKeeperEachChangeAndTheGroupsHeldBack) {
  const ResolutionTask::Resolution resolution = twoGroups();
  const std::string text = PlanReport::text(resolution);
  EXPECT_THAT(text, HasSubstr("Plan for 40 Contact records: merge the other records into the "
                              "kept one."));
  EXPECT_THAT(text, HasSubstr("Group 1 (2 records): keep 003A (Anna Bell)."));
  EXPECT_THAT(text, HasSubstr("  merge 003B (Ana Bell) into it, setting Email = "
                              "\"anna@acme.example\" (from 003B (Ana Bell))\n"));
  EXPECT_THAT(text, HasSubstr("  Held back: 2 of its records differ from all the others. Look "
                              "at it, then add --include-held-back to resolve it too.\n"));
  EXPECT_THAT(text, HasSubstr("2 groups: 1 to resolve (1 merges, 0 deletes, 0 updates), 0 "
                              "skipped, 1 held back.\n"));

  const auto json = nlohmann::json::parse(PlanReport::json(resolution));
  EXPECT_EQ(json.at("action"), "merge");
  EXPECT_TRUE(json.at("decisions").is_null());
  EXPECT_EQ(json.at("groups")[0].at("keeper"), "003A");
  EXPECT_EQ(json.at("groups")[1].at("heldBack"), 2);
  EXPECT_EQ(json.at("merges")[0].at("fieldSources").at("Email"), "003B");
}

TEST(PlanReport, EachChangeSaysWhatBecameOfItAndTheCountsAddUp) {
  ResolutionTask::Resolution resolution = twoGroups();
  ResolutionTask::ApplyOutcome outcome;
  MergeRunner::MergeResult refused;
  refused.index = 0;
  refused.status = MergeRunner::MergeResult::Status::failed;
  refused.message = "entity is locked";
  outcome.merges = {refused};
  outcome.failed = 1;
  outcome.remembered = 2;
  outcome.resultsFailure = "The disk is full.";
  EXPECT_EQ(PlanReport::outcomeText(resolution, outcome),
            "Failed 003B into 003A (group 1): entity is locked\n"
            "0 done, 1 failed, 0 to check in Salesforce, 0 not done.\n");
  EXPECT_EQ(PlanReport::afterwardsText(outcome),
            "Remembered 2 records as not a duplicate: later matches leave them out.\n"
            "The results workbook was not written: The disk is full.\n");

  resolution.plan.action = ResolutionAction::deleteLosers();
  ChangeRunner::ChangeResult deleted;
  deleted.sfid = "003B";
  deleted.groupId = 1;
  deleted.status = ChangeRunner::ChangeResult::Status::done;
  outcome = {};
  outcome.changes = {deleted};
  outcome.done = 1;
  EXPECT_THAT(PlanReport::outcomeText(resolution, outcome), HasSubstr("Deleted 003B (group 1)\n"));
  EXPECT_EQ(PlanReport::problemsText({}, false), "");
  EXPECT_EQ(PlanReport::problemsText({"Row 3: Keep twice."}, false),
            "Problems in the workbook:\n  Row 3: Keep twice.\n");
}

TEST(MatchReport, GroupsListTheirRecordsAndTheStatisticsSayWhatWasLeftOut) {
  MatchTask::Outcome outcome;
  outcome.fields = {{"Name", "Full Name"}, {"Email", "Email"}};
  for (Rid rid : {1, 2}) outcome.records[rid] = record(rid, "003" + std::to_string(rid), "Anna");
  DuplicateGroup group;
  group.id = 7;
  group.members = {1, 2};
  outcome.match.groups = {group};
  outcome.match.stats.groupCount = 1;
  outcome.match.stats.recordsInGroups = 2;
  outcome.match.stats.recordsScanned = 10;
  outcome.match.stats.skippedBlankPerField = {0, 3};
  outcome.match.stats.skippedFillerPerField = {0, 1};
  const std::string text = MatchReport::text(outcome);
  EXPECT_THAT(text, HasSubstr("Group 7: 2 records, weakest link 1.0000. All matching fields are "
                              "exactly the same.\n  0031  Anna  (Anna | Anna@acme.example)\n"));
  EXPECT_THAT(text, HasSubstr("Email: 3 blank, 1 filler (\"we do not know\") values left out.\n"));
  EXPECT_EQ(text.find("Full Name:"), std::string::npos);

  const auto json = nlohmann::json::parse(MatchReport::json(outcome));
  EXPECT_EQ(json.at("groups")[0].at("members")[1].at("values").at("Email"), "Anna@acme.example");
  EXPECT_EQ(json.at("stats").at("recordsScanned"), 10);
}

TEST(SnapshotReport, TheListingAndTheProgressBarReadAsAPersonExpects) {
  SnapshotTask::Listing listing;
  listing.username = "admin@acme.example";
  EXPECT_EQ(SnapshotReport::text(listing), "No snapshots for admin@acme.example yet.\n");
  SnapshotInfo info;
  info.objectName = "Contact";
  info.recordCount = 1234;
  info.totalExpected = 2000;
  info.url = "/snapshots/Contact.sqlite";
  listing.snapshots = {info};
  EXPECT_THAT(SnapshotReport::text(listing), HasSubstr("1,234"));
  EXPECT_THAT(SnapshotReport::text(listing), HasSubstr("paused"));
  const auto json = nlohmann::json::parse(SnapshotReport::json(listing));
  EXPECT_TRUE(json.at("snapshots")[0].at("downloadedAt").is_null());

  DedupeProgress progress;
  progress.phase = DedupeProgress::Phase::downloading;
  progress.done = 10;
  progress.total = 20;
  EXPECT_THAT(SnapshotReport::progressBar(progress),
              HasSubstr("[###############---------------]  50%  10 of 20 records"));
}

TEST(SnapshotReport, ProgressRedrawsTheBarOnATerminalAndWritesALinePerPageElsewhere) {
  DedupeProgress preparing;
  preparing.phase = DedupeProgress::Phase::preparing;
  preparing.text = "Salesforce is preparing the records.";
  DedupeProgress page;
  page.phase = DedupeProgress::Phase::downloading;
  page.done = 20;
  page.total = 20;
  DedupeProgress finished;
  finished.phase = DedupeProgress::Phase::finished;
  const std::string bar = SnapshotReport::progressBar(page);

  SnapshotReport::ProgressLines terminal(true);
  EXPECT_EQ(terminal.accept(preparing), preparing.text + "\n");
  EXPECT_EQ(terminal.accept(preparing), "");
  EXPECT_EQ(terminal.accept(page), "\r" + bar + "\x1b[K");
  EXPECT_EQ(terminal.accept(finished), "\n");

  SnapshotReport::ProgressLines log(false);
  EXPECT_EQ(log.accept(page), bar + "\n");
  EXPECT_EQ(log.accept(page), bar + "\n");
  EXPECT_EQ(log.accept(finished), "");
}

}  // namespace
}  // namespace corvane
