#include "backup/folder_access.hpp"

#include <unistd.h>

#include <fstream>
#include <regex>

#include <gtest/gtest.h>

#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

namespace fs = std::filesystem;

TEST(FolderAccessTest, TheProbeWritesInTheDeepestExistingFolderAndNeverCreatesTheBackupFolder) {
  TemporaryFolder folder;
  const auto backup = folder.path() / "Disk" / "Corvane" / "Backups";
  fs::create_directories(folder.path() / "Disk");
  EXPECT_EQ(FolderWriteProbe::deepestThatExists(backup), folder.path() / "Disk");
  EXPECT_EQ(FolderWriteProbe::write(backup, FolderWriteProbe::tickDeadline),
            FolderAccess::writable);
  EXPECT_FALSE(fs::exists(folder.path() / "Disk" / "Corvane"));
  std::ifstream written(folder.path() / "Disk" / FolderWriteProbe::fileName);
  std::string stamp;
  std::getline(written, stamp);
  EXPECT_TRUE(std::regex_match(stamp, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)"))) << stamp;
}

TEST(FolderAccessTest, AFolderThatRefusesWritesIsRefused) {
  if (::geteuid() == 0) GTEST_SKIP() << "root writes anywhere";
  TemporaryFolder folder;
  const auto locked = folder.path() / "Locked";
  fs::create_directories(locked);
  fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec);
  EXPECT_EQ(FolderWriteProbe::write(locked / "Backups", 5), FolderAccess::refused);
  fs::permissions(locked, fs::perms::owner_all);
}

TEST(FolderAccessTest, SentencesNameTheDiskOrThisFolder) {
  EXPECT_EQ(BackupAccessText::accessAllowed(std::string("Backup Disk")),
            "Corvane can write to Backup Disk. Scheduled backups can run while nobody is at the "
            "Mac.");
  EXPECT_EQ(BackupAccessText::accessDidNotAnswer(std::nullopt),
            "macOS did not answer about writing to this folder. If a permission dialog appeared, "
            "answer it and try again.");
  EXPECT_NE(BackupAccessText::needsPermission("Acme", std::nullopt)
                .find("permission to write to the folder these backups are kept in. Open Data "
                      "Backup for Acme and press Allow Access."),
            std::string::npos);
  EXPECT_EQ(BackupEjectText::refused("Backup Disk", "Resource busy"),
            "Backup Disk could not be ejected. macOS said: Resource busy");
  EXPECT_EQ(BackupEjectText::refused("Backup Disk", ""),
            "Backup Disk could not be ejected. macOS did not say why. Close anything that is "
            "reading the disk and try again, or use the Finder.");
  EXPECT_EQ(BackupEjectText::refusedWhileRunning("Backup Disk"),
            "A backup is being written to Backup Disk right now, so it cannot be ejected. Wait for "
            "it to finish, or press Stop, and then try again.");
}

}  // namespace
}  // namespace corvane
