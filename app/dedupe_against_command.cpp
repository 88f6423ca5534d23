#include "app/dedupe_against_command.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace corvane::DedupeAgainstCommand {

namespace {

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
void warnIfPartial(CommandContext& context, const SnapshotInfo& info) {
  if (info.complete) return;
  context.out << fmt::format(
      "The {} snapshot is not complete ({} of {} records), so matches among the records not yet "
      "downloaded are missing. Finish it with: corvane dedupe resume \"{}\"\n",
      labelOf(info), digitGroups(info.recordCount), digitGroups(info.totalExpected),
      info.url.string());
}

}  // namespace

CrossMatchTask::Outcome match(CommandContext& context, const std::filesystem::path& snapshot,
                              const std::filesystem::path& against, const MatchSettings& settings,
                              bool json) {
  DedupeProgressHandler progress;
  std::string lastText;
  if (!json) {
    progress = [&context, &lastText](const DedupeProgress& step) {
      if (step.text == lastText) return;
      lastText = step.text;
      context.out << step.text << '\n';
    };
  }
  CrossMatchTask::Outcome outcome =
      CrossMatchTask::run(snapshot, against, settings, {}, progress);
  const SnapshotInfo& info = outcome.snapshot;
  const SnapshotInfo& other = outcome.against;

  if (json) {
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
    context.out << nlohmann::json{
                       {"object", info.objectName},
                       {"against", other.objectName},
                       {"compared", compared},
                       {"companyFrom", outcome.companyFrom.empty()
                                           ? nlohmann::json()
                                           : nlohmann::json(outcome.companyFrom)},
                       {"complete", info.complete && other.complete},
                       {"pairs", pairs},
                       {"stats",
                        {{"records", info.recordCount},
                         {"againstRecords", other.recordCount},
                         {"recordsMatched", outcome.recordsMatched},
                         {"pairs", outcome.pairs.size()},
                         {"comparisons", outcome.comparisons}}}}
                       .dump(2)
                << '\n';
    return outcome;
  }

  const std::string label = labelOf(info);
  const std::string otherLabel = labelOf(other);
  for (const CrossMatchTask::Pair& pair : outcome.pairs) {
    context.out << fmt::format("{} {} is already {} {} ({:.4f}). {}\n", label,
                               recordText(pair.record), otherLabel, recordText(pair.match),
                               pair.score, pair.why);
  }
  context.out << fmt::format(
      "{} of {} {}s {} already {}s ({} pair{} among {} {}s; {} comparisons). Compared: {}.\n",
      digitGroups(outcome.recordsMatched), digitGroups(info.recordCount), label,
      outcome.recordsMatched == 1 ? "is" : "are", otherLabel, digitGroups(
          static_cast<std::int64_t>(outcome.pairs.size())),
      outcome.pairs.size() == 1 ? "" : "s", digitGroups(other.recordCount), otherLabel,
      digitGroups(outcome.comparisons), comparedText(outcome));
  warnIfPartial(context, info);
  warnIfPartial(context, other);
  if (!outcome.pairs.empty()) {
    context.out << fmt::format(
        "Salesforce cannot merge a {0} into a {1}: delete or tag these {0}s instead. To decide "
        "in a workbook: corvane dedupe export \"{2}\" -o FILE.xlsx --against \"{3}\"\n",
        label, otherLabel, snapshot.string(), against.string());
  }
  return outcome;
}

}  // namespace corvane::DedupeAgainstCommand
