#include "tools/orgsim/server.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <httplib.h>

#include <atomic>
#include <list>
#include <map>
#include <mutex>
#include <regex>

#include "tools/orgsim/bulk_ingest.hpp"
#include "tools/orgsim/bulk_jobs.hpp"
#include "tools/orgsim/database.hpp"
#include "tools/orgsim/describe.hpp"
#include "tools/orgsim/faults.hpp"
#include "tools/orgsim/health_answers.hpp"
#include "tools/orgsim/org_records.hpp"
#include "tools/orgsim/query_engine.hpp"
#include "tools/orgsim/sessions.hpp"
#include "tools/orgsim/soap.hpp"
#include "tools/orgsim/wire_values.hpp"

namespace corvane::orgsim {

namespace {

using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;

constexpr int kOldestVersion = 31;
constexpr int kNewestVersion = 62;
constexpr std::int64_t kDefaultDailyApiMax = 15000;

std::string releaseLabel(int version) {
  int k = kNewestVersion - version;
  static const char* seasons[] = {"Winter", "Summer", "Spring"};
  int year = k % 3 == 0 ? 25 - k / 3 : 24 - k / 3;
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%s '%02d", seasons[k % 3], year);
  return buffer;
}

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

std::string percentEncode(std::string_view text) {
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out += static_cast<char>(c);
    } else {
      char buffer[4];
      std::snprintf(buffer, sizeof buffer, "%%%02X", c);
      out += buffer;
    }
  }
  return out;
}

std::vector<std::string> splitPath(std::string_view path) {
  std::vector<std::string> parts;
  std::size_t at = 0;
  while (at <= path.size()) {
    std::size_t slash = path.find('/', at);
    if (slash == std::string_view::npos) slash = path.size();
    if (slash > at) parts.emplace_back(path.substr(at, slash - at));
    at = slash + 1;
  }
  return parts;
}

std::string errorBody(const std::string& errorCode, const std::string& message,
                      const std::vector<std::string>& fields = {}) {
  OrderedJson entry;
  entry["message"] = message;
  entry["errorCode"] = errorCode;
  if (!fields.empty()) entry["fields"] = fields;
  return OrderedJson::array({entry}).dump();
}

Json errorsJson(const std::vector<RecordError>& errors) {
  Json out = Json::array();
  for (const auto& e : errors) {
    OrderedJson entry;
    entry["statusCode"] = e.statusCode;
    entry["message"] = e.message;
    entry["fields"] = e.fields;
    out.push_back(Json::parse(entry.dump()));
  }
  return out;
}

std::string saveResultJson(const SaveResult& result) {
  OrderedJson json;
  json["id"] = result.id.empty() ? OrderedJson(nullptr) : OrderedJson(result.id);
  json["success"] = result.success;
  json["errors"] = OrderedJson::parse(errorsJson(result.errors).dump());
  return json.dump();
}

// What one request carries through the server.
struct Exchange {
  Exchange(const httplib::Request& request, httplib::Response& response)
      : req(request), res(response) {
    // Salesforce takes repeated slashes as one (the CLI asks for "//services/data").
    for (char c : request.path) {
      if (c == '/' && !path.empty() && path.back() == '/') continue;
      path += c;
    }
  }
  const httplib::Request& req;
  std::string path;
  httplib::Response& res;
  std::string username;
  std::string userId;
  std::string faultName;
  std::int64_t dropAfter = -1;  // bytes of body to send before dropping the connection
  bool countsAgainstAllowance = false;
  bool tooling = false;  // a Tooling API query: its next pages are under tooling/query
};

struct Cursor {
  std::shared_ptr<const CompiledQuery> query;
  std::int64_t total = 0;
  std::map<std::int64_t, std::int64_t> afterRowId;  // offset -> last rowid before it
  // Ordered queries: every row in order, shared by the pages being served.
  std::shared_ptr<const std::vector<std::int64_t>> rowIds;
  std::list<std::string>::iterator age;
};

}  // namespace

void ensureOrgBasics(OrgStore& store) {
  OrgIdentity identity = store.identity();
  std::int64_t organizations = 0, admins = 0;
  {
    auto lease = store.read();
    organizations = lease->scalarInt("SELECT COUNT(*) FROM \"Organization\"");
    auto statement = lease->prepare("SELECT COUNT(*) FROM \"User\" WHERE \"Id\" = ?");
    statement.bind(1, identity.adminUserId);
    admins = statement.step() ? statement.integer(0) : 0;
  }
  if (admins == 0) {
    auto writer = store.writer("User", {"Id", "Username", "FirstName", "LastName", "Email", "Alias",
                                        "IsActive", "CommunityNickname", "Title"});
    writer.insert({identity.adminUserId, identity.adminUsername, "Sample", "Admin",
                   identity.adminUsername, "sadmin", "true", "sample.admin",
                   "System Administrator"});
    writer.commit();
  }
  if (organizations == 0) {
    auto writer = store.writer(
        "Organization", {"Id", "Name", "OrganizationType", "InstanceName", "IsSandbox",
                         "DefaultLocaleSidKey", "LanguageLocaleKey", "TimeZoneSidKey", "Country"});
    writer.insert({identity.orgId, identity.orgName, "Developer Edition", "LOCAL", "false", "en_US",
                   "en_US", "Europe/London", "United Kingdom"});
    writer.commit();
  }
}

struct OrgServer::Impl {
  OrgStore& store;
  ServerOptions options;
  httplib::Server http;
  BulkJobs jobs;
  BulkIngest ingest;
  std::mutex cursorMutex;  // guards cursors and cursorAge
  std::map<std::string, Cursor> cursors;
  std::list<std::string> cursorAge;  // most recently used first

  Impl(OrgStore& s, ServerOptions o)
      : store(s), options(std::move(o)), jobs(s), ingest(s, s.folder() / "ingest") {}

  // ------------------------------------------------------------------ helpers

  void sendJson(Exchange& ex, int status, const std::string& body) {
    ex.res.status = status;
    ex.res.set_content(body, "application/json;charset=UTF-8");
  }

  void sendError(Exchange& ex, int status, const std::string& code, const std::string& message,
                 const std::vector<std::string>& fields = {}) {
    sendJson(ex, status, errorBody(code, message, fields));
  }

  void notFound(Exchange& ex) {
    sendError(ex, 404, "NOT_FOUND", "The requested resource does not exist");
  }

  void sendSoap(Exchange& ex, int status, const std::string& body) {
    ex.res.status = status;
    ex.res.set_content(body, "text/xml; charset=utf-8");
  }

  // Streams `total` bytes produced by `read(offset, length, out)`; honours a drop fault.
  void stream(Exchange& ex, std::size_t total, const std::string& contentType,
              std::function<bool(std::size_t, std::size_t, std::string&)> read) {
    std::int64_t dropAfter = ex.dropAfter;
    ex.dropAfter = -1;  // handled here
    ex.res.set_content_provider(
        total, contentType,
        [read = std::move(read), dropAfter](std::size_t offset, std::size_t length,
                                            httplib::DataSink& sink) {
          std::size_t limit = length;
          if (dropAfter >= 0) {
            if (offset >= static_cast<std::size_t>(dropAfter)) return false;
            limit = std::min(limit, static_cast<std::size_t>(dropAfter) - offset);
          }
          std::string chunk;
          if (!read(offset, std::min<std::size_t>(limit, 1 << 18), chunk) || chunk.empty()) {
            return false;
          }
          return sink.write(chunk.data(), chunk.size());
        });
  }

  // A string body that is cut off after dropAfter bytes.
  void applyDrop(Exchange& ex) {
    if (ex.dropAfter < 0) return;
    auto body = std::make_shared<std::string>(std::move(ex.res.body));
    ex.res.body.clear();
    std::string type = ex.res.get_header_value("Content-Type");
    if (type.empty()) type = "application/json;charset=UTF-8";
    stream(ex, body->size(), type,
           [body](std::size_t offset, std::size_t length, std::string& out) {
             out.assign(*body, offset, length);
             return true;
           });
  }

  std::int64_t dailyApiMax() {
    auto value = store.setting("dailyApiMax");
    return value ? std::stoll(*value) : kDefaultDailyApiMax;
  }

  std::int64_t apiRequestsUsed() {
    std::int64_t minute =
        std::chrono::duration_cast<std::chrono::minutes>(store.now().time_since_epoch()).count();
    std::int64_t used = 0;
    {
      auto lease = store.read();
      auto statement =
          lease->prepare("SELECT COALESCE(SUM(calls), 0) FROM _api_calls WHERE minute > ?");
      statement.bind(1, minute - 24 * 60);
      if (statement.step()) used = statement.integer(0);
    }
    if (auto extra = store.setting("dailyApiUsedOffset")) used += std::stoll(*extra);
    return used;
  }

