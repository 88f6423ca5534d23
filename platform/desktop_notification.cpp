#include "platform/desktop_notification.hpp"

#include <cstdlib>
#include <filesystem>
#include <mutex>

#ifdef CORVANE_HAVE_LIBNOTIFY
#include <libnotify/notify.h>
#endif

namespace corvane::DesktopNotification {

bool sessionBusAvailable() {
  if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address)
    return true;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime == nullptr || *runtime != '/') return false;
  std::error_code error;
  return std::filesystem::exists(std::filesystem::path(runtime) / "bus", error);
}

bool post(const std::string& title, const std::string& body) {
#ifdef CORVANE_HAVE_LIBNOTIFY
  // Without a bus, libnotify would try to start one (autolaunch): not here.
  if (!sessionBusAvailable()) return false;
  static std::mutex mutex;  // guards libnotify's process-wide state
  std::lock_guard lock(mutex);
  if (!notify_is_initted() && !notify_init("Corvane")) return false;
  NotifyNotification* notification = notify_notification_new(title.c_str(), body.c_str(), nullptr);
  if (notification == nullptr) return false;
  notify_notification_set_timeout(notification, NOTIFY_EXPIRES_DEFAULT);
  GError* error = nullptr;
  const bool shown = notify_notification_show(notification, &error) != FALSE;
  if (error != nullptr) g_error_free(error);
  g_object_unref(G_OBJECT(notification));
  return shown;
#else
  (void)title;
  (void)body;
  return false;
#endif
}

}  // namespace corvane::DesktopNotification
