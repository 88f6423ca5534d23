// Undoing an apply's merges in the sample org: the records come back from
// the Recycle Bin, their children go back to them, the kept record takes back
// its old values; refusals for a kept record changed since and a record no
// longer in the bin; a stop and a lost reply part-way, then the same call
// again, doing nothing twice; two applies from one snapshot whose groups
// share a number, both undone.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <vector>

#include "dedupe/decision_workbook_task.hpp"
#include "dedupe/resolution_task.hpp"
#include "dedupe/snapshot_task.hpp"
#include "dedupe/undo_task.hpp"
#include "platform/sqlite_db.hpp"
#include "dedupe/tests/sample_org_fixture.hpp"
#include "dedupe/tests/typed_decisions.hpp"

namespace corvane {
namespace {

using Status = UndoTask::GroupResult::Status;

class UndoTaskTest : public testing::DedupeOrgFixture {
 protected:
  void later() { admin("clock", {{"advanceSeconds", 60}}); }

  // Three groups of Accounts: the first of each (created first, kept) has no
  // phone, the others have one, and each loser has a Contact, a Case, a
  // Task, a Note and a file.
  void accounts() {
    const std::vector<std::pair<std::string, int>> groups = {
        {"Acme Widgets", 2}, {"Globex Trading", 3}, {"Initech Systems", 2}};
    for (const auto& [name, size] : groups) {
      keepers_.push_back(create("Account", {{"Name", name}, {"Site", "Undo"}}));
    }
    later();
    for (const auto& [name, size] : groups) {
      for (int copy = 1; copy < size; ++copy) {
        const std::string loser =
            create("Account",
                   {{"Name", name}, {"Site", "Undo"}, {"Phone", "555-010" + std::to_string(copy)}});
        const std::string contact =
            create("Contact", {{"LastName", name + " person"}, {"AccountId", loser}});
        create("Case", {{"Subject", "Broken"}, {"AccountId", loser}, {"ContactId", contact}});
        create("Task", {{"Subject", "Call"}, {"WhatId", loser}});
        // Beyond the usual children: a child Account and a custom object's record.
        create("Account", {{"Name", name + " branch"}, {"Site", "Branch"}, {"ParentId", loser}});
        create("Invoice__c", {{"Name", name + " invoice"}, {"Account__c", loser}});
        create("Note",
               {{"Title", "Met " + std::to_string(copy)}, {"Body", "Nice"}, {"ParentId", loser}});
        create("ContentVersion", {{"Title", "Plan"},
                                  {"PathOnClient", "plan.txt"},
                                  {"VersionData", "aGVsbG8="},
                                  {"FirstPublishLocationId", loser}});
      }
    }
    later();
    snapshot_ = download("Account", {"Name"}, {"Phone"}, "Site = 'Undo'");
  }

  // Merges every group, the kept record taking the first phone it lacks.
  ResolutionTask::ApplyOutcome apply(const std::filesystem::path& snapshot) {
    ResolutionTask::Request request;
    request.forApply = true;
    request.keepValues.add("nonEmpty");
    const auto resolution = ResolutionTask::plan(*api_, findLogin_, snapshot, request, {});
    const auto checked = ResolutionTask::check(*api_, resolution, {});
    auto outcome = ResolutionTask::apply(*api_, resolution, checked, {}, {});
    for (const auto& merge : outcome.merges) {
      EXPECT_EQ(merge.status, MergeRunner::MergeResult::Status::merged)
          << merge.message.value_or("");
    }
    outcome.throwIfIncomplete();
    later();
    return outcome;
  }

  // What a user would compare: every live record of the objects an Account
  // merge touches, with its parent.
  std::map<std::string, std::multiset<std::string>> picture() {
    std::map<std::string, std::multiset<std::string>> out;
    const auto rows = [&](const std::string& object, const std::string& soql) {
      const auto reply = query(soql);
      for (const auto& record : reply["records"]) {
        std::string line;
        for (const auto& [field, value] : record.items()) {
          if (field != "attributes") line += field + "=" + value.dump() + " ";
        }
        out[object].insert(line);
      }
    };
    rows("Account", "SELECT Id, Name, Phone, Fax, Site FROM Account WHERE Site = 'Undo'");
    rows("Contact", "SELECT Id, AccountId, LastName FROM Contact");
    rows("Case", "SELECT Id, AccountId, ContactId FROM Case");
    rows("Task", "SELECT Id, WhatId, WhoId FROM Task");
    rows("Note", "SELECT Title, ParentId FROM Note");
    rows("CampaignMember", "SELECT CampaignId, ContactId FROM CampaignMember");
    rows("Branch", "SELECT Id, ParentId FROM Account WHERE Site = 'Branch'");
    rows("Invoice__c", "SELECT Id, Account__c FROM Invoice__c");
    std::vector<std::string> ids;
    const auto accounts = query("SELECT Id FROM Account WHERE Site = 'Undo'");
    for (const auto& record : accounts["records"]) ids.push_back(record["Id"]);
    std::string list;
    for (const auto& id : ids) list += (list.empty() ? "'" : ",'") + id + "'";
    if (!list.empty()) {
      rows("ContentDocumentLink",
           "SELECT ContentDocumentId, LinkedEntityId FROM ContentDocumentLink WHERE "
           "LinkedEntityId IN (" +
               list + ")");
    }
    return out;
  }

