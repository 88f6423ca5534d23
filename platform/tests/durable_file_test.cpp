#include "platform/durable_file.hpp"

#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

using ::testing::HasSubstr;
using ::testing::UnorderedElementsAre;

mode_t modeOf(const std::filesystem::path& path) {
  struct stat info {};
  ::stat(path.c_str(), &info);
  return info.st_mode & 07777;
}

std::vector<std::string> namesIn(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  return names;
}

TEST(DurableFile, AppendsAndCutsBackToACommittedLength) {
  TemporaryFolder folder;
  const auto path = folder.path() / "Account.csv";
  {
    DurableFile file = DurableFile::open(path);
    file.append("Id,Name\n");
    file.append("001,Acme\n");
    file.sync();
    EXPECT_EQ(file.size(), 17);
  }
  // After a crash the recorded length wins: the half-written row goes.
  Durable::append(path, "002,Glo");
  DurableFile reopened = DurableFile::open(path);
  reopened.truncate(17);
  reopened.append("002,Globex\n");
  reopened.close();
  EXPECT_EQ(Durable::readWhole(path), "Id,Name\n001,Acme\n002,Globex\n");
  EXPECT_EQ(modeOf(path), 0600u);
}

TEST(DurableFile, WholeWritesReplaceLongerContentAndReadsTellMissingFromEmpty) {
  TemporaryFolder folder;
  const auto path = folder.path() / "state.txt";
  EXPECT_EQ(Durable::readWhole(path), std::nullopt);
  Durable::writeWhole(path, "a much longer first version");
  Durable::writeWhole(path, "short");
  EXPECT_EQ(Durable::readWhole(path), "short");
  Durable::truncate(path, 2);
  EXPECT_EQ(Durable::readWhole(path), "sh");
  Durable::writeWhole(path, "");
  EXPECT_EQ(Durable::readWhole(path), "");
}

TEST(DurableFile, ErrorsNameThePathAndTheReason) {
  TemporaryFolder folder;
  const auto missing = folder.path() / "no-such-folder" / "file.csv";
  try {
    DurableFile::open(missing);
    FAIL() << "opened a file in a missing folder";
  } catch (const FileError& error) {
    EXPECT_EQ(error.kind(), FileError::Kind::open);
    EXPECT_EQ(error.path(), missing);
    EXPECT_EQ(error.osError(), ENOENT);
    EXPECT_THAT(error.description(), HasSubstr(missing.string()));
    EXPECT_THAT(error.description(), HasSubstr(error.reason()));
    EXPECT_THAT(error.description(), HasSubstr("that the file or its folder exists"));
  }
  EXPECT_THROW(Durable::truncate(missing, 0), FileError);
  EXPECT_THROW(Durable::readWhole(folder.path()), FileError);  // a folder is not readable text
}

TEST(AtomicReplace, SetsTheModeExactlyAndLeavesNoTemporaryFile) {
  TemporaryFolder folder;
  const auto path = folder.path() / "settings.json";
  std::ofstream(path) << "old";
  std::filesystem::permissions(path, std::filesystem::perms(0644));
  Durable::replace(path, "{\"a\": 1}\n", 0600);
  EXPECT_EQ(Durable::readWhole(path), "{\"a\": 1}\n");
  EXPECT_EQ(modeOf(path), 0600u);
  EXPECT_THAT(namesIn(folder.path()), UnorderedElementsAre("settings.json"));
}

TEST(AtomicReplace, FailureKeepsTheOldFileAndCleansUp) {
  TemporaryFolder folder;
  // A non-empty folder cannot be renamed over, so the last step fails.
  const auto target = folder.path() / "occupied";
  std::filesystem::create_directory(target);
  std::ofstream(target / "inside") << "keep";
  try {
    Durable::replace(target, "new");
    FAIL() << "replaced a folder";
  } catch (const FileError& error) {
    EXPECT_EQ(error.kind(), FileError::Kind::replace);
    EXPECT_THAT(error.description(), HasSubstr("previous version is unchanged"));
  }
  EXPECT_THAT(namesIn(folder.path()), UnorderedElementsAre("occupied"));
  EXPECT_EQ(Durable::readWhole(target / "inside"), "keep");

  EXPECT_THROW(Durable::replace(folder.path() / "missing" / "x.json", "new"), FileError);
}

TEST(AtomicReplace, AReaderSeesOnlyWholeVersions) {
  TemporaryFolder folder;
  const auto path = folder.path() / "backup-sets.json";
  const std::string first(256 * 1024, 'a');
  const std::string second(300 * 1024, 'b');
  Durable::replace(path, first);

  std::atomic<bool> writing{true};
  std::atomic<int> torn{0};
  std::thread reader([&] {
    while (writing) {
      const auto content = Durable::readWhole(path);
      if (!content || (*content != first && *content != second)) ++torn;
    }
  });
  for (int i = 0; i < 60; ++i) Durable::replace(path, i % 2 ? first : second);
  writing = false;
  reader.join();
  EXPECT_EQ(torn.load(), 0);
}

TEST(MoveAside, KeepsEveryUnreadableCopyUnderADatedName) {
  TemporaryFolder folder;
  const auto path = folder.path() / "settings.json";
  const auto now = std::chrono::sys_days(std::chrono::year(2024) / 5 / 1) + std::chrono::hours(10);

  std::ofstream(path) << "{broken";
  const auto first = Durable::moveAside(path, now);
  EXPECT_EQ(first.filename(), "settings-unreadable-2024-05-01 1000.json");

  // A second bad file in the same minute must not overwrite the first.
  std::ofstream(path) << "{also broken";
  const auto second = Durable::moveAside(path, now);
  EXPECT_EQ(second.filename(), "settings-unreadable-2024-05-01 1000 2.json");

  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(Durable::readWhole(first), "{broken");
  EXPECT_EQ(Durable::readWhole(second), "{also broken");
  EXPECT_THROW(Durable::moveAside(path, now), FileError);
}

}  // namespace
}  // namespace corvane
