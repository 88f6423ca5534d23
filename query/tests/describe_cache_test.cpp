#include "query/describe_cache.hpp"

#include <sys/stat.h>

#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

using namespace std::chrono_literals;

class DescribeCacheTest : public ::testing::Test {
 protected:
  DescribeCache::Source source() {
    return {
        [this] {
          ++globalCalls;
          return nlohmann::json{{"sobjects",
                                 {{{"name", "Account"}, {"custom", false}, {"queryable", true}},
                                  {{"name", "Plan__c"}, {"custom", true}, {"queryable", true}}}}};
        },
        [this](const std::string& object) {
          describeCalls.push_back(object);
          if (object != "Account") return nlohmann::json();
          return nlohmann::json{{"fields",
                                 {{{"name", "Industry"},
                                   {"type", "picklist"},
                                   {"picklistValues",
                                    {{{"value", "Banking"}, {"active", true}},
                                     {{"value", "Old"}, {"active", false}}}}},
                                  {{"name", "OwnerId"},
                                   {"type", "reference"},
                                   {"relationshipName", "Owner"},
                                   {"referenceTo", {"User"}}}}}};
        }};
  }

  DescribeCache cache(std::string username = "Admin@Sample.org") {
    return DescribeCache(folder.path(), username, source(), 1h, [this] { return now; });
  }

  TemporaryFolder folder;
  SystemTime now = std::chrono::system_clock::now();
  int globalCalls = 0;
  std::vector<std::string> describeCalls;
};

TEST_F(DescribeCacheTest, KeepsWhatCompletionNeedsAndAsksOncePerAge) {
  auto objects = cache().objects();
  ASSERT_EQ(objects.size(), 2u);
  EXPECT_TRUE(objects[1].custom);
  auto fields = cache().fields("Account");
  ASSERT_EQ(fields.size(), 2u);
  EXPECT_THAT(fields[0].picklistValues, ::testing::ElementsAre("Banking"));
  EXPECT_EQ(fields[1].relationshipName, "Owner");
  EXPECT_THAT(fields[1].referenceTo, ::testing::ElementsAre("User"));

  // A second instance (the next keystroke, another process) reads the files.
  EXPECT_EQ(cache().objects(), objects);
  EXPECT_EQ(cache().fields("account"), fields);
  EXPECT_EQ(globalCalls, 1);
  EXPECT_THAT(describeCalls, ::testing::ElementsAre("Account"));

  // An unknown object is remembered as having no fields.
  EXPECT_TRUE(cache().fields("Nothing__c").empty());
  EXPECT_TRUE(cache().fields("Nothing__c").empty());
  EXPECT_EQ(describeCalls.size(), 2u);

  now += 2h;
  cache().objects();
  EXPECT_EQ(globalCalls, 2);
}

TEST_F(DescribeCacheTest, RefreshFetchesEachEntryOnceAndDamagedFilesAreRefetched) {
  cache().objects();
  auto refreshing = cache();
  refreshing.setRefresh(true);
  refreshing.objects();
  refreshing.objects();
  EXPECT_EQ(globalCalls, 2);

  std::ofstream(refreshing.folder() / "objects.json") << "{not json";
  EXPECT_EQ(cache().objects().size(), 2u);
  EXPECT_EQ(globalCalls, 3);
}

TEST_F(DescribeCacheTest, FilesArePrivateAndNamedWithoutTrustingOrgText) {
  auto hostile = cache("../../Evil User");
  hostile.fields("../x/..");
  EXPECT_EQ(hostile.folder().parent_path(), folder.path());
  EXPECT_EQ(hostile.folder().filename(), "%2E.%2F..%2Fevil%20user");
  auto file = hostile.folder() / "fields %2E.%2Fx%2F...json";
  ASSERT_TRUE(std::filesystem::exists(file));
  struct stat info {};
  ASSERT_EQ(::stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  ASSERT_EQ(::stat(hostile.folder().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
}

}  // namespace
}  // namespace corvane
