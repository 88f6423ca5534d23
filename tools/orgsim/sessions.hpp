// Access tokens of the sample org.
//
// A token has Salesforce's shape: the org's 15-character id, "!", then a session
// part of letters, digits, '.' and '_' (no whitespace). Tokens live in the state
// database with the user they belong to and an expiry on the org's clock, so
// advancing the clock can expire them. Thread-safe.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "tools/orgsim/org_store.hpp"

namespace corvane::orgsim {

struct Session {
  std::string token;
  std::string userId;
  std::string username;
  SystemTime expiresAt;
};

// The username does not belong to a User of the org.
class UnknownUser : public std::runtime_error {
 public:
  explicit UnknownUser(const std::string& username)
      : std::runtime_error("The sample org has no user with the username " + username + "."),
        username_(username) {}
  const std::string& username() const { return username_; }

 private:
  std::string username_;
};

namespace Sessions {

inline constexpr std::chrono::seconds kDefaultLifetime{24 * 3600};

// Issues a token for the user with this username (empty: the admin user).
// Throws UnknownUser.
Session issue(OrgStore& store, const std::string& username,
              std::chrono::seconds lifetime = kDefaultLifetime);

// The live session of a token; none when unknown or expired.
std::optional<Session> find(OrgStore& store, const std::string& token);

// Expires one token, or every token of a username when `token` is empty.
// Returns how many were expired.
int expire(OrgStore& store, const std::string& token, const std::string& username = {});

// Expires every live token of every user; returns how many.
int expireAll(OrgStore& store);

}  // namespace Sessions

}  // namespace corvane::orgsim
