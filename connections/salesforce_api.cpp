#include "connections/salesforce_api.hpp"

#include <arpa/inet.h>
#include <curl/curl.h>

#include <cstdio>
#include <memory>

#include "connections/ascii.hpp"
#include "connections/cli_error.hpp"

namespace corvane::SalesforceAPI {

// ---- APIError ----

APIError::APIError(Kind kind, int status, std::string message)
    : std::runtime_error(describe(kind, status, message)),
      kind_(kind),
      status_(status),
      message_(std::move(message)) {}

APIError APIError::noSession(std::string message) {
  return APIError(Kind::noSession, 0, std::move(message));
}
APIError APIError::http(int status, std::string message) {
  return APIError(Kind::http, status, std::move(message));
}
APIError APIError::decoding() { return APIError(Kind::decoding, 0, {}); }
APIError APIError::timedOut(int seconds) { return APIError(Kind::timedOut, seconds, {}); }
APIError APIError::connection(std::string reason) {
  return APIError(Kind::connection, 0, std::move(reason));
}
APIError APIError::insecure(std::string instanceUrl) {
  return APIError(Kind::insecure, 0, std::move(instanceUrl));
}

std::string APIError::describe(Kind kind, int status, const std::string& message) {
  switch (kind) {
    case Kind::noSession:
      return message;
    case Kind::http:
      if (message.rfind("Salesforce returned HTTP ", 0) == 0) return message + ".";
      return "Salesforce refused the request (HTTP " + std::to_string(status) + "): " + message;
    case Kind::decoding:
      return "Salesforce returned data that could not be read.";
    case Kind::timedOut:
      return "Salesforce did not answer within " + std::to_string(status) +
             " seconds. Check the network connection and try again.";
    case Kind::connection:
      return "The connection to Salesforce failed (" + message +
             "). Check the network connection and try again.";
    case Kind::insecure:
      return "Corvane will not send this org's session over an unencrypted connection to " +
             message + ". Reconnect the org through its https address.";
  }
  return {};
}

std::string APIError::message(std::string_view body, int status) {
  auto json = nlohmann::json::parse(body, nullptr, false);
  const nlohmann::json* holder = nullptr;
  if (json.is_array() && !json.empty() && json.front().is_object()) holder = &json.front();
  if (json.is_object()) holder = &json;
  if (holder) {
    auto found = holder->find("message");
    if (found != holder->end() && found->is_string()) return found->get<std::string>();
  }
  return "Salesforce returned HTTP " + std::to_string(status);
}

// ---- URLs ----

namespace {

void appendEscaped(std::string& out, std::string_view text) {
  static constexpr char hex[] = "0123456789ABCDEF";
  for (char c : text) {
    auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) || c == '-' || c == '_' || c == '.' || c == '~') {
      out += c;
    } else {
      out += '%';
      out += hex[byte >> 4];
      out += hex[byte & 0xF];
    }
  }
}

// The host of an http(s) URL, lower-cased, brackets of an IPv6 literal kept.
std::string hostOf(std::string_view url, std::size_t schemeLength) {
  std::string_view rest = url.substr(schemeLength);
  rest = rest.substr(0, rest.find_first_of("/?#"));
  if (auto at = rest.rfind('@'); at != std::string_view::npos) rest.remove_prefix(at + 1);
  if (!rest.empty() && rest[0] == '[') {
    return Ascii::lowered(rest.substr(0, rest.find(']') + 1));
  }
  return Ascii::lowered(rest.substr(0, rest.find(':')));
}

}  // namespace

bool Client::isAllowedInstanceURL(std::string_view instanceUrl) {
  std::string lowered = Ascii::lowered(instanceUrl);
  if (lowered.rfind("https://", 0) == 0) return hostOf(lowered, 8).size() > 0;
  if (lowered.rfind("http://", 0) != 0) return false;
  std::string host = hostOf(lowered, 7);
  if (host == "localhost" || host == "[::1]") return true;
  in_addr address{};
  return inet_pton(AF_INET, host.c_str(), &address) == 1 && (ntohl(address.s_addr) >> 24) == 127;
}

