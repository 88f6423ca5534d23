#include "health/limits_report.hpp"

#include <gtest/gtest.h>

namespace corvane {
namespace {

using nlohmann::json;

TEST(LimitsReport, SortsByShareUsedAndCallsOutThoseOverEightyPercent) {
  auto usages = LimitsReport::read(json::parse(R"([
    {"name": "DailyApiRequests", "max": 15000, "remaining": 14999},
    {"name": "DataStorageMB", "max": 5, "remaining": 0},
    {"name": "FileStorageMB", "max": 20, "remaining": 4},
    {"name": "HourlyODataCallout", "max": 10000, "remaining": 1999},
    {"name": "Unused", "max": 0, "remaining": 0},
    {"name": "Broken", "max": "many", "remaining": 3},
    {"max": 3, "remaining": 3}
  ])"));
  ASSERT_EQ(usages.size(), 5u);
  EXPECT_EQ(usages[0], (LimitUsage{"DataStorageMB", 5, 5, 1.0, true}));
  EXPECT_EQ(usages[1].name, "HourlyODataCallout");
  EXPECT_TRUE(usages[1].overWarning);  // 80.01% used
  EXPECT_EQ(usages[2].name, "FileStorageMB");
  EXPECT_FALSE(usages[2].overWarning);  // exactly 80% is not over
  EXPECT_EQ(usages[3].name, "DailyApiRequests");
  EXPECT_EQ(usages[3].used, 1);
  EXPECT_EQ(usages[4].name, "Unused");
  EXPECT_EQ(usages[4].share, 0.0);

  const std::string table = LimitsReport::table(usages);
  EXPECT_NE(table.find("2 limits are more than 80% used."), std::string::npos) << table;
  EXPECT_NE(table.find("100.0%"), std::string::npos) << table;
}

TEST(LimitsReport, ReadsTheRESTResourceAndClampsAnOverfullRemainder) {
  auto usages = LimitsReport::read(json::parse(R"({
    "DailyApiRequests": {"Max": 100, "Remaining": 250},
    "DailyBulkApiBatches": {"Max": 10, "Remaining": -5}
  })"));
  ASSERT_EQ(usages.size(), 2u);
  EXPECT_EQ(usages[0], (LimitUsage{"DailyBulkApiBatches", 10, 10, 1.0, true}));
  EXPECT_EQ(usages[1], (LimitUsage{"DailyApiRequests", 0, 100, 0.0, false}));
  EXPECT_TRUE(LimitsReport::read(json("text")).empty());
}

TEST(LimitsReport, CSVAndJSONCarryTheSameFigures) {
  auto usages = LimitsReport::read(json::parse(R"([{"name": "A,B", "max": 4, "remaining": 1}])"));
  EXPECT_EQ(LimitsReport::csv(usages),
            "name,used,max,share,over_80_percent\r\n\"A,B\",3,4,0.7500,false\r\n");
  EXPECT_EQ(LimitsReport::toJSON(usages).dump(),
            R"([{"max":4,"name":"A,B","overWarning":false,"share":0.75,"used":3}])");
}

}  // namespace
}  // namespace corvane
