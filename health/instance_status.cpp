#include "health/instance_status.hpp"

#include <curl/curl.h>

#include <memory>

#include "health/health_error.hpp"
#include "health/text_table.hpp"
#include "platform/app_support.hpp"
#include "platform/durable_file.hpp"

namespace corvane {

namespace {

using nlohmann::json;

std::string text(const json& object, const char* key) {
  if (!object.is_object()) return {};
  auto it = object.find(key);
  if (it == object.end()) return {};
  if (it->is_string()) return it->get<std::string>();
  if (it->is_number()) return it->dump();
  return {};
}

const json* array(const json& object, const char* key) {
  auto it = object.find(key);
  return it != object.end() && it->is_array() ? &*it : nullptr;
}

// The newest entry of an event's list of updates, by createdAt text (ISO 8601 sorts as text).
const json* newest(const json& events) {
  const json* best = nullptr;
  for (const auto& e : events) {
    if (!e.is_object()) continue;
    if (best == nullptr || text(e, "createdAt") >= text(*best, "createdAt")) best = &e;
  }
  return best;
}

StatusEvent incident(const json& item) {
  StatusEvent event{"incident", text(item, "id"), {}, {}, text(item, "createdAt"), {}};
  if (const json* impacts = array(item, "IncidentImpacts"); impacts && !impacts->empty()) {
    const json& impact = impacts->front();
    event.state = text(impact, "severity");
    if (!text(impact, "type").empty()) {
      event.state += (event.state.empty() ? "" : " ") + text(impact, "type");
    }
    if (!text(impact, "startTime").empty()) event.start = text(impact, "startTime");
    event.end = text(impact, "endTime");
  }
  if (const json* events = array(item, "IncidentEvents")) {
    if (const json* last = newest(*events)) event.title = text(*last, "message");
  }
  return event;
}

StatusEvent maintenance(const json& item) {
  const json message = item.contains("message") ? item["message"] : json::object();
  StatusEvent event{"maintenance",
                    text(item, "id"),
                    text(message, "name").empty() ? text(item, "name") : text(message, "name"),
                    text(message, "eventStatus"),
                    text(item, "plannedStartTime"),
                    text(item, "plannedEndTime")};
  if (!text(message, "availability").empty()) {
    event.state += (event.state.empty() ? "" : ", ") + text(message, "availability");
  }
  return event;
}

bool isLoopbackHost(const std::string& host) {
  return host == "localhost" || host == "::1" || host == "[::1]" || host.rfind("127.", 0) == 0;
}

// http is allowed only for this machine; anything else must be https.
bool isAllowedURL(const std::string& url) {
  if (url.rfind("https://", 0) == 0) return true;
  if (url.rfind("http://", 0) != 0) return false;
  std::string rest = url.substr(7);
  std::string host = rest.substr(0, rest.find_first_of("/?#"));
  if (!host.empty() && host[0] == '[') {
    host = host.substr(0, host.find(']') + 1);
  } else {
    host = host.substr(0, host.find(':'));
  }
  return isLoopbackHost(host);
}

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* target) {
  auto* body = static_cast<std::string*>(target);
  if (body->size() > 8 * 1024 * 1024) return 0;  // a status is small; stop a runaway answer
  body->append(data, size * count);
  return size * count;
}

std::filesystem::path tokenPath() { return AppSupport::folder() / "status-token"; }

}  // namespace

StatusService::StatusService(Options options) : options_(std::move(options)) {
  while (!options_.baseURL.empty() && options_.baseURL.back() == '/') options_.baseURL.pop_back();
}

