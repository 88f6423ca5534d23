#include "tools/orgsim/faults.hpp"

#include <algorithm>
#include <stdexcept>

#include "tools/orgsim/database.hpp"

namespace corvane::orgsim {

namespace {

struct KindName {
  FaultRule::Kind kind;
  const char* name;
};

constexpr KindName kKindNames[] = {
    {FaultRule::Kind::Status, "status"},
    {FaultRule::Kind::RequestLimit, "REQUEST_LIMIT_EXCEEDED"},
    {FaultRule::Kind::Drop, "drop"},
    {FaultRule::Kind::Delay, "delay"},
    {FaultRule::Kind::InvalidLocator, "invalidLocator"},
    {FaultRule::Kind::NoLocator, "noLocator"},
    {FaultRule::Kind::FailJob, "failJob"},
    {FaultRule::Kind::LockRow, "UNABLE_TO_LOCK_ROW"},
    {FaultRule::Kind::ExpireSessions, "expireSessions"},
};

}  // namespace

std::string_view faultKindName(FaultRule::Kind kind) {
  for (const auto& entry : kKindNames) {
    if (entry.kind == kind) return entry.name;
  }
  return "status";
}

bool globMatches(std::string_view pattern, std::string_view path) {
  // Iterative glob with backtracking to the last star.
  std::size_t p = 0, s = 0, star = std::string_view::npos, mark = 0;
  while (s < path.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      mark = s;
    } else if (p < pattern.size() && pattern[p] == path[s]) {
      ++p;
      ++s;
    } else if (star != std::string_view::npos) {
      p = star + 1;
      s = ++mark;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

nlohmann::json FaultRule::toJson() const {
  nlohmann::json json = {
      {"id", id}, {"path", pathPattern}, {"fault", faultKindName(kind)}, {"count", remaining}};
  if (!method.empty()) json["method"] = method;
  if (kind == Kind::Status) json["status"] = status;
  if (kind == Kind::Delay) json["delayMs"] = delayMs;
  if (kind == Kind::Drop) json["afterBytes"] = afterBytes;
  if (kind == Kind::ExpireSessions) {
    json["every"] = every;
    json["seen"] = seen;
  }
  if (!message.empty()) json["message"] = message;
  return json;
}

FaultRule FaultRule::fromJson(const nlohmann::json& json) {
  if (!json.is_object()) throw std::invalid_argument("A fault must be a JSON object.");
  FaultRule rule;
  rule.pathPattern = json.value("path", std::string("*"));
  rule.method = json.value("method", std::string());
  for (auto& c : rule.method) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  rule.remaining = json.value("count", 1);
  if (rule.remaining < 1) throw std::invalid_argument("\"count\" must be 1 or more.");
  rule.id = json.value("id", std::int64_t{0});
  rule.message = json.value("message", std::string());
  std::string fault;
  if (json.contains("fault") && json["fault"].is_number_integer()) {
    fault = std::to_string(json["fault"].get<int>());
  } else {
    fault = json.value("fault", std::string());
  }
  bool known = false;
  for (const auto& entry : kKindNames) {
    if (fault == entry.name) {
      rule.kind = entry.kind;
      known = true;
    }
  }
  if (!known) {
    if (!fault.empty() && std::all_of(fault.begin(), fault.end(), ::isdigit)) {
      rule.kind = Kind::Status;
      rule.status = std::stoi(fault);
    } else {
      throw std::invalid_argument(
          "Unknown \"fault\" \"" + fault +
          "\": use a status such as 401, 500 or 503, REQUEST_LIMIT_EXCEEDED, drop, delay, "
          "invalidLocator, noLocator, failJob, UNABLE_TO_LOCK_ROW or expireSessions.");
    }
  }
  if (json.contains("status")) rule.status = json["status"].get<int>();
  rule.delayMs = json.value("delayMs", std::int64_t{0});
  rule.afterBytes = json.value("afterBytes", std::int64_t{0});
  rule.every = json.value("every", 1);
  rule.seen = json.value("seen", 0);
  if (rule.every < 1) throw std::invalid_argument("\"every\" must be 1 or more.");
  if (rule.kind == Kind::Status && (rule.status < 400 || rule.status > 599)) {
    throw std::invalid_argument("\"status\" must be an HTTP error status (400 to 599).");
  }
  return rule;
}

namespace Faults {

std::int64_t add(OrgStore& store, const FaultRule& rule) {
  std::int64_t id = 0;
  store.write([&](Database& db) {
    db.prepare("INSERT INTO _faults (rule, remaining) VALUES (?, ?)")
        .bind(1, rule.toJson().dump())
        .bind(2, std::int64_t{rule.remaining})
        .run();
    id = db.lastInsertRowId();
  });
  return id;
}

std::vector<FaultRule> list(OrgStore& store) {
  std::vector<FaultRule> rules;
  auto lease = store.read();
  auto statement = lease->prepare("SELECT id, rule, remaining FROM _faults ORDER BY id");
  while (statement.step()) {
    FaultRule rule = FaultRule::fromJson(nlohmann::json::parse(statement.text(1)));
    rule.id = statement.integer(0);
    rule.remaining = static_cast<int>(statement.integer(2));
    rules.push_back(std::move(rule));
  }
  return rules;
}

void clear(OrgStore& store) {
  store.write([](Database& db) { db.exec("DELETE FROM _faults"); });
}

std::optional<FaultRule> take(OrgStore& store, std::string_view method, std::string_view path,
                              std::initializer_list<FaultRule::Kind> kinds) {
  {
    // Most requests meet no rule at all: look before taking the write lock.
    auto lease = store.read();
    if (lease->scalarInt("SELECT COUNT(*) FROM _faults") == 0) return std::nullopt;
  }
  std::optional<FaultRule> taken;
  store.write([&](Database& db) {
    auto statement = db.prepare("SELECT id, rule, remaining FROM _faults ORDER BY id");
    while (statement.step()) {
      FaultRule rule = FaultRule::fromJson(nlohmann::json::parse(statement.text(1)));
      rule.id = statement.integer(0);
      rule.remaining = static_cast<int>(statement.integer(2));
      if (std::find(kinds.begin(), kinds.end(), rule.kind) == kinds.end()) continue;
      if (!rule.method.empty() && rule.method != method) continue;
      if (!globMatches(rule.pathPattern, path)) continue;
      taken = rule;
      break;
    }
    statement.reset();
    if (!taken) return;
    if (taken->remaining <= 1) {
      db.prepare("DELETE FROM _faults WHERE id = ?").bind(1, taken->id).run();
    } else {
      db.prepare("UPDATE _faults SET remaining = remaining - 1 WHERE id = ?")
          .bind(1, taken->id)
          .run();
    }
  });
  return taken;
}

bool sessionsExpireNow(OrgStore& store, std::string_view method, std::string_view path) {
  {
    auto lease = store.read();
    if (lease->scalarInt("SELECT COUNT(*) FROM _faults") == 0) return false;
  }
  bool expire = false;
  store.write([&](Database& db) {
    std::optional<FaultRule> found;
    auto statement = db.prepare("SELECT id, rule, remaining FROM _faults ORDER BY id");
    while (statement.step()) {
      FaultRule rule = FaultRule::fromJson(nlohmann::json::parse(statement.text(1)));
      rule.id = statement.integer(0);
      rule.remaining = static_cast<int>(statement.integer(2));
      if (rule.kind != FaultRule::Kind::ExpireSessions) continue;
      if (!rule.method.empty() && rule.method != method) continue;
      if (!globMatches(rule.pathPattern, path)) continue;
      found = rule;
      break;
    }
    statement.reset();
    if (!found) return;
    if (found->seen < found->every) {
      ++found->seen;
      db.prepare("UPDATE _faults SET rule = ? WHERE id = ?")
          .bind(1, found->toJson().dump())
          .bind(2, found->id)
          .run();
      return;
    }
    expire = true;
    if (found->remaining <= 1) {
      db.prepare("DELETE FROM _faults WHERE id = ?").bind(1, found->id).run();
      return;
    }
    found->seen = 0;
    db.prepare("UPDATE _faults SET rule = ?, remaining = remaining - 1 WHERE id = ?")
        .bind(1, found->toJson().dump())
        .bind(2, found->id)
        .run();
  });
  return expire;
}

}  // namespace Faults

}  // namespace corvane::orgsim
