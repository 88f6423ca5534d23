#include "tools/orgsim/sessions.hpp"

#include <random>

#include "tools/orgsim/database.hpp"

namespace corvane::orgsim {

namespace {

std::string sessionPart() {
  static constexpr char alphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._";
  std::random_device random;
  std::uniform_int_distribution<int> pick(0, static_cast<int>(sizeof alphabet) - 2);
  std::string out = "AQ8AQ";
  for (int i = 0; i < 91; ++i) out += alphabet[pick(random)];
  return out;
}

}  // namespace

namespace Sessions {

Session issue(OrgStore& store, const std::string& requested, std::chrono::seconds lifetime) {
  OrgIdentity identity = store.identity();
  std::string username = requested.empty() ? identity.adminUsername : requested;
  Session session;
  session.username = username;
  {
    auto lease = store.read();
    auto statement = lease->prepare(
        "SELECT \"Id\", \"Username\" FROM \"User\" WHERE \"Username\" = ? COLLATE NOCASE");
    statement.bind(1, username);
    if (statement.step()) {
      session.userId = std::string(statement.text(0));
      session.username = std::string(statement.text(1));
    } else if (username == identity.adminUsername) {
      session.userId = identity.adminUserId;  // an org not filled yet still has its admin
    } else {
      throw UnknownUser(username);
    }
  }
  session.token = identity.orgId.substr(0, 15) + "!" + sessionPart();
  session.expiresAt = store.now() + lifetime;
  store.write([&](Database& db) {
    db.prepare("INSERT INTO _tokens (token, user_id, username, expires_at) VALUES (?, ?, ?, ?)")
        .bind(1, session.token)
        .bind(2, session.userId)
        .bind(3, session.username)
        .bind(4, WireTime::dateTime(session.expiresAt))
        .run();
  });
  return session;
}

std::optional<Session> find(OrgStore& store, const std::string& token) {
  auto lease = store.read();
  auto statement =
      lease->prepare("SELECT user_id, username, expires_at FROM _tokens WHERE token = ?");
  statement.bind(1, token);
  if (!statement.step()) return std::nullopt;
  Session session;
  session.token = token;
  session.userId = std::string(statement.text(0));
  session.username = std::string(statement.text(1));
  session.expiresAt = WireTime::parseDateTime(statement.text(2)).value_or(SystemTime{});
  if (session.expiresAt <= store.now()) return std::nullopt;
  return session;
}

int expire(OrgStore& store, const std::string& token, const std::string& username) {
  int expired = 0;
  store.write([&](Database& db) {
    std::string past = WireTime::dateTime(store.now() - std::chrono::seconds(1));
    auto statement = token.empty() ? db.prepare(
                                         "UPDATE _tokens SET expires_at = ? WHERE username = ? "
                                         "COLLATE NOCASE AND expires_at > ?")
                                   : db.prepare(
                                         "UPDATE _tokens SET expires_at = ? WHERE token = ? AND "
                                         "expires_at > ?");
    statement.bind(1, past).bind(2, token.empty() ? username : token).bind(3, past).run();
    expired = db.changes();
  });
  return expired;
}

int expireAll(OrgStore& store) {
  int expired = 0;
  store.write([&](Database& db) {
    std::string past = WireTime::dateTime(store.now() - std::chrono::seconds(1));
    db.prepare("UPDATE _tokens SET expires_at = ? WHERE expires_at > ?")
        .bind(1, past)
        .bind(2, past)
        .run();
    expired = db.changes();
  });
  return expired;
}

}  // namespace Sessions

}  // namespace corvane::orgsim
