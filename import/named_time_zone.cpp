#include "import/named_time_zone.hpp"

#include <fmt/format.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>

namespace corvane {

namespace {

// Every change of the process's TZ goes through this lock.
std::mutex& processZoneMutex() {
  static std::mutex mutex;
  return mutex;
}

std::filesystem::path zoneFolder() {
  const char* folder = std::getenv("TZDIR");
  return folder != nullptr && *folder != '\0' ? std::filesystem::path(folder)
                                              : std::filesystem::path("/usr/share/zoneinfo");
}

}  // namespace

TimeZoneError::TimeZoneError(const std::string& name)
    : UserFacingError(fmt::format(
          "\u201c{}\u201d is not a time zone this computer knows. Name one such as Europe/Berlin "
          "or America/New_York, or give an offset such as +01:00.",
          name)),
      name_(name) {}

bool NamedTimeZone::known(std::string_view name) {
  if (name.empty() || name.front() == '/' || name.find("..") != std::string_view::npos ||
      name.find('\0') != std::string_view::npos) {
    return false;
  }
  std::error_code error;
  return std::filesystem::is_regular_file(zoneFolder() / std::string(name), error);
}

std::shared_ptr<const NamedTimeZone> NamedTimeZone::named(const std::string& name) {
  if (!known(name)) throw TimeZoneError(name);
  return std::make_shared<const NamedTimeZone>(name);
}

int NamedTimeZone::offsetMinutes(long long wallSeconds) const {
  long long quarter = wallSeconds >= 0 ? wallSeconds / 900 : (wallSeconds - 899) / 900;
  {
    std::lock_guard guard(mutex_);
    auto found = cache_.find(quarter);
    if (found != cache_.end()) return found->second;
  }
  std::time_t wall = static_cast<std::time_t>(quarter * 900);
  std::tm fields{};
  gmtime_r(&wall, &fields);
  fields.tm_isdst = -1;
  int offset = 0;
  {
    std::lock_guard zoneGuard(processZoneMutex());
    const char* previous = std::getenv("TZ");
    std::optional<std::string> saved =
        previous ? std::optional<std::string>(previous) : std::nullopt;
    ::setenv("TZ", name_.c_str(), 1);
    ::tzset();
    std::time_t utc = std::mktime(&fields);
    if (saved) {
      ::setenv("TZ", saved->c_str(), 1);
    } else {
      ::unsetenv("TZ");
    }
    ::tzset();
    if (utc != static_cast<std::time_t>(-1)) offset = static_cast<int>((wall - utc) / 60);
  }
  std::lock_guard guard(mutex_);
  cache_.emplace(quarter, offset);
  return offset;
}

}  // namespace corvane