  void record(Exchange& ex, std::int64_t millis) {
    std::string at = WireTime::dateTime(store.now());
    std::int64_t minute =
        std::chrono::duration_cast<std::chrono::minutes>(store.now().time_since_epoch()).count();
    std::string query;
    auto mark = ex.req.target.find('?');
    if (mark != std::string::npos) query = ex.req.target.substr(mark + 1);
    store.write([&](Database& db) {
      db.prepare(
            "INSERT INTO _requests (at, method, path, query, status, username, fault, millis) "
            "VALUES (?, ?, ?, ?, ?, ?, ?, ?)")
          .bind(1, at)
          .bind(2, ex.req.method)
          .bind(3, ex.path)
          .bind(4, query)
          .bind(5, std::int64_t{ex.res.status})
          .bind(6, ex.username)
          .bind(7, ex.faultName)
          .bind(8, millis)
          .run();
      // Keep the log to its last 20,000 requests.
      std::int64_t last = db.lastInsertRowId();
      if (last % 1000 == 0) {
        db.prepare("DELETE FROM _requests WHERE seq <= ?").bind(1, last - 20000).run();
        db.prepare("DELETE FROM _api_calls WHERE minute < ?").bind(1, minute - 2 * 24 * 60).run();
      }
      if (ex.countsAgainstAllowance) {
        db.prepare(
              "INSERT INTO _api_calls (minute, calls) VALUES (?, 1) ON CONFLICT (minute) "
              "DO UPDATE SET calls = calls + 1")
            .bind(1, minute)
            .run();
      }
    });
  }

  // ------------------------------------------------------------------ entry

