#include "query/completion_task.hpp"

#include <algorithm>

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

namespace QueryCompletion {

namespace {

// An object name as SOQL writes it: ASCII letters, digits and "_" only.
bool isObjectName(const std::string& name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
  });
}

}  // namespace

SoqlCompletion::Suggestions complete(DescribeCache& cache, const Request& request) {
  const std::size_t length = Unicode::characterCount(request.text);
  const std::size_t cursor = request.cursor.value_or(length);
  if (cursor > length) throw CompletionRequestError::cursorPastEnd(cursor, length);

  // Only what this cursor can use is fetched.
  const auto where = SoqlCompletion::context(request.text, cursor);
  std::vector<SObjectSummary> objects;
  std::vector<SObjectField> fields;
  if (where.kind == SoqlCompletion::Context::Kind::fromObject) objects = cache.objects();
  if (where.object) fields = cache.fields(*where.object);
  auto related = [&cache](const std::string& object) { return cache.fields(object); };
  return SoqlCompletion::complete(request.text, cursor, objects, fields, request.limit, related);
}

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

std::filesystem::path standardCacheFolder() { return AppSupport::folder() / "Describe Cache"; }

}  // namespace QueryCompletion

}  // namespace corvane
