#include "connections/api_allowance.hpp"

#include <cmath>
#include <limits>

#include <nlohmann/json.hpp>

#include "connections/server_time.hpp"

namespace corvane {

AllowanceError::AllowanceError(const std::string& reason)
    : std::runtime_error("Salesforce's reply about the org's limits could not be read: " + reason) {
}

ApiAllowance ApiAllowance::ready(DedupeTransport& transport) {
  auto [body, headers] = transport.getRaw("/limits", {}, "application/json");
  auto json = nlohmann::json::parse(body, nullptr, false);
  if (json.is_discarded() || !json.is_object()) throw AllowanceError("it is not a JSON object.");
  auto daily = json.find("DailyApiRequests");
  if (daily == json.end() || !daily->is_object()) {
    throw AllowanceError("it has no DailyApiRequests entry.");
  }
  auto max = daily->find("Max");
  auto remaining = daily->find("Remaining");
  if (max == daily->end() || remaining == daily->end() || !max->is_number_integer() ||
      !remaining->is_number_integer()) {
    throw AllowanceError("DailyApiRequests lacks a whole Max or Remaining.");
  }
  ApiAllowance allowance;
  allowance.max = max->get<std::int64_t>();
  allowance.remaining = remaining->get<std::int64_t>();
  for (const auto& [name, value] : headers) {
    if (name.size() == 4 && (name[0] == 'D' || name[0] == 'd') &&
        (name.substr(1) == "ate" || name.substr(1) == "ATE")) {
      allowance.serverDate = ServerTime::parseHTTPDate(value);
    }
  }
  return allowance;
}

bool ApiAllowance::isBelow(double fraction) const {
  if (max < 1) return false;
  return static_cast<double>(remaining) < fraction * static_cast<double>(max);
}

std::int64_t ApiAllowance::headroom(double below) const {
  if (max < 1) return std::numeric_limits<std::int64_t>::max();
  double room = std::floor(static_cast<double>(remaining) - below * static_cast<double>(max));
  return room < 0 ? 0 : static_cast<std::int64_t>(room);
}

}  // namespace corvane