  void handle(const httplib::Request& req, httplib::Response& res) {
    auto started = std::chrono::steady_clock::now();
    Exchange ex{req, res};
    try {
      route(ex);
    } catch (const SoqlError& error) {
      sendError(ex, 400, error.errorCode(), error.message());
    } catch (const std::exception& error) {
      std::fprintf(stderr, "corvane-orgsim: %s %s failed: %s\n", req.method.c_str(),
                   req.path.c_str(), error.what());
      sendError(ex, 500, "UNKNOWN_EXCEPTION",
                "An unexpected error occurred. Please include this ErrorId if you contact "
                "support: 0000000-0000 (0)");
    }
    res.set_header("Date", WireTime::httpDate(store.now()));
    if (ex.countsAgainstAllowance && startsWith(ex.path, "/services/data/")) {
      try {
        res.set_header("Sforce-Limit-Info", "api-usage=" + std::to_string(apiRequestsUsed() + 1) +
                                                "/" + std::to_string(dailyApiMax()));
      } catch (const std::exception&) {
        // The header is a courtesy; the answer goes out without it.
      }
    }
    applyDrop(ex);
    auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now() - started)
                      .count();
    try {
      record(ex, millis);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "corvane-orgsim: could not log a request: %s\n", error.what());
    }
  }

  void route(Exchange& ex) {
    const std::string& path = ex.path;
    if (startsWith(path, "/_admin/")) return admin(ex);
    if (path == "/secur/frontdoor.jsp") {
      ex.res.set_content("<!DOCTYPE html><html><body>Sample org home</body></html>", "text/html");
      return;
    }
    if (startsWith(path, "/v1/instances/")) return instanceStatus(ex);
    if (!startsWith(path, "/services/")) return notFound(ex);
    bool soap = startsWith(path, "/services/Soap/");
    if (Faults::sessionsExpireNow(store, ex.req.method, path)) {
      ex.faultName = std::string(faultKindName(FaultRule::Kind::ExpireSessions));
      Sessions::expireAll(store);
    }
    if (auto fault = Faults::take(store, ex.req.method, path,
                                  {FaultRule::Kind::Status, FaultRule::Kind::RequestLimit,
                                   FaultRule::Kind::Drop, FaultRule::Kind::Delay})) {
      ex.faultName = std::string(faultKindName(fault->kind));
      switch (fault->kind) {
        case FaultRule::Kind::Delay:
          std::this_thread::sleep_for(std::chrono::milliseconds(fault->delayMs));
          break;
        case FaultRule::Kind::Drop:
          ex.dropAfter = fault->afterBytes;
          break;
        case FaultRule::Kind::RequestLimit:
          ex.countsAgainstAllowance = true;
          if (soap)
            return sendSoap(ex, 500,
                            Soap::fault("REQUEST_LIMIT_EXCEEDED", "TotalRequests Limit exceeded."));
          return sendError(
              ex, 403, "REQUEST_LIMIT_EXCEEDED",
              fault->message.empty() ? "TotalRequests Limit exceeded." : fault->message);
        default:
          ex.faultName = std::to_string(fault->status);
          return injectedStatus(ex, *fault, soap);
      }
    }
    if (path == "/services/data" || path == "/services/data/") return versions(ex);
    ex.countsAgainstAllowance = true;
    if (startsWith(path, "/services/data/v") && apiRequestsUsed() >= dailyApiMax()) {
      return sendError(ex, 403, "REQUEST_LIMIT_EXCEEDED", "TotalRequests Limit exceeded.");
    }
    if (startsWith(path, "/services/oauth2/")) return oauth(ex);
    if (soap) return soapCall(ex);
    static const std::regex versioned(R"(^/services/data/v(\d+\.\d)(/.*)?$)");
    std::smatch match;
    if (!std::regex_match(path, match, versioned)) return notFound(ex);
    std::string version = match[1];
    int major = std::stoi(version);
    if (major < kOldestVersion || major > kNewestVersion) return notFound(ex);
    if (!authenticate(ex)) return;
    rest(ex, version, match[2].matched ? std::string(match[2]) : std::string("/"));
  }

  void injectedStatus(Exchange& ex, const FaultRule& fault, bool soap) {
    std::string code, message;
    switch (fault.status) {
      case 401:
        code = "INVALID_SESSION_ID";
        message = "Session expired or invalid";
        break;
      case 403:
        code = "INSUFFICIENT_ACCESS";
        message = "insufficient access rights on object id";
        break;
      case 404:
        code = "NOT_FOUND";
        message = "The requested resource does not exist";
        break;
      case 503:
        code = "SERVER_UNAVAILABLE";
        message = "Server is unavailable. Please try again later.";
        break;
      case 500:
        code = "UNKNOWN_EXCEPTION";
        message =
            "An unexpected error occurred. Please include this ErrorId if you contact "
            "support: 0000000-0000 (0)";
        break;
      default:
        code = "UNKNOWN_EXCEPTION";
        message = "The request failed.";
    }
    if (!fault.message.empty()) message = fault.message;
    if (soap) {
      // The SOAP API answers every fault, an ended session included, with 500.
      ex.res.status = fault.status == 401 ? 500 : fault.status;
      ex.res.set_content(Soap::fault(code, message), "text/xml; charset=utf-8");
      return;
    }
    sendError(ex, fault.status, code, message);
  }

  bool authenticate(Exchange& ex) {
    std::string header = ex.req.get_header_value("Authorization");
    std::string token;
    for (std::string_view scheme : {"Bearer ", "OAuth "}) {
      if (startsWith(header, scheme)) token = header.substr(scheme.size());
    }
    std::optional<Session> session;
    if (!token.empty()) session = Sessions::find(store, token);
    if (!session) {
      sendJson(ex, 401,
               R"([{"message":"Session expired or invalid","errorCode":"INVALID_SESSION_ID"}])");
      return false;
    }
    ex.username = session->username;
    ex.userId = session->userId;
    return true;
  }

  // ------------------------------------------------------------------ versions and OAuth

  void versions(Exchange& ex) {
    OrderedJson list = OrderedJson::array();
    for (int v = kOldestVersion; v <= kNewestVersion; ++v) {
      OrderedJson entry;
      entry["label"] = releaseLabel(v);
      entry["url"] = "/services/data/v" + std::to_string(v) + ".0";
      entry["version"] = std::to_string(v) + ".0";
      list.push_back(entry);
    }
    sendJson(ex, 200, list.dump());
  }

  std::string instanceUrl(const Exchange& ex) const {
    std::string host = ex.req.get_header_value("Host");
    if (host.empty()) host = options.host + ":" + std::to_string(ex.req.local_port);
    return "http://" + host;
  }

  void oauth(Exchange& ex) {
    const std::string& path = ex.path;
    if (path != "/services/oauth2/userinfo" && path != "/services/oauth2/singleaccess") {
      return notFound(ex);
    }
    std::string header = ex.req.get_header_value("Authorization");
    std::string token = startsWith(header, "Bearer ") ? header.substr(7) : std::string();
    auto session = token.empty() ? std::nullopt : Sessions::find(store, token);
    if (!session) {
      ex.res.status = 403;
      ex.res.set_content("Bad_OAuth_Token", "text/plain");
      return;
    }
    ex.username = session->username;
    ex.userId = session->userId;
    OrgIdentity identity = store.identity();
    std::string base = instanceUrl(ex);
    if (path == "/services/oauth2/singleaccess") {
      std::string otp =
          WireValues::base64Encode(session->userId + ":" + WireTime::dateTime(store.now()));
      std::string uri = base + "/secur/frontdoor.jsp?otp=" + otp + "&cshc=local";
      if (ex.req.has_param("redirect_uri")) {
        uri += "&retURL=" + percentEncode(ex.req.get_param_value("redirect_uri"));
      }
      Json json = {{"frontdoor_uri", uri}};
      return sendJson(ex, 200, json.dump());
    }
    std::string first, last, email, userTimezone = "Europe/London", locale = "en_US";
    {
      auto lease = store.read();
      auto statement = lease->prepare(
          "SELECT \"FirstName\", \"LastName\", \"Email\", \"TimeZoneSidKey\", \"LocaleSidKey\" "
          "FROM \"User\" WHERE \"Id\" = ?");
      statement.bind(1, session->userId);
      if (statement.step()) {
        first = std::string(statement.text(0));
        last = std::string(statement.text(1));
        email = std::string(statement.text(2));
        if (!statement.isNull(3)) userTimezone = std::string(statement.text(3));
        if (!statement.isNull(4)) locale = std::string(statement.text(4));
      }
    }
    std::string idUrl = base + "/id/" + identity.orgId + "/" + session->userId;
    OrderedJson json;
    json["sub"] = idUrl;
    json["user_id"] = session->userId;
    json["organization_id"] = identity.orgId;
    json["preferred_username"] = session->username;
    json["nickname"] = first.empty() ? session->username : first;
    json["name"] = first.empty() ? last : first + " " + last;
    json["email"] = email.empty() ? session->username : email;
    json["email_verified"] = true;
    json["given_name"] = first;
    json["family_name"] = last;
    json["zoneinfo"] = userTimezone;
    json["photos"] = {{"picture", base + "/img/userprofile/default_profile_200_v2.png"},
                      {"thumbnail", base + "/img/userprofile/default_profile_45_v2.png"}};
    json["profile"] = base + "/" + session->userId;
    json["picture"] = base + "/img/userprofile/default_profile_200_v2.png";
    json["address"] = OrderedJson::object();
    json["is_salesforce_integration_user"] = false;
    json["urls"] = {
        {"enterprise", base + "/services/Soap/c/{version}/" + identity.orgId.substr(0, 15)},
        {"metadata", base + "/services/Soap/m/{version}/" + identity.orgId.substr(0, 15)},
        {"partner", base + "/services/Soap/u/{version}/" + identity.orgId.substr(0, 15)},
        {"rest", base + "/services/data/v{version}/"},
        {"sobjects", base + "/services/data/v{version}/sobjects/"},
        {"search", base + "/services/data/v{version}/search/"},
        {"query", base + "/services/data/v{version}/query/"},
        {"recent", base + "/services/data/v{version}/recent/"},
        {"tooling_soap", base + "/services/Soap/T/{version}/" + identity.orgId.substr(0, 15)},
        {"tooling_rest", base + "/services/data/v{version}/tooling/"},
        {"profile", base + "/" + session->userId},
        {"feeds", base + "/services/data/v{version}/chatter/feeds"},
        {"groups", base + "/services/data/v{version}/chatter/groups"},
        {"users", base + "/services/data/v{version}/chatter/users"},
        {"feed_items", base + "/services/data/v{version}/chatter/feed-items"},
        {"custom_domain", base}};
    json["active"] = true;
    json["user_type"] = "STANDARD";
    json["language"] = "en_US";
    json["locale"] = locale;
    json["utcOffset"] = 0;
    json["updated_at"] = WireTime::dateTime(store.now()).substr(0, 19) + "Z";
    json["is_app_installed"] = true;
    sendJson(ex, 200, json.dump());
  }

  // ------------------------------------------------------------------ REST

  void rest(Exchange& ex, const std::string& version, const std::string& sub) {
    auto parts = splitPath(sub);
    const std::string& method = ex.req.method;
    if (parts.empty()) {
      std::string base = "/services/data/v" + version;
      Json json = {{"tooling", base + "/tooling"},   {"query", base + "/query"},
                   {"queryAll", base + "/queryAll"}, {"sobjects", base + "/sobjects"},
                   {"limits", base + "/limits"},     {"composite", base + "/composite"},
                   {"jobs", base + "/jobs"}};
      return sendJson(ex, 200, json.dump());
    }
    const std::string& head = parts[0];
    if (head == "sobjects") return sobjects(ex, version, parts);
    if ((head == "query" || head == "queryAll") && method == "GET") {
      bool all = head == "queryAll";
      if (parts.size() == 2) return queryMore(ex, version, all, parts[1]);
      if (parts.size() == 1) {
        if (!ex.req.has_param("q")) {
          return sendError(ex, 400, "MALFORMED_QUERY", "A query string has to be specified");
        }
        return query(ex, version, all, ex.req.get_param_value("q"));
      }
    }
    if (head == "tooling" && parts.size() >= 2) {
      if (parts[1] == "query" && parts.size() == 2 && method == "GET") {
        auto answer = HealthAnswers::releaseUpdatesQuery(ex.req.get_param_value("q"), store.now());
        if (answer) return sendJson(ex, 200, *answer);
        ex.tooling = true;
        return query(ex, version, false, ex.req.get_param_value("q"));
      }
      if (parts[1] == "query" && parts.size() == 3 && method == "GET") {
        ex.tooling = true;
        return queryMore(ex, version, false, parts[2]);
      }
      if (parts[1] == "sobjects" && method == "GET") {
        return sendJson(ex, 200, R"({"encoding":"UTF-8","maxBatchSize":200,"sobjects":[]})");
      }
    }
    if (head == "limits" && method == "GET") {
      if (parts.size() == 1) return limits(ex);
      if (parts.size() == 2 && parts[1] == "recordCount") return recordCount(ex);
    }
    if (head == "composite" && parts.size() == 2 && parts[1] == "sobjects") {
      return composite(ex);
    }
    if (head == "composite" && parts.size() == 4 && parts[1] == "sobjects" && method == "PATCH") {
      // Upsert by external id: composite/sobjects/{Object}/{ExternalIdField}.
      const ObjectDef* object = Schema::object(parts[2]);
      const FieldDef* key = object ? object->field(parts[3]) : nullptr;
      if (key == nullptr) return notFound(ex);
      return composite(ex, key);
    }
    if (head == "jobs" && parts.size() >= 2 && parts[1] == "query") return bulk(ex, version, parts);
    if (head == "jobs" && parts.size() >= 2 && parts[1] == "ingest") {
      return bulkIngest(ex, version, parts);
    }
    notFound(ex);
  }

  void sobjects(Exchange& ex, const std::string& version, const std::vector<std::string>& parts) {
    const std::string& method = ex.req.method;
    if (parts.size() == 1) {
      if (method != "GET") return notFound(ex);
      return sendJson(ex, 200, Describe::global(version).dump());
    }
    const ObjectDef* object = Schema::object(parts[1]);
    if (object == nullptr) return notFound(ex);
    if (parts.size() == 2) {
      if (method == "POST") {
        Json body = Json::parse(ex.req.body, nullptr, false);
        if (body.is_discarded()) {
          return sendError(ex, 400, "JSON_PARSER_ERROR", "The request body is not valid JSON.");
        }
        SaveResult result = OrgRecords::create(store, *object, body, ex.userId);
        if (!result.success) return sendRecordErrors(ex, result);
        return sendJson(ex, 201, saveResultJson(result));
      }
      if (method != "GET") return notFound(ex);
      OrderedJson json;
      json["objectDescribe"] = Describe::summary(*object, version);
      json["recentItems"] = OrderedJson::array();
      return sendJson(ex, 200, json.dump());
    }
    const std::string& third = parts[2];
    if (parts.size() == 3 && third == "describe" && method == "GET") {
      return sendJson(ex, 200, Describe::full(*object, version).dump());
    }
    if (parts.size() == 3 && third == "deleted" && method == "GET") {
      return getDeleted(ex, *object);
    }
    if (parts.size() == 4 && method == "GET") return body(ex, *object, third, parts[3]);
    if (parts.size() == 4 && method == "PATCH") {
      // Upsert of one record: sobjects/{Object}/{ExternalIdField}/{value}.
      const FieldDef* key = object->field(third);
      if (key == nullptr) return notFound(ex);
      Json body = Json::parse(ex.req.body, nullptr, false);
      if (body.is_discarded()) {
        return sendError(ex, 400, "JSON_PARSER_ERROR", "The request body is not valid JSON.");
      }
      SaveResult result = OrgRecords::upsert(store, *object, *key, parts[3], body, ex.userId);
      if (!result.success) return sendRecordErrors(ex, result);
      OrderedJson json = OrderedJson::parse(saveResultJson(result));
      json["created"] = result.created;
      return sendJson(ex, result.created ? 201 : 200, json.dump());
    }
    if (parts.size() != 3) return notFound(ex);
    if (method == "GET") return getRecord(ex, version, *object, third);
    if (method == "PATCH") {
      Json body = Json::parse(ex.req.body, nullptr, false);
      if (body.is_discarded()) {
        return sendError(ex, 400, "JSON_PARSER_ERROR", "The request body is not valid JSON.");
      }
      SaveResult result = OrgRecords::update(store, *object, third, body, ex.userId);
      if (!result.success) return sendRecordErrors(ex, result);
      ex.res.status = 204;
      return;
    }
    if (method == "DELETE") {
      auto id = RecordIds::normalize(third);
      if (!id || Schema::objectForId(*id) != object) return notFound(ex);
      SaveResult result = OrgRecords::remove(store, *id, ex.userId);
      if (!result.success) return sendRecordErrors(ex, result);
      ex.res.status = 204;
      return;
    }
    notFound(ex);
  }

  void sendRecordErrors(Exchange& ex, const SaveResult& result) {
    Json list = Json::array();
    for (const auto& e : result.errors) {
      OrderedJson entry;
      entry["message"] = e.message;
      entry["errorCode"] = e.statusCode;
      entry["fields"] = e.fields;
      list.push_back(Json::parse(entry.dump()));
    }
    sendJson(ex, result.httpStatus, list.dump());
  }

  void getRecord(Exchange& ex, const std::string& version, const ObjectDef& object,
                 const std::string& rawId) {
    auto id = RecordIds::normalize(rawId);
    if (!id || (!object.keyPrefix.empty() && Schema::objectForId(*id) != &object)) {
      return notFound(ex);
    }
    std::string fields;
    if (ex.req.has_param("fields")) {
      fields = ex.req.get_param_value("fields");
    } else {
      for (const auto& f : object.fields) fields += (fields.empty() ? "" : ", ") + f.name;
    }
    std::string soql = "SELECT " + fields + " FROM " + object.name + " WHERE Id = '" + *id + "'";
    auto compiled = QueryEngine::compile(soql, QueryScope::All, QueryApi::Rest, store.now());
    std::string out;
    bool deleted = false;
    auto lease = store.read();
    if (object.has("IsDeleted")) {
      auto statement = lease->prepare("SELECT \"IsDeleted\" FROM " + quoteIdentifier(object.name) +
                                      " WHERE \"Id\" = ?");
      statement.bind(1, *id);
      deleted = statement.step() && statement.text(0) == "true";
    }
    if (deleted) return sendError(ex, 404, "ENTITY_IS_DELETED", "entity is deleted");
    compiled->scan(lease.db(), [&](Statement& row) {
      compiled->appendJson(out, row, version);
      return false;
    });
    if (out.empty()) return notFound(ex);
    sendJson(ex, 200, out);
  }

  void body(Exchange& ex, const ObjectDef& object, const std::string& rawId,
            const std::string& field) {
    auto id = RecordIds::normalize(rawId);
    if (!id || object.bodyField.empty() || object.field(field) != object.field(object.bodyField)) {
      return notFound(ex);
    }
    auto size = store.bodySize(object.name, *id);
    if (!size) return notFound(ex);
    std::string objectName = object.name;
    std::string recordId = *id;
    OrgStore* s = &store;
    stream(
        ex, static_cast<std::size_t>(*size), "application/octet-stream",
        [s, objectName, recordId](std::size_t offset, std::size_t length, std::string& out) {
          return s->streamBody(objectName, recordId, offset, length, [&](std::string_view piece) {
            out.append(piece);
            return false;  // one piece per call
          }) || !out.empty();
        });
  }

  void getDeleted(Exchange& ex, const ObjectDef& object) {
    auto start = WireTime::parseDateTime(ex.req.get_param_value("start"));
    auto end = WireTime::parseDateTime(ex.req.get_param_value("end"));
    if (!start || !end) {
      return sendError(ex, 400, "INVALID_REPLICATION_DATE",
                       "start and end must be date-times such as 2024-01-05T10:00:00+00:00");
    }
    auto answer = OrgRecords::getDeleted(store, object, *start, *end);
    if (auto* refused = std::get_if<OrgRecords::GetDeletedRefused>(&answer)) {
      return sendError(ex, 400, refused->errorCode, refused->message);
    }
    auto& result = std::get<GetDeletedAnswer>(answer);
    std::string out = "{\"deletedRecords\":[";
    bool first = true;
    for (const auto& record : result.records) {
      if (!first) out += ',';
      first = false;
      out += "{\"id\":\"" + record.id + "\",\"deletedDate\":\"" +
             WireTime::storedToRest(record.deletedDate) + "\"}";
    }
    out += "],\"earliestDateAvailable\":\"" + WireTime::restDateTime(result.earliestDateAvailable) +
           "\",\"latestDateCovered\":\"" + WireTime::restDateTime(result.latestDateCovered) + "\"}";
    sendJson(ex, 200, out);
  }

  // ---- queries

  int batchSize(const Exchange& ex) {
    std::string header = ex.req.get_header_value("Sforce-Query-Options");
    auto at = header.find("batchSize=");
    if (at == std::string::npos) return 2000;
    int size = std::atoi(header.c_str() + at + 10);
    return std::clamp(size, 200, 2000);
  }

  void query(Exchange& ex, const std::string& version, bool all, const std::string& soql) {
    OrgRecords::purgeExpired(store);
    auto compiled = QueryEngine::compile(soql, all ? QueryScope::All : QueryScope::Live,
                                         QueryApi::Rest, store.now());
    QueryEngine::refuseFields(*compiled, store.setting("queryRefusedFields").value_or(""));
    if (ex.req.get_param_value("columns") == "true") return columnMetadata(ex, *compiled);
    auto lease = store.read();
    if (compiled->isCountAll()) {
      std::int64_t total = compiled->count(lease.db());
      return sendJson(ex, 200,
                      "{\"totalSize\":" + std::to_string(total) + ",\"done\":true,\"records\":[]}");
    }
    if (compiled->isAggregate()) {
      std::string records;
      std::int64_t count = compiled->appendAggregateJson(lease.db(), records);
      return sendJson(ex, 200,
                      "{\"totalSize\":" + std::to_string(count) + ",\"done\":true,\"records\":[" +
                          records + "]}");
    }
    Cursor cursor;
    cursor.query = compiled;
    if (compiled->pagesByRowId()) {
      cursor.total = compiled->count(lease.db());
      cursor.afterRowId[0] = 0;
    } else {
      cursor.rowIds =
          std::make_shared<const std::vector<std::int64_t>>(compiled->rowIds(lease.db()));
      cursor.total = static_cast<std::int64_t>(cursor.rowIds->size());
    }
    std::string id;
    int batch = batchSize(ex);
    if (cursor.total > batch) {
      id = RecordIds::make("01g", static_cast<std::uint64_t>(store.nextSerial("queryCursor")));
    }
    sendPage(ex, version, all, id, cursor, 0, batch, lease.db());
    if (!id.empty()) keepCursor(id, std::move(cursor));
  }

  // The column list the Salesforce CLI asks for (query?q=...&columns=true).
  void columnMetadata(Exchange& ex, const CompiledQuery& compiled) {
    auto describe = [](const std::string& name, const std::string& display, const FieldDef* field,
                       bool aggregate) {
      FieldType type = field != nullptr ? field->type : FieldType::Int;
      std::string apex;
      switch (type) {
        case FieldType::Id:
        case FieldType::Reference:
          apex = "Id";
          break;
        case FieldType::Boolean:
          apex = "Boolean";
          break;
        case FieldType::Int:
          apex = "Integer";
          break;
        case FieldType::Double:
        case FieldType::Percent:
          apex = "Double";
          break;
        case FieldType::Currency:
          apex = "Decimal";
          break;
        case FieldType::Date:
          apex = "Date";
          break;
        case FieldType::DateTime:
          apex = "Datetime";
          break;
        case FieldType::Address:
          apex = "Address";
          break;
        case FieldType::Location:
          apex = "Location";
          break;
        case FieldType::Base64:
          apex = "Blob";
          break;
        default:
          apex = "String";
      }
      OrderedJson column;
      column["aggregate"] = aggregate;
      column["apexType"] = apex;
      column["booleanType"] = type == FieldType::Boolean;
      column["columnName"] = name;
      column["custom"] = name.ends_with("__c");
      column["displayName"] = display;
      column["foreignKeyName"] = nullptr;
      column["insertable"] = field != nullptr && field->createable;
      column["joinColumns"] = OrderedJson::array();
      column["numberType"] = isNumeric(type);
      column["textType"] = apex == "String" || apex == "Id";
      column["updatable"] = field != nullptr && field->updateable;
      return column;
    };
    OrderedJson columns = OrderedJson::array();
    bool idSelected = false;
    for (const auto& column : compiled.columns()) {
      bool aggregate = column.kind == OutputColumn::Kind::Aggregate;
      if (column.relationshipPath.empty()) {
        idSelected = idSelected || column.name == "Id";
        columns.push_back(describe(column.name, column.header, column.field, aggregate));
        continue;
      }
      // A relationship column nests its field in joinColumns, one level per step.
      OrderedJson* level = &columns;
      std::string display;
      for (const auto& step : column.relationshipPath) {
        display += (display.empty() ? "" : ".") + step;
        OrderedJson* found = nullptr;
        for (auto& existing : *level) {
          if (existing["columnName"] == step) found = &existing;
        }
        if (found == nullptr) {
          OrderedJson parent = describe(step, display, nullptr, false);
          parent["apexType"] = nullptr;
          parent["numberType"] = false;
          parent["textType"] = false;
          level->push_back(parent);
          found = &level->back();
        }
        level = &(*found)["joinColumns"];
      }
      level->push_back(describe(column.name, column.header, column.field, aggregate));
    }
    OrderedJson json;
    json["columnMetadata"] = columns;
    json["entityName"] = compiled.isAggregate() ? "AggregateResult" : compiled.object().name;
    json["groupBy"] = compiled.query().groupBy.has_value();
    json["idSelected"] = idSelected;
    json["keyPrefix"] = compiled.object().keyPrefix.empty()
                            ? OrderedJson(nullptr)
                            : OrderedJson(compiled.object().keyPrefix);
    sendJson(ex, 200, json.dump());
  }

  void keepCursor(const std::string& id, Cursor cursor) {
    std::lock_guard lock(cursorMutex);
    cursorAge.push_front(id);
    cursor.age = cursorAge.begin();
    cursors[id] = std::move(cursor);
    while (cursors.size() > 32) {
      cursors.erase(cursorAge.back());
      cursorAge.pop_back();
    }
  }

  void queryMore(Exchange& ex, const std::string& version, bool all, const std::string& locator) {
    auto dash = locator.rfind('-');
    std::string id = locator.substr(0, dash);
    std::int64_t offset = dash == std::string::npos ? -1 : std::atoll(locator.c_str() + dash + 1);
    // A cursor Salesforce let expire (15 minutes idle, or one too many open).
    if (Faults::take(store, "GET", ex.path, {FaultRule::Kind::InvalidLocator})) {
      ex.faultName = "invalidLocator";
      return sendError(ex, 400, "INVALID_QUERY_LOCATOR", "invalid query locator");
    }
    Cursor cursor;
    {
      std::lock_guard lock(cursorMutex);
      auto found = cursors.find(id);
      if (found == cursors.end() || offset <= 0 || offset >= found->second.total ||
          (!found->second.rowIds && !found->second.afterRowId.count(offset))) {
        return sendError(ex, 400, "INVALID_QUERY_LOCATOR", "invalid query locator");
      }
      cursorAge.splice(cursorAge.begin(), cursorAge, found->second.age);
      cursor.query = found->second.query;
      cursor.total = found->second.total;
      cursor.afterRowId = found->second.afterRowId;
      cursor.rowIds = found->second.rowIds;
    }
    auto lease = store.read();
    std::int64_t last = sendPage(ex, version, all, id, cursor, offset, batchSize(ex), lease.db());
    std::lock_guard lock(cursorMutex);
    auto found = cursors.find(id);
    if (found != cursors.end() && last >= 0) {
      for (auto& [o, r] : cursor.afterRowId) found->second.afterRowId[o] = r;
    }
  }

  // Writes one page; returns the number of the next page's first row, or -1.
  std::int64_t sendPage(Exchange& ex, const std::string& version, bool all, const std::string& id,
                        Cursor& cursor, std::int64_t offset, int batch, Database& db) {
    std::string records;
    std::int64_t n = 0;
    std::int64_t want = std::min<std::int64_t>(batch, cursor.total - offset);
    auto add = [&](Statement& row) {
      if (n > 0) records += ',';
      cursor.query->appendJson(records, row, version);
      ++n;
    };
    if (!cursor.rowIds && cursor.total > 0) {
      std::int64_t last = cursor.query->scanAfter(db, cursor.afterRowId[offset], want, add);
      cursor.afterRowId[offset + n] = last;
    } else if (want > 0) {
      cursor.query->fetch(db, *cursor.rowIds, static_cast<std::size_t>(offset),
                          static_cast<std::size_t>(want), add);
    }
    std::int64_t next = offset + n;
    bool done = next >= cursor.total || id.empty() || n == 0;
    std::string out =
        "{\"totalSize\":" + std::to_string(cursor.total) + ",\"done\":" + (done ? "true" : "false");
    if (!done) {
      out += ",\"nextRecordsUrl\":\"/services/data/v" + version +
             (ex.tooling ? "/tooling/query/" : all ? "/queryAll/" : "/query/") + id + "-" +
             std::to_string(next) + "\"";
    }
    out += ",\"records\":[" + records + "]}";
    sendJson(ex, 200, out);
    return done ? -1 : next;
  }

  // ---- limits

  void limits(Exchange& ex) {
    std::int64_t max = dailyApiMax();
    std::int64_t remaining = std::max<std::int64_t>(0, max - apiRequestsUsed() - 1);
    auto entry = [](std::int64_t m, std::int64_t r) {
      OrderedJson json;
      json["Max"] = m;
      json["Remaining"] = r;
      return json;
    };
    std::int64_t jobsToday = 0;
    {
      auto lease = store.read();
      auto statement = lease->prepare("SELECT COUNT(*) FROM _jobs WHERE created_at > ?");
      statement.bind(1, WireTime::dateTime(store.now() - std::chrono::hours(24)));
      if (statement.step()) jobsToday = statement.integer(0);
    }
    OrderedJson json;
    json["ActiveScratchOrgs"] = entry(3, 3);
    json["AnalyticsExternalDataSizeMB"] = entry(40960, 40960);
    json["ConcurrentAsyncGetReportInstances"] = entry(200, 200);
    json["ConcurrentSyncReportRuns"] = entry(20, 20);
    json["DailyAnalyticsDataflowJobExecutions"] = entry(60, 60);
    json["DailyApiRequests"] = entry(max, remaining);
    json["DailyAsyncApexExecutions"] = entry(250000, 250000);
    json["DailyBulkApiBatches"] = entry(15000, 15000);
    json["DailyBulkV2QueryFileStorageMB"] = entry(976562, 976562);
    json["DailyBulkV2QueryJobs"] = entry(10000, std::max<std::int64_t>(0, 10000 - jobsToday));
    json["DailyDurableGenericStreamingApiEvents"] = entry(10000, 10000);
    json["DailyDurableStreamingApiEvents"] = entry(10000, 10000);
    json["DailyGenericStreamingApiEvents"] = entry(10000, 10000);
    json["DailyScratchOrgs"] = entry(6, 6);
    json["DailyStandardVolumePlatformEvents"] = entry(10000, 10000);
    json["DailyStreamingApiEvents"] = entry(10000, 10000);
    json["DailyWorkflowEmails"] = entry(405, 405);
    json["DataStorageMB"] = entry(5, 5);
    json["FileStorageMB"] = entry(20, 20);
    json["HourlyAsyncReportRuns"] = entry(1200, 1200);
    json["HourlyDashboardRefreshes"] = entry(200, 200);
    json["HourlyDashboardResults"] = entry(5000, 5000);
    json["HourlyDashboardStatuses"] = entry(999999999, 999999999);
    json["HourlyLongTermIdMapping"] = entry(100000, 100000);
    json["HourlyODataCallout"] = entry(10000, 10000);
    json["HourlySyncReportRuns"] = entry(500, 500);
    json["HourlyTimeBasedWorkflow"] = entry(50, 50);
    json["MassEmail"] = entry(10, 10);
    json["PermissionSets"] = entry(1500, 1500);
    json["SingleEmail"] = entry(15, 15);
    json["StreamingApiConcurrentClients"] = entry(20, 20);
    sendJson(ex, 200, json.dump());
  }

  void recordCount(Exchange& ex) {
    std::vector<std::string> names;
    if (ex.req.has_param("sObjects")) {
      std::string list = ex.req.get_param_value("sObjects");
      std::size_t at = 0;
      while (at <= list.size()) {
        std::size_t comma = list.find(',', at);
        if (comma == std::string::npos) comma = list.size();
        if (comma > at) names.push_back(list.substr(at, comma - at));
        at = comma + 1;
      }
    }
    OrderedJson entries = OrderedJson::array();
    for (const auto& [name, count] : OrgRecords::recordCounts(store, names)) {
      OrderedJson entry;
      entry["count"] = count;
      entry["name"] = name;
      entries.push_back(entry);
    }
    OrderedJson json;
    json["sObjects"] = entries;
    sendJson(ex, 200, json.dump());
  }

  // ---- composite

  // sObject Collections; with upsertKey, the upsert form (PATCH by external id).
  void composite(Exchange& ex, const FieldDef* upsertKey = nullptr) {
    const std::string& method = ex.req.method;
    bool allOrNone = false;
    std::vector<std::function<SaveResult(bool dryRun)>> operations;
    if (method == "DELETE") {
      allOrNone = ex.req.get_param_value("allOrNone") == "true";
      std::string list = ex.req.get_param_value("ids");
      std::size_t at = 0;
      while (at <= list.size()) {
        std::size_t comma = list.find(',', at);
        if (comma == std::string::npos) comma = list.size();
        std::string id = list.substr(at, comma - at);
        if (!id.empty()) {
          operations.push_back([this, id, &ex](bool dryRun) {
            return OrgRecords::remove(store, id, ex.userId, dryRun);
          });
        }
        at = comma + 1;
      }
    } else if (method == "POST" || method == "PATCH") {
      Json body = Json::parse(ex.req.body, nullptr, false);
      if (body.is_discarded() || !body.is_object() || !body.contains("records") ||
          !body["records"].is_array()) {
        return sendError(ex, 400, "JSON_PARSER_ERROR", "The request body must hold \"records\".");
      }
      allOrNone = body.value("allOrNone", false);
      for (const auto& record : body["records"]) {
        std::string type =
            record.contains("attributes") ? record["attributes"].value("type", "") : std::string();
        Json fields = record;
        fields.erase("attributes");
        std::string id;
        for (const char* key : {"id", "Id"}) {
          if (fields.contains(key) && fields[key].is_string()) {
            id = fields[key].get<std::string>();
            fields.erase(key);
          }
        }
        bool create = method == "POST";
        if (upsertKey != nullptr) {
          std::optional<std::string> value;
          for (const auto& [name, item] : fields.items()) {
            if (Schema::object(type) != nullptr && Schema::object(type)->field(name) == upsertKey &&
                item.is_string()) {
              value = item.get<std::string>();
            }
          }
          operations.push_back([this, type, fields, value, upsertKey, &ex](bool dryRun) {
            const ObjectDef* object = Schema::object(type);
            SaveResult result;
            if (object == nullptr) {
              result.errors.push_back(
                  {"INVALID_TYPE", "sObject type '" + type + "' is not supported.", {}});
            } else if (!value || value->empty()) {
              result.errors.push_back({"MISSING_ARGUMENT",
                                       upsertKey->name + " not specified",
                                       {upsertKey->name}});
            } else {
              result = OrgRecords::upsert(store, *object, *upsertKey, *value, fields, ex.userId,
                                          dryRun);
            }
            return result;
          });
          continue;
        }
        operations.push_back([this, type, fields, id, create, &ex](bool dryRun) {
          const ObjectDef* object = Schema::object(type);
          if (object == nullptr && !create) object = Schema::objectForId(id);
          if (object == nullptr) {
            SaveResult result;
            result.errors.push_back(
                {"INVALID_TYPE", "sObject type '" + type + "' is not supported.", {}});
            return result;
          }
          return create ? OrgRecords::create(store, *object, fields, ex.userId, dryRun)
                        : OrgRecords::update(store, *object, id, fields, ex.userId, false, dryRun);
        });
      }
    } else {
      return notFound(ex);
    }
    if (operations.size() > 200) {
      return sendError(ex, 400, "EXCEEDED_ID_LIMIT",
                       "record limit reached. cannot submit more than 200 records into this call");
    }
    std::vector<SaveResult> results;
    if (allOrNone) {
      std::vector<SaveResult> checks;
      bool anyFailed = false;
      for (auto& op : operations) {
        checks.push_back(op(true));
        anyFailed = anyFailed || !checks.back().success;
      }
      if (anyFailed) {
        for (auto& check : checks) {
          if (check.success) {
            check.success = false;
            check.id.clear();
            check.errors = {{"ALL_OR_NONE_OPERATION_ROLLED_BACK",
                             "Record rolled back because not all records were valid and the "
                             "request was using AllOrNone header",
                             {}}};
          }
        }
        results = std::move(checks);
      }
    }
    if (results.empty()) {
      for (auto& op : operations) results.push_back(op(false));
    }
    std::string out = "[";
    for (std::size_t i = 0; i < results.size(); ++i) {
      if (i > 0) out += ',';
      if (upsertKey == nullptr) {
        out += saveResultJson(results[i]);
      } else {
        OrderedJson json = OrderedJson::parse(saveResultJson(results[i]));
        json["created"] = results[i].created;
        out += json.dump();
      }
    }
    sendJson(ex, 200, out + "]");
  }

  // ---- Bulk API 2.0 ingest jobs

  void bulkIngest(Exchange& ex, const std::string& version, const std::vector<std::string>& parts) {
    const std::string& method = ex.req.method;
    auto answer = [&](const std::variant<IngestJobInfo, BulkError>& outcome, int status) {
      if (const auto* e = std::get_if<BulkError>(&outcome)) {
        return sendError(ex, e->status, e->errorCode, e->message);
      }
      sendJson(ex, status, std::get<IngestJobInfo>(outcome).toJson().dump());
    };
    if (parts.size() == 2) {
      if (method == "POST") {
        Json body = Json::parse(ex.req.body, nullptr, false);
        return answer(ingest.create(body, version, ex.userId), 200);
      }
      if (method != "GET") return notFound(ex);
      Json records = Json::array();
      for (const auto& job : ingest.list()) records.push_back(job.toJson());
      return sendJson(ex, 200, Json{{"done", true}, {"records", records},
                                    {"nextRecordsUrl", nullptr}}.dump());
    }
    const std::string& id = parts[2];
    if (parts.size() == 3) {
      if (method == "GET") {
        auto job = ingest.get(id);
        if (!job) return notFound(ex);
        return sendJson(ex, 200, job->toJson().dump());
      }
      if (method == "PATCH") {
        Json body = Json::parse(ex.req.body, nullptr, false);
        std::string state = body.is_object() ? body.value("state", "") : std::string();
        return answer(ingest.setState(id, state, ex.userId, ex.path), 200);
      }
      if (method == "DELETE") {
        auto outcome = ingest.remove(id);
        if (const auto* e = std::get_if<BulkError>(&outcome)) {
          return sendError(ex, e->status, e->errorCode, e->message);
        }
        ex.res.status = 204;
        return;
      }
      return notFound(ex);
    }
    if (parts.size() == 4 && parts[3] == "batches" && method == "PUT") {
      // Job data is CSV only; any other media type is refused with 415.
      if (!ex.req.get_header_value("Content-Type").starts_with("text/csv")) {
        return sendError(ex, 415, "UNSUPPORTED_MEDIA_TYPE",
                         "Job data must be uploaded as text/csv.");
      }
      auto outcome = ingest.upload(id, ex.req.body);
      if (const auto* e = std::get_if<BulkError>(&outcome)) {
        return sendError(ex, e->status, e->errorCode, e->message);
      }
      ex.res.status = 201;
      return;
    }
    if (parts.size() == 4 && method == "GET") {
      auto outcome = ingest.results(id, parts[3]);
      if (const auto* e = std::get_if<BulkError>(&outcome)) {
        return sendError(ex, e->status, e->errorCode, e->message);
      }
      ex.res.status = 200;
      ex.res.set_content(std::get<std::string>(outcome), "text/csv");
      return;
    }
    notFound(ex);
  }

  // ---- Bulk API 2.0

  void bulk(Exchange& ex, const std::string& version, const std::vector<std::string>& parts) {
    const std::string& method = ex.req.method;
    if (parts.size() == 2) {
      if (method == "GET") {
        OrderedJson records = OrderedJson::array();
        for (const auto& job : jobs.list())
          records.push_back(OrderedJson::parse(job.toJson().dump()));
        OrderedJson json;
        json["done"] = true;
        json["records"] = records;
        json["nextRecordsUrl"] = nullptr;
        return sendJson(ex, 200, json.dump());
      }
      if (method != "POST") return notFound(ex);
      Json body = Json::parse(ex.req.body, nullptr, false);
      if (body.is_discarded() || !body.is_object()) {
        return sendError(ex, 400, "JSON_PARSER_ERROR", "The request body is not valid JSON.");
      }
      std::string operation = body.value("operation", "");
      std::string soql = body.value("query", "");
      if (operation != "query" && operation != "queryAll") {
        return sendError(ex, 400, "INVALIDJOB", "InvalidJob : Invalid operation: " + operation);
      }
      if (body.value("contentType", "CSV") != "CSV" ||
          body.value("columnDelimiter", "COMMA") != "COMMA" ||
          body.value("lineEnding", "LF") != "LF") {
        return sendError(ex, 400, "INVALIDJOB",
                         "InvalidJob : The sample org writes CSV with COMMA and LF only.");
      }
      std::optional<std::string> failure;
      if (auto fault = Faults::take(store, method, ex.path, {FaultRule::Kind::FailJob})) {
        ex.faultName = "failJob";
        failure = fault->message.empty()
                      ? "InternalServerError : Failed to process query: UNKNOWN_EXCEPTION"
                      : fault->message;
      }
      BulkJobInfo job = jobs.create(operation, soql, version, ex.userId, failure);
      return sendJson(ex, 200, job.toJson().dump());
    }
    const std::string& id = parts[2];
    if (parts.size() == 3) {
      if (method == "GET") {
        auto job = jobs.get(id);
        if (!job) return notFound(ex);
        return sendJson(ex, 200, job->toJson().dump());
      }
      if (method == "PATCH") {
        auto outcome = jobs.abort(id);
        if (auto* error = std::get_if<BulkError>(&outcome)) {
          return sendError(ex, error->status, error->errorCode, error->message);
        }
        return sendJson(ex, 200, std::get<BulkJobInfo>(outcome).toJson().dump());
      }
      if (method == "DELETE") {
        if (!jobs.remove(id)) return notFound(ex);
        ex.res.status = 204;
        return;
      }
      return notFound(ex);
    }
    if (parts.size() != 4 || parts[3] != "results" || method != "GET") return notFound(ex);
    std::optional<std::string> locator;
    if (ex.req.has_param("locator") && !ex.req.get_param_value("locator").empty()) {
      locator = ex.req.get_param_value("locator");
    }
    std::optional<std::int64_t> maxRecords;
    if (ex.req.has_param("maxRecords")) {
      std::string text = ex.req.get_param_value("maxRecords");
      char* end = nullptr;
      long long value = std::strtoll(text.c_str(), &end, 10);
      if (text.empty() || *end != '\0') {
        return sendError(ex, 400, "INVALIDREQUEST", "maxRecords must be a positive integer");
      }
      maxRecords = value;
    }
    if (Faults::take(store, method, ex.path, {FaultRule::Kind::InvalidLocator})) {
      ex.faultName = "invalidLocator";
      return sendError(ex, 400, "INVALID_QUERY_LOCATOR", "invalid query locator");
    }
    auto outcome = jobs.page(id, version, locator, maxRecords);
    if (auto* error = std::get_if<BulkError>(&outcome)) {
      return sendError(ex, error->status, error->errorCode, error->message);
    }
    BulkPage page = std::get<BulkPage>(outcome);
    int fd = ::open(page.file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return sendError(ex, 500, "UNKNOWN_EXCEPTION", "The job's results are missing.");
    auto file = std::shared_ptr<int>(new int(fd), [](int* f) {
      ::close(*f);
      delete f;
    });
    // A proxy on the way may drop the header; the page itself is whole.
    if (Faults::take(store, method, ex.path, {FaultRule::Kind::NoLocator}))
      ex.faultName = "noLocator";
    else
      ex.res.set_header("Sforce-Locator", page.nextLocator);
    ex.res.set_header("Sforce-NumberOfRecords", std::to_string(page.rows));
    std::size_t header = page.headerBytes;
    std::size_t total = header + (page.end - page.begin);
    std::uint64_t begin = page.begin;
    stream(ex, total, "text/csv",
           [file, header, begin](std::size_t offset, std::size_t length, std::string& out) {
             // Bytes [0, header) are the header line; the rest maps to the rows' range.
             out.resize(length);
             std::size_t done = 0;
             while (done < length) {
               std::size_t at = offset + done;
               off_t position =
                   at < header ? static_cast<off_t>(at) : static_cast<off_t>(begin + (at - header));
               std::size_t want =
                   at < header ? std::min(length - done, header - at) : length - done;
               ssize_t n = ::pread(*file, out.data() + done, want, position);
               if (n <= 0) return false;
               done += static_cast<std::size_t>(n);
             }
             return true;
           });
  }

  // ------------------------------------------------------------------ SOAP

  // Salesforce's instance status service, answered here so tests need no internet.
  void instanceStatus(Exchange& ex) {
    auto parts = splitPath(ex.path);  // "v1", "instances", KEY, "status"
    if (ex.req.method != "GET" || parts.size() != 4 || parts[3] != "status") return notFound(ex);
    auto answer =
        HealthAnswers::instanceStatus(store, parts[2], ex.req.get_header_value("Authorization"));
    ex.res.status = answer.status;
    ex.res.set_content(answer.body, answer.contentType);
  }

  void soapCall(Exchange& ex) {
    if (ex.req.method != "POST") return notFound(ex);
    auto call = Soap::parse(ex.req.body);
    if (!call) {
      return sendSoap(ex, 500, Soap::fault("soapenv:Client", "Unable to parse the SOAP envelope"));
    }
    auto session = call->sessionId.empty() ? std::nullopt : Sessions::find(store, call->sessionId);
    if (!session) {
      return sendSoap(ex, 500,
                      Soap::fault("INVALID_SESSION_ID",
                                  "Invalid Session ID found in SessionHeader: Illegal Session"));
    }
    ex.username = session->username;
    ex.userId = session->userId;
    if (startsWith(ex.path, "/services/Soap/m/")) {
      auto answer = HealthAnswers::metadataCall(store, call->operation, ex.req.body);
      if (answer) return sendSoap(ex, 200, *answer);
    }
    if (call->operation == "merge") {
      if (call->merges.size() > 200) {
        return sendSoap(
            ex, 500,
            Soap::fault("LIMIT_EXCEEDED", "Exceeded max size limit of 200 merge requests"));
      }
      std::vector<MergeOutcome> results;
      for (const auto& request : call->merges) {
        if (Faults::take(store, "POST", ex.path, {FaultRule::Kind::LockRow})) {
          ex.faultName = "UNABLE_TO_LOCK_ROW";
          MergeOutcome outcome;
          outcome.id = request.masterId;
          outcome.errors.push_back({"UNABLE_TO_LOCK_ROW",
                                    "unable to obtain exclusive access to this record or 1 "
                                    "records: " +
                                        request.masterId,
                                    {}});
          results.push_back(std::move(outcome));
          continue;
        }
        results.push_back(OrgRecords::merge(store, request, session->userId));
      }
      return sendSoap(ex, 200, Soap::mergeResponse(results));
    }
    if (call->operation == "undelete") {
      if (call->undeleteIds.size() > 200) {
        return sendSoap(ex, 500,
                        Soap::fault("LIMIT_EXCEEDED", "Exceeded max size limit of 200 ids"));
      }
      std::vector<SaveResult> results;
      for (const auto& id : call->undeleteIds) {
        results.push_back(OrgRecords::undelete(store, id, session->userId));
      }
      return sendSoap(ex, 200, Soap::undeleteResponse(results));
    }
    sendSoap(ex, 500,
             Soap::fault("INVALID_OPERATION",
                         "The sample org does not answer the call " + call->operation));
  }

  // ------------------------------------------------------------------ admin

  void admin(Exchange& ex);
};

