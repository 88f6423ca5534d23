// One notification on the user's desktop, through the freedesktop notification
// service (libnotify on the session bus).
//
// The headless tick runs without a window and often without a session bus
// (a timer started before login, a server): then nothing is shown and post()
// says so, and the caller keeps the notice for the program to show later.
// Never blocks for long and never starts a bus of its own.
#pragma once

#include <string>

namespace corvane::DesktopNotification {

// Whether a session bus is there to ask: DBUS_SESSION_BUS_ADDRESS is set, or
// $XDG_RUNTIME_DIR/bus exists.
bool sessionBusAvailable();

// Shows title and body; false when there is no session bus, no notification
// service, or the program was built without libnotify.
bool post(const std::string& title, const std::string& body);

}  // namespace corvane::DesktopNotification