  UndoTask::Outcome undo(const UndoTask::Request& request, std::stop_token stop = {},
                         const DedupeProgressHandler& onProgress = {}) {
    const auto prepared = UndoTask::prepare(findLogin_, snapshot_, request);
    return UndoTask::run(*api_, prepared, request, stop, onProgress);
  }

  // Exports the decision workbook and types in it, as a user would in a
  // spreadsheet program, Not a duplicate on every record of the group
  // numbered exclude and Delete on every record but the kept one of the group
  // numbered merge; then applies it. Returns the workbook's groups.
  std::vector<DecisionWorkbook::DecidedGroup> applyDecisions(std::int64_t exclude,
                                                             std::int64_t merge) {
    const auto exported = home_.path() / "decisions.xlsx";
    const auto groups = DecisionWorkbookTask::exportWorkbook(snapshot_, exported, {}, {}).groups;
    std::map<std::string, std::string> actions;
    for (const auto& group : groups) {
      for (const std::string& id : group.recordIds) {
        if (group.id == exclude) actions[id] = "Not a duplicate";
        if (group.id == merge && std::count(keepers_.begin(), keepers_.end(), id) == 0)
          actions[id] = "Delete";
      }
    }
    const auto edited = home_.path() / "edited.xlsx";
    testing::typeDecisions(exported, actions, edited);

    ResolutionTask::Request request;
    request.forApply = true;
    request.decisions = edited;
    request.keepValues.add("nonEmpty");
    const auto resolution = ResolutionTask::plan(*api_, findLogin_, snapshot_, request, {});
    const auto checked = ResolutionTask::check(*api_, resolution, {});
    const auto outcome = ResolutionTask::apply(*api_, resolution, checked, {}, {});
    EXPECT_GT(outcome.done, 0u);
    outcome.throwIfIncomplete();
    later();
    return groups;
  }

  // Two applies from the snapshot, each merging a group numbered 2: the
  // first the second group, leaving the first out as not duplicates, so that
  // the next export numbers the third group 2, which the second apply merges.
  // between runs after the first apply. Returns the kept records of the
  // groups merged, the first apply's first.
  std::vector<std::string> twoAppliesOfGroupTwo(const std::function<void()>& between = {}) {
    const auto first = applyDecisions(1, 2);
    if (between) between();
    const auto second = applyDecisions(0, 2);
    std::vector<std::string> kept;
    for (const auto& groups : {first, second}) {
      for (const auto& group : groups) {
        if (group.id != 2) continue;
        for (const std::string& id : group.recordIds) {
          if (std::count(keepers_.begin(), keepers_.end(), id)) kept.push_back(id);
        }
      }
    }
    EXPECT_EQ(kept.size(), 2u);
    EXPECT_EQ(second.size(), first.size() - 1);  // the second export left one group out
    if (kept.size() == 2) {
      EXPECT_NE(kept[0], kept[1]);
    }
    return kept;
  }

  std::string phoneOf(const std::string& id) {
    return query("SELECT Phone FROM Account WHERE Id = '" + id + "'")["records"][0]["Phone"].dump();
  }