std::string Client::url(const Session& session, const std::string& path, const QueryItems& query) {
  std::string out = session.instanceUrl;
  while (!out.empty() && out.back() == '/') out.pop_back();
  if (path.rfind("/services/", 0) == 0) {
    out += path;
  } else {
    out += "/services/data/v" + session.apiVersion;
    if (path.empty() || path[0] != '/') out += '/';
    out += path;
  }
  char separator = out.find('?') == std::string::npos ? '?' : '&';
  for (const auto& [name, value] : query) {
    out += separator;
    separator = '&';
    appendEscaped(out, name);
    out += '=';
    appendEscaped(out, value);
  }
  return out;
}

// ---- Transfers ----

namespace {

struct CurlDeleter {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};

// One handle per thread, so that its connections are reused across requests.
CURL* threadHandle() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  thread_local std::unique_ptr<CURL, CurlDeleter> handle(curl_easy_init());
  if (!handle) throw APIError::connection("the network library could not start");
  curl_easy_reset(handle.get());
  return handle.get();
}

struct SlistDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

struct Transfer {
  CURL* handle = nullptr;
  Client::Response response;
  std::FILE* file = nullptr;  // 2xx bodies go here when set
  bool fileFailed = false;
};

long statusOf(CURL* handle) {
  long status = 0;
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  return status;
}

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* context) {
  auto* transfer = static_cast<Transfer*>(context);
  std::size_t bytes = size * count;
  long status = statusOf(transfer->handle);
  if (transfer->file && status >= 200 && status < 300) {
    if (std::fwrite(data, 1, bytes, transfer->file) != bytes) {
      transfer->fileFailed = true;
      return 0;  // stops the transfer
    }
  } else {
    transfer->response.body.append(data, bytes);
  }
  transfer->response.bytes += static_cast<std::int64_t>(bytes);
  return bytes;
}

std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* context) {
  auto* transfer = static_cast<Transfer*>(context);
  std::size_t bytes = size * count;
  std::string_view line(data, bytes);
  if (line.rfind("HTTP/", 0) == 0) {
    transfer->response.headers.clear();  // a new reply (after 100 Continue, say)
  } else if (auto colon = line.find(':'); colon != std::string_view::npos) {
    std::string_view value = line.substr(colon + 1);
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
      value.remove_prefix(1);
    while (!value.empty() &&
           (value.back() == '\r' || value.back() == '\n' || value.back() == ' ')) {
      value.remove_suffix(1);
    }
    transfer->response.headers[std::string(line.substr(0, colon))] = std::string(value);
  }
  return bytes;
}

struct RequestSpec {
  std::string method = "GET";
  std::string url;
  std::vector<std::string> headers;
  const std::string* body = nullptr;
  std::FILE* file = nullptr;
  Client::Limit limit;
};

Client::Response perform(const Session& session, const RequestSpec& planned) {
  if (!Client::isAllowedInstanceURL(session.instanceUrl)) {
    throw APIError::insecure(session.instanceUrl);
  }
  Transfer transfer;
  transfer.handle = threadHandle();
  transfer.file = planned.file;
  CURL* handle = transfer.handle;

  std::unique_ptr<curl_slist, SlistDeleter> headers;
  auto addHeader = [&](const std::string& header) {
    curl_slist* grown = curl_slist_append(headers.get(), header.c_str());
    if (!grown) throw APIError::connection("the request could not be prepared");
    static_cast<void>(headers.release());
    headers.reset(grown);
  };
  addHeader("Authorization: Bearer " + session.accessToken);
  for (const std::string& header : planned.headers) addHeader(header);
  addHeader("Expect:");  // no 100-continue round trip

  char errorText[CURL_ERROR_SIZE] = {};
  curl_easy_setopt(handle, CURLOPT_URL, planned.url.c_str());
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "");  // gzip when offered
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorText);
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, onBody);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, onHeader);
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, &transfer);
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, static_cast<long>(planned.limit.idleSeconds));
  curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, static_cast<long>(planned.limit.idleSeconds));
  curl_easy_setopt(handle, CURLOPT_TIMEOUT, static_cast<long>(planned.limit.totalSeconds));
  if (planned.method == "GET") {
    curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
  } else {
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, planned.method.c_str());
  }
  if (planned.body) {
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, planned.body->data());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(planned.body->size()));
  }

  CURLcode code = curl_easy_perform(handle);
  // The handle keeps pointers to this call's buffers; drop them before they go.
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, nullptr);
  curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, nullptr);
  if (code == CURLE_OPERATION_TIMEDOUT) {
    // The idle limit or the total limit, whichever struck.
    double seconds = 0;
    curl_easy_getinfo(handle, CURLINFO_TOTAL_TIME, &seconds);
    bool total = seconds + 0.5 >= static_cast<double>(planned.limit.totalSeconds);
    throw APIError::timedOut(
        static_cast<int>(total ? planned.limit.totalSeconds : planned.limit.idleSeconds));
  }
  if (code == CURLE_WRITE_ERROR && transfer.fileFailed) {
    throw APIError::connection("the downloaded data could not be written to disk");
  }
  if (code != CURLE_OK) {
    throw APIError::connection(errorText[0] ? std::string(errorText) : curl_easy_strerror(code));
  }
  transfer.response.status = static_cast<int>(statusOf(handle));
  return std::move(transfer.response);
}