// The admin interface: JSON in and out, outside /services, never faulted or counted.
void OrgServer::Impl::admin(Exchange& ex) {
  const std::string& method = ex.req.method;
  auto parts = splitPath(ex.path);  // "_admin", ...
  Json body = ex.req.body.empty() ? Json::object() : Json::parse(ex.req.body, nullptr, false);
  auto bad = [&](const std::string& message) {
    sendJson(ex, 400, Json{{"error", message}}.dump());
  };
  if (body.is_discarded()) return bad("The request body is not valid JSON.");
  std::string what = parts.size() > 1 ? parts[1] : "";
  std::string sub = parts.size() > 2 ? parts[2] : "";
  try {
    if (what == "status" && method == "POST") {
      return sendJson(ex, 200, HealthAnswers::adminStatus(store, body).dump());
    }
    if (what == "health") {
      OrgIdentity identity = store.identity();
      return sendJson(ex, 200,
                      Json{{"ok", true},
                           {"orgId", identity.orgId},
                           {"adminUsername", identity.adminUsername},
                           {"now", WireTime::dateTime(store.now())}}
                          .dump());
    }
    if (what == "tokens" && sub.empty() && method == "POST") {
      auto ttl = std::chrono::seconds(body.value("ttlSeconds", Sessions::kDefaultLifetime.count()));
      Session session = Sessions::issue(store, body.value("username", ""), ttl);
      return sendJson(ex, 200,
                      Json{{"accessToken", session.token},
                           {"username", session.username},
                           {"userId", session.userId},
                           {"orgId", store.identity().orgId},
                           {"instanceUrl", instanceUrl(ex)},
                           {"expiresAt", WireTime::dateTime(session.expiresAt)}}
                          .dump());
    }
    if (what == "tokens" && sub == "expire" && method == "POST") {
      int expired = Sessions::expire(store, body.value("token", ""), body.value("username", ""));
      return sendJson(ex, 200, Json{{"expired", expired}}.dump());
    }
    if (what == "clock") {
      if (method == "POST") {
        if (body.contains("set")) {
          auto time = WireTime::parseDateTime(body["set"].get<std::string>());
          if (!time) return bad("\"set\" must be a date-time such as 2024-01-05T10:00:00Z.");
          store.setClock(*time);
        }
        if (body.contains("advanceSeconds")) {
          store.advanceClock(std::chrono::seconds(body["advanceSeconds"].get<std::int64_t>()));
        }
        if (body.contains("advanceMs")) {
          store.advanceClock(std::chrono::milliseconds(body["advanceMs"].get<std::int64_t>()));
        }
        if (body.value("reset", false)) store.setClock(std::chrono::system_clock::now());
      }
      return sendJson(
          ex, 200,
          Json{{"now", WireTime::dateTime(store.now())}, {"offsetMs", store.clockOffset().count()}}
              .dump());
    }
    if (what == "records" && method == "POST") {
      std::vector<std::string> ids;
      if (body.contains("ids")) ids = body["ids"].get<std::vector<std::string>>();
      if (body.contains("id")) ids.push_back(body["id"].get<std::string>());
      Json results = Json::array();
      if (sub == "create") {
        const ObjectDef* object = Schema::object(body.value("object", ""));
        if (object == nullptr) return bad("Unknown \"object\".");
        SaveResult result = OrgRecords::create(store, *object, body.value("fields", Json::object()),
                                               store.identity().adminUserId);
        return sendJson(ex, 200, saveResultJson(result));
      }
      if (sub == "update") {
        auto id = RecordIds::normalize(body.value("id", ""));
        const ObjectDef* object = id ? Schema::objectForId(*id) : nullptr;
        if (object == nullptr) return bad("\"id\" must be the id of a record.");
        SaveResult result =
            OrgRecords::update(store, *object, *id, body.value("fields", Json::object()),
                               store.identity().adminUserId, true);
        return sendJson(ex, 200, saveResultJson(result));
      }
      if (sub == "delete" || sub == "undelete") {
        for (const auto& id : ids) {
          SaveResult result = sub == "delete"
                                  ? OrgRecords::remove(store, id, store.identity().adminUserId)
                                  : OrgRecords::undelete(store, id, store.identity().adminUserId);
          results.push_back(Json::parse(saveResultJson(result)));
        }
        return sendJson(ex, 200, Json{{"results", results}}.dump());
      }
      if (sub == "purge") {
        std::int64_t purged = body.value("expired", false)
                                  ? OrgRecords::purgeExpired(store)
                                  : OrgRecords::purge(store, body.value("object", ""), ids);
        return sendJson(ex, 200, Json{{"purged", purged}}.dump());
      }
    }
    if (what == "faults") {
      if (method == "POST") {
        FaultRule rule = FaultRule::fromJson(body);
        std::int64_t id = Faults::add(store, rule);
        return sendJson(ex, 200, Json{{"id", id}}.dump());
      }
      if (method == "DELETE") {
        Faults::clear(store);
        return sendJson(ex, 200, Json{{"cleared", true}}.dump());
      }
      Json list = Json::array();
      for (const auto& rule : Faults::list(store)) list.push_back(rule.toJson());
      return sendJson(ex, 200, Json{{"faults", list}}.dump());
    }
    if (what == "requests") {
      if (method == "DELETE") {
        store.write([](Database& db) { db.exec("DELETE FROM _requests"); });
        return sendJson(ex, 200, Json{{"cleared", true}}.dump());
      }
      std::int64_t since =
          ex.req.has_param("since") ? std::atoll(ex.req.get_param_value("since").c_str()) : 0;
      std::int64_t limit =
          ex.req.has_param("limit") ? std::atoll(ex.req.get_param_value("limit").c_str()) : 1000;
      Json list = Json::array();
      auto lease = store.read();
      auto statement = lease->prepare(
          "SELECT seq, at, method, path, query, status, username, fault, millis FROM _requests "
          "WHERE seq > ? ORDER BY seq LIMIT ?");
      statement.bind(1, since).bind(2, limit);
      while (statement.step()) {
        list.push_back({{"seq", statement.integer(0)},
                        {"at", statement.text(1)},
                        {"method", statement.text(2)},
                        {"path", statement.text(3)},
                        {"query", statement.text(4)},
                        {"status", statement.integer(5)},
                        {"username", statement.text(6)},
                        {"fault", statement.text(7)},
                        {"millis", statement.integer(8)}});
      }
      return sendJson(ex, 200, Json{{"requests", list}}.dump());
    }
    if (what == "settings") {
      static const char* keys[] = {"bulkDelayMs", "dailyApiMax", "dailyApiUsedOffset"};
      if (method == "POST") {
        for (const auto& [key, value] : body.items()) {
          // Fields the describe lists but a query refuses: "Account.Industry,...".
          if (key == "queryRefusedFields") {
            if (!value.is_string()) return bad("\"" + key + "\" must be text.");
            store.setSetting(key, value.get<std::string>());
            continue;
          }
          if (std::find(std::begin(keys), std::end(keys), key) == std::end(keys)) {
            return bad("Unknown setting \"" + key + "\".");
          }
          if (!value.is_number_integer()) return bad("\"" + key + "\" must be a whole number.");
          store.setSetting(key, std::to_string(value.get<std::int64_t>()));
        }
      }
      Json json = Json::object();
      json["bulkDelayMs"] = std::stoll(store.setting("bulkDelayMs").value_or("500"));
      json["dailyApiMax"] = dailyApiMax();
      json["dailyApiUsedOffset"] = std::stoll(store.setting("dailyApiUsedOffset").value_or("0"));
      json["dailyApiUsed"] = apiRequestsUsed();
      json["queryRefusedFields"] = store.setting("queryRefusedFields").value_or("");
      return sendJson(ex, 200, json.dump());
    }
  } catch (const UnknownUser& error) {
    return bad(error.what());
  } catch (const std::invalid_argument& error) {
    return bad(error.what());
  } catch (const Json::exception& error) {
    return bad(std::string("A value has the wrong type: ") + error.what());
  }
  sendJson(ex, 404, Json{{"error", "No such admin resource."}}.dump());
}

