#include "dedupe/match_report.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "platform/number_text.hpp"

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

std::string labelOf(const SnapshotInfo& info) {
  return info.objectLabel.empty() ? info.objectName : info.objectLabel;
}

std::string recordText(const SnapshotRecord& record) {
  return record.name.empty() ? record.sfid : record.sfid + " \"" + record.name + "\"";
}

std::string comparedText(const CrossMatchTask::Outcome& outcome) {
  std::string text;
  for (CrossMatcher::Role role : outcome.compared) {
    text += (text.empty() ? "" : ", ") + std::string(CrossMatcher::label(role));
    if (role == CrossMatcher::Role::company && !outcome.companyFrom.empty())
      text += " (the " + labelOf(outcome.against) + "'s " + outcome.companyFrom + ")";
  }
  return text;
}

// A partial snapshot misses records: say so, and how to finish it.
std::string partialWarning(const SnapshotInfo& info) {
  if (info.complete) return "";
  return fmt::format(
      "The {} snapshot is not complete ({} of {} records), so matches among the records not yet "
      "downloaded are missing. Finish it with: corvane dedupe resume \"{}\"\n",
      labelOf(info), NumberText::grouped(info.recordCount), NumberText::grouped(info.totalExpected),
      info.url.string());
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

std::string crossText(const CrossMatchTask::Outcome& outcome, const std::string& snapshot,
                      const std::string& against) {
  const SnapshotInfo& info = outcome.snapshot;
  const SnapshotInfo& other = outcome.against;
  std::string out;
  const std::string label = labelOf(info);
  const std::string otherLabel = labelOf(other);
  for (const CrossMatchTask::Pair& pair : outcome.pairs) {
    out += fmt::format("{} {} is already {} {} ({:.4f}). {}\n", label, recordText(pair.record),
                       otherLabel, recordText(pair.match), pair.score, pair.why);
  }
  out += fmt::format(
      "{} of {} {}s {} already {}s ({} pair{} among {} {}s; {} comparisons). Compared: {}.\n",
      NumberText::grouped(outcome.recordsMatched), NumberText::grouped(info.recordCount), label,
      outcome.recordsMatched == 1 ? "is" : "are", otherLabel,
      NumberText::grouped(static_cast<std::int64_t>(outcome.pairs.size())),
      outcome.pairs.size() == 1 ? "" : "s", NumberText::grouped(other.recordCount), otherLabel,
      NumberText::grouped(outcome.comparisons), comparedText(outcome));
  out += partialWarning(info);
  out += partialWarning(other);
  if (!outcome.pairs.empty()) {
    out += fmt::format(
        "Salesforce cannot merge a {0} into a {1}: delete or tag these {0}s instead. To decide "
        "in a workbook: corvane dedupe export \"{2}\" -o FILE.xlsx --against \"{3}\"\n",
        label, otherLabel, snapshot, against);
  }
  return out;
}

std::string crossJSON(const CrossMatchTask::Outcome& outcome) {
  const SnapshotInfo& info = outcome.snapshot;
  const SnapshotInfo& other = outcome.against;
  nlohmann::json pairs = nlohmann::json::array();
  for (const CrossMatchTask::Pair& pair : outcome.pairs) {
    nlohmann::json matchedOn = nlohmann::json::array();
    for (const CrossMatcher::Agreement& agreement : pair.agreements)
      matchedOn.push_back(CrossMatcher::key(agreement.role));
    nlohmann::json differ = nlohmann::json::array();
    for (CrossMatcher::Role role : pair.differences) differ.push_back(CrossMatcher::key(role));
    pairs.push_back({{"id", pair.record.sfid},
                     {"name", pair.record.name},
                     {"againstId", pair.match.sfid},
                     {"againstName", pair.match.name},
                     {"score", pair.score},
                     {"matchedOn", matchedOn},
                     {"differ", differ},
                     {"why", pair.why}});
  }
  nlohmann::json compared = nlohmann::json::array();
  for (CrossMatcher::Role role : outcome.compared) compared.push_back(CrossMatcher::key(role));
  return nlohmann::json{
             {"object", info.objectName},
             {"against", other.objectName},
             {"compared", compared},
             {"companyFrom",
              outcome.companyFrom.empty() ? nlohmann::json() : nlohmann::json(outcome.companyFrom)},
             {"complete", info.complete && other.complete},
             {"pairs", pairs},
             {"stats",
              {{"records", info.recordCount},
               {"againstRecords", other.recordCount},
               {"recordsMatched", outcome.recordsMatched},
               {"pairs", outcome.pairs.size()},
               {"comparisons", outcome.comparisons}}}}
             .dump(2) +
         '\n';
}

}  // namespace corvane::MatchReport
