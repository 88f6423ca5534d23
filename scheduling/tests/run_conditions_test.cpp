#include "scheduling/run_conditions.hpp"

#include <gtest/gtest.h>

#include "platform/durable_file.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

void write(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  Durable::writeWhole(path, text);
}

TEST(RunConditions, LinuxPowerSupplies) {
  TemporaryFolder root;
  const auto supplies = root.path() / "sys/class/power_supply";
  // No supplies at all: a desktop or a server, on mains.
  EXPECT_FALSE(ConditionsReader::readLinux(root.path()).onBattery);

  write(supplies / "BAT0/type", "Battery\n");
  write(supplies / "BAT0/status", "Discharging\n");
  write(supplies / "AC/type", "Mains\n");
  write(supplies / "AC/online", "0\n");
  EXPECT_TRUE(ConditionsReader::readLinux(root.path()).onBattery);

  write(supplies / "AC/online", "1\n");
  EXPECT_FALSE(ConditionsReader::readLinux(root.path()).onBattery);
  write(supplies / "AC/online", "0\n");
  write(supplies / "BAT0/status", "Charging\n");
  EXPECT_FALSE(ConditionsReader::readLinux(root.path()).onBattery);
  write(supplies / "BAT0/status", "Discharging\n");
  write(supplies / "BAT0/present", "0\n");
  EXPECT_FALSE(ConditionsReader::readLinux(root.path()).onBattery);
}

// The batteries of a wireless mouse or headset are listed too, with scope
// "Device"; only a battery that powers the system counts.
TEST(RunConditions, LinuxDeviceBatteriesNeverMeanBattery) {
  {
    SCOPED_TRACE("a desktop with a mouse battery");
    TemporaryFolder root;
    const auto supplies = root.path() / "sys/class/power_supply";
    write(supplies / "hidpp_battery_0/type", "Battery\n");
    write(supplies / "hidpp_battery_0/scope", "Device\n");
    write(supplies / "hidpp_battery_0/status", "Discharging\n");
    write(supplies / "hidpp_battery_0/present", "1\n");
    EXPECT_FALSE(ConditionsReader::readLinux(root.path()).onBattery);
  }
  {
    SCOPED_TRACE("a laptop on battery, with a headset");
    TemporaryFolder root;
    const auto supplies = root.path() / "sys/class/power_supply";
    write(supplies / "BAT0/type", "Battery\n");
    write(supplies / "BAT0/scope", "System\n");
    write(supplies / "BAT0/status", "Discharging\n");
    write(supplies / "AC/type", "Mains\n");
    write(supplies / "AC/online", "0\n");
    write(supplies / "headset/type", "Battery\n");
    write(supplies / "headset/scope", "Device\n");
    write(supplies / "headset/status", "Charging\n");
    EXPECT_TRUE(ConditionsReader::readLinux(root.path()).onBattery);
    SCOPED_TRACE("the same laptop charging");
    write(supplies / "AC/online", "1\n");
    write(supplies / "BAT0/status", "Charging\n");
    EXPECT_FALSE(ConditionsReader::readLinux(root.path()).onBattery);
    SCOPED_TRACE("on a USB-C charger");
    write(supplies / "AC/online", "0\n");
    write(supplies / "ucsi-source-psy-USBC000:001/type", "USB\n");
    write(supplies / "ucsi-source-psy-USBC000:001/online", "1\n");
    write(supplies / "BAT0/status", "Not charging\n");
    EXPECT_FALSE(ConditionsReader::readLinux(root.path()).onBattery);
  }
}

TEST(RunConditions, LinuxNetworkIsADefaultRouteOffLoopback) {
  TemporaryFolder root;
  const auto routes = root.path() / "proc/net/route";
  const std::string header =
      "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";
  write(routes, header + "eth0\t0011A8C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n");
  EXPECT_FALSE(ConditionsReader::readLinux(root.path()).networkAvailable);
  write(routes, header + "lo\t00000000\t00000000\t0001\t0\t0\t0\t00000000\t0\t0\t0\n");
  EXPECT_FALSE(ConditionsReader::readLinux(root.path()).networkAvailable);
  write(routes, header + "wlan0\t00000000\t0101A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n");
  EXPECT_TRUE(ConditionsReader::readLinux(root.path()).networkAvailable);

  write(routes, header);
  write(root.path() / "proc/net/ipv6_route",
        "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
        "fe800000000000000000000000000001 00000400 00000001 00000000 00000003     eth0\n");
  EXPECT_TRUE(ConditionsReader::readLinux(root.path()).networkAvailable);
}

TEST(RunConditions, MacPowerSourceText) {
  EXPECT_EQ(ConditionsReader::onBatteryFromPowerSourceText(
                "Now drawing from 'Battery Power'\n -InternalBattery-0 (id=1)\t85%; discharging"),
            true);
  EXPECT_EQ(ConditionsReader::onBatteryFromPowerSourceText("Now drawing from 'AC Power'\n"), false);
  EXPECT_EQ(ConditionsReader::onBatteryFromPowerSourceText(""), std::nullopt);
}

}  // namespace
}  // namespace corvane
