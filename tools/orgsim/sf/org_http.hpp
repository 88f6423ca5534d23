// The stand-in's HTTP calls to an org: GET with a bearer token, over libcurl.
//
// Server errors (500, 502, 503, 504) are retried as the real CLI retries them:
// six attempts in all, with a short growing pause between them. Every other
// answer, success or not, is returned to the caller as it came. A connection that
// cannot be made or breaks off throws CliFailure::fetchFailed(). The token goes
// only into the Authorization header; it never appears in an error text.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace corvane::sfstandin {

struct HttpReply {
  long status = 0;
  std::string body;
};

// One Salesforce REST error: the first element of the body's error array.
struct OrgErrorBody {
  std::string errorCode;
  std::string message;
};

class OrgHttp {
 public:
  // `instanceUrl` as stored in the login, with or without the trailing "/".
  OrgHttp(std::string instanceUrl, std::string accessToken,
          std::chrono::milliseconds timeout = std::chrono::seconds(60));

  // GET instanceUrl + pathAndQuery (which begins with "/").
  HttpReply get(const std::string& pathAndQuery) const;
  // POST of a SOAP envelope (the Metadata API). Never retried: a SOAP fault is a 500.
  HttpReply postSOAP(const std::string& path, const std::string& envelope) const;

  // Percent-encodes a query parameter value (space as %20).
  static std::string escape(const std::string& text);

 private:
  HttpReply send(const std::string& pathAndQuery, const std::optional<std::string>& body,
                 const std::string& contentType) const;

  std::string base_;
  std::string accessToken_;
  std::chrono::milliseconds timeout_;
};

// Reads Salesforce's error body ([{"message":...,"errorCode":...}], or the OAuth form
// {"error":...,"error_description":...}); none when the body is neither.
std::optional<OrgErrorBody> parseOrgError(const std::string& body);

// The base address without the trailing "/".
std::string withoutTrailingSlash(std::string url);

// True for http(s) addresses whose host is 127.0.0.0/8, ::1 or localhost.
bool isLoopbackUrl(const std::string& url);

}  // namespace corvane::sfstandin
