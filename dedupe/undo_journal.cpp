#include "dedupe/undo_journal.hpp"

#include <algorithm>
#include <map>

#include "platform/sqlite_db.hpp"

namespace corvane {

namespace {

constexpr const char* tables =
    "CREATE TABLE IF NOT EXISTS undo_applies (apply INTEGER PRIMARY KEY, "
    "started_at TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS undo_groups (apply INTEGER NOT NULL, group_id INTEGER NOT NULL, "
    "object TEXT NOT NULL, action TEXT NOT NULL, keeper TEXT NOT NULL, "
    "keeper_fields TEXT NOT NULL DEFAULT '', keeper_stamp TEXT NOT NULL DEFAULT '', "
    "journaled_at TEXT NOT NULL, undo_state TEXT NOT NULL DEFAULT '', "
    "undone_at TEXT NOT NULL DEFAULT '', PRIMARY KEY (apply, group_id));"
    "CREATE TABLE IF NOT EXISTS undo_records (apply INTEGER NOT NULL, group_id INTEGER NOT NULL, "
    "pos INTEGER NOT NULL, sfid TEXT NOT NULL, fields TEXT NOT NULL, state TEXT NOT NULL, "
    "message TEXT NOT NULL DEFAULT '', PRIMARY KEY (apply, group_id, sfid));"
    "CREATE TABLE IF NOT EXISTS undo_children (apply INTEGER NOT NULL, "
    "group_id INTEGER NOT NULL, pos INTEGER NOT NULL, object TEXT NOT NULL, id TEXT NOT NULL, "
    "field TEXT NOT NULL, parent TEXT NOT NULL, recreate TEXT NOT NULL DEFAULT '', "
    "PRIMARY KEY (apply, group_id, pos));";

bool hasApplyColumn(SQLiteDB& db) {
  auto columns = db.prepare("SELECT 1 FROM pragma_table_info('undo_groups') WHERE name = 'apply'");
  return columns.step();
}

bool hasTable(SQLiteDB& db, const char* name) {
  auto table = db.prepare("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?");
  table.bindText(1, name);
  return table.step();
}

}  // namespace

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
  upgrade();
}

UndoJournal::~UndoJournal() = default;

void UndoJournal::upgrade() {
  if (!hasTable(*db_, "undo_groups") || hasApplyColumn(*db_)) {
    db_->exec(tables);
    return;
  }
  // Journals written before applies were numbered keyed their entries by
  // group alone: their tables are copied into the new ones, every entry
  // under apply 0, in one transaction.
  Transaction transaction(*db_);
  if (!hasApplyColumn(*db_)) {
    db_->exec(
        "ALTER TABLE undo_groups RENAME TO undo_groups_unnumbered;"
        "ALTER TABLE undo_records RENAME TO undo_records_unnumbered;"
        "ALTER TABLE undo_children RENAME TO undo_children_unnumbered;");
    db_->exec(tables);
    db_->exec(
        "INSERT INTO undo_groups (apply, group_id, object, action, keeper, keeper_fields, "
        "keeper_stamp, journaled_at, undo_state, undone_at) SELECT 0, group_id, object, action, "
        "keeper, keeper_fields, keeper_stamp, journaled_at, undo_state, undone_at "
        "FROM undo_groups_unnumbered;"
        "INSERT INTO undo_records (apply, group_id, pos, sfid, fields, state, message) "
        "SELECT 0, group_id, pos, sfid, fields, state, message FROM undo_records_unnumbered;"
        "INSERT INTO undo_children (apply, group_id, pos, object, id, field, parent, recreate) "
        "SELECT 0, group_id, pos, object, id, field, parent, recreate "
        "FROM undo_children_unnumbered;"
        "DROP TABLE undo_groups_unnumbered; DROP TABLE undo_records_unnumbered;"
        "DROP TABLE undo_children_unnumbered;");
  }
  transaction.commit();
}

