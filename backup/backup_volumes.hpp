// Whether the disk that holds a backup folder is here, and ejecting it.
//
// A folder under the volumes folder (/Volumes on macOS; /run/media/$USER,
// /media/$USER or /media on Linux) lies on the disk named by the first path
// part below it. When that disk is not mounted the folder's mount point is just
// an empty folder on the startup disk, so a run must not write there: reach()
// answers driveNotConnected and the run fails before it writes anything.
// The platform calls are injected so that the logic runs against a volumes
// folder of a test's own.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/child_process.hpp"

namespace corvane {

struct BackupVolume {
  std::filesystem::path mountPoint;
  std::string name;
  bool ejectable = false;
  bool removable = false;
  bool isStartupDisk = false;
  bool operator==(const BackupVolume&) const = default;
};

struct BackupFolderState {
  enum class Kind { reachable, driveNotConnected };
  Kind kind = Kind::reachable;
  std::string name;  // the disk's name when driveNotConnected

  static BackupFolderState reachable() { return {}; }
  static BackupFolderState driveNotConnected(std::string name) {
    return {Kind::driveNotConnected, std::move(name)};
  }
  bool operator==(const BackupFolderState&) const = default;
};

struct EjectOutcome {
  enum class Kind { ejected, refused };
  Kind kind = Kind::ejected;
  std::string because;  // what the system said, when refused; may be empty

  static EjectOutcome ejected() { return {}; }
  static EjectOutcome refused(std::string because) { return {Kind::refused, std::move(because)}; }
  bool operator==(const EjectOutcome&) const = default;
};

struct BackupVolumes {
  struct VolumePresence {
    enum class Kind { mounted, notMounted, cannotTell, notOnAVolumeThatCanGo };
    Kind kind = Kind::notOnAVolumeThatCanGo;
    std::string name;
    bool operator==(const VolumePresence&) const = default;
  };

  // Mount points of the volumes mounted now; may throw when the system cannot
  // say (presence is then cannotTell).
  std::function<std::vector<std::filesystem::path>()> mounted;
  // What the system knows of the volume mounted at a path; none when unknown.
  std::function<std::optional<BackupVolume>(const std::filesystem::path&)> volume;
  std::filesystem::path volumesFolder;
  // Further folders under which disks are mounted, looked at after
  // volumesFolder (Linux: the other of /run/media/$USER and /media/$USER, and /mnt).
  std::vector<std::filesystem::path> moreVolumesFolders;

  // Wired to this machine: the mount table, sysfs and the user's volumes folder.
  static BackupVolumes system();
  // Volumes are the folders in volumesFolder; each is mounted, ejectable and
  // removable. For tests and for tools.
  static BackupVolumes inFolder(std::filesystem::path volumesFolder);
  // inFolder(CORVANE_VOLUMES_FOLDER) when the environment names one (tests and
  // demonstrations of an unplugged disk), else system().
  static BackupVolumes fromEnvironment(const std::map<std::string, std::string>& environment);

  VolumePresence presence(const std::filesystem::path& url) const;
  // The disk's name when url lies under volumesFolder or one of
  // moreVolumesFolders (below it, not on it).
  std::optional<std::string> volumeName(const std::filesystem::path& url) const;
  // driveNotConnected for a disk that is not mounted; reachable otherwise.
  BackupFolderState reach(const std::filesystem::path& url) const;
  // The mounted disk holding url when it can be ejected.
  std::optional<BackupVolume> ejectableVolume(const std::filesystem::path& url) const;

 private:
  // The mount point and name of the disk url lies on, when it lies under one
  // of the volumes folders.
  std::optional<std::pair<std::filesystem::path, std::string>> diskOf(
      const std::filesystem::path& url) const;
};

// Runs a child process; injected so tests never eject a real disk.
using CommandRunner = std::function<ProcessResult(const ProcessRequest&)>;

// Ejects a volume: on Linux `udisksctl unmount` and `power-off` when udisks is
// installed, else `eject`; on macOS `diskutil eject`. The system's complaint
// becomes the refusal's reason. The caller checks first that no run is writing
// to it (BackupLock::isHeld).
EjectOutcome ejectVolume(const BackupVolume& volume, const CommandRunner& run = ChildProcess::run);

}  // namespace corvane
