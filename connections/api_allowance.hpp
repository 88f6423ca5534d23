// The org's daily allowance of API requests, and the org's clock when it was read.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "connections/dedupe_transport.hpp"
#include "platform/iso_time.hpp"

namespace corvane {

// The limits resource could not be read; what() names "the org's limits".
class AllowanceError : public std::runtime_error {
 public:
  explicit AllowanceError(const std::string& reason);
};

struct ApiAllowance {
  std::int64_t max = 0;
  std::int64_t remaining = 0;
  std::optional<SystemTime> serverDate;

  // Reads "/limits" (DailyApiRequests Max and Remaining) and the reply's Date
  // header. Throws AllowanceError when the reply cannot be read, and passes the
  // transport's own failures on.
  static ApiAllowance ready(DedupeTransport& transport);

  // False when no allowance is known (max below 1); otherwise whether what
  // remains is less than fraction of max.
  bool isBelow(double fraction) const;
  // How many requests may still be spent before what remains falls under
  // fraction of max; never negative, and the largest integer when max is unknown.
  std::int64_t headroom(double below) const;

  bool operator==(const ApiAllowance&) const = default;
};

}  // namespace corvane
