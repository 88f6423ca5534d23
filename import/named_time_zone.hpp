// A time zone by its name in the system's zone database ("Europe/Berlin"),
// for the date-times of a sheet written without an offset: the offset in
// force differs between winter and summer, so it is looked up for each
// wall-clock time.
//
// The standard library here has no zone database of its own, so the C
// library answers (TZ, tzset, mktime). Those work on the whole process, so
// every lookup holds one lock across the process, sets TZ, asks, and puts TZ
// back; answers are remembered per quarter hour of wall-clock time, which
// keeps a sheet of a hundred thousand date-times quick. Thread-safe.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/user_facing_error.hpp"

namespace corvane {

// The name is not a zone of the system's zone database.
class TimeZoneError : public UserFacingError {
 public:
  explicit TimeZoneError(const std::string& name);
  const std::string& name() const { return name_; }

 private:
  std::string name_;
};

class NamedTimeZone {
 public:
  // Throws TimeZoneError for a name the zone database does not hold.
  static std::shared_ptr<const NamedTimeZone> named(const std::string& name);
  // Whether the zone database holds this name ("Europe/Berlin", "UTC").
  static bool known(std::string_view name);

  const std::string& name() const { return name_; }

  // Minutes east of UTC in force at a wall-clock time of this zone, given as
  // seconds since 1970-01-01 00:00 read as if it were UTC. A time that a
  // change to summer time skips, or that happens twice when it ends, takes
  // the offset the C library chooses (the one in force just before).
  int offsetMinutes(long long wallSeconds) const;

  explicit NamedTimeZone(std::string name) : name_(std::move(name)) {}

 private:
  std::string name_;
  mutable std::mutex mutex_;                          // guards cache_
  mutable std::unordered_map<long long, int> cache_;  // quarter hour of wall time -> offset
};

}  // namespace corvane
