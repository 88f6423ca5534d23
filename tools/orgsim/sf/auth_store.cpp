#include "tools/orgsim/sf/auth_store.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <system_error>

#include "platform/durable_file.hpp"
#include "tools/orgsim/sf/cli_failure.hpp"
#include "tools/orgsim/sf/token_cipher.hpp"

namespace corvane::sfstandin {

namespace fs = std::filesystem;

namespace {

std::string lowerCased(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::optional<nlohmann::ordered_json> readJsonObject(const fs::path& path) {
  std::optional<std::string> text;
  try {
    text = Durable::readWhole(path);
  } catch (const FileError&) {
    return std::nullopt;
  }
  if (!text) return std::nullopt;
  auto parsed = nlohmann::ordered_json::parse(*text, nullptr, false);
  if (parsed.is_discarded() || !parsed.is_object()) return std::nullopt;
  return parsed;
}

// Files in the login folder that are not logins.
bool isLoginFileName(const std::string& name) {
  constexpr std::string_view kSuffix = ".json";
  if (name.size() <= kSuffix.size() || !name.ends_with(kSuffix)) return false;
  if (name.find('@') == std::string::npos) return false;
  return !name.ends_with(".sandbox.json");
}

std::size_t editDistance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      std::size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

void writeFile(const fs::path& path, const std::string& text) {
  try {
    Durable::replace(path, text, 0600);
  } catch (const FileError& error) {
    throw CliFailure::storeUnreadable(path.string(), error.reason());
  }
}

}  // namespace

bool isSafeUsername(const std::string& username) {
  if (username.empty() || username.size() > 255 || username.front() == '.') return false;
  return std::none_of(username.begin(), username.end(), [](unsigned char c) {
    return c < 0x20 || c == 0x7f || c == '/' || c == '\\';
  });
}

AuthStore::AuthStore(fs::path home) : home_(std::move(home)), folder_(home_ / ".sfdx") {}

std::vector<Login> AuthStore::logins() const {
  std::vector<Login> found;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder_, error)) {
    std::string name = entry.path().filename().string();
    if (!isLoginFileName(name) || !entry.is_regular_file(error)) continue;
    auto fields = readJsonObject(entry.path());
    if (!fields) continue;
    std::string username = name.substr(0, name.size() - 5);
    if (auto stored = fields->find("username"); stored != fields->end() && stored->is_string()) {
      username = stored->get<std::string>();
    }
    found.push_back({username, std::move(*fields), entry.path()});
  }
  std::sort(found.begin(), found.end(),
            [](const Login& a, const Login& b) { return a.username < b.username; });
  return found;
}

std::optional<Login> AuthStore::login(const std::string& username) const {
  if (isSafeUsername(username)) {
    fs::path exact = folder_ / (username + ".json");
    if (auto fields = readJsonObject(exact)) return Login{username, std::move(*fields), exact};
  }
  std::string wanted = lowerCased(username);
  for (auto& candidate : logins()) {
    if (lowerCased(candidate.username) == wanted) return std::move(candidate);
  }
  return std::nullopt;
}

nlohmann::ordered_json AuthStore::readAliasFile() const {
  auto file = readJsonObject(folder_ / "alias.json");
  if (!file) file = nlohmann::ordered_json::object();
  if (!file->contains("orgs") || !(*file)["orgs"].is_object()) {
    (*file)["orgs"] = nlohmann::ordered_json::object();
  }
  return *file;
}

void AuthStore::writeAliasFile(const nlohmann::ordered_json& file) const {
  ensureFolder();
  writeFile(folder_ / "alias.json", file.dump());
}

std::vector<std::pair<std::string, std::string>> AuthStore::aliases() const {
  std::vector<std::pair<std::string, std::string>> result;
  nlohmann::ordered_json file = readAliasFile();
  for (const auto& [alias, value] : file["orgs"].items()) {
    if (value.is_string()) result.emplace_back(alias, value.get<std::string>());
  }
  return result;
}

std::optional<std::string> AuthStore::aliasFor(const std::string& username) const {
  std::optional<std::string> last;
  for (const auto& [alias, value] : aliases()) {
    if (value == username) last = alias;
  }
  return last;
}

