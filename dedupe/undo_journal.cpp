#include "dedupe/undo_journal.hpp"

#include <map>

#include "platform/sqlite_db.hpp"

namespace corvane {

bool UndoGroup::applied() const {
  for (const UndoRecord& loser : losers) {
    if (loser.state == "done" || loser.state == "unknown" || loser.state == "sending") return true;
  }
  return false;
}

UndoJournal::UndoJournal(const std::filesystem::path& snapshot) {
  SQLiteDB::Options options;
  options.create = false;
  db_ = SQLiteDB::open(snapshot, options);
  // Each entry must be on disk before the call it describes leaves.
  db_->exec("PRAGMA journal_mode=WAL");
  db_->exec("PRAGMA synchronous=FULL");
  db_->exec(
      "CREATE TABLE IF NOT EXISTS undo_groups (group_id INTEGER PRIMARY KEY, object TEXT NOT NULL, "
      "action TEXT NOT NULL, keeper TEXT NOT NULL, keeper_fields TEXT NOT NULL DEFAULT '', "
      "keeper_stamp TEXT NOT NULL DEFAULT '', journaled_at TEXT NOT NULL, "
      "undo_state TEXT NOT NULL DEFAULT '', undone_at TEXT NOT NULL DEFAULT '');"
      "CREATE TABLE IF NOT EXISTS undo_records (group_id INTEGER NOT NULL, pos INTEGER NOT NULL, "
      "sfid TEXT NOT NULL, fields TEXT NOT NULL, state TEXT NOT NULL, "
      "message TEXT NOT NULL DEFAULT '', PRIMARY KEY (group_id, sfid));"
      "CREATE TABLE IF NOT EXISTS undo_children (group_id INTEGER NOT NULL, pos INTEGER NOT NULL, "
      "object TEXT NOT NULL, id TEXT NOT NULL, field TEXT NOT NULL, parent TEXT NOT NULL, "
      "recreate TEXT NOT NULL DEFAULT '', PRIMARY KEY (group_id, pos));");
}

UndoJournal::~UndoJournal() = default;

void UndoJournal::recordBefore(const std::vector<UndoGroup>& groups) {
  Transaction transaction(*db_);
  auto group = db_->prepare(
      "INSERT OR REPLACE INTO undo_groups (group_id, object, action, keeper, keeper_fields, "
      "keeper_stamp, journaled_at, undo_state, undone_at) VALUES (?, ?, ?, ?, ?, '', ?, '', '')");
  auto clearRecords = db_->prepare("DELETE FROM undo_records WHERE group_id = ?");
  auto clearChildren = db_->prepare("DELETE FROM undo_children WHERE group_id = ?");
  auto record = db_->prepare(
      "INSERT INTO undo_records (group_id, pos, sfid, fields, state, message) "
      "VALUES (?, ?, ?, ?, ?, ?)");
  auto child = db_->prepare(
      "INSERT INTO undo_children (group_id, pos, object, id, field, parent, recreate) "
      "VALUES (?, ?, ?, ?, ?, ?, ?)");
  for (const UndoGroup& g : groups) {
    group.bindInt(1, g.groupId)
        .bindText(2, g.object)
        .bindText(3, g.action)
        .bindText(4, g.keeper)
        .bindText(5, g.keeperFields)
        .bindText(6, g.journaledAt);
    group.run();
    group.reset();
    clearRecords.bindInt(1, g.groupId);
    clearRecords.run();
    clearRecords.reset();
    clearChildren.bindInt(1, g.groupId);
    clearChildren.run();
    clearChildren.reset();
    for (std::size_t i = 0; i < g.losers.size(); ++i) {
      const UndoRecord& loser = g.losers[i];
      record.bindInt(1, g.groupId)
          .bindInt(2, static_cast<std::int64_t>(i))
          .bindText(3, loser.sfid)
          .bindText(4, loser.fields)
          .bindText(5, loser.state)
          .bindText(6, loser.message);
      record.run();
      record.reset();
    }
    for (std::size_t i = 0; i < g.children.size(); ++i) {
      const UndoChild& c = g.children[i];
      child.bindInt(1, g.groupId)
          .bindInt(2, static_cast<std::int64_t>(i))
          .bindText(3, c.object)
          .bindText(4, c.id)
          .bindText(5, c.field)
          .bindText(6, c.parent)
          .bindText(7, c.recreate);
      child.run();
      child.reset();
    }
  }
  transaction.commit();
}

void UndoJournal::recordOutcome(std::int64_t groupId, const std::string& sfid,
                                const std::string& state, const std::string& message) {
  auto statement = db_->prepare(
      "UPDATE undo_records SET state = ?, message = ? WHERE group_id = ? AND sfid = ?");
  statement.bindText(1, state).bindText(2, message).bindInt(3, groupId).bindText(4, sfid);
  statement.run();
}

void UndoJournal::recordKeeperStamp(std::int64_t groupId, const std::string& stamp) {
  auto statement = db_->prepare("UPDATE undo_groups SET keeper_stamp = ? WHERE group_id = ?");
  statement.bindText(1, stamp).bindInt(2, groupId);
  statement.run();
}

void UndoJournal::recordUndoState(std::int64_t groupId, const std::string& state,
                                  const std::string& at) {
  auto statement =
      db_->prepare("UPDATE undo_groups SET undo_state = ?, undone_at = ? WHERE group_id = ?");
  statement.bindText(1, state).bindText(2, at).bindInt(3, groupId);
  statement.run();
}

std::vector<UndoGroup> UndoJournal::groups() const {
  std::vector<UndoGroup> out;
  std::map<std::int64_t, std::size_t> at;
  auto groups = db_->prepare(
      "SELECT group_id, object, action, keeper, keeper_fields, keeper_stamp, journaled_at, "
      "undo_state, undone_at FROM undo_groups ORDER BY group_id");
  while (groups.step()) {
    UndoGroup g;
    g.groupId = groups.columnInt(0);
    g.object = groups.columnText(1);
    g.action = groups.columnText(2);
    g.keeper = groups.columnText(3);
    g.keeperFields = groups.columnText(4);
    g.keeperStamp = groups.columnText(5);
    g.journaledAt = groups.columnText(6);
    g.undoState = groups.columnText(7);
    g.undoneAt = groups.columnText(8);
    at[g.groupId] = out.size();
    out.push_back(std::move(g));
  }
  auto records = db_->prepare(
      "SELECT group_id, sfid, fields, state, message FROM undo_records ORDER BY group_id, pos");
  while (records.step()) {
    auto found = at.find(records.columnInt(0));
    if (found == at.end()) continue;
    out[found->second].losers.push_back({records.columnText(1), records.columnText(2),
                                         records.columnText(3), records.columnText(4)});
  }
  auto children = db_->prepare(
      "SELECT group_id, object, id, field, parent, recreate FROM undo_children "
      "ORDER BY group_id, pos");
  while (children.step()) {
    auto found = at.find(children.columnInt(0));
    if (found == at.end()) continue;
    out[found->second].children.push_back({children.columnText(1), children.columnText(2),
                                           children.columnText(3), children.columnText(4),
                                           children.columnText(5)});
  }
  return out;
}

}  // namespace corvane
