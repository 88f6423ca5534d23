#include "platform/iso_time.hpp"

#include <gtest/gtest.h>

namespace corvane {
namespace {

using namespace std::chrono;

SystemTime at(int y, unsigned m, unsigned d, int hh = 0, int mm = 0, int ss = 0, int ms = 0) {
  return time_point_cast<SystemTime::duration>(sys_days(year(y) / month(m) / day(d)) + hours(hh) +
                                               minutes(mm) + seconds(ss) + milliseconds(ms));
}

TEST(IsoTime, FormatsInUtcWithFixedWidths) {
  const SystemTime time = at(2024, 5, 1, 9, 5, 7, 45);
  EXPECT_EQ(IsoTime::formatFractional(time), "2024-05-01T09:05:07.045Z");
  EXPECT_EQ(IsoTime::formatPlain(time), "2024-05-01T09:05:07Z");
  EXPECT_EQ(IsoTime::folderStamp(time), "2024-05-01 0905");
  EXPECT_EQ(IsoTime::formatDay(time), "2024-05-01");
  // Sub-millisecond parts are cut, never rounded up into the next second.
  EXPECT_EQ(IsoTime::formatFractional(at(2024, 12, 31, 23, 59, 59, 999) + microseconds(999)),
            "2024-12-31T23:59:59.999Z");
  EXPECT_EQ(IsoTime::formatPlain(at(1969, 12, 31, 23, 59, 59, 500)), "1969-12-31T23:59:59Z");
}

TEST(IsoTime, ParsesWhatItFormatsBackToTheSameInstant) {
  for (const SystemTime time :
       {at(2024, 2, 29, 23, 59, 59, 999), at(1970, 1, 1), at(2038, 1, 19, 3, 14, 8, 1)}) {
    EXPECT_EQ(IsoTime::parseFractional(IsoTime::formatFractional(time)), time);
    EXPECT_EQ(IsoTime::parsePlain(IsoTime::formatPlain(time)), floor<seconds>(time));
    EXPECT_EQ(IsoTime::parseDay(IsoTime::formatDay(time)), floor<days>(time));
    EXPECT_EQ(IsoTime::parseFolderStamp(IsoTime::folderStamp(time)), floor<minutes>(time));
  }
}

TEST(IsoTime, HonoursOffsetsInBothForms) {
  const SystemTime utc = at(2024, 5, 1, 10, 0, 0, 123);
  EXPECT_EQ(IsoTime::parseFractional("2024-05-01T10:00:00.123+0000"), utc);
  EXPECT_EQ(IsoTime::parseFractional("2024-05-01T12:00:00.123+02:00"), utc);
  EXPECT_EQ(IsoTime::parseFractional("2024-05-01T04:30:00.123-0530"), utc);
  EXPECT_EQ(IsoTime::parsePlain("2024-05-01T00:30:00-09:30"), at(2024, 5, 1, 10, 0));
  // An offset can carry the instant across a day and a year.
  EXPECT_EQ(IsoTime::parsePlain("2025-01-01T01:00:00+02:00"), at(2024, 12, 31, 23, 0));
  EXPECT_EQ(IsoTime::parseFractional("2024-05-01T10:00:00.5Z"), at(2024, 5, 1, 10, 0, 0, 500));
}

TEST(IsoTime, RejectsAnythingThatIsNotExactlyTheForm) {
  for (const char* text :
       {"2024-13-01T10:00:00Z", "2023-02-29T10:00:00Z", "2024-04-31T10:00:00Z",
        "2024-05-01T24:00:00Z", "2024-05-01T10:60:00Z", "2024-05-01T10:00:60Z",
        "2024-05-01T10:00:00", "2024-05-01T10:00:00Zjunk", "2024-05-01 10:00:00Z", "05/01/2024",
        "2024-5-1T10:00:00Z", "2024-05-01T10:00:00+2", "", "2024-05-01T10:00:00+24:00",
        "2024-05-01t10:00:00z", "2024-05-01T10:00:00.123Z"}) {
    EXPECT_FALSE(IsoTime::parsePlain(text)) << text;
  }
  EXPECT_FALSE(IsoTime::parsePlain("9999-12-31T23:59:59Z"));
  EXPECT_TRUE(IsoTime::parseDay("2261-12-31"));
  for (const char* text :
       {"2024-05-01T10:00:00Z", "2024-05-01T10:00:00.Z", "2024-05-01T10:00:00.123",
        "2024-05-01T10:00:00.123Z ", "2024-05-01T10:00:00,123Z"}) {
    EXPECT_FALSE(IsoTime::parseFractional(text)) << text;
  }
  // Beyond what the clock can count, never wrapped round to another date.
  for (const char* text : {"2024-05-01 ", "2024-00-10", "2024-05-00", "24-05-01", "2024/05/01",
                           "9999-12-31", "4000-12-31", "1600-01-01"}) {
    EXPECT_FALSE(IsoTime::parseDay(text)) << text;
  }
  for (const char* text : {"2024-05-01 10:00", "2024-05-01 2400", "2024-05-01T1000",
                           "2024-05-01 100", "2024-05-01 1000 "}) {
    EXPECT_FALSE(IsoTime::parseFolderStamp(text)) << text;
  }
}

}  // namespace
}  // namespace corvane
