#include "tools/orgsim/sf/org_http.hpp"

#include <curl/curl.h>

#include <memory>
#include <thread>

#include <nlohmann/json.hpp>

#include "tools/orgsim/sf/cli_failure.hpp"

namespace corvane::sfstandin {

namespace {

constexpr int kAttempts = 6;

struct EasyDeleter {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct ListDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

size_t appendBody(char* data, size_t size, size_t count, void* target) {
  static_cast<std::string*>(target)->append(data, size * count);
  return size * count;
}

bool isRetriedStatus(long status) {
  return status == 500 || status == 502 || status == 503 || status == 504;
}

}  // namespace

OrgHttp::OrgHttp(std::string instanceUrl, std::string accessToken,
                 std::chrono::milliseconds timeout)
    : base_(withoutTrailingSlash(std::move(instanceUrl))),
      accessToken_(std::move(accessToken)),
      timeout_(timeout) {}

HttpReply OrgHttp::get(const std::string& pathAndQuery) const {
  return send(pathAndQuery, std::nullopt, "application/json");
}

HttpReply OrgHttp::postSOAP(const std::string& path, const std::string& envelope) const {
  return send(path, envelope, "text/xml; charset=UTF-8");
}

HttpReply OrgHttp::send(const std::string& pathAndQuery, const std::optional<std::string>& body,
                        const std::string& contentType) const {
  std::string url = base_ + pathAndQuery;
  std::string authorization = "Authorization: Bearer " + accessToken_;
  std::string contentTypeHeader = "Content-Type: " + contentType;
  HttpReply reply;
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    std::unique_ptr<CURL, EasyDeleter> curl(curl_easy_init());
    if (!curl) throw CliFailure::fetchFailed();
    std::unique_ptr<curl_slist, ListDeleter> headers(
        curl_slist_append(nullptr, authorization.c_str()));
    curl_slist_append(headers.get(), body ? "Accept: text/xml" : "Accept: application/json");
    curl_slist_append(headers.get(), contentTypeHeader.c_str());
    if (body) curl_slist_append(headers.get(), "SOAPAction: \"\"");

    reply = {};
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, appendBody);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &reply.body);
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, static_cast<long>(timeout_.count()));
    curl_easy_setopt(curl.get(), CURLOPT_CONNECTTIMEOUT_MS, 10000L);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl.get(), CURLOPT_USERAGENT, "corvane-sf-standin");
    curl_easy_setopt(curl.get(), CURLOPT_ACCEPT_ENCODING, "");
    if (body) {
      curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body->data());
      curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE_LARGE,
                       static_cast<curl_off_t>(body->size()));
    }

    if (curl_easy_perform(curl.get()) != CURLE_OK) throw CliFailure::fetchFailed();
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &reply.status);
    // SOAP faults come as 500 answers: those are final.
    if (body || !isRetriedStatus(reply.status) || attempt == kAttempts) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100 * attempt));
  }
  return reply;
}

std::string OrgHttp::escape(const std::string& text) {
  std::unique_ptr<CURL, EasyDeleter> curl(curl_easy_init());
  char* escaped = curl_easy_escape(curl.get(), text.data(), static_cast<int>(text.size()));
  std::string result = escaped ? escaped : "";
  curl_free(escaped);
  return result;
}

std::optional<OrgErrorBody> parseOrgError(const std::string& body) {
  auto parsed = nlohmann::json::parse(body, nullptr, false);
  if (parsed.is_discarded()) return std::nullopt;
  const nlohmann::json* error = &parsed;
  if (parsed.is_array()) {
    if (parsed.empty()) return std::nullopt;
    error = &parsed.front();
  }
  if (!error->is_object()) return std::nullopt;
  auto text = [&](const char* key) {
    auto found = error->find(key);
    return found != error->end() && found->is_string() ? found->get<std::string>() : "";
  };
  if (!text("errorCode").empty() || !text("message").empty()) {
    return OrgErrorBody{text("errorCode"), text("message")};
  }
  if (!text("error").empty()) return OrgErrorBody{text("error"), text("error_description")};
  return std::nullopt;
}

std::string withoutTrailingSlash(std::string url) {
  while (!url.empty() && url.back() == '/') url.pop_back();
  return url;
}

bool isLoopbackUrl(const std::string& url) {
  std::size_t scheme = url.find("://");
  if (scheme == std::string::npos) return false;
  std::string rest = url.substr(scheme + 3);
  std::string host;
  if (!rest.empty() && rest.front() == '[') {
    host = rest.substr(1, rest.find(']') == std::string::npos ? 0 : rest.find(']') - 1);
  } else {
    host = rest.substr(0, rest.find_first_of(":/?#"));
  }
  if (host == "localhost" || host == "::1") return true;
  if (!host.starts_with("127.")) return false;
  // Four numeric parts: "127.example.com" is not the loopback network.
  int dots = 0;
  for (char c : host) {
    if (c == '.') {
      ++dots;
    } else if (c < '0' || c > '9') {
      return false;
    }
  }
  return dots == 3;
}

}  // namespace corvane::sfstandin
