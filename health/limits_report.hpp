// The org's limits as an admin reads them: what is used of each, sorted by
// the share used, with those past the warning line called out.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace corvane {

struct LimitUsage {
  std::string name;
  std::int64_t used = 0;
  std::int64_t maximum = 0;
  double share = 0;  // used / maximum, 0 when the maximum is 0
  bool overWarning = false;

  bool operator==(const LimitUsage&) const = default;
};

namespace LimitsReport {

// A limit is called out once more than this share of it is used.
inline constexpr double kWarningShare = 0.8;

// Reads the CLI's `org list limits` result (a list of {"name", "max",
// "remaining"}) or the REST limits resource (an object of {"Max", "Remaining"}
// by name). Entries without a usable maximum or remainder are left out; a
// remainder above the maximum counts as nothing used. Sorted by share used,
// highest first, then by name.
std::vector<LimitUsage> read(const nlohmann::json& limits);

// A fixed-width table: name, used, maximum, share, and "over 80%" where called out.
std::string table(const std::vector<LimitUsage>& usages);
// One CSV row per limit, with a header row; names quoted where needed.
std::string csv(const std::vector<LimitUsage>& usages);
nlohmann::json toJSON(const std::vector<LimitUsage>& usages);

}  // namespace LimitsReport

}  // namespace corvane
