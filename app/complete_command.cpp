#include "app/complete_command.hpp"

#include <algorithm>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "platform/app_support.hpp"
#include "platform/unicode.hpp"

namespace corvane {

CompletionRequestError CompletionRequestError::cursorPastEnd(std::size_t cursor,
                                                             std::size_t length) {
  return {Kind::cursorPastEnd,
          "The cursor " + std::to_string(cursor) + " lies past the end of the text, which has " +
              std::to_string(length) + (length == 1 ? " character" : " characters") +
              ". Give a cursor from 0 to " + std::to_string(length) + ", counted in characters."};
}

namespace CompleteCommand {

namespace {

// An object name as SOQL writes it: ASCII letters, digits and "_" only.
bool isObjectName(const std::string& name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
  });
}

std::size_t width(std::string_view text) { return Unicode::characterCount(text); }

}  // namespace

DescribeCache::Source describeSource(SalesforceAPI::Client& api, const Org& org) {
  return {[&api, org] { return api.globalDescribe(org); },
          [&api, org](const std::string& object) -> nlohmann::json {
            if (!isObjectName(object)) return nullptr;
            try {
              return api.describe(object, org);
            } catch (const SalesforceAPI::APIError& error) {
              if (error.kind() == SalesforceAPI::APIError::Kind::http && error.status() == 404)
                return nullptr;
              throw;
            }
          }};
}

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
  const std::size_t length = Unicode::characterCount(options.text);
  const std::size_t cursor = options.cursor.value_or(length);
  if (cursor > length) throw CompletionRequestError::cursorPastEnd(cursor, length);

  auto orgs = context.cli.listOrgs(true, context.listTimeout);
  const Org& org = OrgsCommand::findLogin(orgs, options.login);
  DescribeCache cache(cacheFolder, org.username, describeSource(api, org));
  cache.setRefresh(options.refresh);

  // Only what this cursor can use is fetched.
  const auto where = SoqlCompletion::context(options.text, cursor);
  std::vector<SObjectSummary> objects;
  std::vector<SObjectField> fields;
  if (where.kind == SoqlCompletion::Context::Kind::fromObject) objects = cache.objects();
  if (where.object) fields = cache.fields(*where.object);
  auto related = [&cache](const std::string& object) { return cache.fields(object); };

  auto suggestions =
      SoqlCompletion::complete(options.text, cursor, objects, fields, options.limit, related);
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
      run(context, api, *options, AppSupport::folder() / "Describe Cache");
    };
  });
}

}  // namespace CompleteCommand

}  // namespace corvane