  std::vector<std::string> keepers_;
  std::filesystem::path snapshot_;
};

TEST_F(UndoTaskTest, PutsMergedAccountsTheirChildrenAndTheKeptValuesBackAsTheyWere) {
  accounts();
  const auto before = picture();
  const auto applied = apply(snapshot_);
  ASSERT_EQ(applied.done, 4u);
  ASSERT_NE(picture(), before);
  EXPECT_EQ(phoneOf(keepers_[0]), "\"555-0101\"");
  EXPECT_EQ(query("SELECT Id FROM Account WHERE Site = 'Undo'")["records"].size(), 3u);

  std::vector<DedupeProgress> steps;
  const auto outcome = undo({}, {}, [&](const DedupeProgress& step) { steps.push_back(step); });
  ASSERT_EQ(outcome.groups.size(), 3u);
  EXPECT_EQ(outcome.count(Status::undone), 3u) << UndoTask::text(outcome);
  EXPECT_NO_THROW(outcome.throwIfIncomplete());
  std::size_t restored = 0;
  for (const auto& group : outcome.groups) {
    EXPECT_EQ(group.fieldsReset, 1u);  // the phone it took
    restored += group.restored;
  }
  EXPECT_EQ(restored, 4u);
  EXPECT_EQ(picture(), before);
  EXPECT_EQ(phoneOf(keepers_[0]), "null");
  ASSERT_FALSE(steps.empty());
  EXPECT_EQ(steps.front().phase, DedupeProgress::Phase::checking);
  EXPECT_EQ(steps.back().phase, DedupeProgress::Phase::changing);
  EXPECT_EQ(steps.back().done, 3);

  // Again: every group is reported as done before, and nothing is sent.
  const auto again = undo({});
  EXPECT_EQ(again.count(Status::alreadyUndone), 3u);
  EXPECT_EQ(picture(), before);
  const auto text = UndoTask::text(again);
  EXPECT_NE(text.find("already undone"), std::string::npos) << text;
}

TEST_F(UndoTaskTest, GapsFilledInOnTheKeptRecordsAreEmptiedAgain) {
  const std::string kept = create("Account", {{"Name", "Umbrella Corp"}, {"Site", "Gaps"}});
  later();
  create("Account", {{"Name", "Umbrella Corp"},
                     {"Site", "Gaps"},
                     {"Phone", "555-0199"},
                     {"AnnualRevenue", 1500}});
  later();
  snapshot_ = download("Account", {"Name"}, {"Phone", "AnnualRevenue"}, "Site = 'Gaps'");
  ResolutionTask::Request request;
  request.forApply = true;
  request.action = ResolutionAction::fillGaps();
  const auto resolution = ResolutionTask::plan(*api_, findLogin_, snapshot_, request, {});
  ASSERT_EQ(resolution.plan.updates.size(), 1u);
  const auto checked = ResolutionTask::check(*api_, resolution, {});
  ResolutionTask::apply(*api_, resolution, checked, {}, {}).throwIfIncomplete();
  const auto values = [&] {
    return query("SELECT Phone, AnnualRevenue FROM Account WHERE Id = '" + kept + "'")["records"][0];
  };
  ASSERT_EQ(values()["Phone"], "555-0199");
  ASSERT_EQ(values()["AnnualRevenue"], 1500);
  later();

  // A number comes back as a number, not as the text written: not a change.
  const auto outcome = undo({});
  ASSERT_EQ(outcome.groups.size(), 1u);
  EXPECT_EQ(outcome.count(Status::undone), 1u) << UndoTask::text(outcome);
  EXPECT_EQ(outcome.groups[0].action, "update");
  EXPECT_EQ(outcome.groups[0].recordsReset, 1u);
  EXPECT_EQ(outcome.groups[0].forcedRecords, 0u);
  EXPECT_TRUE(values()["Phone"].is_null());
  EXPECT_TRUE(values()["AnnualRevenue"].is_null());
  EXPECT_NE(UndoTask::text(outcome).find("undone: AnnualRevenue, Phone set back on 1 record."),
            std::string::npos)
      << UndoTask::text(outcome);
}

TEST_F(UndoTaskTest, ContactsGetTheirTasksAndCampaignMembersBackOneChosenGroupAtATime) {
  const std::string campaign = create("Campaign", {{"Name", "Spring"}});
  std::vector<std::string> people = {"Ada", "Grace"};
  for (const std::string& first : people) {
    create("Contact", {{"FirstName", first},
                       {"LastName", "Twin"},
                       {"Email", first + "@x.org"},
                       {"Department", "Undo"}});
  }
  later();
  for (const std::string& first : people) {
    const std::string loser = create("Contact", {{"FirstName", first},
                                                 {"LastName", "Twin"},
                                                 {"Email", first + "@x.org"},
                                                 {"Department", "Undo"},
                                                 {"Title", "Lead " + first}});
    create("Task", {{"Subject", "Call"}, {"WhoId", loser}});
    create("CampaignMember", {{"CampaignId", campaign}, {"ContactId", loser}, {"Status", "Sent"}});
  }
  later();
  snapshot_ = download("Contact", {"Name:personName:close", "Email:email:exact"}, {"Title"},
                       "Department = 'Undo'");
  const auto before = picture();
  apply(snapshot_);
  const auto merged = picture();
  ASSERT_NE(merged, before);

  const auto prepared = UndoTask::prepare(findLogin_, snapshot_, {});
  ASSERT_EQ(prepared.groups.size(), 2u);
  const std::int64_t first = prepared.groups[0].groupId;
  const std::int64_t second = prepared.groups[1].groupId;
  EXPECT_THROW(UndoTask::prepare(findLogin_, snapshot_, {{first + second + 100}, false, ""}),
               UndoError);

  const auto one = undo({{second}, false, ""});
  ASSERT_EQ(one.groups.size(), 1u);
  EXPECT_EQ(one.groups[0].status, Status::undone);
  EXPECT_EQ(one.groups[0].moved, 1u);     // the task
  EXPECT_EQ(one.groups[0].relinked, 1u);  // the campaign member
  const auto half = picture();
  EXPECT_NE(half, before);
  EXPECT_EQ(half.at("Contact").size(), before.at("Contact").size() - 1);

  const auto rest = undo({});
  EXPECT_EQ(rest.count(Status::undone), 1u);
  EXPECT_EQ(rest.count(Status::alreadyUndone), 1u);
  EXPECT_EQ(picture(), before);
}

TEST_F(UndoTaskTest, AMergeWhoseReplyWasLostAndDeletedRecordsAreUndoneToo) {
  accounts();
  const auto before = picture();
  // The reply to the first merge is lost after Salesforce made it: the
  // journal was written before it left, so it can be undone all the same.
  admin("faults", {{"path", "/services/Soap/u/*"}, {"fault", "drop"}, {"count", 1}});
  ResolutionTask::Request request;
  request.forApply = true;
  const auto resolution = ResolutionTask::plan(*api_, findLogin_, snapshot_, request, {});
  const auto checked = ResolutionTask::check(*api_, resolution, {});
  const auto outcome = ResolutionTask::apply(*api_, resolution, checked, {}, {});
  ASSERT_EQ(outcome.unknown, 1u);
  ASSERT_EQ(outcome.done, 3u);
  later();
  const auto undone = undo({});
  EXPECT_EQ(undone.count(Status::undone), 3u) << UndoTask::text(undone);
  EXPECT_EQ(picture(), before);

  // Deleting instead of merging: the records come back from the bin.
  const auto snapshot = download("Account", {"Name"}, {}, "Site = 'Undo'");
  request.action = ResolutionAction::deleteLosers();
  const auto deleting = ResolutionTask::plan(*api_, findLogin_, snapshot, request, {});
  const auto deleted =
      ResolutionTask::apply(*api_, deleting, ResolutionTask::check(*api_, deleting, {}), {}, {});
  ASSERT_EQ(deleted.done, 4u);
  ASSERT_EQ(query("SELECT Id FROM Account WHERE Site = 'Undo'")["records"].size(), 3u);
  snapshot_ = snapshot;
  const auto back = undo({});
  EXPECT_EQ(back.count(Status::undone), 3u) << UndoTask::text(back);
  EXPECT_EQ(picture(), before);
}

TEST_F(UndoTaskTest, AKeptRecordChangedSinceTheMergeIsRefusedUnlessForced) {
  accounts();
  const auto before = picture();
  apply(snapshot_);
  admin("records/update", {{"id", keepers_[1]}, {"fields", {{"Site", "Undo"}, {"Fax", "1"}}}});
  const auto merged = picture();
  try {
    undo({});
    FAIL() << "a changed kept record was overwritten";
  } catch (const UndoError& error) {
    EXPECT_EQ(error.kind(), UndoError::Kind::refused);
    ASSERT_EQ(error.details().size(), 1u);
    EXPECT_NE(error.details()[0].find(keepers_[1]), std::string::npos) << error.details()[0];
    EXPECT_NE(error.details()[0].find("--force"), std::string::npos);
  }
  EXPECT_EQ(picture(), merged);  // nothing changed, not even the other groups

  const auto forced = undo({{}, true, ""});
  EXPECT_EQ(forced.count(Status::undone), 3u);
  EXPECT_TRUE(forced.groups[1].forced);
  EXPECT_EQ(picture(), before);
  EXPECT_EQ(query("SELECT Fax FROM Account WHERE Id = '" + keepers_[1] + "'")["records"][0]["Fax"],
            nullptr);
}

TEST_F(UndoTaskTest, AKeptRecordWhoseStampWasNeverNotedAsksForForce) {
  accounts();
  const auto before = picture();
  apply(snapshot_);
  // As if the apply had been killed between a merge and noting the stamp.
  SQLiteDB::open(snapshot_)->exec("UPDATE undo_groups SET keeper_stamp = ''");
  try {
    undo({});
    FAIL() << "a kept record that could not be checked was overwritten";
  } catch (const UndoError& error) {
    ASSERT_EQ(error.details().size(), 3u);
    EXPECT_NE(error.details()[0].find("cannot be told apart"), std::string::npos);
  }
  EXPECT_EQ(undo({{}, true, ""}).count(Status::undone), 3u);
  EXPECT_EQ(picture(), before);
}

TEST_F(UndoTaskTest, ARecordNoLongerInTheRecycleBinIsRefusedWithASentenceNamingIt) {
  accounts();
  apply(snapshot_);
  const auto merged = picture();
  const auto gone = query("SELECT Id FROM Account WHERE IsDeleted = true AND MasterRecordId = '" +
                              keepers_[2] + "'",
                          200, "queryAll")["records"][0]["Id"]
                        .get<std::string>();
  admin("records/purge", {{"ids", {gone}}});
  try {
    undo({});
    FAIL() << "a purged record was reported as put back";
  } catch (const UndoError& error) {
    EXPECT_EQ(error.kind(), UndoError::Kind::refused);
    ASSERT_EQ(error.details().size(), 1u);
    EXPECT_NE(error.details()[0].find(gone), std::string::npos);
    EXPECT_NE(error.details()[0].find("no longer in the Recycle Bin"), std::string::npos);
  }
  EXPECT_EQ(picture(), merged);
  // The other groups can still be undone.
  const auto prepared = UndoTask::prepare(findLogin_, snapshot_, {});
  const auto others = undo({{prepared.groups[0].groupId, prepared.groups[1].groupId}, false, ""});
  EXPECT_EQ(others.count(Status::undone), 2u);
}

TEST_F(UndoTaskTest, AStopAndALostReplyPartWayThenTheSameCallAgainDoNothingTwice) {
  accounts();
  const auto before = picture();
  apply(snapshot_);

  // A stop asked for once the first group is done.
  std::stop_source stop;
  const auto stopped = undo({}, stop.get_token(), [&](const DedupeProgress& step) {
    if (step.phase == DedupeProgress::Phase::changing && step.done == 1) stop.request_stop();
  });
  EXPECT_TRUE(stopped.stopped);
  EXPECT_EQ(stopped.count(Status::undone), 1u);
  try {
    stopped.throwIfIncomplete();
    FAIL() << "a stopped undo counted as complete";
  } catch (const UndoError& error) {
    EXPECT_EQ(error.kind(), UndoError::Kind::stoppedPartWay);
  }

  // The reply to the next update of children is lost after Salesforce made it.
  admin("faults", {{"path", "/services/data/*/composite/sobjects"},
                   {"method", "PATCH"},
                   {"fault", "drop"},
                   {"count", 1}});
  try {
    undo({});
    FAIL() << "a lost reply went unnoticed";
  } catch (const UndoError& error) {
    EXPECT_EQ(error.kind(), UndoError::Kind::outcomeUnknown);
  }
  std::int64_t seen = 0;
  const auto earlier = getJson("/_admin/requests?limit=100000");
  for (const auto& request : earlier["requests"])
    seen = std::max(seen, request.value("seq", std::int64_t{0}));
  const auto done = undo({});
  EXPECT_EQ(done.count(Status::alreadyUndone), 1u);
  EXPECT_EQ(done.count(Status::undone), 2u);
  EXPECT_EQ(picture(), before);
  // After the lost reply: one undelete (the third group's; the second's
  // records are back already) and the updates not yet made: the second
  // group's Cases, Contacts, invoices, Tasks and kept record (its child
  // Accounts were moved by the lost call), the third's child Accounts, Cases,
  // Contacts, invoices, Tasks and kept record.
  std::size_t undeletes = 0;
  std::size_t patches = 0;
  const auto log = getJson("/_admin/requests?limit=100000");
  for (const auto& request : log["requests"]) {
    if (request.value("seq", std::int64_t{0}) <= seen) continue;
    if (request.value("path", "").rfind("/services/Soap/u/", 0) == 0) ++undeletes;
    if (request.value("method", "") == "PATCH") ++patches;
  }
  EXPECT_EQ(undeletes, 1u);
  EXPECT_EQ(patches, 11u);
}

TEST_F(UndoTaskTest, TwoAppliesWhoseGroupsShareANumberAreBothPutBack) {
  accounts();
  const auto before = picture();
  const auto kept = twoAppliesOfGroupTwo();
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_NE(phoneOf(kept[0]), "null");  // each took a phone from its merged record
  EXPECT_NE(phoneOf(kept[1]), "null");

  const auto outcome = undo({});
  EXPECT_EQ(outcome.count(Status::undone), 2u) << UndoTask::text(outcome);
  EXPECT_NO_THROW(outcome.throwIfIncomplete());
  EXPECT_EQ(picture(), before);
  EXPECT_EQ(phoneOf(kept[0]), "null");
  EXPECT_EQ(phoneOf(kept[1]), "null");
}

TEST_F(UndoTaskTest, AnOlderJournalKeepsItsEntryAndGroupNChoosesEveryApplysNewestFirst) {
  accounts();
  const auto before = picture();
  // The first apply's entry as versions that kept one entry per group number wrote it.
  const auto kept = twoAppliesOfGroupTwo([&] {
    SQLiteDB::open(snapshot_)->exec(
        "ALTER TABLE undo_groups RENAME TO g; ALTER TABLE undo_records RENAME TO r;"
        "ALTER TABLE undo_children RENAME TO c; DROP TABLE IF EXISTS undo_applies;"
        "CREATE TABLE undo_groups (group_id INTEGER PRIMARY KEY, object TEXT NOT NULL, "
        "action TEXT NOT NULL, keeper TEXT NOT NULL, keeper_fields TEXT NOT NULL DEFAULT '', "
        "keeper_stamp TEXT NOT NULL DEFAULT '', journaled_at TEXT NOT NULL, "
        "undo_state TEXT NOT NULL DEFAULT '', undone_at TEXT NOT NULL DEFAULT '');"
        "CREATE TABLE undo_records (group_id INTEGER NOT NULL, pos INTEGER NOT NULL, "
        "sfid TEXT NOT NULL, fields TEXT NOT NULL, state TEXT NOT NULL, "
        "message TEXT NOT NULL DEFAULT '', PRIMARY KEY (group_id, sfid));"
        "CREATE TABLE undo_children (group_id INTEGER NOT NULL, pos INTEGER NOT NULL, "
        "object TEXT NOT NULL, id TEXT NOT NULL, field TEXT NOT NULL, parent TEXT NOT NULL, "
        "recreate TEXT NOT NULL DEFAULT '', PRIMARY KEY (group_id, pos));"
        "INSERT INTO undo_groups SELECT group_id, object, action, keeper, keeper_fields, "
        "keeper_stamp, journaled_at, undo_state, undone_at FROM g;"
        "INSERT INTO undo_records SELECT group_id, pos, sfid, fields, state, message FROM r;"
        "INSERT INTO undo_children SELECT group_id, pos, object, id, field, parent, recreate "
        "FROM c; DROP TABLE g; DROP TABLE r; DROP TABLE c;");
  });
  ASSERT_EQ(kept.size(), 2u);

  const auto outcome = undo({{2}, false, ""});
  ASSERT_EQ(outcome.groups.size(), 2u) << UndoTask::text(outcome);
  EXPECT_EQ(outcome.count(Status::undone), 2u) << UndoTask::text(outcome);
  EXPECT_EQ(outcome.groups[0].keeper, kept[1]);  // the newer apply's first
  EXPECT_EQ(outcome.groups[1].keeper, kept[0]);
  // Each line says which apply its entry came from.
  const std::string text = UndoTask::text(outcome);
  for (const std::string& keeper : {kept[1], kept[0]}) {
    const auto line = text.find(" (Account " + keeper + "): undone");
    ASSERT_NE(line, std::string::npos) << text;
    EXPECT_EQ(text.rfind("Group 2 of the apply of 20", line), text.rfind('\n', line) + 1) << text;
  }
  EXPECT_EQ(picture(), before);
  EXPECT_EQ(phoneOf(kept[0]), "null");
  EXPECT_EQ(phoneOf(kept[1]), "null");
  EXPECT_EQ(undo({}).count(Status::alreadyUndone), 2u);
}

}  // namespace
}  // namespace corvane
