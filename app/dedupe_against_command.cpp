#include "app/dedupe_against_command.hpp"

#include "dedupe/match_report.hpp"

namespace corvane::DedupeAgainstCommand {

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
  CrossMatchTask::Outcome outcome = CrossMatchTask::run(snapshot, against, settings, {}, progress);
  context.out << (json ? MatchReport::crossJSON(outcome)
                       : MatchReport::crossText(outcome, snapshot.string(), against.string()));
  return outcome;
}

}  // namespace corvane::DedupeAgainstCommand
