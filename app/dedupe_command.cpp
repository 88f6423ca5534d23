#include "app/dedupe_command.hpp"

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <iostream>
#include <map>
#include <thread>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/dedupe_against_command.hpp"
#include "app/dedupe_undo_command.hpp"
#include "app/production_guard.hpp"
#include "connections/download_error.hpp"
#include "dedupe/match_task.hpp"

namespace corvane::DedupeCommand {

namespace {

FindLogin loginsOf(CommandContext& context) {
  return [&context](const std::string& login) {
    auto orgs = context.cli.listOrgs(true, context.listTimeout);
    return OrgsCommand::findLogin(orgs, login);
  };
}

// Prints a download's phases: a bar that redraws in place on a terminal, one
// line per page elsewhere.
class ProgressPrinter {
 public:
  explicit ProgressPrinter(std::ostream& out)
      : out_(out), inPlace_(&out == &std::cout && ::isatty(STDOUT_FILENO) == 1) {}

  void operator()(const DedupeProgress& progress) {
    using Phase = DedupeProgress::Phase;
    if (progress.phase == Phase::starting || progress.phase == Phase::preparing) {
      if (progress.text != lastText_) line(progress.text, true);
      lastText_ = progress.text;
    } else if (progress.phase == Phase::downloading) {
      constexpr int width = 30;
      double share = progress.total > 0 ? std::min(1.0, static_cast<double>(progress.done) /
                                                            static_cast<double>(progress.total))
                                        : 0.0;
      int filled = static_cast<int>(share * width);
      line(fmt::format("[{}{}] {:3.0f}%  {} of {} records, {} received", std::string(filled, '#'),
                       std::string(width - filled, '-'), share * 100, digitGroups(progress.done),
                       digitGroups(progress.total), byteCountText(progress.bytes)),
           false);
    } else if (progress.phase == Phase::finished || progress.phase == Phase::paused) {
      if (open_) out_ << '\n';
      open_ = false;
    }
  }

 private:
  void line(const std::string& text, bool final) {
    if (inPlace_ && !final) {
      out_ << '\r' << text << "\x1b[K" << std::flush;
      open_ = true;
      return;
    }
    if (open_) out_ << '\n';
    open_ = false;
    out_ << text << '\n' << std::flush;
  }

