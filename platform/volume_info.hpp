// What the disk under a folder can take: free space, file-system name, the
// largest file it can hold, and which disks are mounted.
//
// A backup checks these before it writes: it stops before the disk fills, and
// it tells the user when a FAT-formatted disk cannot hold a file over 4 GiB.
// All calls are thread-safe and read the system's state afresh each time.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/file_error.hpp"

namespace corvane {

// One line of the system's mount table.
struct MountEntry {
  std::filesystem::path mountPoint;
  std::string fileSystem;  // "ext4", "vfat", "exfat", "apfs", "msdos", ...
  std::string source;      // the device ("/dev/sdb1") or the network share
  bool operator==(const MountEntry&) const = default;
};

// A disk a user could pick for backups.
struct MountedVolume {
  std::filesystem::path mountPoint;
  std::string name;  // the disk's label when known, else the mount point's last part
  std::string fileSystem;
  bool ejectable = false;  // the user can eject it (a USB disk, a card, a disk image)
  bool removable = false;  // the device itself can be unplugged
  bool isStartupDisk = false;
  bool operator==(const MountedVolume&) const = default;
};

namespace VolumeInfo {

// Bytes this user may still write on the volume holding `folder`.
// Throws FileError (inspect) when the folder cannot be examined.
std::uint64_t freeBytes(const std::filesystem::path& folder);

// The file-system name of the volume holding `folder`, in the system's own
// spelling ("ext4", "vfat", "exfat" on Linux; "apfs", "msdos", "exfat" on macOS).
// Throws FileError (inspect).
std::string fileSystemName(const std::filesystem::path& folder);

// The largest file the volume holding `folder` can store; none when there is no
// limit a backup could meet. Throws FileError (inspect).
std::optional<std::int64_t> largestFileSize(const std::filesystem::path& folder);

// The same for a file-system name: 4 GiB - 1 for FAT, none otherwise.
std::optional<std::int64_t> largestFileSizeOf(std::string_view fileSystemName);

// The disks that are mounted now, without the system's own pseudo file systems.
std::vector<MountedVolume> mounted();

// The mounted volume that holds `path` (the one with the longest mount point
// above it); none when the mount table cannot be read.
std::optional<MountedVolume> volumeHolding(const std::filesystem::path& path);

// The folder under which removable disks appear: "/Volumes" on macOS;
// "/run/media/<user>" or "/media/<user>" (whichever exists), else "/media", on Linux.
std::filesystem::path volumesFolder();

// Reads the text of /proc/self/mountinfo. Lines that do not parse are skipped.
std::vector<MountEntry> parseMountInfo(std::string_view text);

// The entry whose mount point is the longest prefix of `path` (an absolute,
// normalised path); none when no entry lies above it.
std::optional<MountEntry> entryHolding(const std::vector<MountEntry>& table,
                                       const std::filesystem::path& path);

}  // namespace VolumeInfo

}  // namespace corvane
