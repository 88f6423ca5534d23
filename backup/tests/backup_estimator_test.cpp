#include "backup/backup_estimator.hpp"

#include <gtest/gtest.h>

namespace corvane {
namespace {

using BackupEstimator::Verdict;

TEST(BackupEstimator, ARowCostsEightBytesAFieldPlusForty) {
  EXPECT_EQ(BackupEstimator::bytesPerRow(0), 48);
  EXPECT_EQ(BackupEstimator::bytesPerRow(1), 48);
  EXPECT_EQ(BackupEstimator::bytesPerRow(10), 120);
}

TEST(BackupEstimator, BoundsIgnoreNegativeCounts) {
  auto estimate = BackupEstimator::estimate({{100, 10}, {-5, 3}, {10, 0}}, -7, 1'000'000, 0);
  EXPECT_EQ(estimate.recordBytes, 100 * 120 + 10 * 48);
  EXPECT_EQ(estimate.fileBytes, 0);
  EXPECT_EQ(estimate.low, estimate.recordBytes / 2);
  EXPECT_EQ(estimate.expected, estimate.recordBytes);
  EXPECT_EQ(estimate.high, 2 * estimate.recordBytes);
}

TEST(BackupEstimator, VerdictBoundariesCountTheFloor) {
  // 1000 rows of one field: 48,000 bytes of records, plus 2,000 of files.
  const std::vector<BackupEstimator::ObjectSize> rows{{1000, 1}};
  const std::int64_t floor = 500;
  const std::int64_t expected = 50'000;
  const std::int64_t high = 98'000;
  auto verdictAt = [&](std::int64_t free) {
    return BackupEstimator::estimate(rows, 2000, free, floor).verdict;
  };
  EXPECT_EQ(verdictAt(expected + floor - 1), Verdict::willNotFit);
  EXPECT_EQ(verdictAt(expected + floor), Verdict::tight);
  EXPECT_EQ(verdictAt(high + floor - 1), Verdict::tight);
  EXPECT_EQ(verdictAt(high + floor), Verdict::fits);
}

TEST(BackupEstimator, ReadsTheSumOfAnAggregateAnswer) {
  EXPECT_EQ(BackupEstimator::sumValue(R"({"records":[{"attributes":{},"expr0":123456789012}]})"),
            123456789012);
  EXPECT_EQ(BackupEstimator::sumValue(R"({"records":[{"expr0":1.5E3}]})"), 1500);
  EXPECT_EQ(BackupEstimator::sumValue(R"({"records":[{"expr0":null}]})"), 0);
  EXPECT_EQ(BackupEstimator::sumValue(R"({"records":[]})"), 0);
  EXPECT_FALSE(BackupEstimator::sumValue(R"({"records":[{"expr0":"x"}]})"));
  EXPECT_FALSE(BackupEstimator::sumValue("not json"));
}

}  // namespace
}  // namespace corvane
