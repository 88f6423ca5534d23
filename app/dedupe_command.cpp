#include "app/dedupe_command.hpp"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iostream>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "app/dedupe_undo_command.hpp"
#include "app/production_guard.hpp"
#include "connections/download_error.hpp"
#include "dedupe/match_report.hpp"
#include "dedupe/match_task.hpp"
#include "dedupe/plan_report.hpp"
#include "dedupe/snapshot_report.hpp"
#include "platform/interrupt_stop.hpp"

namespace corvane::DedupeCommand {

namespace {

using DownloadCall = std::function<SnapshotTask::DownloadOutcome(const DedupeProgressHandler&)>;

std::filesystem::path runDownload(CommandContext& context, const DownloadCall& call) {
  // A bar redrawn in place on a terminal, a line per page elsewhere.
  SnapshotReport::ProgressLines lines(&context.out == &std::cout && ::isatty(STDOUT_FILENO) == 1);
  std::string started;  // the snapshot, once the download is under way
  const auto stopped = [&] {
    context.out << downloadStoppedText << "\nTo continue: corvane dedupe resume \"" << started
                << "\"\n";
  };
  try {
    const SnapshotTask::DownloadOutcome outcome = call([&](const DedupeProgress& progress) {
      if (progress.phase == DedupeProgress::Phase::starting) started = progress.item;
      context.out << lines.accept(progress) << std::flush;
    });
    if (outcome.stopped && !outcome.alreadyComplete) {
      stopped();
    } else {
      context.out << SnapshotReport::outcomeText(outcome);
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

ResolutionTask::Resolution resolution(CommandContext& context, SalesforceAPI::Client& api,
                                      const std::filesystem::path& snapshot,
                                      const ResolveOptions& options, bool forApply) {
  ResolutionTask::Request request{options.settings,        options.keeper,    options.action,
                                  options.includeHeldBack, options.login,     forApply,
                                  options.decisions,       options.keepValues};
  try {
    return ResolutionTask::plan(api, context.logins(), snapshot, request, {});
  } catch (const DedupeError& error) {
    context.out << PlanReport::problemsText(error.details(), options.json);
    throw;
  }
}

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

void MatchArguments::addTo(CLI::App& command) {
  command.add_option("--strictness", strictness, "strict, normal, loose or auto")
      ->check(CLI::IsMember({"strict", "normal", "loose", "auto"}));
  command
      .add_option("--window", window,
                  "Neighbours each record is compared with in every sorted pass")
      ->check(CLI::Range(1, 1000));
  command.add_flag("--no-split", noSplit, "Keep large groups whole");
}

MatchSettings MatchArguments::settings() const {
  MatchSettings settings;
  settings.strictness = strictnessFromRaw(strictness).value_or(Strictness::normal);
  settings.window = window;
  settings.split.enabled = !noSplit;
  return settings;
}

std::filesystem::path download(CommandContext& context, SalesforceAPI::Client& api,
                               const std::string& login, const std::string& object,
                               const DownloadOptions& options, std::stop_token stop) {
  return runDownload(context, [&](const DedupeProgressHandler& onProgress) {
    return SnapshotTask::download(api, context.logins(), login, object, options, stop, onProgress);
  });
}

std::filesystem::path resume(CommandContext& context, SalesforceAPI::Client& api,
                             const std::filesystem::path& snapshot, const std::string& login,
                             const DownloadOptions& options, std::stop_token stop) {
  return runDownload(context, [&](const DedupeProgressHandler& onProgress) {
    return SnapshotTask::resume(api, context.logins(), snapshot, login, options.runner, stop,
                                onProgress);
  });
}

void listSnapshots(CommandContext& context, SalesforceAPI::Client& api, const std::string& login,
                   bool json) {
  const SnapshotTask::Listing listing = SnapshotTask::list(api, context.logins(), login);
  context.out << (json ? SnapshotReport::json(listing) : SnapshotReport::text(listing));
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
  const MatchTask::Outcome outcome = MatchTask::run(snapshot, options.settings, {}, progress);
  context.out << (options.json ? MatchReport::json(outcome) : MatchReport::text(outcome));
  return outcome.match;
}

CrossMatchTask::Outcome crossMatch(CommandContext& context, const std::filesystem::path& snapshot,
                                   const std::filesystem::path& against,
                                   const MatchSettings& settings, bool json) {
  DedupeProgressHandler progress;
  std::string lastText;
  if (!json) {
    progress = [&context, &lastText](const DedupeProgress& step) {
      if (step.text == lastText) return;
      lastText = step.text;
      context.out << step.text << '\n';
    };
  }
  const CrossMatchTask::Outcome outcome =
      CrossMatchTask::run(snapshot, against, settings, {}, progress);
  context.out << (json ? MatchReport::crossJSON(outcome)
                       : MatchReport::crossText(outcome, snapshot.string(), against.string()));
  return outcome;
}

void exclude(CommandContext& context, const std::filesystem::path& snapshot,
             const std::vector<std::string>& ids) {
  const std::size_t marked = MatchTask::exclude(snapshot, ids);
  context.out << fmt::format(
      "Marked {} record{} \"not a duplicate\": {} will be left out of every "
      "later match.\n",
      marked, marked == 1 ? "" : "s", marked == 1 ? "it" : "they");
}

ResolutionPlan plan(CommandContext& context, SalesforceAPI::Client& api,
                    const std::filesystem::path& snapshot, const ResolveOptions& options) {
  const ResolutionTask::Resolution planned = resolution(context, api, snapshot, options, false);
  context.out << (options.json ? PlanReport::json(planned) : PlanReport::text(planned));
  return planned.plan;
}

namespace {

// A word as a POSIX shell reads it back: quoted unless plainly safe.
std::string shellWord(const std::string& word) {
  const bool plain = !word.empty() && std::all_of(word.begin(), word.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || std::strchr("/._-+:@%,=", c) != nullptr;
  });
  if (plain) return word;
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

}  // namespace

void apply(CommandContext& context, SalesforceAPI::Client& api,
           const std::filesystem::path& snapshot, const ResolveOptions& options) {
  const ResolutionTask::Resolution planned = resolution(context, api, snapshot, options, true);
  context.out << PlanReport::text(planned);
  const ResolutionPlan& plan = planned.plan;
  if (plan.action.kind == ResolutionAction::Kind::exportOnly) {
    context.out << "This action changes nothing in Salesforce.\n";
    return;
  }
  const ResolutionTask::ApplyOptions applying{options.lockPause, options.lockAttempts,
                                              options.results};
  if (ResolutionTask::changesNothing(plan)) {
    context.out << "Nothing to change in Salesforce.\n";
    const bool remembers = planned.decisions && !planned.decisions->notDuplicates.empty();
    if (remembers && !options.dryRun) {
      context.out << PlanReport::afterwardsText(
          ResolutionTask::apply(api, planned, {}, applying, {}));
    }
    return;
  }

  context.out << "Checking the records in Salesforce\u2026\n";
  const ResolutionPreflight::Outcome checked = ResolutionTask::check(api, planned, {});
  if (!checked.allFresh()) {
    context.out << PlanReport::staleText(checked);
    throw PreflightError::recordsChanged();
  }
  context.out << fmt::format("All {} records are as they were in the snapshot.\n",
                             checked.fresh.size());
  if (options.dryRun) {
    context.out << "Dry run: nothing was changed.\n";
    return;
  }
  ProductionGuard::confirm(*planned.org, PlanReport::whatItWrites(planned), context.out);

  const auto progress = [&options](const DedupeProgress& step) {
    if (options.progress) {
      options.progress(static_cast<std::size_t>(step.done), static_cast<std::size_t>(step.total));
    }
  };
  const ResolutionTask::ApplyOutcome outcome =
      ResolutionTask::apply(api, planned, checked, applying, {}, progress);
  context.out << PlanReport::outcomeText(planned, outcome) << PlanReport::afterwardsText(outcome);
  if (outcome.done + outcome.unknown > 0) {
    context.out << "To put these changes back: corvane dedupe undo " << shellWord(snapshot.string())
                << '\n';
  }
  outcome.throwIfIncomplete();
}

void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen) {
  CLI::App* dedupe = app.add_subcommand("dedupe", "Download records into duplicate snapshots");
  dedupe->require_subcommand(1);

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
  downloadCommand->add_option("--scope", args->scope,
                              "A SOQL condition, such as \"IsDeleted = false\"");
  downloadCommand->add_option("--page-size", args->pageSize, "Records per result page")
      ->check(CLI::Range(1, 1'000'000));
  whenChosen(downloadCommand, chosen, [&context, args] {
    DownloadOptions options;
    for (const std::string& choice : splitList(args->match)) {
      options.match.push_back(parseMatchChoice(choice));
    }
    options.extra = splitList(args->extra);
    if (!args->scope.empty()) options.scope = args->scope;
    options.pageSize = args->pageSize;
    // Ctrl-C pauses the download; `resume` continues it.
    InterruptStop pause;
    auto api = context.api();
    download(context, api, args->login, args->object, options, pause.token());
  });

  auto snapshot = std::make_shared<std::string>();
  auto resumeLogin = std::make_shared<std::string>();
  CLI::App* resumeCommand =
      dedupe->add_subcommand("resume", "Continue a paused download where it stopped");
  resumeCommand->add_option("SNAPSHOT", *snapshot, "The snapshot file")->required();
  resumeCommand->add_option("--login", *resumeLogin,
                            "The login to continue with (default: the one that started it)");
  whenChosen(resumeCommand, chosen, [&context, snapshot, resumeLogin] {
    InterruptStop pause;
    auto api = context.api();
    resume(context, api, *snapshot, *resumeLogin, {}, pause.token());
  });

  auto listLogin = std::make_shared<std::string>();
  auto listJSON = std::make_shared<bool>(false);
  CLI::App* listCommand =
      dedupe->add_subcommand("snapshots", "List a login's snapshots with counts, state and size");
  listCommand->add_option("LOGIN", *listLogin, "A username or alias")->required();
  listCommand->add_flag("--json", *listJSON, "Print the snapshots as JSON");
  whenChosen(listCommand, chosen, [&context, listLogin, listJSON] {
    auto api = context.api();
    listSnapshots(context, api, *listLogin, *listJSON);
  });

  struct MatchCommandArguments {
    std::string snapshot;
    MatchArguments match;
    bool json = false;
    std::string against;
  };
  auto matchArgs = std::make_shared<MatchCommandArguments>();
  CLI::App* matchCommand =
      dedupe->add_subcommand("match", "Find the duplicate groups in a snapshot");
  matchCommand->add_option("SNAPSHOT", matchArgs->snapshot, "The snapshot file")->required();
  matchArgs->match.addTo(*matchCommand);
  matchCommand->add_flag("--json", matchArgs->json, "Print the groups and statistics as JSON");
  matchCommand->add_option("--against", matchArgs->against,
                           "A snapshot of another object of the same org (Leads against "
                           "Contacts): list the records that already exist there");
  whenChosen(matchCommand, chosen, [&context, matchArgs] {
    if (!matchArgs->against.empty()) {
      crossMatch(context, matchArgs->snapshot, matchArgs->against, matchArgs->match.settings(),
                 matchArgs->json);
      return;
    }
    match(context, matchArgs->snapshot, {matchArgs->match.settings(), matchArgs->json});
  });

  auto excludeSnapshot = std::make_shared<std::string>();
  auto excludeIds = std::make_shared<std::vector<std::string>>();
  CLI::App* excludeCommand = dedupe->add_subcommand(
      "exclude", "Mark records \"not a duplicate\" so that no later match groups them");
  excludeCommand->add_option("SNAPSHOT", *excludeSnapshot, "The snapshot file")->required();
  excludeCommand->add_option("ID", *excludeIds, "Salesforce record Ids")->required();
  whenChosen(excludeCommand, chosen, [&context, excludeSnapshot, excludeIds] {
    exclude(context, *excludeSnapshot, *excludeIds);
  });

  struct ResolveArguments {
    std::string snapshot;
    std::string keeper = "oldest";
    std::string action = "merge";
    MatchArguments match;
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
      out.settings = match.settings();
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
    arguments.match.addTo(*command);
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
  whenChosen(planCommand, chosen, [&context, planArgs] {
    ResolveOptions options = planArgs->options();
    auto api = context.api();
    plan(context, api, planArgs->snapshot, options);
  });

  auto applyArgs = std::make_shared<ResolveArguments>();
  CLI::App* applyCommand = dedupe->add_subcommand(
      "apply", "Check the records in Salesforce, then merge or delete the duplicates");
  addResolveOptions(applyCommand, *applyArgs);
  applyCommand->add_flag("--dry-run", applyArgs->dryRun, "Plan and check only; change nothing");
  applyCommand->add_option("--results", applyArgs->results,
                           "The results workbook to write (.xlsx; default: a dated file beside "
                           "the snapshot)");
  whenChosen(applyCommand, chosen, [&context, applyArgs] {
    ResolveOptions options = applyArgs->options();
    auto api = context.api();
    apply(context, api, applyArgs->snapshot, options);
  });

  auto deleted = std::make_shared<std::string>();
  CLI::App* deleteCommand =
      dedupe->add_subcommand("delete", "Delete a snapshot file with its companions");
  deleteCommand->add_option("SNAPSHOT", *deleted, "The snapshot file")->required();
  whenChosen(deleteCommand, chosen, [&context, deleted] { remove(context, *deleted); });

  DedupeUndoCommand::add(app, context, chosen);
}

}  // namespace corvane::DedupeCommand