// A token must never reach an error text, even if a server echoes it.
std::string scrubbed(std::string text, const std::string& token) {
  if (token.empty()) return text;
  for (std::size_t at = text.find(token); at != std::string::npos; at = text.find(token, at)) {
    text.replace(at, token.size(), "(session)");
  }
  return text;
}

}  // namespace

// ---- Sessions ----

Client::Client(SessionSource source) : Client(std::move(source), TimeLimits{}) {}

Client::Client(SessionSource source, TimeLimits limits)
    : source_(std::move(source)), limits_(limits) {}

Session Client::session(const Org& org, bool forceRefresh) {
  std::string key = Ascii::lowered(org.username);
  if (!forceRefresh) {
    std::lock_guard lock(mutex_);
    if (auto found = sessions_.find(key); found != sessions_.end()) return found->second;
  }
  Session fresh;
  try {
    fresh = source_(org.username);
  } catch (const CLIError& error) {
    throw APIError::noSession(error.description());
  }
  std::lock_guard lock(mutex_);
  sessions_[key] = fresh;
  return fresh;
}

std::optional<Session> Client::cachedSession(const std::string& username) const {
  std::lock_guard lock(mutex_);
  auto found = sessions_.find(Ascii::lowered(username));
  if (found == sessions_.end()) return std::nullopt;
  return found->second;
}

// ---- Raw calls ----

namespace {

RequestSpec getSpec(const Session& session, const std::string& path, const QueryItems& query,
                    const std::string& accept, Client::Limit limit) {
  RequestSpec planned;
  planned.url = Client::url(session, path, query);
  planned.headers = {"Accept: " + accept};
  planned.limit = limit;
  return planned;
}

}  // namespace

Client::Response Client::rawGet(const std::string& path, const QueryItems& query,
                                const Session& session) {
  return perform(session, getSpec(session, path, query, "application/json", limits_.get));
}

Client::Response Client::rawSend(const std::string& method, const std::string& path,
                                 const QueryItems& query, const std::optional<std::string>& body,
                                 const Session& session) {
  RequestSpec planned;
  planned.method = method;
  planned.url = url(session, path, query);
  planned.headers = {"Accept: application/json"};
  if (body) {
    // Everything sent is JSON except the rows uploaded into a Bulk API ingest
    // job (PUT .../jobs/ingest/ID/batches), which Salesforce takes only as CSV.
    const bool ingestUpload = method == "PUT" && path.ends_with("/batches") &&
                              path.find("jobs/ingest/") != std::string::npos;
    planned.headers.push_back(ingestUpload ? "Content-Type: text/csv"
                                           : "Content-Type: application/json");
    planned.body = &*body;
  }
  planned.limit = limits_.send;
  return perform(session, planned);
}

Client::Response Client::rawGetWithHeaders(const std::string& path, const QueryItems& query,
                                           const std::string& accept, const Session& session) {
  return perform(session, getSpec(session, path, query, accept, limits_.getWithHeaders));
}

