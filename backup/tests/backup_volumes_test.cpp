#include "backup/backup_volumes.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using Presence = BackupVolumes::VolumePresence;

class BackupVolumesTest : public ::testing::Test {
 protected:
  TemporaryFolder folder_;
  fs::path volumesFolder = folder_.path() / "Volumes";
  BackupVolumes volumes = BackupVolumes::inFolder(volumesFolder);

  void SetUp() override { fs::create_directories(volumesFolder / "Backup Disk"); }
};

TEST_F(BackupVolumesTest, AFolderOnAnUnpluggedDiskIsNotReachable) {
  const auto onDisk = volumesFolder / "Backup Disk" / "Corvane" / "org";
  const auto onGone = volumesFolder / "Travel SSD" / "Corvane";
  EXPECT_EQ(volumes.presence(onDisk), (Presence{Presence::Kind::mounted, "Backup Disk"}));
  EXPECT_EQ(volumes.presence(onGone), (Presence{Presence::Kind::notMounted, "Travel SSD"}));
  EXPECT_EQ(volumes.presence(folder_.path() / "Home" / "Backups").kind,
            Presence::Kind::notOnAVolumeThatCanGo);
  EXPECT_EQ(volumes.presence(volumesFolder).kind, Presence::Kind::notOnAVolumeThatCanGo);
  EXPECT_EQ(volumes.presence(volumesFolder / ".." / "x").kind,
            Presence::Kind::notOnAVolumeThatCanGo);

  EXPECT_EQ(volumes.reach(onDisk), BackupFolderState::reachable());
  EXPECT_EQ(volumes.reach(onGone), BackupFolderState::driveNotConnected("Travel SSD"));
  EXPECT_EQ(volumes.volumeName(onGone), "Travel SSD");
  EXPECT_FALSE(volumes.volumeName(folder_.path()));

  // Unplugging the disk turns a reachable folder into one that is not.
  fs::remove_all(volumesFolder / "Backup Disk");
  EXPECT_EQ(volumes.reach(onDisk), BackupFolderState::driveNotConnected("Backup Disk"));
  EXPECT_FALSE(fs::exists(onDisk));
}

TEST_F(BackupVolumesTest, DisksMountedByHandUnderAFurtherFolderCountToo) {
  const auto byHand = folder_.path() / "mnt";
  fs::create_directories(byHand / "usb");
  volumes.mounted = [&] {
    return std::vector<fs::path>{volumesFolder / "Backup Disk", byHand / "usb"};
  };
  volumes.moreVolumesFolders = {byHand};
  EXPECT_EQ(volumes.presence(byHand / "usb" / "Corvane"), (Presence{Presence::Kind::mounted, "usb"}));
  // The folder of a disk that is not mounted is only a folder on the startup disk.
  fs::create_directories(byHand / "data" / "Corvane");
  EXPECT_EQ(volumes.reach(byHand / "data" / "Corvane"),
            BackupFolderState::driveNotConnected("data"));
  EXPECT_EQ(volumes.reach(volumesFolder / "Backup Disk" / "Corvane"),
            BackupFolderState::reachable());
  const auto usb = volumes.ejectableVolume(byHand / "usb" / "Corvane");
  ASSERT_TRUE(usb);
  EXPECT_EQ(usb->mountPoint, byHand / "usb");
}

#ifndef __APPLE__
TEST(BackupVolumesSystem, LinuxLooksUnderTheUsersMediaFoldersAndMnt) {
  const auto volumes = BackupVolumes::system();
  std::vector<fs::path> all{volumes.volumesFolder};
  all.insert(all.end(), volumes.moreVolumesFolders.begin(), volumes.moreVolumesFolders.end());
  EXPECT_NE(std::find(all.begin(), all.end(), fs::path("/mnt")), all.end());
  if (const char* user = std::getenv("USER"); user != nullptr && *user != '\0') {
    for (const auto& base : {fs::path("/media"), fs::path("/run/media")})
      EXPECT_NE(std::find(all.begin(), all.end(), base / user), all.end()) << base;
  }
  // The disk this test runs from is not one that can go.
  EXPECT_EQ(volumes.reach(fs::temp_directory_path()), BackupFolderState::reachable());
}
#endif

TEST_F(BackupVolumesTest, WhenTheMountTableCannotBeReadPresenceCannotTellAndRunsGoAhead) {
  volumes.mounted = []() -> std::vector<fs::path> { throw std::runtime_error("no table"); };
  const auto url = volumesFolder / "Backup Disk" / "Corvane";
  EXPECT_EQ(volumes.presence(url), (Presence{Presence::Kind::cannotTell, "Backup Disk"}));
  EXPECT_EQ(volumes.reach(url), BackupFolderState::reachable());
  EXPECT_FALSE(volumes.ejectableVolume(url));
}

TEST_F(BackupVolumesTest, OnlyAMountedEjectableDiskIsOfferedForEjecting) {
  const auto url = volumesFolder / "Backup Disk" / "Corvane";
  auto found = volumes.ejectableVolume(url);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->name, "Backup Disk");
  EXPECT_FALSE(volumes.ejectableVolume(folder_.path() / "Home"));
  volumes.volume = [](const fs::path& mountPoint) -> std::optional<BackupVolume> {
    return BackupVolume{mountPoint, "Fixed", false, false, false};
  };
  EXPECT_FALSE(volumes.ejectableVolume(url));
}

TEST_F(BackupVolumesTest, EjectingReportsWhatTheSystemSaidWithoutTouchingARealDisk) {
  const BackupVolume disk{volumesFolder / "Backup Disk", "Backup Disk", true, true, false};
  std::vector<ProcessRequest> asked;
  auto ejected = ejectVolume(disk, [&](const ProcessRequest& request) {
    asked.push_back(request);
    return ProcessResult{0, "", ""};
  });
  EXPECT_EQ(ejected, EjectOutcome::ejected());
  ASSERT_FALSE(asked.empty());
  EXPECT_EQ(asked.back().arguments.back(), disk.mountPoint.string());

  auto refused = ejectVolume(disk, [](const ProcessRequest&) {
    return ProcessResult{1, "", "umount: target is busy.\n"};
  });
  EXPECT_EQ(refused, EjectOutcome::refused("umount: target is busy."));
  auto silent = ejectVolume(disk, [](const ProcessRequest&) -> ProcessResult {
    throw ProcessLaunchError("No such file or directory");
  });
  EXPECT_EQ(silent.kind, EjectOutcome::Kind::refused);
}

}  // namespace
}  // namespace corvane
