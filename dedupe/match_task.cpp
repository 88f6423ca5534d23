#include "dedupe/match_task.hpp"

#include <optional>
#include <set>

#include "dedupe/matcher.hpp"
#include "dedupe/snapshot_task.hpp"

namespace corvane::MatchTask {

MatchOutcome groups(RecordStore& store, const MatchSettings& settings, std::stop_token stop,
                    const DedupeProgressHandler& onProgress) {
  std::set<Rid> excluded;
  for (const auto& [rid, sfid] : store.exclusions()) excluded.insert(rid);
  Matcher::Progress progress;
  if (onProgress) {
    progress = [&onProgress](const std::string& text) {
      onProgress({DedupeProgress::Phase::matching, 0, 0, 0, {}, text});
    };
  }
  MatchOutcome outcome = Matcher::findDuplicates(store, settings, excluded, progress,
                                                 [&stop] { return stop.stop_requested(); });
  if (outcome.cancelled || stop.stop_requested()) throw DedupeError::stopped();
  return outcome;
}

Outcome run(const std::filesystem::path& snapshot, const MatchSettings& settings,
            std::stop_token stop, const DedupeProgressHandler& onProgress) {
  auto store = SnapshotTask::open(snapshot);
  Outcome outcome;
  outcome.match = groups(*store, settings, stop, onProgress);
  std::vector<Rid> grouped;
  for (const DuplicateGroup& group : outcome.match.groups) {
    grouped.insert(grouped.end(), group.members.begin(), group.members.end());
  }
  for (SnapshotRecord& record : store->records(grouped)) {
    outcome.records.emplace(record.rid, std::move(record));
  }
  outcome.fields = store->matchFields();
  return outcome;
}

std::size_t exclude(const std::filesystem::path& snapshot, const std::vector<std::string>& ids) {
  auto store = SnapshotTask::open(snapshot);
  std::vector<std::pair<Rid, std::string>> marked;
  for (const std::string& id : ids) {
    std::optional<Rid> found;
    const std::vector<Rid> candidates = store->searchRids(id);
    for (const auto& [rid, sfid] : store->sfids(candidates)) {
      if (sfid == id) found = rid;
    }
    if (!found) throw DedupeError::unknownRecord(id);
    marked.emplace_back(*found, id);
  }
  store->exclude(marked);
  return marked.size();
}

}  // namespace corvane::MatchTask
