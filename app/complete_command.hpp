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

#include "app/orgs_command.hpp"
#include "connections/salesforce_api.hpp"
#include "platform/user_facing_error.hpp"
#include "query/describe_cache.hpp"
#include "query/soql_completion.hpp"

namespace CLI {
class App;
}

namespace corvane {

// A completion request that cannot be answered as asked.
class CompletionRequestError : public UserFacingError {
 public:
  enum class Kind { cursorPastEnd };

  static CompletionRequestError cursorPastEnd(std::size_t cursor, std::size_t length);

  Kind kind() const { return kind_; }

 private:
  CompletionRequestError(Kind kind, const std::string& description)
      : UserFacingError(description), kind_(kind) {}
  Kind kind_;
};

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

// The describe replies of one login through the REST client; an object the
// org does not have (or a name that cannot be one) gives null.
DescribeCache::Source describeSource(SalesforceAPI::Client& api, const Org& org);

// The screen texts.
std::string table(const std::vector<Completion>& completions);
std::string json(const SoqlCompletion::Suggestions& suggestions);

}  // namespace CompleteCommand

}  // namespace corvane