std::optional<std::string> AuthStore::resolve(const std::string& target) const {
  for (const auto& [alias, value] : aliases()) {
    if (alias == target) return login(value) ? std::optional(value) : std::nullopt;
  }
  if (auto found = login(target)) return found->username;
  return std::nullopt;
}

std::optional<std::string> AuthStore::nearestName(const std::string& target) const {
  std::optional<std::string> best;
  std::size_t bestDistance = 0;
  auto consider = [&](const std::string& name) {
    std::size_t distance = editDistance(target, name);
    if (!best || distance < bestDistance) {
      best = name;
      bestDistance = distance;
    }
  };
  for (const auto& entry : aliases()) consider(entry.first);
  for (const auto& entry : logins()) consider(entry.username);
  return best;
}

std::optional<std::string> AuthStore::defaultTarget() const {
  auto config = readJsonObject(home_ / ".sf" / "config.json");
  if (!config) return std::nullopt;
  auto target = config->find("target-org");
  if (target == config->end() || !target->is_string()) return std::nullopt;
  return target->get<std::string>();
}

std::optional<std::string> AuthStore::readKey() const {
  auto file = readJsonObject(folder_ / "key.json");
  if (!file) return std::nullopt;
  auto key = file->find("key");
  if (key == file->end() || !key->is_string()) return std::nullopt;
  return key->get<std::string>();
}

std::string AuthStore::keyForWriting() const {
  if (auto existing = readKey()) return *existing;
  ensureFolder();
  std::string key = TokenCipher::newKey();
  nlohmann::ordered_json file{{"account", "local"}, {"key", key}, {"service", "sfdx"}};
  writeFile(folder_ / "key.json", file.dump(4));
  return key;
}

std::string AuthStore::accessToken(const Login& login) const {
  auto stored = login.fields.find("accessToken");
  if (stored == login.fields.end() || !stored->is_string()) {
    throw CliFailure::storeUnreadable(login.file.string(), "it holds no access token");
  }
  auto key = readKey();
  if (!key) throw CliFailure::storeUnreadable(login.file.string(), "the token key is missing");
  auto plain = TokenCipher::decrypt(*key, stored->get<std::string>());
  if (!plain) {
    throw CliFailure::storeUnreadable(login.file.string(),
                                      "its access token does not decrypt with this key");
  }
  return *plain;
}

SystemTime AuthStore::lastUsed(const Login& login) const {
  struct stat info {};
  if (::stat(login.file.c_str(), &info) != 0) return std::chrono::system_clock::now();
  auto since =
      std::chrono::seconds(info.st_atim.tv_sec) + std::chrono::nanoseconds(info.st_atim.tv_nsec);
  return SystemTime(std::chrono::duration_cast<SystemTime::duration>(since));
}

void AuthStore::save(nlohmann::ordered_json fields, const std::string& accessToken) {
  std::string username = fields.value("username", "");
  if (!isSafeUsername(username)) {
    throw CliFailure::storeUnreadable((folder_ / "<username>.json").string(),
                                      "the org's username \"" + username + "\" cannot name a file");
  }
  fields["accessToken"] = TokenCipher::encrypt(keyForWriting(), accessToken);
  writeFile(folder_ / (username + ".json"), fields.dump(2));
}

void AuthStore::setAlias(const std::string& alias, const std::string& username) {
  auto file = readAliasFile();
  file["orgs"][alias] = username;
  writeAliasFile(file);
}

void AuthStore::remove(const std::string& username) {
  if (auto found = login(username)) {
    std::error_code ignored;
    fs::remove(found->file, ignored);
    Durable::syncFolder(folder_);
  }
  auto file = readAliasFile();
  auto& orgs = file["orgs"];
  nlohmann::ordered_json kept = nlohmann::ordered_json::object();
  bool changed = false;
  for (const auto& [alias, value] : orgs.items()) {
    if (value.is_string() && value.get<std::string>() == username) {
      changed = true;
    } else {
      kept[alias] = value;
    }
  }
  if (changed) {
    orgs = kept;
    writeAliasFile(file);
  }
}

void AuthStore::ensureFolder() const {
  std::error_code error;
  if (fs::is_directory(folder_, error)) return;
  fs::create_directories(folder_, error);
  if (error) throw CliFailure::storeUnreadable(folder_.string(), error.message());
  fs::permissions(folder_, fs::perms::owner_all, fs::perm_options::replace, error);
}

}  // namespace corvane::sfstandin