Client::Response Client::rawDownload(const std::string& path, const std::filesystem::path& file,
                                     const Session& session) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> out(std::fopen(file.c_str(), "wb"), std::fclose);
  if (!out)
    throw APIError::connection("the file " + file.filename().string() +
                               " could not be opened for writing");
  RequestSpec planned;
  planned.url = url(session, path, {});
  planned.headers = {"Accept: */*"};
  planned.file = out.get();
  planned.limit = limits_.download;
  Response response = perform(session, planned);
  if (std::fflush(out.get()) != 0) {
    throw APIError::connection("the downloaded data could not be written to disk");
  }
  return response;
}

Client::Response Client::rawSOAP(const std::string& action, const std::string& envelope,
                                 std::string_view tokenPlaceholder, const Session& session) {
  std::string body = envelope;
  if (!tokenPlaceholder.empty()) {
    for (std::size_t at = body.find(tokenPlaceholder); at != std::string::npos;
         at = body.find(tokenPlaceholder, at + session.accessToken.size())) {
      body.replace(at, tokenPlaceholder.size(), session.accessToken);
    }
  }
  RequestSpec planned;
  planned.method = "POST";
  planned.url = url(session, "/services/Soap/u/" + session.apiVersion, {});
  planned.headers = {"Content-Type: text/xml; charset=UTF-8", "SOAPAction: " + action};
  planned.body = &body;
  planned.limit = limits_.soap;
  return perform(session, planned);
}

// ---- Calls with a login ----

namespace {

// A session that has ended: REST answers 401; the SOAP API answers 500 with
// the fault code INVALID_SESSION_ID (as "sf:INVALID_SESSION_ID").
bool sessionEnded(const Client::Response& response) {
  if (response.status == 401) return true;
  if (response.status != 500) return false;
  const auto open = response.body.find("<faultcode>");
  if (open == std::string::npos) return false;
  const auto close = response.body.find("</faultcode>", open);
  if (close == std::string::npos) return false;
  const std::string_view code =
      std::string_view(response.body).substr(open + 11, close - open - 11);
  constexpr std::string_view invalid = "INVALID_SESSION_ID";
  return code.size() >= invalid.size() && code.substr(code.size() - invalid.size()) == invalid;
}

}  // namespace

Client::Response Client::withRetry(const Org& org,
                                   const std::function<Response(const Session&)>& call) {
  Session current = session(org, false);
  Response response = call(current);
  if (sessionEnded(response)) {
    current = session(org, true);
    response = call(current);
  }
  if (response.status < 200 || response.status > 299) {
    std::string text = APIError::message(response.body, response.status);
    if (text.rfind("Salesforce returned HTTP ", 0) == 0) {
      // A SOAP fault carries its words in <faultstring>.
      auto open = response.body.find("<faultstring>");
      auto close = response.body.find("</faultstring>");
      if (open != std::string::npos && close != std::string::npos && close > open) {
        text = response.body.substr(open + 13, close - open - 13);
      }
    }
    throw APIError::http(response.status, scrubbed(text, current.accessToken));
  }
  return response;
}

std::string Client::send(const std::string& method, const std::string& path,
                         const QueryItems& query, const std::optional<std::string>& body,
                         const Org& org) {
  return withRetry(org, [&](const Session& s) { return rawSend(method, path, query, body, s); })
      .body;
}

std::pair<std::string, ResponseHeaders> Client::getWithHeaders(const std::string& path,
                                                               const QueryItems& query,
                                                               const std::string& accept,
                                                               const Org& org) {
  Response response =
      withRetry(org, [&](const Session& s) { return rawGetWithHeaders(path, query, accept, s); });
  return {std::move(response.body), std::move(response.headers)};
}

std::string Client::soap(const std::string& action, const std::string& envelope, const Org& org) {
  return withRetry(
             org,
             [&](const Session& s) { return rawSOAP(action, envelope, sessionPlaceholder, s); })
      .body;
}

std::int64_t Client::download(const std::string& path, const std::filesystem::path& file,
                              const Org& org) {
  try {
    return withRetry(org, [&](const Session& s) { return rawDownload(path, file, s); }).bytes;
  } catch (...) {
    std::error_code ignored;
    std::filesystem::remove(file, ignored);
    throw;
  }
}

