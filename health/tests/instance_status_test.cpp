#include "health/instance_status.hpp"

#include <gtest/gtest.h>

namespace corvane {
namespace {

TEST(InstanceStatus, ParsesIncidentsAndMaintenances) {
  auto reply = nlohmann::json::parse(R"({
    "key": "EU46", "location": "EMEA", "environment": "production",
    "releaseVersion": "Winter '25 Patch 12", "status": "MINOR_INCIDENT_CORE",
    "Incidents": [{"id": 12345, "createdAt": "2024-01-05T09:00:00.000Z",
      "IncidentImpacts": [{"type": "performanceDegradation", "severity": "minor",
                           "startTime": "2024-01-05T08:55:00.000Z", "endTime": null}],
      "IncidentEvents": [
        {"message": "We are investigating.", "createdAt": "2024-01-05T09:00:00.000Z"},
        {"message": "A fix is being deployed.", "createdAt": "2024-01-05T10:00:00.000Z"}]}],
    "Maintenances": [{"id": 678, "name": "EU46 Maintenance",
      "message": {"name": "EU46 Release", "eventStatus": "confirmed", "availability": "available"},
      "plannedStartTime": "2024-01-10T02:00:00.000Z", "plannedEndTime": "2024-01-10T06:00:00.000Z"}]
  })");
  auto status = StatusService::parse(reply);
  ASSERT_TRUE(status);
  EXPECT_EQ(status->key, "EU46");
  ASSERT_EQ(status->incidents.size(), 1u);
  EXPECT_EQ(status->incidents[0],
            (StatusEvent{"incident", "12345", "A fix is being deployed.",
                         "minor performanceDegradation", "2024-01-05T08:55:00.000Z", ""}));
  ASSERT_EQ(status->maintenances.size(), 1u);
  EXPECT_EQ(status->maintenances[0],
            (StatusEvent{"maintenance", "678", "EU46 Release", "confirmed, available",
                         "2024-01-10T02:00:00.000Z", "2024-01-10T06:00:00.000Z"}));
  const std::string table = StatusService::table(*status);
  EXPECT_NE(table.find("open"), std::string::npos) << table;

  EXPECT_FALSE(StatusService::parse(nlohmann::json::parse(R"({"status":"OK"})")));
  EXPECT_FALSE(StatusService::parse(nlohmann::json::array()));
}

}  // namespace
}  // namespace corvane