OrgServer::OrgServer(const std::filesystem::path& stateDir, ServerOptions options)
    : store_(OrgStore::open(stateDir)) {
  ensureOrgBasics(*store_);
  OrgRecords::purgeExpired(*store_);
  impl_ = std::make_unique<Impl>(*store_, std::move(options));
  int threads = std::max(2, impl_->options.threads);
  impl_->http.new_task_queue = [threads] {
    return new httplib::ThreadPool(static_cast<size_t>(threads));
  };
  impl_->http.set_payload_max_length(512u << 20);
  impl_->http.set_keep_alive_max_count(1000);
  // An idle kept-alive connection holds its worker until this runs out, and
  // stop() waits for every worker: a short idle time keeps stopping quick.
  impl_->http.set_keep_alive_timeout(1);
  impl_->http.set_read_timeout(std::chrono::seconds(60));
  // A reply goes out in more than one write (headers, then the body): without
  // this each reply after the first on a connection waits for the client's
  // delayed acknowledgement, some 40 ms a request.
  impl_->http.set_tcp_nodelay(true);
  auto handler = [this](const httplib::Request& req, httplib::Response& res) {
    impl_->handle(req, res);
  };
  impl_->http.Get(".*", handler);
  impl_->http.Post(".*", handler);
  impl_->http.Patch(".*", handler);
  impl_->http.Put(".*", handler);
  impl_->http.Delete(".*", handler);
}

