#include "scheduling/backup_registry.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "platform/durable_file.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

using namespace std::chrono_literals;

SystemTime at(const char* text) { return *IsoTime::parsePlain(text); }

BackupSet fullSet() {
  BackupSet set;
  set.orgKey = "00D000000000001";
  set.username = "admin@acme.example";
  set.orgName = "Acme";
  set.rootPath = "/Volumes/Backups";
  set.includeFiles = true;
  set.allFileVersions = false;
  set.includeHistoryAndFeed = true;
  set.includeFormulaFields = false;
  set.extraObjects = std::vector<std::string>{"Foo__c"};
  set.excludedObjects = std::vector<std::string>{"Task"};
  set.onlyObjects = std::vector<std::string>{"Account", "Contact"};
  set.schedule = BackupSchedule::weekly(1, 2, 30);
  set.fullEvery = BackupSchedule::FullEvery::every4Weeks;
  set.retention = Retention::Policy{5};
  set.created = at("2024-05-01T10:00:00Z");
  set.lastSuccessAt = at("2024-05-02T02:41:07Z");
  return set;
}

BackupSet plainSet(const std::string& username) {
  BackupSet set;
  set.orgKey = "00D";
  set.username = username;
  return set;
}

std::string fileText(const std::filesystem::path& path) { return *Durable::readWhole(path); }

class BackupRegistryTest : public ::testing::Test {
 protected:
  TemporaryFolder folder;
  std::filesystem::path directory = folder.path() / "Corvane";
  BackupRegistry registry{directory, [] { return at("2024-05-03T09:15:42Z"); }};
};

TEST(BackupSetCoding, WritesKeyedUnionsAndLeavesAbsentFieldsOut) {
  const nlohmann::json full = fullSet();
  EXPECT_EQ(full["schedule"], nlohmann::json::parse(R"({"weekly":{"weekday":1,"hour":2,"minute":30}})"));
  EXPECT_EQ(full["retention"], nlohmann::json::parse(R"({"keepLastFulls":{"_0":5}})"));
  EXPECT_EQ(full["fullEvery"], "every4Weeks");
  EXPECT_EQ(full["lastSuccessAt"], "2024-05-02T02:41:07Z");
  EXPECT_EQ(full.get<BackupSet>(), fullSet());

  BackupSet everything = plainSet("a@b.c");
  everything.retention = Retention::Policy::keepEverything();
  everything.schedule = BackupSchedule::daily(23, 59);
  const nlohmann::json plain = everything;
  EXPECT_EQ(plain, nlohmann::json::parse(R"({"orgKey":"00D","username":"a@b.c",
      "retention":{"keepEverything":{}},"schedule":{"daily":{"hour":23,"minute":59}}})"));
  EXPECT_EQ(plain.get<BackupSet>(), everything);
}

TEST(BackupSetCoding, RefusesMalformedSets) {
  for (const char* text : {
           R"({"username":"a"})",
           R"({"orgKey":"o","username":"a","schedule":{"daily":{"hour":24,"minute":0}}})",
           R"({"orgKey":"o","username":"a","schedule":{"weekly":{"weekday":0,"hour":1,"minute":0}}})",
           R"({"orgKey":"o","username":"a","schedule":{"monthly":{}}})",
           R"({"orgKey":"o","username":"a","schedule":"daily"})",
           R"({"orgKey":"o","username":"a","fullEvery":"daily"})",
           R"({"orgKey":"o","username":"a","retention":{"keepLastFulls":{"_0":0}}})",
           R"({"orgKey":"o","username":"a","created":"yesterday"})",
       }) {
    EXPECT_ANY_THROW(nlohmann::json::parse(text).get<BackupSet>()) << text;
  }
}

TEST(BackupSetCoding, ConfigCarriesTheSetsChoices) {
  const auto config = fullSet().config("/default");
  EXPECT_EQ(config.location.root, "/Volumes/Backups");
  EXPECT_EQ(config.location.username, "admin@acme.example");
  EXPECT_TRUE(config.downloadFileBodies);
  EXPECT_TRUE(config.latestFileVersionsOnly);
  EXPECT_TRUE(config.options.includeHistoryAndFeed);
  EXPECT_EQ(config.options.onlyObjects, (std::vector<std::string>{"Account", "Contact"}));
  EXPECT_EQ(config.retention, Retention::Policy{5});

  const auto defaults = plainSet("a@b.c").config("/default");
  EXPECT_EQ(defaults.location.root, "/default");
  EXPECT_FALSE(defaults.downloadFileBodies);
  EXPECT_EQ(defaults.retention, Retention::Policy::standard());
}

