// The one entry point through which both faces ask for SOQL completions.
//
// QueryCompletion::complete reads the org's object list and the fields the
// cursor's context needs (the FROM object, objects reached through a
// relationship path such as "Owner.") from the describe cache, fetching only
// what is missing or stale, and returns the ranked completions with the range
// an accepted one replaces. It may ask Salesforce, so callers run it on a
// worker thread; a cache serves one thread at a time.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "connections/org.hpp"
#include "connections/salesforce_api.hpp"
#include "platform/user_facing_error.hpp"
#include "query/describe_cache.hpp"
#include "query/soql_completion.hpp"

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

namespace QueryCompletion {

struct Request {
  std::string text;                   // UTF-8
  std::optional<std::size_t> cursor;  // in characters; the end of the text when absent
  std::size_t limit = 50;
};

// The completions at the cursor. Throws CompletionRequestError for a cursor
// past the end, and SalesforceAPI::APIError when describe data that is needed
// cannot be fetched.
SoqlCompletion::Suggestions complete(DescribeCache& cache, const Request& request);

// The describe replies of one login through the REST client; an object the
// org does not have (or a name that cannot be one) gives null.
DescribeCache::Source describeSource(SalesforceAPI::Client& api, const Org& org);

// Where the describe cache lives: "Describe Cache" in the application-support folder.
std::filesystem::path standardCacheFolder();

}  // namespace QueryCompletion

}  // namespace corvane
