#include "platform/volume_info.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

using ::testing::Contains;
using ::testing::Field;

constexpr std::int64_t kFourGiBMinusOne = 4294967295;

TEST(VolumeInfo, ReadsTheVolumeUnderARealFolder) {
  TemporaryFolder folder;
  EXPECT_GT(VolumeInfo::freeBytes(folder.path()), 0u);
  const std::string name = VolumeInfo::fileSystemName(folder.path());
  EXPECT_FALSE(name.empty());
  EXPECT_EQ(VolumeInfo::largestFileSize(folder.path()), VolumeInfo::largestFileSizeOf(name));

  const auto volume = VolumeInfo::volumeHolding(folder.path() / "not-yet-created" / "x.csv");
  ASSERT_TRUE(volume.has_value());
  EXPECT_EQ(volume->fileSystem, name);

  const auto root = VolumeInfo::volumeHolding("/");
  ASSERT_TRUE(root.has_value());
  EXPECT_TRUE(root->isStartupDisk);
  EXPECT_FALSE(root->ejectable);
  EXPECT_THAT(VolumeInfo::mounted(),
              Contains(Field(&MountedVolume::mountPoint, std::filesystem::path("/"))));
}

TEST(VolumeInfo, MissingFolderIsAnInspectError) {
  TemporaryFolder folder;
  for (auto call : {+[](const std::filesystem::path& p) { VolumeInfo::freeBytes(p); },
                    +[](const std::filesystem::path& p) { VolumeInfo::fileSystemName(p); }}) {
    try {
      call(folder.path() / "gone");
      ADD_FAILURE() << "no error for a missing folder";
    } catch (const FileError& error) {
      EXPECT_EQ(error.kind(), FileError::Kind::inspect);
      EXPECT_EQ(error.osError(), ENOENT);
    }
  }
}

TEST(VolumeInfo, OnlyFatLimitsFileSize) {
  EXPECT_EQ(VolumeInfo::largestFileSizeOf("vfat"), kFourGiBMinusOne);
  EXPECT_EQ(VolumeInfo::largestFileSizeOf("msdos"), kFourGiBMinusOne);
  for (const char* unlimited : {"exfat", "apfs", "ext4", "btrfs", "hfs", "ntfs", "fuseblk"}) {
    EXPECT_EQ(VolumeInfo::largestFileSizeOf(unlimited), std::nullopt) << unlimited;
  }
}

TEST(VolumeInfo, ParsesTheMountTableWithEscapesAndOptionalFields) {
  const auto table = VolumeInfo::parseMountInfo(
      "27 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw\n"
      "garbage line\n"
      "90 27 8:17 / /media/ann/My\\040Disk rw,nosuid master:3 shared:5 - vfat /dev/sdb1 rw\n"
      "91 27 0:50 / /mnt/remote rw - fuse.sshfs ann@host:/data rw\n"
      "92 27 8:33 / /mnt/stick rw - exfat /dev/sdc1 rw");
  ASSERT_EQ(table.size(), 4u);
  EXPECT_EQ(table[0], (MountEntry{"/", "ext4", "/dev/vda"}));
  EXPECT_EQ(table[1], (MountEntry{"/media/ann/My Disk", "vfat", "/dev/sdb1"}));
  EXPECT_EQ(table[2].fileSystem, "sshfs");
  EXPECT_EQ(table[3].mountPoint, "/mnt/stick");
}

TEST(VolumeInfo, PicksTheDeepestMountAboveAPath) {
  const std::vector<MountEntry> table = {{"/", "ext4", "/dev/vda"},
                                         {"/media/ann/Disk", "vfat", "/dev/sdb1"},
                                         {"/media/ann/Disk/inner", "exfat", "/dev/sdc1"},
                                         {"/media/ann/Disk", "exfat", "/dev/sdd1"}};
  auto holding = [&](const char* path) {
    return VolumeInfo::entryHolding(table, path).value_or(MountEntry{}).source;
  };
  EXPECT_EQ(holding("/home/ann/Backups"), "/dev/vda");
  EXPECT_EQ(holding("/media/ann/Disk2/x"), "/dev/vda");        // a name prefix is not a folder
  EXPECT_EQ(holding("/media/ann/Disk/Corvane"), "/dev/sdd1");  // mounted over the earlier one
  EXPECT_EQ(holding("/media/ann/Disk/inner/a"), "/dev/sdc1");
  EXPECT_EQ(VolumeInfo::entryHolding({}, "/x"), std::nullopt);
}

}  // namespace
}  // namespace corvane
