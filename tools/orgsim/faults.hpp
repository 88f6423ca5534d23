// Misbehaviour on demand: rules that make the next N requests on a path fail.
//
// A rule names a path pattern ("*" matches any run of characters, including "/"),
// optionally a method, what goes wrong, and how many requests it applies to. Each
// request that a rule matches uses one of its N; at 0 the rule is gone and the path
// behaves normally again. Rules persist in the state database. Thread-safe: taking
// a rule is one write transaction, so two requests never both use the last one.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/orgsim/org_store.hpp"

namespace corvane::orgsim {

struct FaultRule {
  enum class Kind {
    Status,          // answer `status` with Salesforce's error body for it (401, 500, 503, ...)
    RequestLimit,    // 403 REQUEST_LIMIT_EXCEEDED
    Drop,            // send the headers and `afterBytes` of the body, then drop the connection
    Delay,           // wait `delayMs`, then answer normally
    InvalidLocator,  // Bulk results or a REST query cursor: the locator is refused
    NoLocator,       // Bulk results: the page comes without its Sforce-Locator header
    FailJob,         // the next Bulk query job created goes Failed with `message`
    LockRow,         // SOAP merge: UNABLE_TO_LOCK_ROW for the record
    ExpireSessions,  // after every `every` matching requests, every session ends
  };

  std::int64_t id = 0;
  std::string pathPattern = "*";
  std::string method;  // empty: any
  Kind kind = Kind::Status;
  int remaining = 1;
  int status = 500;
  std::int64_t delayMs = 0;
  std::int64_t afterBytes = 0;
  int every = 1;  // ExpireSessions: requests served between two expiries
  int seen = 0;   // ExpireSessions: requests served since the last expiry
  std::string message;  // overrides the error message where the kind has one

  nlohmann::json toJson() const;
  // Reads {"path": ..., "method": ..., "fault": "status"|"401"|"500"|"503"|
  // "REQUEST_LIMIT_EXCEEDED"|"drop"|"delay"|"invalidLocator"|"noLocator"|"failJob"|
  // "UNABLE_TO_LOCK_ROW"|"expireSessions", "count": N, "status": ..., "delayMs": ...,
  // "afterBytes": ..., "every": ..., "message": ...}. Throws std::invalid_argument naming what is wrong.
  static FaultRule fromJson(const nlohmann::json& json);
};

std::string_view faultKindName(FaultRule::Kind kind);

// True when `path` matches the glob `pattern` ("*" matches anything).
bool globMatches(std::string_view pattern, std::string_view path);

namespace Faults {

std::int64_t add(OrgStore& store, const FaultRule& rule);
std::vector<FaultRule> list(OrgStore& store);
void clear(OrgStore& store);

// Uses one request of the first rule of one of these kinds that matches; none when
// no rule applies.
std::optional<FaultRule> take(OrgStore& store, std::string_view method, std::string_view path,
                              std::initializer_list<FaultRule::Kind> kinds);

// For ExpireSessions rules: counts this request against the first matching
// rule and returns true when it is the one past `every` since the last expiry,
// i.e. when every session must end before it is answered. Each expiry uses
// one of the rule's count; the request that finds its session ended does not
// count as served.
bool sessionsExpireNow(OrgStore& store, std::string_view method, std::string_view path);

}  // namespace Faults

}  // namespace corvane::orgsim
