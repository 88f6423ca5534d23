#include "scheduling/run_conditions.hpp"

#include <fstream>
#include <sstream>
#include <string>

#include "platform/child_process.hpp"

namespace corvane::ConditionsReader {

namespace {

std::string firstLine(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r' || line.back() == ' '))
    line.pop_back();
  return line;
}

bool onBatteryLinux(const std::filesystem::path& supplies) {
  std::error_code error;
  bool battery = false;
  bool mains = false;
  for (const auto& entry : std::filesystem::directory_iterator(supplies, error)) {
    const std::string type = firstLine(entry.path() / "type");
    if (type == "Mains" || type == "USB") {
      if (firstLine(entry.path() / "online") == "1") mains = true;
    } else if (type == "Battery") {
      // A wireless mouse or headset lists its battery with scope "Device"; only
      // a battery that powers the system counts, and one that is not there at
      // all (an empty bay) does not.
      if (firstLine(entry.path() / "scope") == "Device") continue;
      if (firstLine(entry.path() / "present") == "0") continue;
      battery = true;
      if (firstLine(entry.path() / "status") == "Charging") mains = true;
    }
  }
  return battery && !mains;
}

// /proc/net/route: "Iface Destination Gateway ..." with hexadecimal
// destinations; the default route has destination 00000000.
bool defaultRouteV4(const std::filesystem::path& table) {
  std::ifstream in(table);
  std::string line;
  std::getline(in, line);  // header
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string interface, destination;
    fields >> interface >> destination;
    if (destination == "00000000" && interface != "lo") return true;
  }
  return false;
}

// /proc/net/ipv6_route: destination (32 hex), prefix length, ..., interface last.
bool defaultRouteV6(const std::filesystem::path& table) {
  std::ifstream in(table);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string destination, prefix, word, interface;
    fields >> destination >> prefix;
    while (fields >> word) interface = word;
    if (destination == std::string(32, '0') && prefix == "00" && interface != "lo") return true;
  }
  return false;
}

}  // namespace

RunConditions readLinux(const std::filesystem::path& root) {
  RunConditions conditions;
  conditions.onBattery = onBatteryLinux(root / "sys/class/power_supply");
  const auto routes = root / "proc/net/route";
  std::error_code error;
  if (std::filesystem::exists(routes, error)) {
    conditions.networkAvailable =
        defaultRouteV4(routes) || defaultRouteV6(root / "proc/net/ipv6_route");
  }
  return conditions;
}

std::optional<bool> onBatteryFromPowerSourceText(std::string_view text) {
  if (text.find("'Battery Power'") != std::string_view::npos ||
      text.find("Battery Power") != std::string_view::npos)
    return true;
  if (text.find("AC Power") != std::string_view::npos) return false;
  return std::nullopt;
}

RunConditions read() {
#ifdef __APPLE__
  RunConditions conditions;
  auto ask = [](const char* executable, std::vector<std::string> arguments) -> ProcessResult {
    ProcessRequest request;
    request.executable = executable;
    request.arguments = std::move(arguments);
    request.environment = ChildProcess::currentEnvironment();
    request.timeout = std::chrono::seconds(5);
    return ChildProcess::run(request);
  };
  try {
    const auto power = ask("/usr/bin/pmset", {"-g", "batt"});
    conditions.onBattery = onBatteryFromPowerSourceText(power.standardOutput).value_or(false);
  } catch (const std::exception&) {
  }
  try {
    conditions.networkAvailable = ask("/sbin/route", {"-n", "get", "default"}).exitStatus == 0;
  } catch (const std::exception&) {
  }
  return conditions;
#else
  return readLinux("/");
#endif
}

}  // namespace corvane::ConditionsReader