std::string Client::get(const std::string& path, const QueryItems& query, const Org& org) {
  return withRetry(org, [&](const Session& s) { return rawGet(path, query, s); }).body;
}

nlohmann::json Client::getJSON(const std::string& path, const QueryItems& query, const Org& org) {
  auto json = nlohmann::json::parse(get(path, query, org), nullptr, false);
  if (json.is_discarded()) throw APIError::decoding();
  return json;
}

void Client::queryStream(const std::string& soql, const Org& org,
                         const std::function<bool(QueryPage)>& onPage) {
  std::string path = "/query";
  QueryItems query = {{"q", soql}};
  while (true) {
    JSONLiteral reply;
    try {
      reply = JSONLiteral::parse(get(path, query, org));
    } catch (const JSONLiteral::Malformed&) {
      throw APIError::decoding();
    }
    JSONLiteral::Object* members = reply.asObject();
    if (!members) throw APIError::decoding();
    QueryPage page;
    bool hasRecords = false;
    for (auto& [name, value] : *members) {
      if (name == "records" && value.asArray()) {
        page.records = std::move(*value.asArray());
        hasRecords = true;
      } else if (name == "totalSize" && value.asNumber()) {
        page.totalSize = std::strtoll(value.asNumber()->text.c_str(), nullptr, 10);
      } else if (name == "done" && value.asBool()) {
        page.done = *value.asBool();
      } else if (name == "nextRecordsUrl" && value.asString()) {
        page.nextRecordsUrl = *value.asString();
      }
    }
    if (!hasRecords) throw APIError::decoding();
    std::string next = page.nextRecordsUrl;
    if (!onPage(std::move(page)) || next.empty()) return;
    path = next;  // a path under /services/, followed as it stands
    query.clear();
  }
}

nlohmann::json Client::globalDescribe(const Org& org) {
  auto json = getJSON("/sobjects/", {}, org);
  if (!json.is_object() || !json.contains("sobjects") || !json["sobjects"].is_array()) {
    throw APIError::decoding();
  }
  return json["sobjects"];
}

nlohmann::json Client::describe(const std::string& object, const Org& org) {
  std::string escaped;
  appendEscaped(escaped, object);
  auto json = getJSON("/sobjects/" + escaped + "/describe", {}, org);
  if (!json.is_object()) throw APIError::decoding();
  return json;
}

std::vector<std::pair<std::string, std::int64_t>> Client::recordCounts(const Org& org) {
  auto json = getJSON("/limits/recordCount", {}, org);
  if (!json.is_object() || !json.contains("sObjects") || !json["sObjects"].is_array()) {
    throw APIError::decoding();
  }
  std::vector<std::pair<std::string, std::int64_t>> counts;
  for (const auto& entry : json["sObjects"]) {
    if (!entry.is_object() || !entry.contains("name") || !entry["name"].is_string() ||
        !entry.contains("count") || !entry["count"].is_number_integer()) {
      throw APIError::decoding();
    }
    counts.emplace_back(entry["name"].get<std::string>(), entry["count"].get<std::int64_t>());
  }
  return counts;
}

std::vector<nlohmann::json> Client::toolingQuery(const std::string& soql, const Org& org) {
  std::vector<nlohmann::json> records;
  std::string path = "/tooling/query";
  QueryItems query = {{"q", soql}};
  while (true) {
    auto json = getJSON(path, query, org);
    if (!json.is_object() || !json.contains("records") || !json["records"].is_array()) {
      throw APIError::decoding();
    }
    for (auto& record : json["records"]) records.push_back(std::move(record));
    const auto next = json.find("nextRecordsUrl");
    if (json.value("done", true) || next == json.end() || !next->is_string()) return records;
    path = next->get<std::string>();
    // Followed as it stands, so it must stay on this org's API.
    if (path.rfind("/services/", 0) != 0) throw APIError::decoding();
    query.clear();
  }
}

nlohmann::json Client::importObject(const std::string& object, const Org& org) {
  return describe(object, org);
}

}  // namespace corvane::SalesforceAPI
