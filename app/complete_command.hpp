// `corvane complete LOGIN [--cursor N] "TEXT"`: the ranked SOQL completions at
// a cursor, one per line (completion, detail, kind), or as JSON with --json.
//
// The org's object list and the fields of the FROM object (and of objects
// reached through a relationship path such as "Owner.") come from the REST
// describe, cached on disk per login (see DescribeCache); --refresh fetches
// them again. Describe data is only fetched where the cursor's context needs it.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "app/command_context.hpp"
#include "connections/salesforce_api.hpp"
#include "query/completion_task.hpp"
#include "query/describe_cache.hpp"
#include "query/soql_completion.hpp"

namespace corvane {

namespace CompleteCommand {

struct Options {
  std::string login;
  std::string text;
  std::optional<std::size_t> cursor;  // in characters; the end of the text when absent
  std::size_t limit = 50;
  bool json = false;
  bool refresh = false;
};

// Adds the command to app; when chosen, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

// Answers one request, writing to context.out. cacheFolder holds the
// describe cache (normally "Describe Cache" in the application-support folder).
void run(CommandContext& context, SalesforceAPI::Client& api, const Options& options,
         const std::filesystem::path& cacheFolder);

}  // namespace CompleteCommand

}  // namespace corvane
