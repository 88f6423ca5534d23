#include "health/limits_report.hpp"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "health/text_table.hpp"

namespace corvane::LimitsReport {

namespace {

using nlohmann::json;

std::optional<std::int64_t> integer(const json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end()) return std::nullopt;
  if (it->is_number_integer()) return it->get<std::int64_t>();
  if (it->is_number_float()) {
    double value = it->get<double>();
    // Beyond ±2^62 the conversion would be undefined; no limit is that large.
    if (std::isfinite(value) && std::fabs(value) < 4.6e18) return static_cast<std::int64_t>(value);
  }
  return std::nullopt;
}

std::optional<LimitUsage> usage(std::string name, std::optional<std::int64_t> maximum,
                                std::optional<std::int64_t> remaining) {
  if (name.empty() || !maximum || !remaining || *maximum < 0) return std::nullopt;
  LimitUsage usage;
  usage.name = std::move(name);
  usage.maximum = *maximum;
  // Clamp the remainder first, so that no subtraction can overflow.
  usage.used = *maximum - std::clamp<std::int64_t>(*remaining, 0, *maximum);
  usage.share = usage.maximum > 0
                    ? static_cast<double>(usage.used) / static_cast<double>(usage.maximum)
                    : 0.0;
  usage.overWarning = usage.share > kWarningShare;
  return usage;
}

std::string percent(double share) { return fmt::format("{:.1f}%", share * 100.0); }

}  // namespace

std::vector<LimitUsage> read(const json& limits) {
  std::vector<LimitUsage> usages;
  if (limits.is_array()) {
    for (const auto& item : limits) {
      if (!item.is_object()) continue;
      auto name = item.find("name");
      if (name == item.end() || !name->is_string()) continue;
      if (auto u =
              usage(name->get<std::string>(), integer(item, "max"), integer(item, "remaining"))) {
        usages.push_back(std::move(*u));
      }
    }
  } else if (limits.is_object()) {
    for (const auto& [name, item] : limits.items()) {
      if (!item.is_object()) continue;
      if (auto u = usage(name, integer(item, "Max"), integer(item, "Remaining"))) {
        usages.push_back(std::move(*u));
      }
    }
  }
  std::stable_sort(usages.begin(), usages.end(), [](const LimitUsage& a, const LimitUsage& b) {
    if (a.share != b.share) return a.share > b.share;
    return a.name < b.name;
  });
  return usages;
}

std::string table(const std::vector<LimitUsage>& usages) {
  std::vector<std::vector<std::string>> rows;
  std::size_t over = 0;
  for (const auto& u : usages) {
    rows.push_back({u.name, std::to_string(u.used), std::to_string(u.maximum), percent(u.share),
                    u.overWarning ? "over 80%" : ""});
    if (u.overWarning) ++over;
  }
  std::string out = TextTable::render({"Limit", "Used", "Maximum", "Share", ""}, rows);
  if (over == 0) {
    out += "No limit is more than 80% used.\n";
  } else {
    out += fmt::format("{} {} more than 80% used.\n", over, over == 1 ? "limit is" : "limits are");
  }
  return out;
}

std::string csv(const std::vector<LimitUsage>& usages) {
  std::string out = TextTable::csvRow({"name", "used", "max", "share", "over_80_percent"});
  for (const auto& u : usages) {
    out += TextTable::csvRow({u.name, std::to_string(u.used), std::to_string(u.maximum),
                              fmt::format("{:.4f}", u.share), u.overWarning ? "true" : "false"});
  }
  return out;
}

json toJSON(const std::vector<LimitUsage>& usages) {
  json list = json::array();
  for (const auto& u : usages) {
    list.push_back({{"name", u.name},
                    {"used", u.used},
                    {"max", u.maximum},
                    {"share", std::round(u.share * 10000.0) / 10000.0},
                    {"overWarning", u.overWarning}});
  }
  return list;
}

}  // namespace corvane::LimitsReport
