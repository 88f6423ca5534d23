#include "backup/deletion_alarm.hpp"

#include <gtest/gtest.h>

namespace corvane {
namespace {

DeletedCount count(std::string object, std::int64_t deleted, std::int64_t missing,
                   std::int64_t heldBefore) {
  return {std::move(object), deleted, missing, heldBefore};
}

TEST(DeletionAlarmTest, ThresholdsAreExactAtTheirEdges) {
  EXPECT_FALSE(DeletionAlarm::isUnusual(count("Account", 999, 0, 100000)));  // share too small
  EXPECT_TRUE(DeletionAlarm::isUnusual(count("Account", 1000, 0, 100000)));  // any size
  EXPECT_TRUE(DeletionAlarm::isUnusual(count("Account", 600, 400, 0)));      // missing counts too
  EXPECT_TRUE(DeletionAlarm::isUnusual(count("Account", 100, 0, 2000)));     // exactly 0.05
  EXPECT_FALSE(DeletionAlarm::isUnusual(count("Account", 100, 0, 2001)));    // just below
  EXPECT_FALSE(DeletionAlarm::isUnusual(count("Account", 99, 0, 100)));      // below atLeast
  EXPECT_TRUE(DeletionAlarm::isUnusual(count("Account", 50, 50, 100)));
  EXPECT_FALSE(DeletionAlarm::isUnusual(count("Account", 500, 0, 0)));  // nothing held before
}

TEST(DeletionAlarmTest, ObjectsThatVanishWithAnotherNeverRaiseTheAlarm) {
  for (const char* object : {"AccountShare", "Opportunity__Share", "AccountHistory", "CaseFeed",
                             "ContentVersion", "ContentDocumentLink"})
    EXPECT_TRUE(DeletionAlarm::goesWithAnother(object)) << object;
  for (const char* object : {"Account", "ContentDocument", "Shared__c", "Share_Price__c"})
    EXPECT_FALSE(DeletionAlarm::goesWithAnother(object)) << object;

  const auto unusual =
      DeletionAlarm::unusual({count("AccountShare", 50000, 0, 60000),
                              count("Contact", 1000, 0, 1000000), count("Lead", 10, 0, 20)});
  ASSERT_EQ(unusual.size(), 1u);
  EXPECT_EQ(unusual[0].object, "Contact");
}

TEST(DeletionAlarmTest, CountsGroupARunsDeletionsByObjectWithWhatWasHeldBefore) {
  std::vector<BackupStore::Deletion> deletions;
  for (int i = 0; i < 1000; ++i)
    deletions.push_back({"Contact", "003" + std::to_string(i), "2026-01-01T00:00:00Z",
                         i % 4 == 0 ? "missing" : "recycleBin"});
  deletions.push_back({"Account", "001A", "2026-01-01T00:00:00Z", "purged"});
  const auto counts = DeletionAlarm::counts(
      deletions, [](const std::string& object) { return object == "Contact" ? 9000 : 5; });
  ASSERT_EQ(counts.size(), 2u);
  EXPECT_EQ(counts[0], count("Account", 1, 0, 6));
  EXPECT_EQ(counts[1], count("Contact", 750, 250, 10000));
  const auto unusual = DeletionAlarm::unusual(counts);
  ASSERT_EQ(unusual.size(), 1u);
  EXPECT_EQ(unusual[0].object, "Contact");
}

}  // namespace
}  // namespace corvane
