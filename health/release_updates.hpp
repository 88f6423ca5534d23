// The org's release updates and their due dates, from the Tooling API's
// ReleaseUpdate object (API 50.0 and later).
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace corvane {

struct ReleaseUpdate {
  std::string developerName;
  std::string category;     // "Security", "Usability", ...
  std::string dueDate;      // "2025-01-15"; empty when Salesforce gives none
  std::string description;  // the text on its card
  int stepsDone = 0;
  int stepsRequired = 0;
  bool isReleased = false;

  bool operator==(const ReleaseUpdate&) const = default;
};

namespace ReleaseUpdates {

// The Tooling API query that lists them.
inline constexpr const char* kQuery =
    "SELECT DeveloperName, Category, DueDate, Description, NumCompSteps, NumReqSteps, "
    "IsReleased FROM ReleaseUpdate";

// The records read, with a due date first (earliest first), then those without one.
std::vector<ReleaseUpdate> read(const std::vector<nlohmann::json>& records);

std::string table(const std::vector<ReleaseUpdate>& updates);
nlohmann::json toJSON(const std::vector<ReleaseUpdate>& updates);

}  // namespace ReleaseUpdates

}  // namespace corvane
