// The setup audit trail: the filter a user gives, the SOQL condition built
// from it, and the entries read back.
//
// The condition is the only place user text meets SOQL. Every value goes in as
// an escaped string literal and every date as a date-time literal, so no value
// can end its literal and add conditions of its own.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/iso_time.hpp"

namespace corvane {

struct AuditFilter {
  std::optional<SystemTime> since;     // CreatedDate at or after
  std::optional<std::string> user;     // part of CreatedBy.Name
  std::optional<std::string> section;  // part of Section
};

struct AuditEntry {
  std::string createdDate;  // as Salesforce gave it
  std::string user;         // CreatedBy.Name; empty for changes made by Salesforce itself
  std::string section;
  std::string action;
  std::string display;

  bool operator==(const AuditEntry&) const = default;
};

namespace AuditTrail {

// A SOQL string literal, quotes included: backslash, both quotes and control
// characters escaped. With `forLike`, % and _ are escaped too, so that they
// match themselves.
std::string literal(std::string_view value, bool forLike = false);

// "2024-01-05" (midnight UTC) or an ISO 8601 time ("2024-01-05T10:00:00Z", also
// with fractional seconds or an offset). Throws HealthError::badDate otherwise.
SystemTime parseSince(std::string_view text);

// The WHERE condition for the filter, without "WHERE"; none when the filter is
// empty. Text filters match any part of the value, without regard to case.
std::optional<std::string> predicate(const AuditFilter& filter);

// The query's records, in the order given (the query sorts newest first).
std::vector<AuditEntry> entries(const nlohmann::json& records);

std::string table(const std::vector<AuditEntry>& entries);
std::string csv(const std::vector<AuditEntry>& entries);
nlohmann::json toJSON(const std::vector<AuditEntry>& entries);

}  // namespace AuditTrail

}  // namespace corvane
