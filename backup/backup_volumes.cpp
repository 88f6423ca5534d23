#include "backup/backup_volumes.hpp"

#include <cstdlib>
#include <fstream>
#include <sstream>

#ifndef __APPLE__
#include <pwd.h>
#include <unistd.h>
#endif

#include "platform/volume_info.hpp"

namespace corvane {

namespace fs = std::filesystem;

namespace {

// The first part of url below folder, when url lies strictly below it.
std::optional<std::string> firstPartBelow(const fs::path& folder, const fs::path& url) {
  if (folder.empty()) return std::nullopt;
  const fs::path base = folder.lexically_normal();
  const fs::path path = url.lexically_normal();
  auto b = base.begin();
  auto p = path.begin();
  for (; b != base.end(); ++b, ++p) {
    if (b->empty()) continue;  // the empty part after a trailing separator
    if (p == path.end() || *p != *b) return std::nullopt;
  }
  while (p != path.end() && p->empty()) ++p;
  if (p == path.end()) return std::nullopt;
  const std::string name = p->string();
  if (name == "." || name == "..") return std::nullopt;
  return name;
}

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ' || text.back() == '\r'))
    text.pop_back();
  const auto start = text.find_first_not_of(" \n");
  return start == std::string::npos ? std::string() : text.substr(start);
}

}  // namespace

BackupVolumes BackupVolumes::system() {
  BackupVolumes volumes;
  volumes.volumesFolder = VolumeInfo::volumesFolder();
#ifndef __APPLE__
  // Desktops mount removable disks under /run/media/$USER or /media/$USER;
  // people mount disks by hand under /mnt.
  std::string user;
  if (const char* name = std::getenv("USER"); name != nullptr) user = name;
  if (user.empty()) {
    if (const passwd* entry = ::getpwuid(::getuid()); entry != nullptr) user = entry->pw_name;
  }
  std::vector<fs::path> candidates;
  if (!user.empty()) {
    candidates.push_back(fs::path("/run/media") / user);
    candidates.push_back(fs::path("/media") / user);
  }
  candidates.push_back("/mnt");
  for (const auto& candidate : candidates)
    if (candidate.lexically_normal() != volumes.volumesFolder.lexically_normal())
      volumes.moreVolumesFolders.push_back(candidate);
#endif
  volumes.mounted = [] {
    std::vector<fs::path> points;
    for (const auto& volume : VolumeInfo::mounted()) points.push_back(volume.mountPoint);
    return points;
  };
  volumes.volume = [](const fs::path& mountPoint) -> std::optional<BackupVolume> {
    for (const auto& volume : VolumeInfo::mounted()) {
      if (volume.mountPoint.lexically_normal() != mountPoint.lexically_normal()) continue;
      return BackupVolume{volume.mountPoint, volume.name, volume.ejectable, volume.removable,
                          volume.isStartupDisk};
    }
    return std::nullopt;
  };
  return volumes;
}

BackupVolumes BackupVolumes::fromEnvironment(
    const std::map<std::string, std::string>& environment) {
  if (auto it = environment.find("CORVANE_VOLUMES_FOLDER");
      it != environment.end() && !it->second.empty())
    return inFolder(it->second);
  return system();
}

BackupVolumes BackupVolumes::inFolder(fs::path volumesFolder) {
  BackupVolumes volumes;
  volumes.volumesFolder = volumesFolder;
  volumes.mounted = [volumesFolder] {
    std::vector<fs::path> points;
    for (const auto& entry : fs::directory_iterator(volumesFolder))
      if (entry.is_directory()) points.push_back(entry.path());
    return points;
  };
  volumes.volume = [](const fs::path& mountPoint) -> std::optional<BackupVolume> {
    std::error_code error;
    if (!fs::is_directory(mountPoint, error)) return std::nullopt;
    return BackupVolume{mountPoint, mountPoint.filename().string(), true, true, false};
  };
  return volumes;
}

