#include "scheduling/backup_schedule_setup.hpp"

#include <random>

#include "platform/app_support.hpp"

#ifdef __APPLE__
#include <mach-o/dyld.h>
#endif

namespace corvane::BackupScheduleSetup {

Defaults Defaults::settings() {
  Defaults defaults;
  defaults.tickMinute = [] { return Settings::integer("backupTickMinute"); };
  defaults.setTickMinute = [](int minute) { Settings::set("backupTickMinute", minute); };
  defaults.randomMinute = [] {
    std::random_device device;
    return std::uniform_int_distribution<int>(1, 59)(device);
  };
  return defaults;
}

int tickMinute(const Defaults& defaults) {
  if (const auto stored = defaults.tickMinute(); stored && *stored >= 1 && *stored <= 59)
    return *stored;
  const int minute = defaults.randomMinute();
  defaults.setTickMinute(minute);
  return minute;
}

Result reconcileAtLaunch(const BackupRegistry& registry, BackupScheduler& scheduler,
                         const Defaults& defaults, bool isDemo,
                         const std::filesystem::path& executablePath) {
  Result result;
  const auto wish = registry.scheduleWish();
  if (wish == ScheduleWish::unknown) {
    result.kind = Result::Kind::setsUnreadable;
    result.message = registry.unreadableMessage();
    return result;
  }
  result.minute = tickMinute(defaults);
  if (isDemo) return result;
  switch (scheduler.reconcile(wish == ScheduleWish::scheduled, executablePath, result.minute)) {
    case BackupScheduler::Outcome::unchanged:
      result.kind = Result::Kind::unchanged;
      break;
    case BackupScheduler::Outcome::installed:
      result.kind = Result::Kind::installed;
      break;
    case BackupScheduler::Outcome::removed:
      result.kind = Result::Kind::removed;
      break;
  }
  return result;
}

std::filesystem::path currentExecutablePath() {
  std::error_code error;
#ifdef __APPLE__
  uint32_t size = 0;
  _NSGetExecutablePath(nullptr, &size);
  std::string buffer(size, '\0');
  if (_NSGetExecutablePath(buffer.data(), &size) != 0) return {};
  buffer.resize(std::strlen(buffer.c_str()));
  auto path = std::filesystem::canonical(buffer, error);
#else
  auto path = std::filesystem::read_symlink("/proc/self/exe", error);
#endif
  if (error) return {};
  return path;
}

}  // namespace corvane::BackupScheduleSetup