OrgServer::~OrgServer() { stop(); }

int OrgServer::start() {
  const auto& options = impl_->options;
  if (options.port == 0) {
    port_ = impl_->http.bind_to_any_port(options.host);
  } else {
    port_ = impl_->http.bind_to_port(options.host, options.port) ? options.port : -1;
  }
  if (port_ <= 0) {
    throw std::runtime_error("The sample org could not listen on " + options.host + ":" +
                             std::to_string(options.port) + ".");
  }
  auto ended = std::make_shared<std::atomic<bool>>(false);
  thread_ = std::thread([this, ended] {
    impl_->http.listen_after_bind();
    *ended = true;
  });
  // The server only takes a stop once it runs: one asked for sooner would be
  // lost, and the listening thread would wait for connections for good.
  while (!impl_->http.is_running() && !*ended)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return port_;
}

void OrgServer::stop() {
  if (impl_) impl_->http.stop();
  if (thread_.joinable()) thread_.join();
}

void OrgServer::wait() {
  if (thread_.joinable()) thread_.join();
}

std::string OrgServer::baseUrl() const {
  return "http://" + impl_->options.host + ":" + std::to_string(port_);
}

void OrgServer::waitForBulkJobs() { impl_->jobs.waitIdle(); }

}  // namespace corvane::orgsim
