// Leads that are already Contacts, marked Delete in the decision workbook,
// carried out by an apply in the sample org: deleted beside the merges of
// the workbook's groups, journaled so that an undo brings them back, refused
// when changed since the snapshot, or tagged with the Contact's Id instead.
#include <gtest/gtest.h>

#include <algorithm>

#include "dedupe/decision_workbook_task.hpp"
#include "dedupe/plan_report.hpp"
#include "dedupe/resolution_task.hpp"
#include "dedupe/snapshot_task.hpp"
#include "dedupe/undo_error.hpp"
#include "dedupe/undo_task.hpp"
#include "dedupe/tests/sample_org_fixture.hpp"
#include "dedupe/tests/typed_decisions.hpp"
#include "workbook/xlsx_reader.hpp"

namespace corvane {
namespace {

class AlreadyThereApplyTest : public testing::DedupeOrgFixture {
 protected:
  void SetUp() override {
    DedupeOrgFixture::SetUp();
    const std::string acme = create("Account", {{"Name", "ACME Corporation"}});
    bob_ = create("Contact", {{"FirstName", "Bob"},
                              {"LastName", "Fox"},
                              {"Email", "rfox@acme.com"},
                              {"AccountId", acme}});
    jane_ = create("Contact", {{"FirstName", "Jane"},
                               {"LastName", "Doe"},
                               {"Email", "jdoe@acme.com"},
                               {"AccountId", acme}});
    robert_ = create("Lead", {{"FirstName", "Robert"},
                              {"LastName", "Fox"},
                              {"Company", "Globex"},
                              {"Email", "rfox@acme.com"}});
    janeLead_ = create("Lead", {{"FirstName", "Jane"},
                                {"LastName", "Doe"},
                                {"Company", "Initrode"},
                                {"Email", "jdoe@acme.com"}});
    markKept_ = create("Lead", {{"FirstName", "Mark"},
                                {"LastName", "Tanaka"},
                                {"Company", "Umbrella"},
                                {"Email", "mark@umbrella.com"}});
    admin("clock", {{"advanceSeconds", 60}});
    markCopy_ = create("Lead", {{"FirstName", "Mark"},
                                {"LastName", "Tanaka"},
                                {"Company", "Umbrella"},
                                {"Email", "mark@umbrella.com"}});
    admin("clock", {{"advanceSeconds", 60}});
    leads_ = download("Lead", {"FirstName:personName:close", "LastName:personName:close",
                               "Company:companyName:close", "Email"});
    contacts_ =
        download("Contact", {"FirstName:personName:close", "LastName:personName:close", "Email"});
  }
  // Exports the Leads' workbook against the Contacts and types Delete on the
  // rows of the ids given, as a user would in a spreadsheet program.
  std::filesystem::path decide(const std::vector<std::string>& deletes) {
    const auto exported = home_.path() / "leads.xlsx";
    DecisionWorkbookTask::ExportRequest request;
    request.against = contacts_;
    DecisionWorkbookTask::exportWorkbook(leads_, exported, request, {});
    std::map<std::string, std::string> actions;
    for (const std::string& id : deletes) actions[id] = "Delete";
    const auto edited = home_.path() / "edited.xlsx";
    testing::typeDecisions(exported, actions, edited);
    return edited;
  }

  ResolutionTask::Resolution plan(const std::filesystem::path& workbook,
                                  ResolutionAction action = ResolutionAction::merge()) {
    ResolutionTask::Request request;
    request.forApply = true;
    request.decisions = workbook;
    request.action = action;
    return ResolutionTask::plan(*api_, findLogin_, leads_, request, {});
  }

  bool live(const std::string& id) {
    return query("SELECT Id FROM Lead WHERE Id = '" + id + "'")["totalSize"] == 1;
  }
  bool inTheBin(const std::string& id) {
    return query("SELECT Id FROM Lead WHERE IsDeleted = true AND Id = '" + id + "'", 200,
                 "queryAll")["totalSize"] == 1;
  }