std::optional<std::pair<fs::path, std::string>> BackupVolumes::diskOf(
    const fs::path& url) const {
  if (auto name = firstPartBelow(volumesFolder, url)) return {{volumesFolder / *name, *name}};
  for (const auto& folder : moreVolumesFolders)
    if (auto name = firstPartBelow(folder, url)) return {{folder / *name, *name}};
  return std::nullopt;
}

std::optional<std::string> BackupVolumes::volumeName(const fs::path& url) const {
  if (auto disk = diskOf(url)) return disk->second;
  return std::nullopt;
}

BackupVolumes::VolumePresence BackupVolumes::presence(const fs::path& url) const {
  const auto disk = diskOf(url);
  if (!disk) return {VolumePresence::Kind::notOnAVolumeThatCanGo, ""};
  const auto& [mountPoint, name] = *disk;
  std::vector<fs::path> points;
  try {
    if (!mounted) return {VolumePresence::Kind::cannotTell, name};
    points = mounted();
  } catch (const std::exception&) {
    return {VolumePresence::Kind::cannotTell, name};
  }
  for (const auto& point : points) {
    if (point.lexically_normal() == mountPoint.lexically_normal())
      return {VolumePresence::Kind::mounted, name};
  }
  return {VolumePresence::Kind::notMounted, name};
}

BackupFolderState BackupVolumes::reach(const fs::path& url) const {
  const auto found = presence(url);
  if (found.kind == VolumePresence::Kind::notMounted)
    return BackupFolderState::driveNotConnected(found.name);
  return BackupFolderState::reachable();
}

std::optional<BackupVolume> BackupVolumes::ejectableVolume(const fs::path& url) const {
  const auto found = presence(url);
  if (found.kind != VolumePresence::Kind::mounted || !volume) return std::nullopt;
  std::optional<BackupVolume> result;
  try {
    result = volume(diskOf(url)->first);
  } catch (const std::exception&) {
    return std::nullopt;
  }
  if (!result || !result->ejectable || result->isStartupDisk) return std::nullopt;
  if (result->name.empty()) result->name = found.name;
  return result;
}

EjectOutcome ejectVolume(const BackupVolume& volume, const CommandRunner& run) {
  auto attempt = [&](const fs::path& executable,
                     std::vector<std::string> arguments) -> std::optional<std::string> {
    ProcessRequest request;
    request.executable = executable;
    request.arguments = std::move(arguments);
    request.environment = ChildProcess::currentEnvironment();
    request.timeout = std::chrono::seconds(60);
    try {
      const ProcessResult result = run(request);
      if (result.exitStatus == 0) return std::nullopt;
      return trimmed(result.standardError.empty() ? result.standardOutput : result.standardError);
    } catch (const std::exception& failure) {
      return std::string(failure.what());
    }
  };

#ifdef __APPLE__
  if (auto complaint = attempt("/usr/sbin/diskutil", {"eject", volume.mountPoint.string()}))
    return EjectOutcome::refused(*complaint);
  return EjectOutcome::ejected();
#else
  const fs::path udisks = "/usr/bin/udisksctl";
  if (ChildProcess::isExecutableFile(udisks)) {
    std::string device;
    std::ifstream mountInfo("/proc/self/mountinfo");
    std::stringstream text;
    text << mountInfo.rdbuf();
    const auto table = VolumeInfo::parseMountInfo(text.str());
    for (const auto& entry : table) {
      if (entry.mountPoint.lexically_normal() == volume.mountPoint.lexically_normal())
        device = entry.source;
    }
    if (!device.empty()) {
      if (auto complaint = attempt(udisks, {"unmount", "--block-device", device}))
        return EjectOutcome::refused(*complaint);
      // The disk is unmounted: powering it off is a courtesy some disks refuse.
      attempt(udisks, {"power-off", "--block-device", device});
      return EjectOutcome::ejected();
    }
  }
  if (auto complaint = attempt("/usr/bin/eject", {volume.mountPoint.string()}))
    return EjectOutcome::refused(*complaint);
  return EjectOutcome::ejected();
#endif
}

}  // namespace corvane