InstanceStatus StatusService::instance(const std::string& key) const {
  const std::string& base = options_.baseURL;
  if (!isAllowedURL(base)) {
    throw HealthError::statusUnreachable(base, "the address must begin with https://");
  }
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle(curl_easy_init(), curl_easy_cleanup);
  if (!handle) throw HealthError::statusUnreachable(base, "the HTTP client could not start");
  std::unique_ptr<char, decltype(&curl_free)> escaped(
      curl_easy_escape(handle.get(), key.c_str(), static_cast<int>(key.size())), curl_free);
  const std::string url = base + "/v1/instances/" + escaped.get() + "/status?childProducts=false";

  curl_slist* raw = curl_slist_append(nullptr, "Accept: application/json");
  std::string authorization;
  if (options_.token && !options_.token->empty()) {
    authorization = "Authorization: Bearer " + *options_.token;
    raw = curl_slist_append(raw, authorization.c_str());
  }
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(raw, curl_slist_free_all);
  std::string body;
  char errorText[CURL_ERROR_SIZE] = {};
  CURL* h = handle.get();
  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errorText);
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, onBody);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &body);
  curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(options_.timeout.count()));
  curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, static_cast<long>(options_.timeout.count()));
  const CURLcode code = curl_easy_perform(h);
  if (code != CURLE_OK) {
    std::string reason = code == CURLE_OPERATION_TIMEDOUT ? "no answer within the time limit"
                                                          : curl_easy_strerror(code);
    throw HealthError::statusUnreachable(base, reason);
  }
  long status = 0;
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
  const bool hasToken = options_.token && !options_.token->empty();
  if (status == 401 || status == 403 || status == 410) {
    if (hasToken) throw HealthError::statusTokenRefused();
    throw HealthError::statusNeedsToken();
  }
  if (status == 404) throw HealthError::statusUnknownInstance(key);
  if (status < 200 || status > 299) {
    throw HealthError::statusUnreachable(base, "it answered HTTP " + std::to_string(status));
  }
  auto reply = json::parse(body, nullptr, false);
  auto parsed = reply.is_discarded() ? std::nullopt : parse(reply);
  if (!parsed) throw HealthError::statusBadReply(base);
  return *parsed;
}

std::optional<InstanceStatus> StatusService::parse(const json& reply) {
  if (!reply.is_object() || text(reply, "key").empty()) return std::nullopt;
  InstanceStatus status;
  status.key = text(reply, "key");
  status.status = text(reply, "status");
  status.releaseVersion = text(reply, "releaseVersion");
  status.environment = text(reply, "environment");
  status.location = text(reply, "location");
  if (const json* items = array(reply, "Incidents")) {
    for (const auto& item : *items) {
      if (item.is_object()) status.incidents.push_back(incident(item));
    }
  }
  if (const json* items = array(reply, "Maintenances")) {
    for (const auto& item : *items) {
      if (item.is_object()) status.maintenances.push_back(maintenance(item));
    }
  }
  return status;
}

std::string StatusService::table(const InstanceStatus& status) {
  std::string out = "Instance " + status.key + ": " + status.status;
  if (!status.releaseVersion.empty()) out += " (release " + status.releaseVersion + ")";
  out += "\n";
  if (status.incidents.empty() && status.maintenances.empty()) {
    out += "No current incidents or maintenances.\n";
    return out;
  }
  std::vector<std::vector<std::string>> rows;
  for (const auto* list : {&status.incidents, &status.maintenances}) {
    for (const auto& e : *list) {
      rows.push_back({e.kind, e.id, e.state, e.start, e.end.empty() ? "open" : e.end, e.title});
    }
  }
  out += "\n" + TextTable::render({"Kind", "Id", "State", "Start", "End", "What"}, rows);
  return out;
}

nlohmann::json StatusService::toJSON(const InstanceStatus& status) {
  auto events = [](const std::vector<StatusEvent>& list) {
    json out = json::array();
    for (const auto& e : list) {
      out.push_back({{"id", e.id},
                     {"title", e.title},
                     {"state", e.state},
                     {"start", e.start},
                     {"end", e.end.empty() ? json(nullptr) : json(e.end)}});
    }
    return out;
  };
  return {{"key", status.key},
          {"status", status.status},
          {"releaseVersion", status.releaseVersion},
          {"environment", status.environment},
          {"location", status.location},
          {"incidents", events(status.incidents)},
          {"maintenances", events(status.maintenances)}};
}

namespace StatusToken {

std::optional<std::string> load() {
  auto text = Durable::readWhole(tokenPath());
  if (!text) return std::nullopt;
  const auto first = text->find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return std::nullopt;
  const auto last = text->find_last_not_of(" \t\r\n");
  return text->substr(first, last - first + 1);
}

void save(const std::string& token) {
  const auto first = token.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return clear();
  const auto last = token.find_last_not_of(" \t\r\n");
  Durable::replace(tokenPath(), token.substr(first, last - first + 1), 0600);
}

void clear() {
  std::error_code ignored;
  std::filesystem::remove(tokenPath(), ignored);
}

}  // namespace StatusToken

}  // namespace corvane
