// The Salesforce CLI's logins, kept exactly where and how the real CLI keeps them.
//
//   $HOME/.sfdx/<username>.json   one file per login; the access token encrypted
//                                 (see token_cipher.hpp), everything else plain
//   $HOME/.sfdx/alias.json        {"orgs":{"<alias>":"<username>",...}}
//   $HOME/.sfdx/key.json          the token key
//   $HOME/.sf/config.json         "target-org": the default login, when one is set
//
// Files are written atomically with mode 0600 in a 0700 folder. A login's
// "last used" time is its file's access time, as the real CLI reports it.
// A username only becomes a file name after it is checked to be a plain name
// (no separators, no leading dot), since it comes from the org.
// Not thread-safe; one command at a time, as the CLI itself works.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/iso_time.hpp"

namespace corvane::sfstandin {

struct Login {
  std::string username;
  // The file's fields in their stored order; "accessToken" is still encrypted.
  nlohmann::ordered_json fields;
  std::filesystem::path file;
};

class AuthStore {
 public:
  explicit AuthStore(std::filesystem::path home);

  // Every login, sorted by username. Files that cannot be read are skipped.
  std::vector<Login> logins() const;
  // The login of this username: the exact file, else one whose name differs only in case.
  std::optional<Login> login(const std::string& username) const;

  // The aliases in the order they were set, as (alias, username).
  std::vector<std::pair<std::string, std::string>> aliases() const;
  // The alias the CLI shows for a login: the last one set that points at it.
  std::optional<std::string> aliasFor(const std::string& username) const;
  // What --target-org means: an alias first, then a username. None when neither exists.
  std::optional<std::string> resolve(const std::string& target) const;
  // The alias or username nearest to `target` by edit distance, for "Did you mean ...?".
  std::optional<std::string> nearestName(const std::string& target) const;
  // The default login ("target-org" in ~/.sf/config.json), resolved; none when unset.
  std::optional<std::string> defaultTarget() const;

  // The login's access token in clear. Throws CliFailure (storeUnreadable) when the
  // token cannot be decrypted with this home's key.
  std::string accessToken(const Login& login) const;
  // When the login was last used (the file's access time).
  SystemTime lastUsed(const Login& login) const;

  // Writes a login; fields must hold "username"; "accessToken" in `fields` is replaced
  // by the encrypted `accessToken`. Throws CliFailure (storeUnreadable) on a bad username
  // or a failed write.
  void save(nlohmann::ordered_json fields, const std::string& accessToken);
  // Points `alias` at `username`, replacing what it pointed at before.
  void setAlias(const std::string& alias, const std::string& username);
  // Removes the login's file and every alias that points at it.
  void remove(const std::string& username);

  const std::filesystem::path& folder() const { return folder_; }

 private:
  nlohmann::ordered_json readAliasFile() const;
  void writeAliasFile(const nlohmann::ordered_json& file) const;
  std::optional<std::string> readKey() const;
  std::string keyForWriting() const;
  void ensureFolder() const;

  std::filesystem::path home_;
  std::filesystem::path folder_;
};

// True when `username` can safely name a file in the login folder.
bool isSafeUsername(const std::string& username);

}  // namespace corvane::sfstandin
