#include "dedupe/match_report.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace corvane::MatchReport {

namespace {

nlohmann::json statsJSON(const MatchStats& stats) {
  nlohmann::json fillers = nlohmann::json::array();
  for (const auto& values : stats.fillerValuesPerField) {
    nlohmann::json field = nlohmann::json::array();
    for (const ValueCount& value : values) {
      field.push_back({{"value", value.value}, {"count", value.count}});
    }
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

std::string why(const DuplicateGroup& group) {
  return group.weakestLink >= 1.0 ? "All matching fields are exactly the same."
                                  : "Matching fields are the same or very close.";
}

std::string text(const MatchTask::Outcome& outcome) {
  const std::vector<MatchField>& fields = outcome.fields;
  std::string out;
  for (const DuplicateGroup& group : outcome.match.groups) {
    out += fmt::format("Group {}: {} records, weakest link {:.4f}{}. {}\n", group.id,
                       group.members.size(), group.weakestLink,
                       group.fromSplit ? ", split from a larger group" : "", why(group));
    for (const Rid rid : group.members) {
      const SnapshotRecord& record = outcome.records.at(rid);
      std::string values;
      for (std::size_t f = 0; f < fields.size() && f < record.values.size(); ++f) {
        values += (f == 0 ? "" : " | ") + record.values[f];
      }
      out += fmt::format("  {}  {}  ({})\n", record.sfid, record.name, values);
    }
  }
  const MatchStats& stats = outcome.match.stats;
  out += fmt::format(
      "{} groups holding {} records (largest {}; {} exactly the same) among {} records; "
      "{} comparisons.\n",
      stats.groupCount, stats.recordsInGroups, stats.largestGroup, stats.exactOnlyGroups,
      stats.recordsScanned, stats.comparisons);
  for (std::size_t f = 0; f < fields.size(); ++f) {
    const std::int64_t blank = stats.skippedBlankPerField[f];
    const std::int64_t filler = stats.skippedFillerPerField[f];
    if (blank == 0 && filler == 0) continue;
    out += fmt::format("{}: {} blank, {} filler (\"we do not know\") values left out.\n",
                       fields[f].label, blank, filler);
  }
  if (stats.excludedByUser > 0) {
    out +=
        fmt::format("{} records marked \"not a duplicate\" were left out.\n", stats.excludedByUser);
  }
  if (stats.splitExamined > 0) {
    out += fmt::format(
        "{} large groups looked at again, {} split into {} pieces, {} too big to split "
        "(largest before: {}).\n",
        stats.splitExamined, stats.splitPerformed, stats.splitPieces, stats.splitTooBig,
        stats.largestGroupBefore);
  }
  return out;
}

std::string json(const MatchTask::Outcome& outcome) {
  const std::vector<MatchField>& fields = outcome.fields;
  nlohmann::json groups = nlohmann::json::array();
  for (const DuplicateGroup& group : outcome.match.groups) {
    nlohmann::json members = nlohmann::json::array();
    for (const Rid rid : group.members) {
      const SnapshotRecord& record = outcome.records.at(rid);
      nlohmann::json values = nlohmann::json::object();
      for (std::size_t f = 0; f < fields.size() && f < record.values.size(); ++f) {
        values[fields[f].name] = record.values[f];
      }
      members.push_back(
          {{"rid", rid}, {"id", record.sfid}, {"name", record.name}, {"values", values}});
    }
    groups.push_back({{"id", group.id},
                      {"members", members},
                      {"weakestLink", group.weakestLink},
                      {"distinctCount", group.distinctCount},
                      {"fromSplit", group.fromSplit},
                      {"why", why(group)}});
  }
  return nlohmann::json{{"groups", groups}, {"stats", statsJSON(outcome.match.stats)}}.dump(2) +
         '\n';
}

}  // namespace corvane::MatchReport