  std::ostream& out_;
  bool inPlace_;
  bool open_ = false;
  std::string lastText_;
};

using DownloadCall = std::function<SnapshotTask::DownloadOutcome(const DedupeProgressHandler&)>;

std::filesystem::path runDownload(CommandContext& context, const DownloadCall& call) {
  ProgressPrinter printer(context.out);
  std::string started;  // the snapshot, once the download is under way
  const auto stopped = [&] {
    context.out << downloadStoppedText << "\nTo continue: corvane dedupe resume \"" << started
                << "\"\n";
  };
  try {
    const SnapshotTask::DownloadOutcome outcome = call([&](const DedupeProgress& progress) {
      if (progress.phase == DedupeProgress::Phase::starting) started = progress.item;
      printer(progress);
    });
    if (outcome.alreadyComplete) {
      context.out << "This snapshot is complete: " << digitGroups(outcome.records) << " records.\n";
    } else if (outcome.stopped) {
      stopped();
    } else {
      context.out << "Stored " << digitGroups(outcome.records) << " records in "
                  << outcome.snapshot.string() << '\n';
    }
    return outcome.snapshot;
  } catch (const DownloadError& error) {
    using Kind = DownloadError::Kind;
    if (!started.empty() && error.kind() != Kind::jobExpired &&
        error.kind() != Kind::objectNotSupported && error.kind() != Kind::jobFailed) {
      stopped();
    }
    throw;
  } catch (const UserFacingError&) {
    if (!started.empty()) stopped();
    throw;
  }
}

std::string why(const DuplicateGroup& group) {
  return group.weakestLink >= 1.0 ? "All matching fields are exactly the same."
                                   : "Matching fields are the same or very close.";
}

nlohmann::json statsJSON(const MatchStats& stats) {
  nlohmann::json fillers = nlohmann::json::array();
  for (const auto& values : stats.fillerValuesPerField) {
    nlohmann::json field = nlohmann::json::array();
    for (const ValueCount& value : values) field.push_back({{"value", value.value}, {"count", value.count}});
    fillers.push_back(std::move(field));
  }
  return {{"recordsScanned", stats.recordsScanned},
          {"skippedBlankPerField", stats.skippedBlankPerField},
          {"skippedFillerPerField", stats.skippedFillerPerField},
          {"fillerValuesPerField", fillers},
          {"skippedTotal", stats.skippedTotal},
          {"excludedByUser", stats.excludedByUser},
          {"groupCount", stats.groupCount},
          {"recordsInGroups", stats.recordsInGroups},
          {"largestGroup", stats.largestGroup},
          {"exactOnlyGroups", stats.exactOnlyGroups},
          {"comparisons", stats.comparisons},
          {"splitExamined", stats.splitExamined},
          {"splitPerformed", stats.splitPerformed},
          {"splitPieces", stats.splitPieces},
          {"splitTooBig", stats.splitTooBig},
          {"largestGroupBefore", stats.largestGroupBefore}};
}

}  // namespace

std::filesystem::path download(CommandContext& context, SalesforceAPI::Client& api,
                               const std::string& login, const std::string& object,
                               const DownloadOptions& options, std::stop_token stop) {
  return runDownload(context, [&](const DedupeProgressHandler& onProgress) {
    return SnapshotTask::download(api, loginsOf(context), login, object, options, stop, onProgress);
  });
}

std::filesystem::path resume(CommandContext& context, SalesforceAPI::Client& api,
                             const std::filesystem::path& snapshot, const std::string& login,
                             const DownloadOptions& options, std::stop_token stop) {
  return runDownload(context, [&](const DedupeProgressHandler& onProgress) {
    return SnapshotTask::resume(api, loginsOf(context), snapshot, login, options.runner, stop,
                                onProgress);
  });
}

void listSnapshots(CommandContext& context, SalesforceAPI::Client& api, const std::string& login,
                   bool json) {
  const SnapshotTask::Listing listing = SnapshotTask::list(api, loginsOf(context), login);
  if (json) {
    nlohmann::json snapshots = nlohmann::json::array();
    for (const SnapshotInfo& info : listing.snapshots) {
      const auto known = [](const std::string& text) {
        return text.empty() ? nlohmann::json() : nlohmann::json(text);
      };
      snapshots.push_back({{"file", info.url.string()}, {"object", info.objectName},
                           {"objectLabel", known(info.objectLabel)}, {"records", info.recordCount},
                           {"expected", info.totalExpected}, {"complete", info.complete},
                           {"bytes", info.fileBytes}, {"downloadedAt", known(info.downloadedAt)},
                           {"downloadedBy", known(info.downloadedBy)}});
    }
    context.out << nlohmann::json{{"login", listing.username}, {"snapshots", snapshots},
                                  {"bytesUsed", listing.bytesUsed}}.dump(2) << '\n';
    return;
  }
  if (listing.snapshots.empty()) {
    context.out << "No snapshots for " << listing.username << " yet.\n";
    return;
  }
  constexpr const char* row = "{:<20} {:>12} {:>12} {:<9} {:>10}  {:<20} {}\n";
  context.out << fmt::format(row, "Object", "Records", "Expected", "State", "Size", "Downloaded",
                             "File");
  for (const SnapshotInfo& info : listing.snapshots) {
    context.out << fmt::format(row, info.objectName, digitGroups(info.recordCount),
                               digitGroups(info.totalExpected),
                               info.complete ? "complete" : "paused",
                               byteCountText(info.fileBytes), info.downloadedAt.substr(0, 19),
                               info.url.string());
  }
  context.out << "Together " << byteCountText(listing.bytesUsed) << '\n';
}

void remove(CommandContext& context, const std::filesystem::path& snapshot) {
  SnapshotTask::remove(snapshot);
  context.out << "Deleted " << snapshot.string() << '\n';
}

MatchOutcome match(CommandContext& context, const std::filesystem::path& snapshot,
                   const MatchOptions& options) {
  DedupeProgressHandler progress;
  if (!options.json) {
    progress = [&context](const DedupeProgress& step) { context.out << step.text << '\n'; };
  }
  MatchTask::Outcome outcome = MatchTask::run(snapshot, options.settings, {}, progress);
  const std::vector<MatchField>& fields = outcome.fields;
  auto& records = outcome.records;

  if (options.json) {
    nlohmann::json groups = nlohmann::json::array();
    for (const DuplicateGroup& group : outcome.match.groups) {
      nlohmann::json members = nlohmann::json::array();
      for (const Rid rid : group.members) {
        const SnapshotRecord& record = records[rid];
        nlohmann::json values = nlohmann::json::object();
        for (std::size_t f = 0; f < fields.size() && f < record.values.size(); ++f) {
          values[fields[f].name] = record.values[f];
        }
        members.push_back({{"rid", rid}, {"id", record.sfid}, {"name", record.name}, {"values", values}});
      }
      groups.push_back({{"id", group.id},
                        {"members", members},
                        {"weakestLink", group.weakestLink},
                        {"distinctCount", group.distinctCount},
                        {"fromSplit", group.fromSplit},
                        {"why", why(group)}});
    }
    context.out << nlohmann::json{{"groups", groups}, {"stats", statsJSON(outcome.match.stats)}}.dump(2)
                << '\n';
    return outcome.match;
  }

  for (const DuplicateGroup& group : outcome.match.groups) {
    context.out << fmt::format("Group {}: {} records, weakest link {:.4f}{}. {}\n", group.id,
                               group.members.size(), group.weakestLink,
                               group.fromSplit ? ", split from a larger group" : "", why(group));
    for (const Rid rid : group.members) {
      const SnapshotRecord& record = records[rid];
      std::string values;
      for (std::size_t f = 0; f < fields.size() && f < record.values.size(); ++f) {
        values += (f == 0 ? "" : " | ") + record.values[f];
      }
      context.out << fmt::format("  {}  {}  ({})\n", record.sfid, record.name, values);
    }
  }
  const MatchStats& stats = outcome.match.stats;
  context.out << fmt::format(
      "{} groups holding {} records (largest {}; {} exactly the same) among {} records; "
      "{} comparisons.\n",
      stats.groupCount, stats.recordsInGroups, stats.largestGroup, stats.exactOnlyGroups,
      stats.recordsScanned, stats.comparisons);
  for (std::size_t f = 0; f < fields.size(); ++f) {
    const std::int64_t blank = stats.skippedBlankPerField[f];
    const std::int64_t filler = stats.skippedFillerPerField[f];
    if (blank == 0 && filler == 0) continue;
    context.out << fmt::format("{}: {} blank, {} filler (\"we do not know\") values left out.\n",
                               fields[f].label, blank, filler);
  }
  if (stats.excludedByUser > 0) {
    context.out << fmt::format("{} records marked \"not a duplicate\" were left out.\n",
                               stats.excludedByUser);
  }
  if (stats.splitExamined > 0) {
    context.out << fmt::format(
        "{} large groups looked at again, {} split into {} pieces, {} too big to split "
        "(largest before: {}).\n",
        stats.splitExamined, stats.splitPerformed, stats.splitPieces, stats.splitTooBig,
        stats.largestGroupBefore);
  }
  return outcome.match;
}

void exclude(CommandContext& context, const std::filesystem::path& snapshot,
             const std::vector<std::string>& ids) {
  const std::size_t marked = MatchTask::exclude(snapshot, ids);
  context.out << fmt::format("Marked {} record{} \"not a duplicate\": {} will be left out of every "
                             "later match.\n",
                             marked, marked == 1 ? "" : "s", marked == 1 ? "it" : "they");
}

namespace {

std::string recordText(const SnapshotRecord& record) {
  return record.name.empty() ? record.sfid : record.sfid + " (" + record.name + ")";
}

// `Field = "value"`, each followed by the record it comes from when known.
std::string valuesText(const std::map<std::string, std::string>& values,
                       const std::map<std::string, std::string>& sources = {},
                       const std::function<std::string(const std::string&)>& named = {}) {
  std::string out;
  for (const auto& [field, value] : values) {
    out += (out.empty() ? "" : ", ") + field + " = \"" + value + "\"";
    if (auto from = sources.find(field); from != sources.end()) {
      out += " (from " + (named ? named(from->second) : from->second) + ")";
    }
  }
  return out;
}

void printProblems(CommandContext& context, const DedupeError& error, bool json) {
  if (error.details().empty()) return;
  if (json) {
    context.out << nlohmann::json{{"problems", error.details()}}.dump(2) << '\n';
    return;
  }
  context.out << "Problems in the workbook:\n";
  for (const std::string& problem : error.details()) context.out << "  " << problem << '\n';
}

std::string actionText(const ResolutionAction& action) {
  switch (action.kind) {
    case ResolutionAction::Kind::merge: return "merge the other records into the kept one";
    case ResolutionAction::Kind::deleteLosers: return "delete the other records";
    case ResolutionAction::Kind::fillGaps:
      return "fill the kept record's empty fields from the others";
    case ResolutionAction::Kind::tagLosers:
      return "write the kept record's Id into " + action.fieldName + " of the others";
    case ResolutionAction::Kind::exportOnly: return "change nothing";
  }
  return "";
}

ResolutionTask::Resolution resolution(CommandContext& context, SalesforceAPI::Client& api,
                                      const std::filesystem::path& snapshot,
                                      const ResolveOptions& options, bool forApply) {
  ResolutionTask::Request request{options.settings,        options.keeper,    options.action,
                                  options.includeHeldBack, options.login,     forApply,
                                  options.decisions,       options.keepValues};
  try {
    return ResolutionTask::plan(api, loginsOf(context), snapshot, request, {});
  } catch (const DedupeError& error) {
    printProblems(context, error, options.json);
    throw;
  }
}

nlohmann::json planJSON(const ResolutionTask::Resolution& resolution) {
  const ResolutionPlan& plan = resolution.plan;
  std::map<std::int64_t, std::string> skipped(plan.skipped.begin(), plan.skipped.end());
  std::map<std::int64_t, int> heldBack(plan.heldBack.begin(), plan.heldBack.end());
  nlohmann::json groups = nlohmann::json::array();
  for (const ResolvedGroup& group : resolution.groups) {
    nlohmann::json entry{{"id", group.group.id}, {"members", nlohmann::json::array()}};
    for (const SnapshotRecord& record : group.records) {
      entry["members"].push_back({{"id", record.sfid}, {"name", record.name}});
    }
    if (const SnapshotRecord* keeper = group.keeper()) {
      entry["keeper"] = keeper->sfid;
      entry["why"] = group.keeperReason.empty()
                         ? KeeperRules::why(*keeper, resolution.keeper, group.records.size())
                         : group.keeperReason;
    }
    if (auto found = skipped.find(group.group.id); found != skipped.end()) {
      entry["skipped"] = found->second;
    }
    if (auto found = heldBack.find(group.group.id); found != heldBack.end()) {
      entry["heldBack"] = found->second;
    }
    groups.push_back(std::move(entry));
  }
  auto changes = [](const std::vector<PlannedChange>& list) {
    nlohmann::json out = nlohmann::json::array();
    for (const PlannedChange& change : list) {
      out.push_back({{"id", change.sfid},
                     {"modified", change.modified},
                     {"groupId", change.groupId},
                     {"fields", change.fields},
                     {"object", change.object}});
    }
    return out;
  };
  nlohmann::json merges = nlohmann::json::array();
  for (const PlannedMerge& merge : plan.merges) {
    merges.push_back({{"primary", merge.primary},
                      {"primaryModified", merge.primaryModified},
                      {"loser", merge.loser},
                      {"loserModified", merge.loserModified},
                      {"groupId", merge.groupId},
                      {"fieldValues", merge.fieldValues},
                      {"fieldSources", merge.fieldSources},
                      {"object", merge.object}});
  }
  nlohmann::json skippedJSON = nlohmann::json::array();
  for (const auto& [id, reason] : plan.skipped) skippedJSON.push_back({{"groupId", id}, {"reason", reason}});
  nlohmann::json heldJSON = nlohmann::json::array();
  for (const auto& [id, count] : plan.heldBack) heldJSON.push_back({{"groupId", id}, {"distinctCount", count}});
  nlohmann::json decisions;  // null without a decision workbook
  if (resolution.decisions) {
    nlohmann::json notDuplicates = nlohmann::json::array();
    for (const auto& [rid, sfid] : resolution.decisions->notDuplicates)
      notDuplicates.push_back(sfid);
    std::int64_t untouched = 0;
    for (const auto& decided : resolution.decisions->decided) {
      for (const auto& row : decided.records) {
        if (row.decision == DecisionPlan::Decision::none) ++untouched;
      }
    }
    decisions = {{"workbook", resolution.workbook->string()},
                 {"groups", resolution.decisions->decided.size()},
                 {"notDuplicates", notDuplicates},
                 {"untouched", untouched}};
  }
  return {{"action", plan.action.text()},
          {"keeper", std::string(rawValue(resolution.keeper))},
          {"decisions", decisions},
          {"groupCount", plan.groupCount},
          {"groups", groups},
          {"merges", merges},
          {"deletes", changes(plan.deletes)},
          {"updates", changes(plan.updates)},
          {"skipped", skippedJSON},
          {"heldBack", heldJSON},
          {"heldBackIncluded", plan.heldBackIncluded}};
}

void printPlan(CommandContext& context, const ResolutionTask::Resolution& resolution) {
  const ResolutionPlan& plan = resolution.plan;
  const KeeperRule rule = resolution.keeper;
  std::map<std::int64_t, std::string> skipped(plan.skipped.begin(), plan.skipped.end());
  std::map<std::int64_t, int> heldBack(plan.heldBack.begin(), plan.heldBack.end());
  std::map<std::string, const SnapshotRecord*> bySfid;
  for (const ResolvedGroup& group : resolution.groups) {
    for (const SnapshotRecord& record : group.records) bySfid[record.sfid] = &record;
  }
  if (resolution.decisions) {
    for (const auto& decided : resolution.decisions->decided) {
      for (const auto& row : decided.records) bySfid.emplace(row.record.sfid, &row.record);
    }
  }
  const std::function<std::string(const std::string&)> named = [&bySfid](const std::string& sfid) {
    auto found = bySfid.find(sfid);
    return found == bySfid.end() ? sfid : recordText(*found->second);
  };

  context.out << fmt::format("Plan for {} {} records: {}. {}{}\n", resolution.info.recordCount,
                             resolution.info.objectLabel, actionText(plan.action),
                             resolution.decisions ? "Where no record is marked Keep: " : "",
                             KeeperRules::label(rule));
  for (const ResolvedGroup& group : resolution.groups) {
    const std::int64_t id = group.group.id;
    if (auto found = skipped.find(id); found != skipped.end()) {
      context.out << fmt::format("Group {} ({} records) skipped: {}\n", id, group.records.size(),
                                 found->second);
      continue;
    }
    const SnapshotRecord* keeper = group.keeper();
    context.out << fmt::format(
        "Group {} ({} records): keep {}. {}.\n", id, group.records.size(), recordText(*keeper),
        group.keeperReason.empty() ? KeeperRules::why(*keeper, rule, group.records.size())
                                   : group.keeperReason);
    if (auto found = heldBack.find(id); found != heldBack.end()) {
      context.out << fmt::format(
          "  Held back: {} of its records differ from all the others. {}\n", found->second,
          plan.heldBackIncluded ? "Included, as you asked."
                                : "Look at it, then add --include-held-back to resolve it too.");
      if (!plan.heldBackIncluded) continue;
    }
    for (const PlannedMerge& merge : plan.merges) {
      if (merge.groupId != id) continue;
      context.out << "  merge " << named(merge.loser) << " into it";
      if (!merge.fieldValues.empty()) {
        context.out << ", setting " << valuesText(merge.fieldValues, merge.fieldSources, named);
      }
      context.out << '\n';
    }
    for (const PlannedChange& change : plan.deletes) {
      if (change.groupId == id) context.out << "  delete " << named(change.sfid) << '\n';
    }
    for (const PlannedChange& change : plan.updates) {
      if (change.groupId == id) {
        context.out << "  update " << named(change.sfid) << ": " << valuesText(change.fields)
                    << '\n';
      }
    }
  }
  if (resolution.decisions) {
    std::size_t undecided = 0;
    std::int64_t untouched = 0;
    for (const auto& decided : resolution.decisions->decided) {
      bool removes = false;
      for (const auto& row : decided.records) {
        removes = removes || row.decision == DecisionPlan::Decision::remove;
        if (row.decision == DecisionPlan::Decision::none) ++untouched;
      }
      if (!removes) ++undecided;
    }
    const std::size_t groups = resolution.decisions->decided.size();
    context.out << fmt::format(
        "From {}: {} group{}, {} with no record marked Delete; {} row{} left blank {} not "
        "touched.\n",
        resolution.workbook->filename().string(), groups, groups == 1 ? "" : "s", undecided,
        untouched, untouched == 1 ? "" : "s", untouched == 1 ? "is" : "are");
    const auto& notDuplicates = resolution.decisions->notDuplicates;
    if (!notDuplicates.empty()) {
      std::string ids;
      for (const auto& [rid, sfid] : notDuplicates) ids += (ids.empty() ? "" : ", ") + named(sfid);
      context.out << fmt::format("Not a duplicate, remembered in the snapshot when applied: {}\n",
                                 ids);
    }
  }
  context.out << fmt::format(
      "{} groups: {} to resolve ({} merges, {} deletes, {} updates), {} skipped, {} held back.\n",
      resolution.groups.size(), plan.groupCount, plan.merges.size(), plan.deletes.size(),
      plan.updates.size(), plan.skipped.size(), plan.heldBack.size());
}

}  // namespace

ResolutionPlan plan(CommandContext& context, SalesforceAPI::Client& api,
                    const std::filesystem::path& snapshot, const ResolveOptions& options) {
  const ResolutionTask::Resolution planned = resolution(context, api, snapshot, options, false);
  if (options.json) {
    context.out << planJSON(planned).dump(2) << '\n';
  } else {
    printPlan(context, planned);
  }
  return planned.plan;
}

void apply(CommandContext& context, SalesforceAPI::Client& api,
           const std::filesystem::path& snapshot, const ResolveOptions& options) {
  const ResolutionTask::Resolution planned = resolution(context, api, snapshot, options, true);
  printPlan(context, planned);
  const ResolutionPlan& plan = planned.plan;
  using Kind = ResolutionAction::Kind;
  if (plan.action.kind == Kind::exportOnly) {
    context.out << "This action changes nothing in Salesforce.\n";
    return;
  }
  const bool remembers = planned.decisions && !planned.decisions->notDuplicates.empty();
  const auto finish = [&context](const ResolutionTask::ApplyOutcome& outcome) {
    if (outcome.remembered > 0) {
      context.out << fmt::format(
          "Remembered {} record{} as not a duplicate: later matches leave {} out.\n",
          outcome.remembered, outcome.remembered == 1 ? "" : "s",
          outcome.remembered == 1 ? "it" : "them");
    }
    if (outcome.results) context.out << "Results: " << outcome.results->string() << '\n';
    if (outcome.resultsFailure) {
      context.out << "The results workbook was not written: " << *outcome.resultsFailure << '\n';
    }
  };
  if (plan.merges.empty() && plan.deletes.empty() && plan.updates.empty()) {
    context.out << "Nothing to change in Salesforce.\n";
    if (remembers && !options.dryRun) {
      finish(ResolutionTask::apply(api, planned, {},
                                   {options.lockPause, options.lockAttempts, options.results}, {}));
    }
    return;
  }

  context.out << "Checking the records in Salesforce\u2026\n";
  const ResolutionPreflight::Outcome checked = ResolutionTask::check(api, planned, {});
  if (!checked.allFresh()) {
    for (const PlannedChange& change : checked.changed) {
      context.out << "  " << change.sfid << " was changed in Salesforce after the snapshot.\n";
    }
    for (const PlannedChange& change : checked.missing) {
      context.out << "  " << change.sfid << " is no longer in Salesforce.\n";
    }
    throw PreflightError::recordsChanged();
  }
  context.out << fmt::format("All {} records are as they were in the snapshot.\n",
                             checked.fresh.size());
  if (options.dryRun) {
    context.out << "Dry run: nothing was changed.\n";
    return;
  }
  ProductionGuard::confirm(*planned.org,
                           fmt::format("make {} merges, {} deletes and {} updates of {} records",
                                       plan.merges.size(), plan.deletes.size(),
                                       plan.updates.size(), planned.info.objectName),
                           context.out);

  const auto progress = [&options](const DedupeProgress& step) {
    if (options.progress) {
      options.progress(static_cast<std::size_t>(step.done), static_cast<std::size_t>(step.total));
    }
  };
  const ResolutionTask::ApplyOutcome outcome = ResolutionTask::apply(
      api, planned, checked, {options.lockPause, options.lockAttempts, options.results}, {},
      progress);

  const auto line = [&context](const std::string& verb, const std::string& what,
                               const std::optional<std::string>& message) {
    context.out << verb << what;
    if (message) context.out << ": " << *message;
    context.out << '\n';
  };
  for (const MergeRunner::MergeResult& result : outcome.merges) {
    using Status = MergeRunner::MergeResult::Status;
    const PlannedMerge& merge = plan.merges[result.index];
    const std::string what = merge.loser + " into " + merge.primary + " (group " +
                             std::to_string(merge.groupId) + ")";
    const std::string message = result.message.value_or("");
    switch (result.status) {
      case Status::merged: line("Merged ", what, std::nullopt); break;
      case Status::failed: line("Failed ", what, message); break;
      case Status::unknown: line("Unknown ", what, message); break;
      case Status::skipped:
      case Status::notAttempted: line("Not merged ", what, message); break;
    }
  }
  const bool deleting = plan.action.kind == Kind::deleteLosers;
  for (const ChangeRunner::ChangeResult& result : outcome.changes) {
    using Status = ChangeRunner::ChangeResult::Status;
    const std::string what = result.sfid + " (group " + std::to_string(result.groupId) + ")";
    const std::string message = result.message.value_or("");
    switch (result.status) {
      case Status::done: line(deleting ? "Deleted " : "Updated ", what, std::nullopt); break;
      case Status::failed: line("Failed ", what, message); break;
      case Status::unknown: line("Unknown ", what, message); break;
      case Status::notAttempted:
        line(deleting ? "Not deleted " : "Not updated ", what, message);
        break;
    }
  }
  context.out << fmt::format("{} done, {} failed, {} to check in Salesforce, {} not done.\n",
                             outcome.done, outcome.failed, outcome.unknown, outcome.notDone);
  finish(outcome);
  outcome.throwIfIncomplete();
}

namespace {

std::atomic<bool> pauseRequested{false};

extern "C" void requestPause(int) { pauseRequested.store(true); }

// Ctrl-C asks the download to pause instead of killing it, while it lasts: a
// watcher turns the signal's flag into a stop request.
class PauseOnInterrupt {
 public:
  PauseOnInterrupt() {
    pauseRequested.store(false);
    previous_ = std::signal(SIGINT, requestPause);
    watcher_ = std::jthread([this](std::stop_token own) {
      while (!own.stop_requested() && !pauseRequested.load()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
      if (pauseRequested.load()) pause_.request_stop();
    });
  }
  ~PauseOnInterrupt() {
    watcher_.request_stop();
    watcher_.join();
    std::signal(SIGINT, previous_);
  }
  PauseOnInterrupt(const PauseOnInterrupt&) = delete;
  PauseOnInterrupt& operator=(const PauseOnInterrupt&) = delete;

  std::stop_token token() const { return pause_.get_token(); }

 private:
  void (*previous_)(int);
  std::stop_source pause_;
  std::jthread watcher_;
};

std::vector<std::string> splitList(const std::vector<std::string>& items) {
  std::vector<std::string> out;
  for (const std::string& item : items) {
    std::size_t start = 0;
    while (start <= item.size()) {
      std::size_t comma = item.find(',', start);
      if (comma == std::string::npos) comma = item.size();
      std::string piece = item.substr(start, comma - start);
      if (!piece.empty()) out.push_back(piece);
      start = comma + 1;
    }
  }
  return out;
}

}  // namespace

void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen) {
  CLI::App* dedupe = app.add_subcommand("dedupe", "Download records into duplicate snapshots");
  dedupe->require_subcommand(1);
  auto makeClient = [&context] {
    return std::make_shared<SalesforceAPI::Client>(
        [&context](const std::string& username) { return context.cli.session(username); });
  };

  struct DownloadArguments {
    std::string login;
    std::string object;
    std::vector<std::string> match;
    std::vector<std::string> extra;
    std::string scope;
    int pageSize = 50'000;
  };
  auto args = std::make_shared<DownloadArguments>();
  CLI::App* downloadCommand = dedupe->add_subcommand(
      "download", "Download an object's records into a new snapshot through a Bulk API job");
  downloadCommand->add_option("LOGIN", args->login, "A username or alias")->required();
  downloadCommand->add_option("OBJECT", args->object, "The object's API name, such as Contact")
      ->required();
  downloadCommand
      ->add_option("--match", args->match,
                   "Fields to compare: FIELD[:kind[:mode]],... (kind: text, personName, "
                   "companyName, email, phone; mode: exact, close)")
      ->required();
  downloadCommand->add_option("--extra", args->extra, "Further fields to keep: FIELD,...");
  downloadCommand->add_option("--scope", args->scope, "A SOQL condition, such as \"IsDeleted = false\"");
  downloadCommand->add_option("--page-size", args->pageSize, "Records per result page")
      ->check(CLI::Range(1, 1'000'000));
  downloadCommand->callback([&context, &chosen, args, makeClient] {
    chosen = [&context, args, makeClient] {
      DownloadOptions options;
      for (const std::string& choice : splitList(args->match)) {
        options.match.push_back(parseMatchChoice(choice));
      }
      options.extra = splitList(args->extra);
      if (!args->scope.empty()) options.scope = args->scope;
      options.pageSize = args->pageSize;
      PauseOnInterrupt pause;
      auto api = makeClient();
      download(context, *api, args->login, args->object, options, pause.token());
    };
  });

  auto snapshot = std::make_shared<std::string>();
  auto resumeLogin = std::make_shared<std::string>();
  CLI::App* resumeCommand =
      dedupe->add_subcommand("resume", "Continue a paused download where it stopped");
  resumeCommand->add_option("SNAPSHOT", *snapshot, "The snapshot file")->required();
  resumeCommand->add_option("--login", *resumeLogin, "The login to continue with (default: the one that started it)");
  resumeCommand->callback([&context, &chosen, snapshot, resumeLogin, makeClient] {
    chosen = [&context, snapshot, resumeLogin, makeClient] {
      PauseOnInterrupt pause;
      auto api = makeClient();
      resume(context, *api, *snapshot, *resumeLogin, {}, pause.token());
    };
  });

  auto listLogin = std::make_shared<std::string>();
  auto listJSON = std::make_shared<bool>(false);
  CLI::App* listCommand =
      dedupe->add_subcommand("snapshots", "List a login's snapshots with counts, state and size");
  listCommand->add_option("LOGIN", *listLogin, "A username or alias")->required();
  listCommand->add_flag("--json", *listJSON, "Print the snapshots as JSON");
  listCommand->callback([&context, &chosen, listLogin, listJSON, makeClient] {
    chosen = [&context, listLogin, listJSON, makeClient] {
      auto api = makeClient();
      listSnapshots(context, *api, *listLogin, *listJSON);
    };
  });

  struct MatchArguments {
    std::string snapshot;
    std::string strictness = "normal";
    int window = defaultWindow;
    bool noSplit = false;
    bool json = false;
    std::string against;
  };
  auto matchArgs = std::make_shared<MatchArguments>();
  CLI::App* matchCommand =
      dedupe->add_subcommand("match", "Find the duplicate groups in a snapshot");
  matchCommand->add_option("SNAPSHOT", matchArgs->snapshot, "The snapshot file")->required();
  matchCommand->add_option("--strictness", matchArgs->strictness, "strict, normal, loose or auto")
      ->check(CLI::IsMember({"strict", "normal", "loose", "auto"}));
  matchCommand->add_option("--window", matchArgs->window,
                           "Neighbours each record is compared with in every sorted pass")
      ->check(CLI::Range(1, 1000));
  matchCommand->add_flag("--no-split", matchArgs->noSplit, "Keep large groups whole");
  matchCommand->add_flag("--json", matchArgs->json, "Print the groups and statistics as JSON");
  matchCommand->add_option("--against", matchArgs->against,
                           "A snapshot of another object of the same org (Leads against "
                           "Contacts): list the records that already exist there");
  matchCommand->callback([&context, &chosen, matchArgs] {
    chosen = [&context, matchArgs] {
      MatchOptions options;
      options.settings.strictness =
          strictnessFromRaw(matchArgs->strictness).value_or(Strictness::normal);
      options.settings.window = matchArgs->window;
      options.settings.split.enabled = !matchArgs->noSplit;
      options.json = matchArgs->json;
      if (!matchArgs->against.empty()) {
        DedupeAgainstCommand::match(context, matchArgs->snapshot, matchArgs->against,
                                    options.settings, options.json);
        return;
      }
      match(context, matchArgs->snapshot, options);
    };
  });

  auto excludeSnapshot = std::make_shared<std::string>();
  auto excludeIds = std::make_shared<std::vector<std::string>>();
  CLI::App* excludeCommand = dedupe->add_subcommand(
      "exclude", "Mark records \"not a duplicate\" so that no later match groups them");
  excludeCommand->add_option("SNAPSHOT", *excludeSnapshot, "The snapshot file")->required();
  excludeCommand->add_option("ID", *excludeIds, "Salesforce record Ids")->required();
  excludeCommand->callback([&context, &chosen, excludeSnapshot, excludeIds] {
    chosen = [&context, excludeSnapshot, excludeIds] {
      exclude(context, *excludeSnapshot, *excludeIds);
    };
  });

  struct ResolveArguments {
    std::string snapshot;
    std::string keeper = "oldest";
    std::string action = "merge";
    std::string strictness = "normal";
    int window = defaultWindow;
    bool noSplit = false;
    bool includeHeldBack = false;
    bool json = false;
    bool dryRun = false;
    std::string login;
    std::string decisions;
    std::vector<std::string> keepValues;
    std::string results;

    ResolveOptions options() const {
      ResolveOptions out;
      auto rule = keeperRuleFromRaw(keeper);
      if (!rule) throw DedupeCommandError::badKeeperRule(keeper);
      auto chosenAction = ResolutionAction::fromText(action);
      if (!chosenAction) throw DedupeCommandError::badAction(action);
      out.keeper = *rule;
      out.action = *chosenAction;
      out.settings.strictness = strictnessFromRaw(strictness).value_or(Strictness::normal);
      out.settings.window = window;
      out.settings.split.enabled = !noSplit;
      out.includeHeldBack = includeHeldBack;
      out.json = json;
      out.dryRun = dryRun;
      out.login = login;
      if (!decisions.empty()) out.decisions = decisions;
      for (const std::string& choice : splitList(keepValues)) {
        if (!out.keepValues.add(choice)) throw DedupeCommandError::badValueRule(choice);
      }
      out.results = results;
      return out;
    }
  };
  auto addResolveOptions = [](CLI::App* command, ResolveArguments& arguments) {
    command->add_option("SNAPSHOT", arguments.snapshot, "The snapshot file")->required();
    command->add_option("--keeper", arguments.keeper,
                        "Which record stays: oldest, newest, mostComplete or recentlyUpdated");
    command->add_option("--action", arguments.action,
                        "merge, deleteLosers, fillGaps, tag:FIELD or exportOnly");
    command->add_option("--strictness", arguments.strictness, "strict, normal, loose or auto")
        ->check(CLI::IsMember({"strict", "normal", "loose", "auto"}));
    command->add_option("--window", arguments.window,
                        "Neighbours each record is compared with in every sorted pass")
        ->check(CLI::Range(1, 1000));
    command->add_flag("--no-split", arguments.noSplit, "Keep large groups whole");
    command->add_flag("--include-held-back", arguments.includeHeldBack,
                      "Also resolve groups whose records are not all near-identical");
    command->add_option("--login", arguments.login,
                        "The login to use (default: the one that made the snapshot)");
    command->add_option("--decisions", arguments.decisions,
                        "A decision workbook exported from this snapshot (.xlsx): its Keep, "
                        "Delete and Not a duplicate rows decide instead of a new match");
    command
        ->add_option("--keep-values", arguments.keepValues,
                     "Which record the kept one takes each value from: keeper, mostRecent, "
                     "nonEmpty, longest or mostCommon, for all fields or FIELD=RULE,...")
        ->allow_extra_args(false);  // one choice per option, so SNAPSHOT may follow
  };

  auto planArgs = std::make_shared<ResolveArguments>();
  CLI::App* planCommand = dedupe->add_subcommand(
      "plan", "Show what resolving the duplicate groups would change, and the groups skipped");
  addResolveOptions(planCommand, *planArgs);
  planCommand->add_flag("--json", planArgs->json, "Print the plan as JSON");
  planCommand->callback([&context, &chosen, planArgs, makeClient] {
    chosen = [&context, planArgs, makeClient] {
      ResolveOptions options = planArgs->options();
      auto api = makeClient();
      plan(context, *api, planArgs->snapshot, options);
    };
  });

  auto applyArgs = std::make_shared<ResolveArguments>();
  CLI::App* applyCommand = dedupe->add_subcommand(
      "apply", "Check the records in Salesforce, then merge or delete the duplicates");
  addResolveOptions(applyCommand, *applyArgs);
  applyCommand->add_flag("--dry-run", applyArgs->dryRun, "Plan and check only; change nothing");
  applyCommand->add_option("--results", applyArgs->results,
                           "The results workbook to write (.xlsx; default: a dated file beside "
                           "the snapshot)");
  applyCommand->callback([&context, &chosen, applyArgs, makeClient] {
    chosen = [&context, applyArgs, makeClient] {
      ResolveOptions options = applyArgs->options();
      auto api = makeClient();
      apply(context, *api, applyArgs->snapshot, options);
    };
  });

  auto deleted = std::make_shared<std::string>();
  CLI::App* deleteCommand =
      dedupe->add_subcommand("delete", "Delete a snapshot file with its companions");
  deleteCommand->add_option("SNAPSHOT", *deleted, "The snapshot file")->required();
  deleteCommand->callback([&context, &chosen, deleted] {
    chosen = [&context, deleted] { remove(context, *deleted); };
  });

  DedupeUndoCommand::add(app, context, chosen);
}

}  // namespace corvane::DedupeCommand
