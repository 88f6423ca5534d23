// The one HTTP path from Corvane to Salesforce's REST and SOAP APIs.
//
// One shared Client serves every screen and run. It keeps one session per login
// (keyed by the lower-cased username), takes a new one from the Salesforce CLI
// when it has none, and repeats a request exactly once with a fresh session
// after a 401, or, for SOAP calls, after the INVALID_SESSION_ID fault. Every call blocks until the reply is complete; any number of
// threads may call at once (each thread reuses its own connection).
//
// The access token goes only into the Authorization header (and, for SOAP, into
// the envelope just before sending). It never appears in an error text.
// Instance URLs must be https, except on a loopback host; TLS certificates are
// verified.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "connections/json_literal.hpp"
#include "connections/org.hpp"
#include "connections/session.hpp"
#include "connections/dedupe_transport.hpp"

namespace corvane::SalesforceAPI {

// The marker a SOAP envelope holds where the session ID belongs. It is replaced
// by the token just before sending, so that callers never handle the token.
inline constexpr std::string_view sessionPlaceholder = "SESSION_ID_HERE";

class APIError : public std::runtime_error {
 public:
  enum class Kind {
    noSession,   // no usable session; the CLI bridge's own words
    http,        // a reply outside 200-299: status and the message from its body
    decoding,    // a body that was not what was expected
    timedOut,    // no reply (or no progress) within the request's time limit
    connection,  // the connection failed or broke off mid-transfer
    insecure,    // the instance URL is not https and not on this machine
  };

  static APIError noSession(std::string message);
  static APIError http(int status, std::string message);
  static APIError decoding();
  static APIError timedOut(int seconds);
  static APIError connection(std::string reason);
  static APIError insecure(std::string instanceUrl);

  Kind kind() const { return kind_; }
  int status() const { return status_; }                   // http only
  const std::string& message() const { return message_; }  // noSession, http, connection
  std::string description() const { return what(); }

  // The message of a failed reply: the "message" of the first element of a JSON
  // array, else of a JSON object, else "Salesforce returned HTTP " + status.
  static std::string message(std::string_view body, int status);

 private:
  APIError(Kind kind, int status, std::string message);
  static std::string describe(Kind kind, int status, const std::string& message);

  Kind kind_;
  int status_ = 0;
  std::string message_;
};

struct QueryPage {
  std::vector<JSONLiteral> records;
  std::int64_t totalSize = 0;
  bool done = true;
  std::string nextRecordsUrl;  // empty on the last page
};

class Client {
 public:
  // Where sessions come from; throws CLIError when there is none.
  using SessionSource = std::function<Session(const std::string& username)>;

  // Idle limit (no bytes moving), then the limit for the whole transfer.
  struct Limit {
    long idleSeconds;
    long totalSeconds;
  };
  struct TimeLimits {
    Limit get{60, 120};
    Limit send{60, 180};
    Limit getWithHeaders{60, 600};
    Limit download{60, 600};
    Limit soap{60, 180};
  };

  struct Response {
    int status = 0;
    std::string body;
    ResponseHeaders headers;
    std::int64_t bytes = 0;  // body bytes received (into the file, for a download)
  };

  explicit Client(SessionSource source);
  Client(SessionSource source, TimeLimits limits);
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // The login's session: the cached one unless forceRefresh, else a new one from
  // the source, which is then cached. Throws noSession with the bridge's words.
  Session session(const Org& org, bool forceRefresh = false);
  // The cached session of a username (any case), if any.
  std::optional<Session> cachedSession(const std::string& username) const;

  // Raw calls on a given session: no retry, any status returned as it is.
  // Throws only for a failed transfer (timedOut, connection, insecure).
  Response rawGet(const std::string& path, const QueryItems& query, const Session& session);
  Response rawSend(const std::string& method, const std::string& path, const QueryItems& query,
                   const std::optional<std::string>& body, const Session& session);
  Response rawGetWithHeaders(const std::string& path, const QueryItems& query,
                             const std::string& accept, const Session& session);
  // Streams a 2xx body into file (replaced); any other reply's body is returned.
  Response rawDownload(const std::string& path, const std::filesystem::path& file,
                       const Session& session);
  Response rawSOAP(const std::string& action, const std::string& envelope,
                   std::string_view tokenPlaceholder, const Session& session);

  // The same calls with the login's session, one retry after a 401 (or a SOAP
  // INVALID_SESSION_ID fault), and a
  // reply outside 200-299 thrown as http(status, message).
  std::string send(const std::string& method, const std::string& path, const QueryItems& query,
                   const std::optional<std::string>& body, const Org& org);
  std::pair<std::string, ResponseHeaders> getWithHeaders(const std::string& path,
                                                         const QueryItems& query,
                                                         const std::string& accept, const Org& org);
  std::string soap(const std::string& action, const std::string& envelope, const Org& org);
  // Removes a partly written file when the transfer fails.
  std::int64_t download(const std::string& path, const std::filesystem::path& file, const Org& org);

  // GET with a JSON Accept; the body.
  std::string get(const std::string& path, const QueryItems& query, const Org& org);
  // Runs soql and hands each page to onPage in order, one request at a time;
  // onPage returns false to stop early.
  void queryStream(const std::string& soql, const Org& org,
                   const std::function<bool(QueryPage)>& onPage);
  // "sobjects" of the global describe.
  nlohmann::json globalDescribe(const Org& org);
  nlohmann::json describe(const std::string& object, const Org& org);
  // (name, count) of "/limits/recordCount".
  std::vector<std::pair<std::string, std::int64_t>> recordCounts(const Org& org);
  // The records of a Tooling API query, every page of them (nextRecordsUrl).
  std::vector<nlohmann::json> toolingQuery(const std::string& soql, const Org& org);
  // The object's describe, read by the import engine as its schema.
  nlohmann::json importObject(const std::string& object, const Org& org);

  // The URL of a path: "/services/..." appended to the instance URL as it
  // stands, anything else after "/services/data/v" + the API version.
  static std::string url(const Session& session, const std::string& path, const QueryItems& query);
  // Whether a URL may carry a session: https, or http on a loopback host.
  static bool isAllowedInstanceURL(std::string_view instanceUrl);

 private:
  Response withRetry(const Org& org, const std::function<Response(const Session&)>& call);
  nlohmann::json getJSON(const std::string& path, const QueryItems& query, const Org& org);

  SessionSource source_;
  TimeLimits limits_;
  mutable std::mutex mutex_;                 // guards sessions_
  std::map<std::string, Session> sessions_;  // by lower-cased username
};

}  // namespace corvane::SalesforceAPI
