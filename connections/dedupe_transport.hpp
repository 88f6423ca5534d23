// The only way the duplicate engine reaches Salesforce.
//
// The engine never sees the CLI or a session: the app hands it a transport for
// one login. Every call blocks until the reply is complete and throws on
// failure (an HTTP status outside 200-299, no session, a broken connection);
// the exception's what() is a sentence for the user and never holds a token.
// Implementations must be safe to call from several threads at once.
#pragma once

#include <exception>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace corvane {

using QueryItems = std::vector<std::pair<std::string, std::string>>;
// Response headers, names as the server wrote them.
using ResponseHeaders = std::map<std::string, std::string>;

// What an engine needs to know about a failed call, to choose its own words.
struct TransportFailure {
  bool signedOut = false;  // the login's session is gone: the user must log in again
  int httpStatus = 0;      // the reply's status; 0 when there was no reply
  std::string message;     // Salesforce's own message, when it sent one
};

class DedupeTransport {
 public:
  virtual ~DedupeTransport() = default;

  // One REST call. method is "GET", "POST", "PATCH" or "DELETE"; a path that
  // begins with "/services/" is used as it stands, any other is relative to the
  // org's REST root. body, when given, is JSON. Returns the response body.
  virtual std::string send(const std::string& method, const std::string& path,
                           const QueryItems& query, const std::optional<std::string>& body) = 0;

  // A GET with the given Accept value; returns the body and the response headers.
  virtual std::pair<std::string, ResponseHeaders> getRaw(const std::string& path,
                                                         const QueryItems& query,
                                                         const std::string& accept) = 0;

  // A call to the SOAP endpoint. The envelope holds the session placeholder the
  // implementation documents; it is replaced with the session just before sending.
  virtual std::string postSOAP(const std::string& action, const std::string& envelope) = 0;

  // Reads a failure thrown by one of the calls above. The default knows nothing.
  virtual TransportFailure classify(const std::exception& /*error*/) const { return {}; }
};

}  // namespace corvane
