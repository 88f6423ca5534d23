#include "app/complete_command.hpp"

#include <algorithm>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "platform/unicode.hpp"

namespace corvane {

namespace CompleteCommand {

namespace {

std::size_t width(std::string_view text) { return Unicode::characterCount(text); }

}  // namespace

std::string table(const std::vector<Completion>& completions) {
  if (completions.empty()) return "No completions at this cursor.\n";
  std::size_t displayWidth = width("COMPLETION");
  std::size_t detailWidth = width("DETAIL");
  for (const auto& completion : completions) {
    displayWidth = std::max(displayWidth, width(completion.display));
    detailWidth = std::max(detailWidth, width(completion.detail));
  }
  std::string out;
  auto line = [&](std::string_view display, std::string_view detail, std::string_view kind) {
    out += display;
    out.append(displayWidth - width(display) + 2, ' ');
    out += detail;
    out.append(detailWidth - width(detail) + 2, ' ');
    out += kind;
    out += '\n';
  };
  line("COMPLETION", "DETAIL", "KIND");
  for (const auto& completion : completions)
    line(completion.display, completion.detail, kindName(completion.kind));
  return out;
}

std::string json(const SoqlCompletion::Suggestions& suggestions) {
  nlohmann::ordered_json completions = nlohmann::ordered_json::array();
  for (const auto& completion : suggestions.completions) {
    completions.push_back({{"text", completion.text},
                           {"display", completion.display},
                           {"detail", completion.detail},
                           {"kind", kindName(completion.kind)}});
  }
  nlohmann::ordered_json out = {
      {"replace", {{"start", suggestions.replace.start}, {"end", suggestions.replace.end}}},
      {"completions", completions}};
  return out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

void run(CommandContext& context, SalesforceAPI::Client& api, const Options& options,
         const std::filesystem::path& cacheFolder) {
  // A cursor past the end is refused before anything is asked of the CLI.
  const std::size_t length = Unicode::characterCount(options.text);
  if (options.cursor && *options.cursor > length)
    throw CompletionRequestError::cursorPastEnd(*options.cursor, length);

  auto orgs = context.cli.listOrgs(true, context.listTimeout);
  const Org& org = OrgsCommand::findLogin(orgs, options.login);
  DescribeCache cache(cacheFolder, org.username, QueryCompletion::describeSource(api, org));
  cache.setRefresh(options.refresh);
  auto suggestions =
      QueryCompletion::complete(cache, {options.text, options.cursor, options.limit});
  context.out << (options.json ? json(suggestions) : table(suggestions.completions));
  context.out.flush();
}

void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen) {
  CLI::App* complete =
      app.add_subcommand("complete", "Show the SOQL completions at a cursor in a query");
  auto options = std::make_shared<Options>();
  complete->add_option("LOGIN", options->login, "A username or alias")->required();
  complete->add_option("TEXT", options->text, "The query text, such as \"SELECT Na\"")->required();
  complete->add_option("--cursor", options->cursor,
                       "Where the cursor stands, in characters from the start (default: the end)");
  complete->add_option("--limit", options->limit, "At most this many completions (default 50)")
      ->check(CLI::Range(1, 10000));
  complete->add_flag("--json", options->json, "Print JSON for programs");
  complete->add_flag("--refresh", options->refresh,
                     "Fetch the org's objects and fields again instead of using the cache");
  complete->callback([&context, &chosen, options] {
    chosen = [&context, options] {
      SalesforceAPI::Client api(
          [&context](const std::string& username) { return context.cli.session(username); });
      run(context, api, *options, QueryCompletion::standardCacheFolder());
    };
  });
}

}  // namespace CompleteCommand

}  // namespace corvane