  std::string bob_, jane_, robert_, janeLead_, markKept_, markCopy_;
  std::filesystem::path leads_, contacts_;
};

TEST_F(AlreadyThereApplyTest, DeletesTheLeadBesideTheGroupsMergesAndUndoBringsItBack) {
  const auto workbook = decide({robert_, markCopy_});
  const auto resolution = plan(workbook);
  ASSERT_EQ(resolution.plan.merges.size(), 1u);
  ASSERT_EQ(resolution.plan.already.size(), 1u);
  EXPECT_EQ(resolution.plan.already[0].sfid, robert_);
  EXPECT_EQ(resolution.plan.already[0].groupId, 0);
  const std::string text = PlanReport::text(resolution);
  EXPECT_NE(text.find("Already there as Contact, marked Delete:\n  delete " + robert_ +
                      " (Robert Fox). Already there as Contact " + bob_ + " (Bob Fox).\n"),
            std::string::npos)
      << text;
  EXPECT_EQ(text.find(janeLead_), std::string::npos) << "a blank row was planned";
  const auto json = nlohmann::json::parse(PlanReport::json(resolution));
  ASSERT_EQ(json["already"].size(), 1u);
  EXPECT_EQ(json["already"][0]["id"], robert_);
  EXPECT_EQ(json["decisions"]["already"][0]["otherId"], bob_);

  EXPECT_EQ(PlanReport::whatItWrites(resolution),
            "make 1 merges, 0 deletes and 0 updates of Lead records, and delete 1 record "
            "already there");

  const auto checked = ResolutionTask::check(*api_, resolution, {});
  ASSERT_TRUE(checked.allFresh());
  EXPECT_EQ(checked.fresh.size(), 3u);  // the group's two and the lead already there
  const auto results = home_.path() / "results.xlsx";
  const auto outcome = ResolutionTask::apply(*api_, resolution, checked, {.results = results}, {});
  ASSERT_EQ(outcome.already.size(), 1u);
  EXPECT_EQ(outcome.already[0].status, ChangeRunner::ChangeResult::Status::done);
  EXPECT_EQ(outcome.done, 2u);
  EXPECT_NO_THROW(outcome.throwIfIncomplete());
  EXPECT_FALSE(live(robert_));
  EXPECT_TRUE(inTheBin(robert_));
  EXPECT_FALSE(live(markCopy_));
  EXPECT_TRUE(live(janeLead_));
  EXPECT_NE(PlanReport::outcomeText(resolution, outcome)
                .find("Deleted " + robert_ + " (already there)\n"),
            std::string::npos);

  auto sheet = XlsxReader(results).readSheet(0);
  ASSERT_TRUE(sheet);
  bool found = false;
  for (const auto& row : sheet->rows) {
    if (std::find(row.begin(), row.end(), robert_) == row.end()) continue;
    found = true;
    EXPECT_NE(std::find(row.begin(), row.end(), "Delete"), row.end());
    EXPECT_NE(std::find(row.begin(), row.end(), "Deleted"), row.end());
  }
  EXPECT_TRUE(found) << "no results row for the lead already there";

  // Undone with the group's merge: both leads are back.
  admin("clock", {{"advanceSeconds", 60}});
  const auto prepared = UndoTask::prepare(findLogin_, leads_, {});
  ASSERT_EQ(prepared.groups.size(), 2u);
  const auto undone = UndoTask::run(*api_, prepared, {}, {});
  EXPECT_EQ(undone.count(UndoTask::GroupResult::Status::undone), 2u) << UndoTask::text(undone);
  EXPECT_NE(UndoTask::text(undone).find("Group -1 (Lead): undone: 1 record back from the Recycle "
                                        "Bin"),
            std::string::npos)
      << UndoTask::text(undone);
  EXPECT_TRUE(live(robert_));
  EXPECT_TRUE(live(markCopy_));
}

TEST_F(AlreadyThereApplyTest, ALeadChangedSinceTheSnapshotStopsTheRunBeforeAnyChange) {
  const auto resolution = plan(decide({robert_, markCopy_}));
  admin("clock", {{"advanceSeconds", 60}});
  admin("records/update", {{"id", robert_}, {"fields", {{"Company", "Globex Inc"}}}});
  const auto checked = ResolutionTask::check(*api_, resolution, {});
  ASSERT_EQ(checked.changed.size(), 1u);
  EXPECT_EQ(checked.changed[0].sfid, robert_);
  EXPECT_THROW(ResolutionTask::apply(*api_, resolution, checked, {}, {}), PreflightError);
  EXPECT_TRUE(live(robert_));
  EXPECT_TRUE(live(markCopy_));
}

TEST_F(AlreadyThereApplyTest, TagWritesTheContactsIdIntoTheLeadInsteadOfDeletingIt) {
  const auto resolution =
      plan(decide({robert_, janeLead_, markCopy_}), ResolutionAction::tagLosers("Description"));
  ASSERT_EQ(resolution.plan.already.size(), 2u);
  EXPECT_NE(PlanReport::text(resolution)
                .find("tag " + robert_ + " (Robert Fox), setting Description = \"" + bob_),
            std::string::npos);
  const auto checked = ResolutionTask::check(*api_, resolution, {});
  const auto outcome = ResolutionTask::apply(*api_, resolution, checked, {}, {});
  EXPECT_NO_THROW(outcome.throwIfIncomplete()) << PlanReport::outcomeText(resolution, outcome);
  EXPECT_EQ(outcome.done, 3u);
  const auto description = [&](const std::string& id) {
    return query("SELECT Description FROM Lead WHERE Id = '" + id +
                 "'")["records"][0]["Description"];
  };
  EXPECT_EQ(description(robert_), bob_);
  EXPECT_EQ(description(janeLead_), jane_);
  EXPECT_EQ(description(markCopy_), markKept_);
  EXPECT_TRUE(live(robert_));

  // A field the Lead cannot take refuses the plan, naming the lead.
  try {
    plan(decide({robert_}), ResolutionAction::tagLosers("NoSuchField"));
    FAIL() << "a tag into a missing field was planned";
  } catch (const DedupeError& error) {
    EXPECT_EQ(error.kind(), DedupeError::Kind::problems);
    ASSERT_EQ(error.details().size(), 1u);
    EXPECT_NE(error.details()[0].find(robert_), std::string::npos);
  }
}

TEST_F(AlreadyThereApplyTest, UndoClearsTheTagsButRefusesAFieldEditedSinceUnlessForced) {
  const auto resolution =
      plan(decide({robert_, janeLead_, markCopy_}), ResolutionAction::tagLosers("Description"));
  const auto checked = ResolutionTask::check(*api_, resolution, {});
  ASSERT_NO_THROW(ResolutionTask::apply(*api_, resolution, checked, {}, {}).throwIfIncomplete());
  const auto description = [&](const std::string& id) {
    return query("SELECT Description FROM Lead WHERE Id = '" + id +
                 "'")["records"][0]["Description"];
  };
  ASSERT_EQ(description(robert_), bob_);
  admin("clock", {{"advanceSeconds", 60}});
  admin("records/update", {{"id", janeLead_}, {"fields", {{"Description", "Checked by hand"}}}});

  auto prepared = UndoTask::prepare(findLogin_, leads_, {});
  ASSERT_EQ(prepared.groups.size(), 2u);  // the group's tag and the leads already there
  try {
    UndoTask::run(*api_, prepared, {}, {});
    FAIL() << "a tag edited since the apply was set back";
  } catch (const UndoError& error) {
    EXPECT_EQ(error.kind(), UndoError::Kind::refused);
    ASSERT_EQ(error.details().size(), 1u);
    EXPECT_NE(error.details()[0].find(janeLead_), std::string::npos) << error.details()[0];
    EXPECT_NE(error.details()[0].find("Description"), std::string::npos) << error.details()[0];
  }
  EXPECT_EQ(description(robert_), bob_) << "a refused undo changed something";

  UndoTask::Request force;
  force.force = true;
  const auto undone = UndoTask::run(*api_, prepared, force, {});
  const std::string text = UndoTask::text(undone);
  EXPECT_EQ(undone.count(UndoTask::GroupResult::Status::undone), 2u) << text;
  EXPECT_NE(text.find("Group -1 (Lead): undone: Description set back on 2 records (1 had been "
                      "changed since the apply)."),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("Group 1 (Lead " + markKept_ + "): undone: Description set back on 1 "
                      "record."),
            std::string::npos)
      << text;
  for (const std::string& id : {robert_, janeLead_, markCopy_}) {
    EXPECT_TRUE(description(id).is_null()) << id;
  }
  EXPECT_EQ(UndoTask::json(undone)["groups"][0]["recordsReset"], 2);

  // Run again: nothing left to do.
  prepared = UndoTask::prepare(findLogin_, leads_, {});
  const auto again = UndoTask::run(*api_, prepared, {}, {});
  EXPECT_EQ(again.count(UndoTask::GroupResult::Status::alreadyUndone), 2u);
}

}  // namespace
}  // namespace corvane
