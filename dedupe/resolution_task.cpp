#include "dedupe/resolution_task.hpp"

#include <map>

#include <nlohmann/json.hpp>

#include "connections/api_transport.hpp"
#include "connections/download_error.hpp"
#include "dedupe/match_task.hpp"
#include "dedupe/snapshot_task.hpp"

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

}  // namespace

Resolution plan(SalesforceAPI::Client& api, const FindLogin& findLogin,
                const std::filesystem::path& snapshot, const Request& request,
                std::stop_token stop, const DedupeProgressHandler& onProgress) {
  Resolution resolution;
  resolution.snapshot = snapshot;
  resolution.keeper = request.keeper;
  auto store = SnapshotTask::open(snapshot);
  resolution.info = store->info();
  using Kind = ResolutionAction::Kind;
  const bool writes = request.action.kind == Kind::merge ||
                      request.action.kind == Kind::fillGaps ||
                      request.action.kind == Kind::tagLosers;
  if (request.forApply || writes) {
    std::string chosen = request.login.empty() ? resolution.info.downloadedBy : request.login;
    if (chosen.empty()) throw DedupeError::noLogin();
    resolution.org = findLogin(chosen);
  }

  MatchOutcome outcome = MatchTask::groups(*store, request.settings, stop, onProgress);
  resolution.groups = ResolutionPlanner::resolve(*store, outcome.groups, request.keeper);

  ResolutionPlanner::Context planning = ResolutionPlanner::contextFor(*store);
  planning.includeHeldBack = request.includeHeldBack;
  if (writes) {
    std::vector<std::string> objects;
    for (const auto& object : planning.objects) objects.push_back(object.name);
    if (objects.empty()) objects.push_back(resolution.info.objectName);
    planning.writableFields = writableFields(api, *resolution.org, objects);
  }
  resolution.plan = ResolutionPlanner::plan(resolution.groups, request.action, planning);
  if (stop.stop_requested()) throw DedupeError::stopped();
  return resolution;
}

namespace {

bool changesNothing(const ResolutionPlan& plan) {
  return plan.action.kind == ResolutionAction::Kind::exportOnly ||
         (plan.merges.empty() && plan.deletes.empty() && plan.updates.empty());
}

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
  if (changesNothing(plan)) return outcome;
  if (!checked.allFresh()) throw PreflightError::recordsChanged();
  if (stop.stop_requested()) throw DedupeError::stopped();

  DedupeAPITransport transport(api, resolution.org.value());
  const auto progress = [&onProgress](std::size_t done, std::size_t total) {
    report(onProgress, DedupeProgress::Phase::changing, done, total);
  };
  const auto shouldCancel = [&stop] { return stop.stop_requested(); };
  using Kind = ResolutionAction::Kind;
  if (plan.action.kind == Kind::merge) {
    MergeRunner runner(transport, resolution.info.objectName,
                       {options.lockAttempts, options.lockPause, {}, shouldCancel});
    outcome.merges = runner.run(plan.merges, progress);
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
    outcome.signedOut = runner.signedOut();
    outcome.stopped = runner.cancelled();
  } else {
    ChangeRunner::Options runnerOptions;
    runnerOptions.lockPause = options.lockPause;
    runnerOptions.lockAttempts = options.lockAttempts;
    runnerOptions.shouldCancel = shouldCancel;
    ChangeRunner runner(transport, runnerOptions);
    outcome.changes = plan.action.kind == Kind::deleteLosers
                          ? runner.deleteRecords(plan.deletes, progress)
                          : runner.updateRecords(plan.updates, progress);
    for (const ChangeRunner::ChangeResult& result : outcome.changes) {
      using Status = ChangeRunner::ChangeResult::Status;
      switch (result.status) {
        case Status::done: ++outcome.done; break;
        case Status::failed: ++outcome.failed; break;
        case Status::unknown: ++outcome.unknown; break;
        case Status::notAttempted: ++outcome.notDone; break;
      }
    }
    outcome.signedOut = runner.signedOut();
    outcome.stopped = runner.cancelled();
  }
  return outcome;
}

void ApplyOutcome::throwIfIncomplete() const {
  if (signedOut) throw DedupeError::signedOutPartWay(done, notDone);
  if (stopped) throw DedupeError::stoppedPartWay(done, notDone);
  if (failed > 0 || unknown > 0) throw DedupeError::notApplied(failed, unknown);
}

}  // namespace corvane::ResolutionTask