TEST_F(BackupRegistryTest, MissingFileReadsEmptyAndFirstSaveCreatesFolderAndFile) {
  const auto loaded = registry.load();
  EXPECT_EQ(loaded.state, BackupRegistry::Loaded::State::missing);
  EXPECT_TRUE(loaded.sets.empty());
  EXPECT_EQ(registry.scheduleWish(), ScheduleWish::none);

  registry.upsert(fullSet());
  struct stat info {};
  ASSERT_EQ(::stat(registry.fileURL().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  const auto text = fileText(registry.fileURL());
  // Sorted keys, pretty-printed, format 1.
  EXPECT_LT(text.find("\"format\": 1"), text.find("\"sets\""));
  EXPECT_LT(text.find("\"allFileVersions\""), text.find("\"username\""));
  EXPECT_EQ(registry.load().sets, std::vector<BackupSet>{fullSet()});
  EXPECT_EQ(registry.scheduleWish(), ScheduleWish::scheduled);
}

TEST_F(BackupRegistryTest, ToleratesAbsentSetsAndUnknownKeys) {
  std::filesystem::create_directories(directory);
  Durable::replace(registry.fileURL(), R"({"format":1})");
  EXPECT_EQ(registry.load().state, BackupRegistry::Loaded::State::read);
  EXPECT_TRUE(registry.load().sets.empty());

  Durable::replace(registry.fileURL(),
                   R"({"format":2,"future":true,"sets":[{"orgKey":"o","username":"a@b.c","colour":"red"}]})");
  const auto sets = registry.load().sets;
  ASSERT_EQ(sets.size(), 1u);
  EXPECT_EQ(sets[0].orgKey, "o");
  EXPECT_EQ(sets[0].username, "a@b.c");
}

TEST_F(BackupRegistryTest, CorruptFileIsUnknownThenSetAsideByTheNextSave) {
  std::filesystem::create_directories(directory);
  const std::string corrupt = R"({"sets":[{"orgKey":"o","username":"a@b.c","schedule":{"hourly":{}})";
  Durable::replace(registry.fileURL(), corrupt);

  EXPECT_TRUE(registry.load().isUnreadable());
  EXPECT_EQ(registry.scheduleWish(), ScheduleWish::unknown);
  // recordSuccess never rewrites a file it cannot read.
  registry.recordSuccess("a@b.c", at("2024-05-03T00:00:00Z"));
  EXPECT_EQ(fileText(registry.fileURL()), corrupt);
  EXPECT_NE(registry.unreadableMessage().find("backup-sets.json. Next time"), std::string::npos);

  const auto sets = registry.upsert(plainSet("new@b.c"));
  EXPECT_EQ(sets, std::vector<BackupSet>{plainSet("new@b.c")});
  EXPECT_EQ(registry.load().sets, sets);
  const auto kept = directory / "backup-sets-unreadable-2024-05-03T09-15-42Z.json";
  ASSERT_TRUE(std::filesystem::exists(kept));
  EXPECT_EQ(fileText(kept), corrupt);
}

TEST_F(BackupRegistryTest, UnwritableFolderReportsTheFailureAndKeepsTheOldFile) {
  if (::geteuid() == 0) GTEST_SKIP() << "root writes into read-only folders";
  registry.save({plainSet("a@b.c")});
  const auto before = fileText(registry.fileURL());
  std::filesystem::permissions(directory, std::filesystem::perms::owner_read |
                                              std::filesystem::perms::owner_exec);
  try {
    registry.upsert(plainSet("b@b.c"));
    ADD_FAILURE() << "no failure";
  } catch (const BackupRegistryFailure& failure) {
    EXPECT_EQ(failure.kind(), BackupRegistryFailure::Kind::couldNotWrite);
    EXPECT_EQ(failure.description(),
              "Your backup settings could not be saved. Check that the disk is not full, then try "
              "again.");
  }
  std::filesystem::permissions(directory, std::filesystem::perms::owner_all);
  EXPECT_EQ(fileText(registry.fileURL()), before);
}

TEST_F(BackupRegistryTest, AFileThatCannotBeSetAsideIsLeftAsItIs) {
  // The settings "folder" is a file: nothing under it can be read or renamed.
  Durable::writeWhole(directory, "not a folder");
  BackupRegistry blocked(directory);
  EXPECT_TRUE(blocked.load().isUnreadable());
  try {
    blocked.save({plainSet("a@b.c")});
    ADD_FAILURE() << "no failure";
  } catch (const BackupRegistryFailure& failure) {
    EXPECT_EQ(failure.kind(), BackupRegistryFailure::Kind::couldNotSetAside);
    EXPECT_EQ(failure.description().rfind("Your backup settings could not be read, and could not "
                                          "be set aside either, so nothing was changed.",
                                          0),
              0u);
  }
  EXPECT_EQ(fileText(directory), "not a folder");
}

TEST_F(BackupRegistryTest, UpsertReplacesByUsernameRemoveDropsAndChangesAreAnnounced) {
  int notices = 0;
  const auto token = BackupSetsChanged::observe([&] { ++notices; });
  registry.upsert(plainSet("a@b.c"));
  registry.upsert(plainSet("b@b.c"));
  BackupSet changed = plainSet("A@B.C");
  changed.schedule = BackupSchedule::hourly();
  const auto sets = registry.upsert(changed);
  ASSERT_EQ(sets.size(), 2u);
  EXPECT_EQ(sets[0], changed);

  EXPECT_EQ(registry.remove("b@b.c"), std::vector<BackupSet>{changed});
  EXPECT_EQ(notices, 4);
  BackupSetsChanged::stopObserving(token);
  registry.remove("nobody");
  EXPECT_EQ(notices, 4);
}

TEST_F(BackupRegistryTest, RecordSuccessTouchesOnlyAKnownSet) {
  registry.save({plainSet("a@b.c")});
  const auto before = fileText(registry.fileURL());
  registry.recordSuccess("other@b.c", at("2024-05-03T00:00:00Z"));
  EXPECT_EQ(fileText(registry.fileURL()), before);

  registry.recordSuccess("a@b.c", at("2024-05-03T00:00:00Z"));
  EXPECT_EQ(registry.load().sets[0].lastSuccessAt, at("2024-05-03T00:00:00Z"));
}

}  // namespace
}  // namespace corvane
