#include "platform/app_support.hpp"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <vector>

#include "platform/durable_file.hpp"
#include "platform/file_error.hpp"

namespace corvane {

namespace {

std::optional<std::string> environmentValue(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == '\0') return std::nullopt;
  return std::string(value);
}

std::filesystem::path defaultFolder() {
#ifdef __APPLE__
  return AppSupport::homeFolder() / "Library" / "Application Support" / "Corvane";
#else
  // The XDG rule: a relative XDG_DATA_HOME is invalid and ignored.
  if (auto data = environmentValue("XDG_DATA_HOME"); data && data->front() == '/') {
    return std::filesystem::path(*data) / "Corvane";
  }
  return AppSupport::homeFolder() / ".local" / "share" / "Corvane";
#endif
}

// Guards every read and replacement of settings.json within this process.
std::mutex settingsMutex;

std::filesystem::path settingsPath() { return AppSupport::folder() / "settings.json"; }

// The settings as stored, or none when the file is there but is not a JSON
// object. A missing file is an empty object. A file that cannot be read just
// now throws FileError: it may be fine the next time, so it is never set aside.
std::optional<nlohmann::json> readSettings(const std::filesystem::path& path) {
  const std::optional<std::string> text = Durable::readWhole(path);
  if (!text) return nlohmann::json::object();
  nlohmann::json parsed = nlohmann::json::parse(*text, nullptr, false);
  if (parsed.is_discarded() || !parsed.is_object()) return std::nullopt;
  return parsed;
}

// The current settings; an unreadable file is moved aside first, so that the
// next save writes a fresh one without losing what the user had.
nlohmann::json loadLocked() {
  const auto path = settingsPath();
  if (auto settings = readSettings(path)) return *settings;
  try {
    Durable::moveAside(path, std::chrono::system_clock::now());
  } catch (const FileError&) {
    // Still in place; saveLocked tries again and refuses to overwrite it.
  }
  return nlohmann::json::object();
}

void saveLocked(const nlohmann::json& settings) {
  const auto path = settingsPath();
  if (!readSettings(path)) Durable::moveAside(path, std::chrono::system_clock::now());
  // nlohmann::json keeps object keys sorted, so the file is written sorted.
  Durable::replace(path, settings.dump(2) + "\n", 0600);
}

}  // namespace

namespace AppSupport {

std::filesystem::path homeFolder() {
  if (auto home = environmentValue("HOME")) return *home;
  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
      found->pw_dir) {
    return found->pw_dir;
  }
  return "/";
}

std::filesystem::path folder() {
  const std::filesystem::path path = environmentValue("CORVANE_HOME")
                                         ? std::filesystem::path(*environmentValue("CORVANE_HOME"))
                                         : defaultFolder();
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) return path;
  if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), error);
  // Only the user may look inside: it holds state about their orgs.
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    throw FileError(FileError::Kind::createFolder, path, errno);
  }
  return path;
}

}  // namespace AppSupport

namespace Settings {

nlohmann::json load() {
  std::lock_guard lock(settingsMutex);
  return loadLocked();
}

void save(const nlohmann::json& settings) {
  std::lock_guard lock(settingsMutex);
  saveLocked(settings);
}

std::optional<std::string> string(const std::string& key) {
  const nlohmann::json settings = load();
  const auto found = settings.find(key);
  if (found == settings.end() || !found->is_string()) return std::nullopt;
  return found->get<std::string>();
}

std::optional<int> integer(const std::string& key) {
  const nlohmann::json settings = load();
  const auto found = settings.find(key);
  if (found == settings.end()) return std::nullopt;
  if (found->is_number_integer() && !found->is_number_unsigned()) {
    const auto value = found->get<std::int64_t>();
    if (value < std::numeric_limits<int>::min() || value > std::numeric_limits<int>::max()) {
      return std::nullopt;
    }
    return static_cast<int>(value);
  }
  if (found->is_number_unsigned() &&
      found->get<std::uint64_t>() <= static_cast<std::uint64_t>(std::numeric_limits<int>::max())) {
    return static_cast<int>(found->get<std::uint64_t>());
  }
  return std::nullopt;
}

void set(const std::string& key, const nlohmann::json& value) {
  std::lock_guard lock(settingsMutex);
  nlohmann::json settings = loadLocked();
  settings[key] = value;
  saveLocked(settings);
}

}  // namespace Settings

}  // namespace corvane
