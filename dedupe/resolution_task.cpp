#include "dedupe/resolution_task.hpp"

#include <algorithm>
#include <cctype>
#include <functional>
#include <map>
#include <optional>

#include <nlohmann/json.hpp>

#include "connections/api_transport.hpp"
#include "connections/download_error.hpp"
#include "dedupe/decision_workbook_task.hpp"
#include "dedupe/match_task.hpp"
#include "dedupe/snapshot_task.hpp"
#include "dedupe/undo_capture.hpp"
#include "dedupe/undo_journal.hpp"
#include "platform/iso_time.hpp"

namespace corvane::ResolutionTask {

namespace {

std::map<std::string, std::vector<ResolutionPlanner::WritableField>> writableFields(
    SalesforceAPI::Client& api, const Org& org, const std::vector<std::string>& objects) {
  std::map<std::string, std::vector<ResolutionPlanner::WritableField>> out;
  for (const std::string& object : objects) {
    nlohmann::json json = api.describe(object, org);
    auto& fields = out[object];
    try {
      for (const auto& field : json.at("fields")) {
        if (!field.value("updateable", false)) continue;
        const std::string type = field.value("type", "");
        fields.push_back({field.at("name").get<std::string>(),
                          type == "string" || type == "textarea"});
      }
    } catch (const nlohmann::json::exception&) {
      throw DownloadError::unreadableReply();
    }
  }
  return out;
}

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

// Every field a --keep-values rule names must be one the snapshot holds.
void checkValueFields(RecordStore& store, const KeepValues& keepValues) {
  std::vector<std::string> known;
  for (const MatchField& field : store.matchFields()) known.push_back(field.name);
  for (const std::string& field : store.extraFields()) known.push_back(field);
  std::vector<std::string> accepted = known;
  for (const auto& object : store.objects()) {
    accepted.insert(accepted.end(), object.sources.begin(), object.sources.end());
    accepted.insert(accepted.end(), object.extraSources.begin(), object.extraSources.end());
  }
  for (const auto& [field, rule] : keepValues.fields) {
    const bool found = std::any_of(accepted.begin(), accepted.end(),
                                   [&](const std::string& name) { return sameName(name, field); });
    if (!found) throw DedupeError::unknownValueField(field, known);
  }
}

// The decision workbook's groups, keepers and records, or its problems.
DecisionPlan::Outcome decide(RecordStore& store, const std::filesystem::path& snapshot,
                             const Request& request, std::stop_token stop) {
  const auto exported = DecisionWorkbookTask::exportedGroups(snapshot, request.settings, stop);
  const DecisionWorkbookTask::ExportedAlready marked =
      DecisionWorkbookTask::exportedAlreadyThere(snapshot);
  const DecisionWorkbook::Decisions read = DecisionWorkbook::read(
      *request.decisions, exported, DecisionWorkbookTask::exportedAlready(snapshot));
  std::vector<std::string> ids = read.alreadyDeletes;
  for (const auto& group : exported)
    ids.insert(ids.end(), group.recordIds.begin(), group.recordIds.end());
  std::vector<Rid> rids;
  for (const auto& [rid, sfid] : store.ridsOf(ids)) rids.push_back(rid);
  DecisionPlan::Outcome decided = DecisionPlan::resolve(
      read, exported, store.records(rids), request.keeper, request.action, marked.records);
  decided.otherLabel = marked.otherLabel;
  if (!decided.problems.empty()) {
    throw DedupeError::problems(std::move(decided.problems), *request.decisions);
  }
  return decided;
}

}  // namespace

Resolution plan(SalesforceAPI::Client& api, const FindLogin& findLogin,
                const std::filesystem::path& snapshot, const Request& request,
                std::stop_token stop, const DedupeProgressHandler& onProgress) {
  Resolution resolution;
  resolution.snapshot = snapshot;
  resolution.keeper = request.keeper;
  auto store = SnapshotTask::open(snapshot);
  resolution.info = store->info();
  checkValueFields(*store, request.keepValues);
  if (request.decisions) {
    if (request.action.kind != ResolutionAction::Kind::merge &&
        request.action.kind != ResolutionAction::Kind::deleteLosers &&
        request.action.kind != ResolutionAction::Kind::tagLosers) {
      throw DedupeError::decisionsNeedRemoval(request.action.text());
    }
    resolution.workbook = *request.decisions;
    resolution.decisions = decide(*store, snapshot, request, stop);
    resolution.groups = resolution.decisions->groups;
  }
  using Kind = ResolutionAction::Kind;
  const bool writes = request.action.kind == Kind::merge ||
                      request.action.kind == Kind::fillGaps ||
                      request.action.kind == Kind::tagLosers;
  if (request.forApply || writes) {
    std::string chosen = request.login.empty() ? resolution.info.downloadedBy : request.login;
    if (chosen.empty()) throw DedupeError::noLogin();
    resolution.org = findLogin(chosen);
  }

  if (!request.decisions) {
    MatchOutcome outcome = MatchTask::groups(*store, request.settings, stop, onProgress);
    resolution.groups = ResolutionPlanner::resolve(*store, outcome.groups, request.keeper);
  }

  ResolutionPlanner::Context planning = ResolutionPlanner::contextFor(*store);
  planning.includeHeldBack = request.includeHeldBack;
  planning.keeperRule = request.keeper;
  planning.keepValues = request.keepValues;
  if (writes) {
    std::vector<std::string> objects;
    for (const auto& object : planning.objects) objects.push_back(object.name);
    if (objects.empty()) objects.push_back(resolution.info.objectName);
    planning.writableFields = writableFields(api, *resolution.org, objects);
  }
  resolution.plan = ResolutionPlanner::plan(resolution.groups, request.action, planning);
  if (resolution.decisions) {
    std::vector<std::string> problems;
    for (const DecisionPlan::AlreadyRecord& entry : resolution.decisions->already) {
      if (auto problem = ResolutionPlanner::planAlready(resolution.plan, entry.record,
                                                        entry.otherId, planning)) {
        problems.push_back(entry.record.sfid + ": " + *problem);
      }
    }
    if (!problems.empty()) throw DedupeError::problems(std::move(problems), *request.decisions);
  }
  if (stop.stop_requested()) throw DedupeError::stopped();
  return resolution;
}

bool changesNothing(const ResolutionPlan& plan) {
  return plan.action.kind == ResolutionAction::Kind::exportOnly ||
         (plan.merges.empty() && plan.deletes.empty() && plan.updates.empty() &&
          plan.already.empty());
}

namespace {

// Makes the changes of a checked plan, counting them into outcome.
void run(SalesforceAPI::Client& api, const Resolution& resolution, const ApplyOptions& options,
         std::stop_token stop, const DedupeProgressHandler& onProgress, ApplyOutcome& outcome);

void report(const DedupeProgressHandler& onProgress, DedupeProgress::Phase phase,
            std::size_t done, std::size_t total) {
  if (!onProgress) return;
  DedupeProgress progress;
  progress.phase = phase;
  progress.done = static_cast<std::int64_t>(done);
  progress.total = static_cast<std::int64_t>(total);
  onProgress(progress);
}

}  // namespace

ResolutionPreflight::Outcome check(SalesforceAPI::Client& api, const Resolution& resolution,
                                   std::stop_token stop,
                                   const DedupeProgressHandler& onProgress) {
  if (changesNothing(resolution.plan)) return {};
  if (stop.stop_requested()) throw DedupeError::stopped();
  DedupeAPITransport transport(api, resolution.org.value());
  const std::vector<PlannedChange> records = ResolutionPreflight::recordsOf(resolution.plan);
  report(onProgress, DedupeProgress::Phase::checking, 0, records.size());
  return ResolutionPreflight(transport).check(records);
}

ApplyOutcome apply(SalesforceAPI::Client& api, const Resolution& resolution,
                   const ResolutionPreflight::Outcome& checked, const ApplyOptions& options,
                   std::stop_token stop, const DedupeProgressHandler& onProgress) {
  ApplyOutcome outcome;
  const ResolutionPlan& plan = resolution.plan;
  if (plan.action.kind == ResolutionAction::Kind::exportOnly) return outcome;
  const bool changes = !changesNothing(plan);
  if (changes && !checked.allFresh()) throw PreflightError::recordsChanged();
  if (stop.stop_requested()) throw DedupeError::stopped();

  if (resolution.decisions && !resolution.decisions->notDuplicates.empty()) {
    SnapshotTask::open(resolution.snapshot)->exclude(resolution.decisions->notDuplicates);
    outcome.remembered = resolution.decisions->notDuplicates.size();
  }
  if (changes) run(api, resolution, options, stop, onProgress, outcome);
  if (changes || outcome.remembered > 0) {
    const std::filesystem::path path =
        options.results.empty() ? ResolutionResultsWorkbook::defaultPath(
                                      resolution.snapshot, std::chrono::system_clock::now())
                                : options.results;
    const std::string label = resolution.info.objectLabel.empty() ? resolution.info.objectName
                                                                  : resolution.info.objectLabel;
    try {
      ResolutionResultsWorkbook::write(path, label, resultEntries(resolution, outcome));
      outcome.results = path;
    } catch (const UserFacingError& error) {
      // The changes are made; the face still reports them one by one.
      outcome.resultsFailure = error.description();
    }
  }
  return outcome;
}

namespace {

// Groups journaled and merged together: their children are read just before
// their merges, so that few can be added in between.
constexpr std::size_t groupsPerJournalStep = 50;

std::string journalState(MergeRunner::MergeResult::Status status) {
  using Status = MergeRunner::MergeResult::Status;
  switch (status) {
    case Status::merged: return "done";
    case Status::failed: return "failed";
    case Status::unknown: return "unknown";
    case Status::skipped:
    case Status::notAttempted: return "notAttempted";
  }
  return "notAttempted";
}

const char* changeState(ChangeRunner::ChangeResult::Status status) {
  using Status = ChangeRunner::ChangeResult::Status;
  return status == Status::done      ? "done"
         : status == Status::failed  ? "failed"
         : status == Status::unknown ? "unknown"
                                     : "notAttempted";
}

std::string keeperOf(const Resolution& resolution, std::int64_t groupId) {
  for (const ResolvedGroup& group : resolution.groups) {
    if (group.group.id != groupId) continue;
    for (const SnapshotRecord& record : group.records) {
      if (record.rid == group.keeperRid) return record.sfid;
    }
  }
  return "";
}

std::string isoNow() { return IsoTime::formatPlain(std::chrono::system_clock::now()); }

std::string notJournaled(const std::exception& error) {
  std::string reason = error.what();
  while (!reason.empty() && (reason.back() == '.' || reason.back() == ' ')) reason.pop_back();
  return "Not attempted: what these records hold now could not be read and kept for undo first ("
         + reason + ").";
}

// Merges group after group, each step's groups journaled (UndoJournal)
// before their first merge leaves; their outcomes and the kept records'
// SystemModstamps after.
// signedOut: Salesforce ended the session while the records were being read.
std::vector<MergeRunner::MergeResult> mergeJournaled(
    DedupeTransport& transport, const Resolution& resolution, MergeRunner& runner,
    const std::function<void(std::size_t, std::size_t)>& progress, UndoJournal& journal,
    std::int64_t applyId, bool& signedOut) {
  using Status = MergeRunner::MergeResult::Status;
  const std::vector<PlannedMerge>& merges = resolution.plan.merges;
  std::vector<MergeRunner::MergeResult> results(merges.size());
  for (std::size_t i = 0; i < merges.size(); ++i) {
    results[i] = {i, merges[i].primary, merges[i].loser, false,
                  MergeRunner::notAttemptedCancelled(), Status::notAttempted};
  }
  // The merges of each group, groups in the order of their first merge.
  std::vector<std::int64_t> order;
  std::map<std::int64_t, std::vector<std::size_t>> ofGroup;
  for (std::size_t i = 0; i < merges.size(); ++i) {
    if (!ofGroup.count(merges[i].groupId)) order.push_back(merges[i].groupId);
    ofGroup[merges[i].groupId].push_back(i);
  }
  std::size_t done = 0;
  UndoCapture::ChildKinds kinds(transport);  // described once for every step
  for (std::size_t start = 0; start < order.size(); start += groupsPerJournalStep) {
    const std::size_t end = std::min(order.size(), start + groupsPerJournalStep);
    std::vector<UndoCapture::Pending> pending;
    std::vector<std::size_t> indices;
    std::map<std::string, std::vector<std::string>> keepers;  // by object
    for (std::size_t g = start; g < end; ++g) {
      const std::vector<std::size_t>& ofThis = ofGroup[order[g]];
      const PlannedMerge& first = merges[ofThis.front()];
      const std::string object = first.object.empty() ? resolution.info.objectName : first.object;
      UndoCapture::Pending group{order[g], object, "merge", first.primary, {}};
      for (std::size_t i : ofThis) {
        group.losers.push_back(merges[i].loser);
        indices.push_back(i);
      }
      keepers[object].push_back(first.primary);
      pending.push_back(std::move(group));
    }
    try {
      journal.recordBefore(applyId, UndoCapture::capture(transport, pending, isoNow(), &kinds));
    } catch (const std::exception& error) {
      signedOut = transport.classify(error).signedOut;
      for (std::size_t g = start; g < order.size(); ++g) {
        for (std::size_t i : ofGroup[order[g]]) {
          if (signedOut) {
            results[i].message = MergeRunner::notAttemptedSignedOut();
          } else {
            results[i].status = Status::failed;
            results[i].message = notJournaled(error);
          }
        }
      }
      break;
    }
    std::vector<PlannedMerge> step;
    for (std::size_t i : indices) step.push_back(merges[i]);
    const std::size_t before = done;
    std::vector<MergeRunner::MergeResult> stepResults =
        runner.run(step, [&](std::size_t stepDone, std::size_t) {
          if (progress) progress(before + stepDone, merges.size());
        });
    done += step.size();
    for (std::size_t k = 0; k < stepResults.size() && k < indices.size(); ++k) {
      MergeRunner::MergeResult result = std::move(stepResults[k]);
      result.index = indices[k];
      journal.recordOutcome(applyId, merges[indices[k]].groupId, merges[indices[k]].loser,
                            journalState(result.status), result.message.value_or(""));
      results[indices[k]] = std::move(result);
    }
    for (const auto& [object, ids] : keepers) {
      try {
        const auto now = UndoCapture::stamps(transport, object, ids);
        for (const UndoCapture::Pending& group : pending) {
          auto stamp = now.find(UndoCapture::idKey(group.keeper));
          if (group.object == object && stamp != now.end())
            journal.recordKeeperStamp(applyId, group.groupId, stamp->second);
        }
      } catch (const std::exception&) {
        // Without the stamp, an undo asks for --force before touching the kept record.
      }
    }
    if (runner.signedOut() || runner.cancelled()) {
      const std::string message = runner.signedOut() ? MergeRunner::notAttemptedSignedOut()
                                                     : MergeRunner::notAttemptedCancelled();
      for (std::size_t g = end; g < order.size(); ++g) {
        for (std::size_t i : ofGroup[order[g]]) results[i].message = message;
      }
      break;
    }
  }
  return results;
}

// The number of a group of records already there as another object's: below
// every group the journal holds, so that it names that group alone.
std::int64_t alreadyGroupId(const UndoJournal& journal) {
  return std::min<std::int64_t>(-1, journal.lowestGroupId() - 1);
}

// Journals the groups (UndoJournal), then makes the changes with send; when
// what the records hold could not be read and kept first, none is sent.
// groupOverride: the group number the changes are journaled under, when not
// their own.
std::vector<ChangeRunner::ChangeResult> sendJournaled(
    DedupeTransport& transport, const std::vector<PlannedChange>& changes,
    const std::function<std::vector<UndoGroup>()>& capture,
    const std::function<std::vector<ChangeRunner::ChangeResult>()>& send, UndoJournal& journal,
    std::int64_t applyId, std::optional<std::int64_t> groupOverride = std::nullopt) {
  try {
    journal.recordBefore(applyId, capture());
  } catch (const std::exception& error) {
    const bool signedOut = transport.classify(error).signedOut;
    std::vector<ChangeRunner::ChangeResult> results;
    for (const PlannedChange& change : changes) {
      results.push_back({change.sfid, change.groupId, false,
                         signedOut ? ChangeRunner::notAttemptedSignedOut() : notJournaled(error),
                         signedOut ? ChangeRunner::ChangeResult::Status::notAttempted
                                   : ChangeRunner::ChangeResult::Status::failed});
    }
    return results;
  }
  std::vector<ChangeRunner::ChangeResult> results = send();
  for (const ChangeRunner::ChangeResult& result : results) {
    journal.recordOutcome(applyId, groupOverride.value_or(result.groupId), result.sfid,
                          changeState(result.status), result.message.value_or(""));
  }
  return results;
}

// Deletes the records, every one journaled (UndoJournal) before the first
// call: the losers under their groups, or records already there as another
// object's as one group of their own (groupOverride).
std::vector<ChangeRunner::ChangeResult> deleteJournaled(
    DedupeTransport& transport, const Resolution& resolution,
    const std::vector<PlannedChange>& deletes, ChangeRunner& runner,
    const std::function<void(std::size_t, std::size_t)>& progress, UndoJournal& journal,
    std::int64_t applyId, std::optional<std::int64_t> groupOverride = std::nullopt) {
  const auto capture = [&] {
    std::vector<UndoCapture::Pending> pending;
    std::map<std::int64_t, std::size_t> at;
    for (const PlannedChange& change : deletes) {
      const std::int64_t group = groupOverride.value_or(change.groupId);
      auto found = at.find(group);
      if (found == at.end()) {
        const std::string object =
            change.object.empty() ? resolution.info.objectName : change.object;
        found = at.emplace(group, pending.size()).first;
        pending.push_back(
            {group, object, "delete", groupOverride ? "" : keeperOf(resolution, group), {}});
      }
      pending[found->second].losers.push_back(change.sfid);
    }
    return UndoCapture::capture(transport, pending, isoNow());
  };
  return sendJournaled(
      transport, deletes, capture, [&] { return runner.deleteRecords(deletes, progress); },
      journal, applyId, groupOverride);
}

// Updates the records (a tag, or gaps filled in), each one's values of the
// fields written journaled (UndoJournal) before the first call.
std::vector<ChangeRunner::ChangeResult> updateJournaled(
    DedupeTransport& transport, const Resolution& resolution,
    const std::vector<PlannedChange>& updates, ChangeRunner& runner,
    const std::function<void(std::size_t, std::size_t)>& progress, UndoJournal& journal,
    std::int64_t applyId, std::optional<std::int64_t> groupOverride = std::nullopt) {
  const auto capture = [&] {
    std::vector<UndoCapture::PendingUpdate> pending;
    for (const PlannedChange& change : updates) {
      pending.push_back({groupOverride.value_or(change.groupId),
                         change.object.empty() ? resolution.info.objectName : change.object,
                         groupOverride ? "" : keeperOf(resolution, change.groupId), change.sfid,
                         change.fields});
    }
    return UndoCapture::captureUpdates(transport, pending, isoNow());
  };
  return sendJournaled(
      transport, updates, capture, [&] { return runner.updateRecords(updates, progress); },
      journal, applyId, groupOverride);
}

void count(const std::vector<ChangeRunner::ChangeResult>& results, ApplyOutcome& outcome) {
  for (const ChangeRunner::ChangeResult& result : results) {
    using Status = ChangeRunner::ChangeResult::Status;
    switch (result.status) {
      case Status::done:
        ++outcome.done;
        break;
      case Status::failed:
        ++outcome.failed;
        break;
      case Status::unknown:
        ++outcome.unknown;
        break;
      case Status::notAttempted:
        ++outcome.notDone;
        break;
    }
  }
}

bool anySignedOut(const std::vector<ChangeRunner::ChangeResult>& results) {
  return std::any_of(results.begin(), results.end(), [](const auto& result) {
    return result.message == ChangeRunner::notAttemptedSignedOut();
  });
}

void run(SalesforceAPI::Client& api, const Resolution& resolution, const ApplyOptions& options,
         std::stop_token stop, const DedupeProgressHandler& onProgress, ApplyOutcome& outcome) {
  const ResolutionPlan& plan = resolution.plan;
  DedupeAPITransport transport(api, resolution.org.value());
  const auto progress = [&onProgress](std::size_t done, std::size_t total) {
    report(onProgress, DedupeProgress::Phase::changing, done, total);
  };
  const auto shouldCancel = [&stop] { return stop.stop_requested(); };
  ChangeRunner::Options runnerOptions;
  runnerOptions.lockPause = options.lockPause;
  runnerOptions.lockAttempts = options.lockAttempts;
  runnerOptions.shouldCancel = shouldCancel;
  using Kind = ResolutionAction::Kind;
  // This apply's entries in the undo journal, numbered apart from every
  // earlier apply's; opened when something is to be journaled.
  std::optional<UndoJournal> journal;
  std::int64_t applyId = 0;
  const auto undoJournal = [&]() -> UndoJournal& {
    if (!journal) {
      journal.emplace(resolution.snapshot);
      applyId = journal->beginApply(isoNow());
    }
    return *journal;
  };
  if (plan.merges.empty() && plan.deletes.empty() && plan.updates.empty()) {
    // Only records already there to remove.
  } else if (plan.action.kind == Kind::merge) {
    MergeRunner runner(transport, resolution.info.objectName,
                       {options.lockAttempts, options.lockPause, {}, shouldCancel});
    bool signedOut = false;
    UndoJournal& opened = undoJournal();
    outcome.merges =
        mergeJournaled(transport, resolution, runner, progress, opened, applyId, signedOut);
    for (const MergeRunner::MergeResult& result : outcome.merges) {
      using Status = MergeRunner::MergeResult::Status;
      switch (result.status) {
        case Status::merged: ++outcome.done; break;
        case Status::failed: ++outcome.failed; break;
        case Status::unknown: ++outcome.unknown; break;
        case Status::skipped:
        case Status::notAttempted: ++outcome.notDone; break;
      }
    }
    outcome.signedOut = signedOut || runner.signedOut();
    outcome.stopped = runner.cancelled();
  } else {
    ChangeRunner runner(transport, runnerOptions);
    if (plan.action.kind == Kind::deleteLosers) {
      UndoJournal& opened = undoJournal();
      outcome.changes =
          deleteJournaled(transport, resolution, plan.deletes, runner, progress, opened, applyId);
    } else {
      UndoJournal& opened = undoJournal();
      outcome.changes =
          updateJournaled(transport, resolution, plan.updates, runner, progress, opened, applyId);
    }
    count(outcome.changes, outcome);
    outcome.signedOut = runner.signedOut() || anySignedOut(outcome.changes);
    outcome.stopped = runner.cancelled();
  }
  if (plan.already.empty()) return;
  if (outcome.signedOut || outcome.stopped) {
    for (const PlannedChange& change : plan.already) {
      outcome.already.push_back({change.sfid, 0, false,
                                 outcome.signedOut ? ChangeRunner::notAttemptedSignedOut()
                                                   : ChangeRunner::notAttemptedCancelled(),
                                 ChangeRunner::ChangeResult::Status::notAttempted});
    }
  } else {
    ChangeRunner runner(transport, runnerOptions);
    UndoJournal& opened = undoJournal();
    const std::int64_t group = alreadyGroupId(opened);
    if (plan.action.kind == Kind::tagLosers) {
      outcome.already = updateJournaled(transport, resolution, plan.already, runner, progress,
                                        opened, applyId, group);
    } else {
      outcome.already = deleteJournaled(transport, resolution, plan.already, runner, progress,
                                        opened, applyId, group);
    }
    outcome.signedOut = runner.signedOut() || anySignedOut(outcome.already);
    outcome.stopped = runner.cancelled();
  }
  count(outcome.already, outcome);
}

}  // namespace

namespace {

std::string mergeOutcome(MergeRunner::MergeResult::Status status) {
  using Status = MergeRunner::MergeResult::Status;
  switch (status) {
    case Status::merged:
      return "Merged";
    case Status::failed:
      return "Failed";
    case Status::unknown:
      return "Unknown: check in Salesforce";
    case Status::skipped:
      return "Skipped";
    case Status::notAttempted:
      return "Not attempted";
  }
  return "";
}

std::string changeOutcome(ChangeRunner::ChangeResult::Status status, bool deleting) {
  using Status = ChangeRunner::ChangeResult::Status;
  switch (status) {
    case Status::done:
      return deleting ? "Deleted" : "Updated";
    case Status::failed:
      return "Failed";
    case Status::unknown:
      return "Unknown: check in Salesforce";
    case Status::notAttempted:
      return "Not attempted";
  }
  return "";
}

std::string valuesText(const std::map<std::string, std::string>& values,
                       const std::map<std::string, std::string>& sources) {
  std::string out;
  for (const auto& [field, value] : values) {
    out += (out.empty() ? "" : ", ") + field + " = \"" + value + "\"";
    if (auto from = sources.find(field); from != sources.end())
      out += " (from " + from->second + ")";
  }
  return out;
}

}  // namespace

std::vector<ResolutionResultsWorkbook::Entry> resultEntries(const Resolution& resolution,
                                                            const ApplyOutcome& outcome) {
  using Entry = ResolutionResultsWorkbook::Entry;
  using Kind = ResolutionAction::Kind;
  const ResolutionPlan& plan = resolution.plan;
  const bool deleting = plan.action.kind == Kind::deleteLosers;

  // What happened to each record the plan changes, by Id.
  std::map<std::string, std::pair<std::string, std::string>> happened;  // outcome, message
  std::map<std::string, std::string> planned;                           // action
  std::map<std::int64_t, const PlannedMerge*> carrier;  // the merge that carries a group's values
  std::map<std::int64_t, bool> carried;                 // whether it went through
  std::vector<const MergeRunner::MergeResult*> mergeResult(plan.merges.size(), nullptr);
  for (const MergeRunner::MergeResult& result : outcome.merges) {
    if (result.index < mergeResult.size()) mergeResult[result.index] = &result;
  }
  for (std::size_t i = 0; i < plan.merges.size(); ++i) {
    const PlannedMerge& merge = plan.merges[i];
    planned[merge.loser] = "Merge into " + merge.primary;
    if (!carrier.count(merge.groupId)) carrier[merge.groupId] = &merge;
    if (const MergeRunner::MergeResult* result = mergeResult[i]) {
      happened[merge.loser] = {mergeOutcome(result->status), result->message.value_or("")};
      if (carrier[merge.groupId] == &merge) {
        carried[merge.groupId] = result->status == MergeRunner::MergeResult::Status::merged;
      }
    }
  }
  for (const PlannedChange& change : plan.deletes) planned[change.sfid] = "Delete";
  for (const PlannedChange& change : plan.updates) {
    planned[change.sfid] = "Update " + valuesText(change.fields, {});
  }
  for (const ChangeRunner::ChangeResult& result : outcome.changes) {
    happened[result.sfid] = {changeOutcome(result.status, deleting), result.message.value_or("")};
  }
  const std::map<std::int64_t, std::string> skipped(plan.skipped.begin(), plan.skipped.end());
  const std::map<std::int64_t, int> heldBack(plan.heldBack.begin(), plan.heldBack.end());

  std::vector<Entry> entries;
  const auto planEntries = [&](const ResolvedGroup& group) {
    const std::int64_t id = group.group.id;
    for (const SnapshotRecord& record : group.records) {
      Entry entry{record.sfid, id, record.name, "None", "", ""};
      const bool isKeeper = record.rid == group.keeperRid;
      if (auto reason = skipped.find(id); reason != skipped.end()) {
        entry.outcome = "Skipped";
        entry.detail = reason->second;
      } else if (auto held = heldBack.find(id); held != heldBack.end() && !plan.heldBackIncluded) {
        entry.outcome = "Held back";
        entry.detail = std::to_string(held->second) +
                       " of the group's records differ from all the others, so it was left for "
                       "you to look at.";
      } else if (isKeeper && !planned.count(record.sfid)) {
        entry.action = "Keep";
        entry.outcome = "Kept";
        if (auto merge = carrier.find(id);
            merge != carrier.end() && !merge->second->fieldValues.empty()) {
          const std::string values =
              valuesText(merge->second->fieldValues, merge->second->fieldSources);
          entry.detail = carried[id] ? "Took " + values
                                     : "Its values were not changed, as the merge carrying them "
                                       "did not go through: " +
                                           values;
        }
      } else if (auto action = planned.find(record.sfid); action != planned.end()) {
        entry.action = action->second;
        auto result = happened.find(record.sfid);
        entry.outcome = result == happened.end() ? "Not attempted" : result->second.first;
        if (result != happened.end()) entry.detail = result->second.second;
      } else {
        entry.outcome = "Unchanged";
      }
      entries.push_back(std::move(entry));
    }
  };

  if (!resolution.decisions) {
    for (const ResolvedGroup& group : resolution.groups) planEntries(group);
    return entries;
  }
  std::map<std::int64_t, const ResolvedGroup*> resolved;
  for (const ResolvedGroup& group : resolution.groups) resolved[group.group.id] = &group;
  using Decision = DecisionPlan::Decision;
  for (const DecisionPlan::DecidedGroup& decided : resolution.decisions->decided) {
    const ResolvedGroup* group = resolved.count(decided.id) ? resolved[decided.id] : nullptr;
    if (group) planEntries(*group);
    for (const DecisionPlan::DecidedRecord& row : decided.records) {
      const bool inPlan = group && std::any_of(group->records.begin(), group->records.end(),
                                               [&](const SnapshotRecord& record) {
                                                 return record.rid == row.record.rid;
                                               });
      if (inPlan) continue;
      Entry entry{row.record.sfid, decided.id,       row.record.name,
                  "None",          "Left untouched", "Its Action was blank."};
      if (row.decision == Decision::notDuplicate) {
        entry.action = "Not a duplicate";
        entry.outcome = outcome.remembered > 0 ? "Remembered" : "Not remembered";
        entry.detail = "Later matches leave it out of every group.";
      } else if (row.decision == Decision::keep) {
        entry.action = "Keep";
        entry.outcome = "Kept";
        entry.detail = group ? "Another record marked Keep received the group's records."
                             : "No record of its group was marked Delete.";
      }
      entries.push_back(std::move(entry));
    }
  }
  // The records already there as another object's, after the groups.
  std::map<std::string, const ChangeRunner::ChangeResult*> alreadyResult;
  for (const ChangeRunner::ChangeResult& result : outcome.already)
    alreadyResult[result.sfid] = &result;
  const bool tagging = plan.action.kind == Kind::tagLosers;
  for (const DecisionPlan::AlreadyRecord& row : resolution.decisions->already) {
    Entry entry{row.record.sfid, std::nullopt, row.record.name, "", "Not attempted", ""};
    entry.action = tagging ? "Update " + plan.action.fieldName + " = \"" + row.otherId + "\""
                           : std::string("Delete");
    if (auto found = alreadyResult.find(row.record.sfid); found != alreadyResult.end()) {
      entry.outcome = changeOutcome(found->second->status, !tagging);
      entry.detail = found->second->message.value_or("");
    }
    if (entry.detail.empty())
      entry.detail = DecisionPlan::alreadyAs(resolution.decisions->otherLabel, row);
    entries.push_back(std::move(entry));
  }
  return entries;
}

void ApplyOutcome::throwIfIncomplete() const {
  if (signedOut) throw DedupeError::signedOutPartWay(done, notDone);
  if (stopped) throw DedupeError::stoppedPartWay(done, notDone);
  if (failed > 0 || unknown > 0) throw DedupeError::notApplied(failed, unknown);
}

}  // namespace corvane::ResolutionTask
