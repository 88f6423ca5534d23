#include "backup/deletion_finder.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <stdexcept>

#include "backup/backup_csv.hpp"
#include "backup/backup_planner.hpp"
#include "backup/deletion_alarm.hpp"
#include "connections/rest_query_runner.hpp"
#include "connections/server_time.hpp"
#include "connections/bulk_query_runner.hpp"

namespace corvane {

namespace {

// Salesforce refuses a window of one minute or less.
constexpr auto shortestWindow = std::chrono::minutes(1);

// Ends the pass early; what was committed stays.
class Stopped : public std::runtime_error {
 public:
  Stopped() : std::runtime_error("stopped") {}
};

std::optional<SystemTime> timeIn(const nlohmann::json& json, const char* key) {
  auto it = json.find(key);
  if (it == json.end() || !it->is_string()) return std::nullopt;
  return ServerTime::parse(it->get<std::string>());
}

// The ids of CSV rows whose header names an Id column.
std::vector<std::string> idsOf(std::string_view csv) {
  std::vector<std::string> ids;
  int idAt = -1;
  BackupCSV::scan(
      csv,
      [&](const BackupCSV::Record& header) {
        for (std::size_t i = 0; i < header.fields.size(); ++i)
          if (header.fields[i] == "Id" || header.fields[i] == "ID" || header.fields[i] == "id")
            idAt = static_cast<int>(i);
      },
      [&](const BackupCSV::Record& record) {
        if (idAt >= 0 && static_cast<std::size_t>(idAt) < record.fields.size() &&
            !record.fields[idAt].empty())
          ids.push_back(record.fields[idAt]);
        return true;
      });
  if (idAt < 0) throw std::invalid_argument("Salesforce sent ids without an Id column.");
  return ids;
}

}  // namespace

std::string_view DeletionFinder::toText(How how) {
  switch (how) {
    case How::recycleBin:
      return "recycleBin";
    case How::purged:
      return "purged";
    case How::missing:
      return "missing";
  }
  return "missing";
}

DeletionFinder::Options DeletionFinder::Options::of(const BackupConfig& config,
                                                    std::chrono::milliseconds firstPollDelay) {
  Options options;
  options.apiVersion = config.apiVersion;
  options.purgeCheckInterval = config.purgeCheckInterval;
  options.maxIdJobsPerRun = config.maxIdJobsPerRun;
  options.restThreshold = config.restThreshold;
  options.bulkPageSize = config.bulkPageSize;
  options.firstPollDelay = firstPollDelay;
  return options;
}

DeletionFinder::DeletionFinder(BackupTransport& transport, BackupStore& store,
                               std::recursive_mutex& storeLock, std::int64_t runId,
                               SystemTime serverNow, Options options)
    : transport_(transport),
      store_(store),
      storeLock_(storeLock),
      runId_(runId),
      serverNow_(serverNow),
      serverNowText_(IsoTime::formatPlain(serverNow)),
      options_(std::move(options)) {}

DeletionFinder::Check DeletionFinder::check(const std::optional<BackupStore::ObjectState>& state,
                                            SystemTime serverNow, double purgeCheckInterval,
                                            bool heldBefore) {
  if (!state || state->deletedChecked.empty())
    return heldBefore ? Check::compareIds() : Check::notYet();
  // An id comparison owed by an earlier run goes first.
  if (!state->deletedTried.empty()) return Check::compareIds();
  const auto checked = ServerTime::parse(state->deletedChecked);
  if (!checked) return Check::compareIds();
  const std::chrono::duration<double> since = serverNow - *checked;
  if (since.count() < purgeCheckInterval) return Check::notYet();
  if (state->getDeletedRefused) return Check::compareIds();
  if (serverNow - *checked > window) return Check::compareIds();
  if (serverNow - *checked <= shortestWindow) return Check::notYet();
  return Check::getDeleted(*checked, serverNow);
}

DeletionFinder::GetDeletedAnswer DeletionFinder::parseAnswer(std::string_view body) {
  auto json = nlohmann::json::parse(body, nullptr, false);
  if (!json.is_object()) throw std::invalid_argument("the answer is not a JSON object");
  auto records = json.find("deletedRecords");
  if (records == json.end() || !records->is_array())
    throw std::invalid_argument("the answer has no list of deleted records");
  GetDeletedAnswer answer;
  for (const auto& record : *records) {
    if (!record.is_object()) throw std::invalid_argument("a deleted record is not an object");
    auto id = record.find("id");
    if (id == record.end() || !id->is_string())
      throw std::invalid_argument("a deleted record has no id");
    Deleted deleted;
    deleted.id = id->get<std::string>();
    if (auto date = record.find("deletedDate"); date != record.end() && date->is_string())
      deleted.deletedDate = date->get<std::string>();
    answer.records.push_back(std::move(deleted));
  }
  answer.earliestDateAvailable = timeIn(json, "earliestDateAvailable");
  answer.latestDateCovered = timeIn(json, "latestDateCovered");
  return answer;
}

DeletionFinder::Answer DeletionFinder::getDeleted(const std::string& object, SystemTime start,
                                                  SystemTime end) {
  // Salesforce reads "+00:00" offsets; the REST form of a UTC time.
  auto text = [](SystemTime time) {
    auto plain = IsoTime::formatPlain(time);
    return plain.substr(0, plain.size() - 1) + "+00:00";
  };
  std::string body;
  try {
    body = transport_.send("GET",
                           "/services/data/v" + options_.apiVersion + "/sobjects/" + object +
                               "/deleted/",
                           {{"start", text(start)}, {"end", text(end)}}, std::nullopt);
  } catch (const std::exception& error) {
    const auto failure = transport_.classify(error);
    if (failure.signedOut || failure.httpStatus < 400 || failure.httpStatus >= 500) throw;
    if (failure.message.find("REQUEST_LIMIT_EXCEEDED") != std::string::npos) throw;
    Answer answer;
    answer.kind = failure.httpStatus == 403 ? Answer::Kind::notPermitted : Answer::Kind::refused;
    answer.reason = failure.message.empty() ? std::string(error.what()) : failure.message;
    // Too many ids, or a window Salesforce will not serve: the next window may do.
    answer.aboutTheWindow = answer.reason.find("record limit") != std::string::npos ||
                            answer.reason.find("startDate") != std::string::npos ||
                            answer.reason.find("endDate") != std::string::npos;
    return answer;
  }
  Answer answer;
  answer.answer = parseAnswer(body);
  return answer;
}

std::int64_t DeletionFinder::markDeleted(const std::string& object,
                                         const std::vector<Deleted>& records, How how) {
  std::lock_guard guard(storeLock_);
  auto& db = store_.db();
  Transaction transaction(db);
  auto update = db.prepare(
      "UPDATE known_ids SET deleted = 1, deleted_run = ?, deleted_at = ?, how = ? WHERE object = "
      "? AND id = ? AND deleted = 0");
  std::int64_t marked = 0;
  for (const auto& record : records) {
    const auto at = ServerTime::parse(record.deletedDate);
    update.reset();
    update.bindInt(1, runId_)
        .bindText(2, at ? IsoTime::formatPlain(*at) : serverNowText_)
        .bindText(3, toText(how))
        .bindText(4, object)
        .bindText(5, record.id);
    update.run();
    marked += db.changes();
  }
  transaction.commit();
  return marked;
}

std::int64_t DeletionFinder::markUntouched(const std::string& object, How how,
                                           bool needsIdJobTouch) {
  std::lock_guard guard(storeLock_);
  auto& db = store_.db();
  std::string sql =
      "UPDATE known_ids SET deleted = 1, deleted_run = ?1, deleted_at = ?2, how = ?3 WHERE "
      "object = ?4 AND deleted = 0 AND seen_run != ?1";
  if (needsIdJobTouch) sql += " AND check_run != ?1";
  db.prepare(sql)
      .bindInt(1, runId_)
      .bindText(2, serverNowText_)
      .bindText(3, toText(how))
      .bindText(4, object)
      .run();
  return db.changes();
}

void DeletionFinder::finishObject(const std::string& object, SystemTime checkedUntil,
                                  bool compared, bool refusedNow) {
  std::lock_guard guard(storeLock_);
  store_.db()
      .prepare(
          "INSERT INTO objects (name, deleted_checked, get_deleted_refused) VALUES (?1, ?2, ?3) "
          "ON CONFLICT(name) DO UPDATE SET deleted_checked = ?2, get_deleted_refused = "
          "MAX(get_deleted_refused, ?3), deleted_tried = CASE WHEN ?4 THEN '' ELSE "
          "deleted_tried END")
      .bindText(1, object)
      .bindText(2, IsoTime::formatPlain(checkedUntil))
      .bindInt(3, refusedNow ? 1 : 0)
      .bindInt(4, compared ? 1 : 0)
      .run();
}

int DeletionFinder::idJobsStarted() {
  std::lock_guard guard(storeLock_);
  auto statement =
      store_.db().prepare("SELECT COUNT(*) FROM jobs WHERE run_id = ? AND purpose = 'ids'");
  statement.bindInt(1, runId_);
  return statement.step() ? static_cast<int>(statement.columnInt(0)) : 0;
}

bool DeletionFinder::runIdJob(const Target& target, const ShouldStop& shouldStop) {
  const auto [soql, operation] = BackupPlanner::idQuery(target.object);
  const bool bulk = target.rowCount > options_.restThreshold;
  std::int64_t seq = 0;
  std::string state;
  std::string locator;
  std::string jobId;
  std::string createdDate;
  {
    std::lock_guard guard(storeLock_);
    auto existing = store_.db().prepare(
        "SELECT seq, state, locator, job_id, created_date FROM jobs WHERE run_id = ? AND "
        "purpose = 'ids' AND object = ?");
    existing.bindInt(1, runId_).bindText(2, target.object);
    if (existing.step()) {
      seq = existing.columnInt(0);
      state = existing.columnText(1);
      locator = existing.columnText(2);
      jobId = existing.columnText(3);
      createdDate = existing.columnText(4);
    }
  }
  if (seq == 0) {
    if (idJobsStarted() >= options_.maxIdJobsPerRun) return false;
    std::lock_guard guard(storeLock_);
    auto& db = store_.db();
    auto next = db.prepare("SELECT COALESCE(MAX(seq), 0) + 1 FROM jobs WHERE run_id = ?");
    next.bindInt(1, runId_);
    next.step();
    seq = next.columnInt(0);
    db.prepare(
          "INSERT INTO jobs (run_id, seq, object, purpose, mode, operation, soql, fields, state, "
          "row_count, via) VALUES (?, ?, ?, 'ids', 'whole', ?, ?, '[\"Id\"]', 'running', ?, ?)")
        .bindInt(1, runId_)
        .bindInt(2, seq)
        .bindText(3, target.object)
        .bindText(4, operation)
        .bindText(5, soql)
        .bindInt(6, target.rowCount)
        .bindText(7, bulk ? "bulk" : "rest")
        .run();
  }
  if (state == "done") return true;

  // One page of ids: touched (check_run) together with where the job got to.
  auto commit = [&](const std::vector<std::string>& ids, const std::string& nextLocator,
                    const std::string& remoteId) {
    std::lock_guard guard(storeLock_);
    auto& db = store_.db();
    Transaction transaction(db);
    auto touch =
        db.prepare("UPDATE known_ids SET check_run = ? WHERE object = ? AND id = ?");
    for (const auto& id : ids) {
      touch.reset();
      touch.bindInt(1, runId_).bindText(2, target.object).bindText(3, id);
      touch.run();
    }
    db.prepare(
          "UPDATE jobs SET locator = ?, job_id = ?, rows = rows + ? WHERE run_id = ? AND seq = ?")
        .bindText(1, nextLocator)
        .bindText(2, remoteId)
        .bindInt(3, static_cast<std::int64_t>(ids.size()))
        .bindInt(4, runId_)
        .bindInt(5, seq)
        .run();
    transaction.commit();
  };

  if (!bulk) {
    RestQueryRunner runner(transport_, 0, nullptr);
    const auto restOperation = operation == "queryAll" ? RestQueryRunner::Operation::queryAll
                                                       : RestQueryRunner::Operation::query;
    runner.fetchPages(soql, restOperation, {"Id"}, {"id"}, locator, store_.location().folder(),
                      [&](const RestPage::Result& page) {
                        if (shouldStop && shouldStop()) throw Stopped();
                        commit(idsOf("\"Id\"\n" + page.csv), page.next, "");
                      });
  } else {
    BulkQueryRunner::Options bulkOptions;
    bulkOptions.freeSpaceFloor = 0;
    bulkOptions.firstPollDelay = options_.firstPollDelay;
    BulkQueryRunner runner(transport_, bulkOptions);
    const auto bulkOperation = operation == "queryAll" ? BulkQueryRunner::Operation::queryAll
                                                       : BulkQueryRunner::Operation::query;
    for (int attempt = 1;; ++attempt) {
      try {
        BulkQueryRunner::Job remote{jobId, createdDate};
        if (remote.id.empty()) {
          remote = runner.create(soql, bulkOperation);
          jobId = remote.id;
          commit({}, "", remote.id);
        }
        auto found = runner.waitForJob(remote, [&] { return shouldStop && shouldStop(); });
        if (!found) throw Stopped();
        for (;;) {
          if (shouldStop && shouldStop()) throw Stopped();
          auto page = runner.fetchPage(
              remote, locator.empty() ? std::nullopt : std::optional<std::string>(locator),
              options_.bulkPageSize, *found);
          commit(idsOf(page.csv), page.nextLocator, remote.id);
          locator = page.nextLocator;
          if (locator.empty()) break;
        }
        runner.remove(remote);
        break;
      } catch (const DownloadError& error) {
        // Salesforce no longer keeps the job: the ids already touched stay
        // touched (they were there), and a new job reads them all again.
        if (error.kind() != DownloadError::Kind::jobExpired || attempt >= 2) throw;
        jobId.clear();
        locator.clear();
      }
    }
  }
  return true;
}

DeletionFinder::Outcome DeletionFinder::findAll(const std::vector<Target>& targets,
                                                const Progress& progress,
                                                const ShouldStop& shouldStop) {
  Outcome outcome;
  const int count = static_cast<int>(targets.size());
  int index = 0;
  for (const auto& target : targets) {
    ++index;
    if (shouldStop && shouldStop()) break;
    const auto& object = target.object;
    std::optional<BackupStore::ObjectState> state;
    bool heldBefore = false;
    {
      std::lock_guard guard(storeLock_);
      state = store_.objectState(object);
      auto held = store_.db().prepare(
          "SELECT 1 FROM known_ids WHERE object = ? AND deleted = 0 AND seen_run != ? LIMIT 1");
      held.bindText(1, object).bindInt(2, runId_);
      heldBefore = held.step();
    }
    try {
      if (progress) progress(false, object, index, count);
      How gone = How::missing;
      bool refusedNow = false;

      // What Salesforce's delete log says, when it can be asked and trusted.
      auto askLog = [&](SystemTime start) -> std::optional<SystemTime> {
        const auto answer = getDeleted(object, start, serverNow_);
        if (answer.kind != Answer::Kind::answer) {
          refusedNow = !answer.aboutTheWindow;
          // Salesforce refuses a window its purges have cut into: what left
          // since then was purged. (Too many ids is no sign of a purge.)
          if (answer.aboutTheWindow && answer.reason.find("record limit") == std::string::npos)
            gone = How::purged;
          return std::nullopt;
        }
        outcome.found += markDeleted(object, answer.answer.records, How::recycleBin);
        if (answer.answer.earliestDateAvailable && *answer.answer.earliestDateAvailable > start) {
          // Salesforce purged its log after our start: what is gone since
          // then left without a word.
          gone = How::purged;
          return std::nullopt;
        }
        return answer.answer.latestDateCovered.value_or(serverNow_);
      };

      if (target.copiedWhole) {
        // This run's copy touched every live id: the comparison costs nothing.
        if (state && !state->getDeletedRefused && !state->deletedChecked.empty()) {
          const auto checked = ServerTime::parse(state->deletedChecked);
          if (checked && serverNow_ - *checked <= window &&
              serverNow_ - *checked > shortestWindow) {
            try {
              askLog(*checked);
            } catch (const std::exception& error) {
              // The comparison below is complete without the log; only the
              // words for how records went are lost.
              if (transport_.classify(error).signedOut) throw;
            }
          }
        }
        outcome.found += markUntouched(object, gone, false);
        finishObject(object, serverNow_, true, refusedNow);
        continue;
      }

      auto checkNow = check(state, serverNow_, options_.purgeCheckInterval, heldBefore);
      if (checkNow.kind == Check::Kind::notYet) {
        // Never checked and nothing held from before: the log starts now.
        if (!heldBefore && (!state || state->deletedChecked.empty()))
          finishObject(object, serverNow_, false, false);
        continue;
      }
      if (checkNow.kind == Check::Kind::getDeleted) {
        if (auto covered = askLog(checkNow.start)) {
          finishObject(object, *covered, false, false);
          continue;
        }
      }
      if (progress) progress(true, object, index, count);
      if (!runIdJob(target, shouldStop)) {
        // The run's id jobs are spent: a later run compares this object.
        std::lock_guard guard(storeLock_);
        store_.db()
            .prepare(
                "INSERT INTO objects (name, deleted_tried, get_deleted_refused) VALUES (?1, ?2, "
                "?3) ON CONFLICT(name) DO UPDATE SET deleted_tried = CASE WHEN deleted_tried = "
                "'' THEN ?2 ELSE deleted_tried END, get_deleted_refused = "
                "MAX(get_deleted_refused, ?3)")
            .bindText(1, object)
            .bindText(2, serverNowText_)
            .bindInt(3, refusedNow ? 1 : 0)
            .run();
        outcome.waiting.push_back(object);
        continue;
      }
      {
        std::lock_guard guard(storeLock_);
        auto& db = store_.db();
        Transaction transaction(db);
        outcome.found += markUntouched(object, gone, true);
        db.prepare("UPDATE jobs SET state = 'done' WHERE run_id = ? AND purpose = 'ids' AND "
                   "object = ?")
            .bindInt(1, runId_)
            .bindText(2, object)
            .run();
        finishObject(object, serverNow_, true, refusedNow);
        transaction.commit();
      }
    } catch (const Stopped&) {
      break;
    } catch (const std::exception& error) {
      const auto failure = transport_.classify(error);
      outcome.failed.push_back(
          {object, failure.message.empty() ? std::string(error.what()) : failure.message});
    }
  }
  cascadeDocuments();
  return outcome;
}

void DeletionFinder::cascadeDocuments() {
  std::lock_guard guard(storeLock_);
  auto& db = store_.db();
  Transaction transaction(db);
  const std::string documents =
      "SELECT id FROM known_ids WHERE object = 'ContentDocument' AND deleted = 1 AND "
      "deleted_run = ?1";
  db.prepare(
        "UPDATE known_ids SET deleted = 1, deleted_run = ?1, deleted_at = (SELECT d.deleted_at "
        "FROM known_ids d, file_versions v WHERE v.id = known_ids.id AND d.object = "
        "'ContentDocument' AND d.id = v.document_id), how = (SELECT d.how FROM known_ids d, "
        "file_versions v WHERE v.id = known_ids.id AND d.object = 'ContentDocument' AND d.id = "
        "v.document_id) WHERE object = 'ContentVersion' AND deleted = 0 AND id IN (SELECT id FROM "
        "file_versions WHERE document_id IN (" +
        documents + "))")
      .bindInt(1, runId_)
      .run();
  db.prepare("UPDATE file_versions SET deleted = 1 WHERE deleted = 0 AND document_id IN (" +
             documents + ")")
      .bindInt(1, runId_)
      .run();
  transaction.commit();
}

std::vector<DeletionFinder::Target> DeletionFinder::targetsOf(BackupStore& store,
                                                             std::int64_t run) {
  auto statement = store.db().prepare(
      "SELECT object, state, reason, mode, row_count FROM jobs WHERE run_id = ? AND purpose = "
      "'records' ORDER BY seq");
  statement.bindInt(1, run);
  std::vector<Target> targets;
  while (statement.step()) {
    const std::string state = statement.columnText(1);
    const std::string reason = statement.columnText(2);
    const std::string mode = statement.columnText(3);
    const bool whole = mode == "full" || mode == "whole";
    Target target;
    target.object = statement.columnText(0);
    target.rowCount = statement.columnInt(4);
    if (state == JobState::done) {
      target.copiedWhole = whole;
    } else if (state == JobState::skipped && reason == noRecordsReason) {
      target.copiedWhole = whole;
    } else if (state != JobState::skipped || reason != noChangesReason) {
      continue;
    }
    targets.push_back(std::move(target));
  }
  return targets;
}

DeletionReport DeletionReport::of(
    BackupStore& store, std::int64_t run, std::vector<DeletionFinder::Failure> failed,
    const std::optional<std::map<std::string, std::int64_t>>& heldBefore) {
  DeletionReport report;
  const auto deletions = store.deletions(run);
  report.deleted = static_cast<std::int64_t>(deletions.size());
  report.counts = DeletionAlarm::counts(
      deletions, [&store](const std::string& object) { return store.knownCount(object); });
  if (heldBefore)
    for (auto& count : report.counts) {
      const auto held = heldBefore->find(count.object);
      count.heldBefore = held == heldBefore->end() ? 0 : held->second;
    }
  report.unusual = DeletionAlarm::unusual(report.counts);
  report.failed = std::move(failed);
  return report;
}

std::string DeletionReport::failureMessage() const {
  if (failed.empty()) return {};
  std::string names;
  for (const auto& failure : failed) names += (names.empty() ? "" : ", ") + failure.object;
  return "Deleted records could not be checked for: " + names +
         ". The records themselves are complete. The next backup tries again.";
}

void DeletionReport::fill(Manifest& manifest) const {
  manifest.deletionCount = deleted;
  manifest.deletionsByObject.clear();
  for (const auto& count : counts) {
    const bool isUnusual =
        std::find(unusual.begin(), unusual.end(), count) != unusual.end();
    manifest.deletionsByObject.push_back(
        {count.object, count.deleted, count.missing, count.heldBefore, isUnusual});
  }
  manifest.idChecksFailed.clear();
  for (const auto& failure : failed) manifest.idChecksFailed.push_back({failure.object, failure.reason});
}

}  // namespace corvane