std::int64_t UndoJournal::beginApply(const std::string& at) {
  Transaction transaction(*db_);
  const std::int64_t apply =
      std::max<std::int64_t>(db_->scalarInt("SELECT IFNULL(MAX(apply), 0) FROM undo_applies"),
                             db_->scalarInt("SELECT IFNULL(MAX(apply), 0) FROM undo_groups")) +
      1;
  auto statement = db_->prepare("INSERT INTO undo_applies (apply, started_at) VALUES (?, ?)");
  statement.bindInt(1, apply).bindText(2, at);
  statement.run();
  transaction.commit();
  return apply;
}

void UndoJournal::recordBefore(std::int64_t apply, const std::vector<UndoGroup>& groups) {
  Transaction transaction(*db_);
  // The earlier entries of a group number that no answer has reached.
  auto unanswered = db_->prepare(
      "SELECT g.apply, g.keeper, g.object, g.action FROM undo_groups g WHERE g.group_id = ? "
      "AND g.apply <> ? AND g.undo_state = '' AND NOT EXISTS (SELECT 1 FROM undo_records r "
      "WHERE r.apply = g.apply AND r.group_id = g.group_id "
      "AND r.state NOT IN ('sending', 'notAttempted'))");
  auto losersOf =
      db_->prepare("SELECT sfid FROM undo_records WHERE apply = ? AND group_id = ? ORDER BY sfid");
  auto clearGroup = db_->prepare("DELETE FROM undo_groups WHERE apply = ? AND group_id = ?");
  auto clearRecords = db_->prepare("DELETE FROM undo_records WHERE apply = ? AND group_id = ?");
  auto clearChildren = db_->prepare("DELETE FROM undo_children WHERE apply = ? AND group_id = ?");
  auto group = db_->prepare(
      "INSERT INTO undo_groups (apply, group_id, object, action, keeper, keeper_fields, "
      "keeper_stamp, journaled_at, undo_state, undone_at) VALUES (?, ?, ?, ?, ?, ?, '', ?, '', "
      "'')");
  auto record = db_->prepare(
      "INSERT INTO undo_records (apply, group_id, pos, sfid, fields, state, message) "
      "VALUES (?, ?, ?, ?, ?, ?, ?)");
  auto child = db_->prepare(
      "INSERT INTO undo_children (apply, group_id, pos, object, id, field, parent, recreate) "
      "VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
  for (const UndoGroup& g : groups) {
    std::vector<std::string> losers;
    for (const UndoRecord& loser : g.losers) losers.push_back(loser.sfid);
    std::sort(losers.begin(), losers.end());
    std::vector<std::int64_t> replaced;
    unanswered.bindInt(1, g.groupId).bindInt(2, apply);
    while (unanswered.step()) {
      if (unanswered.columnText(1) != g.keeper || unanswered.columnText(2) != g.object ||
          unanswered.columnText(3) != g.action) {
        continue;
      }
      std::vector<std::string> earlier;
      losersOf.bindInt(1, unanswered.columnInt(0)).bindInt(2, g.groupId);
      while (losersOf.step()) earlier.push_back(losersOf.columnText(0));
      losersOf.reset();
      if (earlier == losers) replaced.push_back(unanswered.columnInt(0));
    }
    unanswered.reset();
    for (std::int64_t earlier : replaced) {
      for (Statement* clear : {&clearGroup, &clearRecords, &clearChildren}) {
        clear->bindInt(1, earlier).bindInt(2, g.groupId);
        clear->run();
        clear->reset();
      }
    }
    group.bindInt(1, apply)
        .bindInt(2, g.groupId)
        .bindText(3, g.object)
        .bindText(4, g.action)
        .bindText(5, g.keeper)
        .bindText(6, g.keeperFields)
        .bindText(7, g.journaledAt);
    group.run();
    group.reset();
    for (std::size_t i = 0; i < g.losers.size(); ++i) {
      const UndoRecord& loser = g.losers[i];
      record.bindInt(1, apply)
          .bindInt(2, g.groupId)
          .bindInt(3, static_cast<std::int64_t>(i))
          .bindText(4, loser.sfid)
          .bindText(5, loser.fields)
          .bindText(6, loser.state)
          .bindText(7, loser.message);
      record.run();
      record.reset();
    }
    for (std::size_t i = 0; i < g.children.size(); ++i) {
      const UndoChild& c = g.children[i];
      child.bindInt(1, apply)
          .bindInt(2, g.groupId)
          .bindInt(3, static_cast<std::int64_t>(i))
          .bindText(4, c.object)
          .bindText(5, c.id)
          .bindText(6, c.field)
          .bindText(7, c.parent)
          .bindText(8, c.recreate);
      child.run();
      child.reset();
    }
  }
  transaction.commit();
}

void UndoJournal::recordOutcome(std::int64_t apply, std::int64_t groupId, const std::string& sfid,
                                const std::string& state, const std::string& message) {
  auto statement = db_->prepare(
      "UPDATE undo_records SET state = ?, message = ? WHERE apply = ? AND group_id = ? "
      "AND sfid = ?");
  statement.bindText(1, state)
      .bindText(2, message)
      .bindInt(3, apply)
      .bindInt(4, groupId)
      .bindText(5, sfid);
  statement.run();
}

void UndoJournal::recordKeeperStamp(std::int64_t apply, std::int64_t groupId,
                                    const std::string& stamp) {
  auto statement =
      db_->prepare("UPDATE undo_groups SET keeper_stamp = ? WHERE apply = ? AND group_id = ?");
  statement.bindText(1, stamp).bindInt(2, apply).bindInt(3, groupId);
  statement.run();
}

void UndoJournal::recordUndoState(std::int64_t apply, std::int64_t groupId,
                                  const std::string& state, const std::string& at) {
  auto statement = db_->prepare(
      "UPDATE undo_groups SET undo_state = ?, undone_at = ? WHERE apply = ? AND group_id = ?");
  statement.bindText(1, state).bindText(2, at).bindInt(3, apply).bindInt(4, groupId);
  statement.run();
}

std::int64_t UndoJournal::lowestGroupId() const {
  return db_->scalarInt("SELECT IFNULL(MIN(group_id), 0) FROM undo_groups");
}

std::vector<UndoGroup> UndoJournal::groups() const {
  std::vector<UndoGroup> out;
  std::map<std::pair<std::int64_t, std::int64_t>, std::size_t> at;  // by (apply, group)
  auto groups = db_->prepare(
      "SELECT g.apply, IFNULL(a.started_at, g.journaled_at), g.group_id, g.object, g.action, "
      "g.keeper, g.keeper_fields, g.keeper_stamp, g.journaled_at, g.undo_state, g.undone_at "
      "FROM undo_groups g LEFT JOIN undo_applies a ON a.apply = g.apply "
      "ORDER BY g.apply DESC, g.group_id");
  while (groups.step()) {
    UndoGroup g;
    g.apply = groups.columnInt(0);
    g.appliedAt = groups.columnText(1);
    g.groupId = groups.columnInt(2);
    g.object = groups.columnText(3);
    g.action = groups.columnText(4);
    g.keeper = groups.columnText(5);
    g.keeperFields = groups.columnText(6);
    g.keeperStamp = groups.columnText(7);
    g.journaledAt = groups.columnText(8);
    g.undoState = groups.columnText(9);
    g.undoneAt = groups.columnText(10);
    at[{g.apply, g.groupId}] = out.size();
    out.push_back(std::move(g));
  }
  auto records = db_->prepare(
      "SELECT apply, group_id, sfid, fields, state, message FROM undo_records "
      "ORDER BY apply, group_id, pos");
  while (records.step()) {
    auto found = at.find({records.columnInt(0), records.columnInt(1)});
    if (found == at.end()) continue;
    out[found->second].losers.push_back({records.columnText(2), records.columnText(3),
                                         records.columnText(4), records.columnText(5)});
  }
  auto children = db_->prepare(
      "SELECT apply, group_id, object, id, field, parent, recreate FROM undo_children "
      "ORDER BY apply, group_id, pos");
  while (children.step()) {
    auto found = at.find({children.columnInt(0), children.columnInt(1)});
    if (found == at.end()) continue;
    out[found->second].children.push_back({children.columnText(2), children.columnText(3),
                                           children.columnText(4), children.columnText(5),
                                           children.columnText(6)});
  }
  return out;
}

}  // namespace corvane
