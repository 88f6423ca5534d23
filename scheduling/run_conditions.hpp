// The machine's state at tick time, as BackupSchedule::decide needs it: on
// battery or on mains, and whether a network path out exists.
//
// Linux reads /sys/class/power_supply (a "Mains" or "USB" supply online means
// mains; otherwise a "Battery" supply whose scope is not "Device" means
// battery: a wireless mouse's battery never makes a desktop "on battery") and the routing tables
// /proc/net/route and /proc/net/ipv6_route (a default route through any
// interface but loopback means a usable path). macOS reads the power-source
// line of "pmset -g batt" ("AC Power" is mains, "Battery Power" battery) and
// asks "route -n get default" for a path.
// A machine with no power supplies listed (a desktop, a server, a container)
// counts as on mains.
#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

namespace corvane {

struct RunConditions {
  bool onBattery = false;
  bool networkAvailable = true;
  bool operator==(const RunConditions&) const = default;
};

namespace ConditionsReader {

// The conditions of this machine now. Never throws: what cannot be read counts
// as mains power and a network that is there (the run itself then reports a
// network it cannot reach).
RunConditions read();

// Linux, from a root that holds sys/class/power_supply and proc/net (the real
// one is "/"; tests pass their own).
RunConditions readLinux(const std::filesystem::path& root);

// The source named in "pmset -g batt" output: true for battery, false for
// mains, none when neither text is there.
std::optional<bool> onBatteryFromPowerSourceText(std::string_view text);

}  // namespace ConditionsReader

}  // namespace corvane
