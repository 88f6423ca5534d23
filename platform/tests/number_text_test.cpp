#include <gtest/gtest.h>

#include <limits>

#include "platform/number_text.hpp"

namespace corvane {
namespace {

TEST(NumberText, MarksEveryThousandOnBothSidesOfZero) {
  EXPECT_EQ(NumberText::grouped(0), "0");
  EXPECT_EQ(NumberText::grouped(999), "999");
  EXPECT_EQ(NumberText::grouped(1000), "1,000");
  EXPECT_EQ(NumberText::grouped(1234567), "1,234,567");
  EXPECT_EQ(NumberText::grouped(-999), "-999");
  EXPECT_EQ(NumberText::grouped(-4500), "-4,500");
  EXPECT_EQ(NumberText::grouped(-123456), "-123,456");
  EXPECT_EQ(NumberText::grouped(std::numeric_limits<std::int64_t>::min()),
            "-9,223,372,036,854,775,808");
}

}  // namespace
}  // namespace corvane
