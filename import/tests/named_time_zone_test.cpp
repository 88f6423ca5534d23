#include "import/named_time_zone.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "import/value_coercion.hpp"

namespace corvane {
namespace {

TEST(NamedTimeZone, DateTimesTakeTheOffsetInForceOnTheirDay) {
  CoercionOptions options;
  options.timeZone = NamedTimeZone::named("Europe/Berlin");
  ImportField field;
  field.name = "Due__c";
  field.type = "datetime";
  EXPECT_EQ(ValueCoercion::coerce("2024-01-15 09:30:00", field, options).value,
            "2024-01-15T08:30:00.000Z");
  EXPECT_EQ(ValueCoercion::coerce("2024-07-15 09:30:00", field, options).value,
            "2024-07-15T07:30:00.000Z");
  // An offset written in the cell wins over the zone.
  EXPECT_EQ(ValueCoercion::coerce("2024-07-15 09:30:00 +00:00", field, options).value,
            "2024-07-15T09:30:00.000Z");

  auto york = NamedTimeZone::named("America/New_York");
  // 2024-03-10 01:59 is still winter time in New York, 03:00 is summer time.
  EXPECT_EQ(york->offsetMinutes(1710035940), -300);
  EXPECT_EQ(york->offsetMinutes(1710039600), -240);
}

TEST(NamedTimeZone, UnknownNamesAreRefusedWithASentenceAndTheProcessZoneIsLeftAlone) {
  EXPECT_TRUE(NamedTimeZone::known("UTC"));
  for (const char* name : {"Europe/Berln", "", "../etc/passwd", "/usr/share/zoneinfo/UTC"}) {
    EXPECT_FALSE(NamedTimeZone::known(name)) << name;
  }
  try {
    NamedTimeZone::named("Mars/Olympus");
    ADD_FAILURE() << "an unknown zone was accepted";
  } catch (const TimeZoneError& error) {
    EXPECT_THAT(error.what(), ::testing::HasSubstr("\u201cMars/Olympus\u201d is not a time zone "
                                                   "this computer knows."));
  }
  ::setenv("TZ", "Asia/Tokyo", 1);
  auto berlin = NamedTimeZone::named("Europe/Berlin");
  std::thread other([&] { EXPECT_EQ(berlin->offsetMinutes(1'720'000'000), 120); });
  EXPECT_EQ(berlin->offsetMinutes(1'705'000'000), 60);
  other.join();
  EXPECT_STREQ(std::getenv("TZ"), "Asia/Tokyo");
  ::unsetenv("TZ");
}

}  // namespace
}  // namespace corvane
