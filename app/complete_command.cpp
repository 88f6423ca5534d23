#include "app/complete_command.hpp"

#include <CLI/CLI.hpp>

#include "platform/unicode.hpp"
#include "query/completion_report.hpp"

namespace corvane {

namespace CompleteCommand {

void run(CommandContext& context, SalesforceAPI::Client& api, const Options& options,
         const std::filesystem::path& cacheFolder) {
  // A cursor past the end is refused before anything is asked of the CLI.
  const std::size_t length = Unicode::characterCount(options.text);
  if (options.cursor && *options.cursor > length)
    throw CompletionRequestError::cursorPastEnd(*options.cursor, length);

  const Org org = context.login(options.login);
  DescribeCache cache(cacheFolder, org.username, QueryCompletion::describeSource(api, org));
  cache.setRefresh(options.refresh);
  auto suggestions =
      QueryCompletion::complete(cache, {options.text, options.cursor, options.limit});
  context.print(options.json ? CompletionReport::json(suggestions)
                             : CompletionReport::table(suggestions.completions));
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
  whenChosen(complete, chosen, [&context, options] {
    auto api = context.api();
    run(context, api, *options, QueryCompletion::standardCacheFolder());
  });
}

}  // namespace CompleteCommand

}  // namespace corvane
