#include "platform/volume_info.hpp"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#ifdef __APPLE__
#include <sys/mount.h>
#include <sys/param.h>
#else
#include <sys/statfs.h>
#include <sys/statvfs.h>
#endif

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <fstream>
#include <sstream>

namespace corvane {

namespace {

using Kind = FileError::Kind;

constexpr std::int64_t kFatLargestFile = (std::int64_t{1} << 32) - 1;

void requireExists(const std::filesystem::path& folder) {
  struct stat info {};
  if (::stat(folder.c_str(), &info) != 0) throw FileError(Kind::inspect, folder, errno);
}

std::filesystem::path normalised(const std::filesystem::path& path) {
  std::error_code error;
  auto absolute = std::filesystem::absolute(path, error);
  if (error) return path;
  auto canonical = std::filesystem::weakly_canonical(absolute, error);
  return error ? absolute.lexically_normal() : canonical;
}

bool isUnder(const std::filesystem::path& path, const std::filesystem::path& folder) {
  auto p = path.begin();
  for (auto f = folder.begin(); f != folder.end(); ++f, ++p) {
    if (f->empty()) continue;  // a trailing separator
    if (p == path.end() || *p != *f) return false;
  }
  return true;
}

std::string lastPart(const std::filesystem::path& mountPoint) {
  const auto name = mountPoint.filename().string();
  return name.empty() ? mountPoint.string() : name;
}

// Octal escapes in mountinfo paths: "\040" is a space.
std::string unescapeMountPath(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool octal = text[i] == '\\' && i + 3 < text.size() &&
                       std::all_of(text.begin() + static_cast<std::ptrdiff_t>(i + 1),
                                   text.begin() + static_cast<std::ptrdiff_t>(i + 4),
                                   [](char c) { return c >= '0' && c <= '7'; });
    if (octal) {
      out.push_back(static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 +
                                      (text[i + 3] - '0')));
      i += 3;
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

#ifdef __APPLE__

std::vector<MountEntry> readMountTable() {
  struct statfs* mounts = nullptr;
  const int count = ::getmntinfo(&mounts, MNT_NOWAIT);
  std::vector<MountEntry> table;
  for (int i = 0; i < count; ++i) {
    table.push_back(
        MountEntry{mounts[i].f_mntonname, mounts[i].f_fstypename, mounts[i].f_mntfromname});
  }
  return table;
}

// Hidden system volumes (/System/Volumes/..., devfs) are flagged "do not browse".
bool isUserVisible(const MountEntry& entry) {
  struct statfs info {};
  if (::statfs(entry.mountPoint.c_str(), &info) != 0) return false;
  return (info.f_flags & MNT_DONTBROWSE) == 0;
}

MountedVolume describe(const MountEntry& entry) {
  MountedVolume volume;
  volume.mountPoint = entry.mountPoint;
  volume.fileSystem = entry.fileSystem;
  volume.name = lastPart(entry.mountPoint);
  struct statfs info {};
  const bool known = ::statfs(entry.mountPoint.c_str(), &info) == 0;
  volume.isStartupDisk = entry.mountPoint == "/" || (known && (info.f_flags & MNT_ROOTFS) != 0);
  // Disks other than the startup disk appear under /Volumes and can be ejected.
  volume.ejectable = !volume.isStartupDisk && isUnder(entry.mountPoint, "/Volumes");
  volume.removable = volume.ejectable && known && (info.f_flags & MNT_LOCAL) != 0;
  return volume;
}

#else

std::string userName() {
  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
      found->pw_name) {
    return found->pw_name;
  }
  return {};
}

std::vector<MountEntry> readMountTable() {
  std::ifstream in("/proc/self/mountinfo");
  if (!in) return {};
  std::ostringstream text;
  text << in.rdbuf();
  return VolumeInfo::parseMountInfo(text.str());
}

// Mount points and file systems that are the system's own, never a disk.
bool isUserVisible(const MountEntry& entry) {
  static constexpr std::array<std::string_view, 27> kPseudo = {
      "proc",    "sysfs",     "devtmpfs", "devpts",      "tmpfs",    "cgroup",     "cgroup2",
      "mqueue",  "debugfs",   "tracefs",  "securityfs",  "pstore",   "bpf",        "configfs",
      "fusectl", "hugetlbfs", "autofs",   "binfmt_misc", "efivarfs", "rpc_pipefs", "nsfs",
      "ramfs",   "selinuxfs", "squashfs", "gvfsd-fuse",  "portal",   "overlay"};
  if (std::find(kPseudo.begin(), kPseudo.end(), entry.fileSystem) != kPseudo.end()) {
    return entry.mountPoint == "/";  // a container's root is still the startup disk
  }
  for (const char* system : {"/proc", "/sys", "/dev", "/snap", "/boot"}) {
    if (isUnder(entry.mountPoint, system)) return false;
  }
  return !isUnder(entry.mountPoint, "/run") || isUnder(entry.mountPoint, "/run/media");
}

std::string readSmallFile(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

// udev writes labels with \xHH escapes ("My\x20Disk").
std::string unescapeLabel(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size() && text[i + 1] == 'x' &&
        std::isxdigit(static_cast<unsigned char>(text[i + 2])) &&
        std::isxdigit(static_cast<unsigned char>(text[i + 3]))) {
      out.push_back(static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16)));
      i += 3;
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

std::optional<std::string> labelOf(const std::string& source) {
  std::error_code error;
  if (source.rfind("/dev/", 0) != 0) return std::nullopt;
  const auto device = std::filesystem::canonical(source, error);
  if (error) return std::nullopt;
  for (const auto& link : std::filesystem::directory_iterator("/dev/disk/by-label", error)) {
    std::error_code linkError;
    if (std::filesystem::canonical(link.path(), linkError) == device && !linkError) {
      return unescapeLabel(link.path().filename().string());
    }
  }
  return std::nullopt;
}

// The block device is removable, or sits on a USB bus (USB disks often say 0).
bool isRemovableDevice(const std::string& source) {
  if (source.rfind("/dev/", 0) != 0) return false;
  std::error_code error;
  const auto device = std::filesystem::canonical(source, error);
  if (error) return false;
  auto sysfs = std::filesystem::canonical("/sys/class/block" / device.filename(), error);
  if (error) return false;
  if (std::filesystem::exists(sysfs / "partition", error)) sysfs = sysfs.parent_path();
  return readSmallFile(sysfs / "removable") == "1" ||
         sysfs.string().find("/usb") != std::string::npos;
}

MountedVolume describe(const MountEntry& entry) {
  MountedVolume volume;
  volume.mountPoint = entry.mountPoint;
  volume.fileSystem = entry.fileSystem;
  volume.isStartupDisk = entry.mountPoint == "/";
  volume.name = labelOf(entry.source).value_or(lastPart(entry.mountPoint));
  volume.removable = isRemovableDevice(entry.source);
  volume.ejectable =
      !volume.isStartupDisk && (volume.removable || isUnder(entry.mountPoint, "/media") ||
                                isUnder(entry.mountPoint, "/run/media"));
  return volume;
}

// Where the mount table is not readable: the kernel's file-system magic.
std::string nameFromMagic(const std::filesystem::path& folder) {
  struct statfs info {};
  if (::statfs(folder.c_str(), &info) != 0) throw FileError(Kind::inspect, folder, errno);
  switch (static_cast<unsigned long>(info.f_type)) {
    case 0xEF53:
      return "ext4";
    case 0x4d44:
      return "vfat";
    case 0x2011BAB0:
      return "exfat";
    case 0x58465342:
      return "xfs";
    case 0x9123683E:
      return "btrfs";
    case 0x01021994:
      return "tmpfs";
    case 0x6969:
      return "nfs";
    case 0x794c7630:
      return "overlay";
    case 0x5346544e:
      return "ntfs";
    default:
      return "unknown";
  }
}

#endif

}  // namespace

namespace VolumeInfo {

std::uint64_t freeBytes(const std::filesystem::path& folder) {
#ifdef __APPLE__
  // statvfs counts blocks in 32 bits on macOS; statfs does not.
  struct statfs info {};
  if (::statfs(folder.c_str(), &info) != 0) throw FileError(Kind::inspect, folder, errno);
  return static_cast<std::uint64_t>(info.f_bavail) * static_cast<std::uint64_t>(info.f_bsize);
#else
  struct statvfs info {};
  if (::statvfs(folder.c_str(), &info) != 0) throw FileError(Kind::inspect, folder, errno);
  return static_cast<std::uint64_t>(info.f_bavail) * static_cast<std::uint64_t>(info.f_frsize);
#endif
}

std::string fileSystemName(const std::filesystem::path& folder) {
  requireExists(folder);
#ifdef __APPLE__
  struct statfs info {};
  if (::statfs(folder.c_str(), &info) != 0) throw FileError(Kind::inspect, folder, errno);
  return info.f_fstypename;
#else
  if (auto entry = entryHolding(readMountTable(), normalised(folder))) return entry->fileSystem;
  return nameFromMagic(folder);
#endif
}

std::optional<std::int64_t> largestFileSize(const std::filesystem::path& folder) {
  return largestFileSizeOf(fileSystemName(folder));
}

std::optional<std::int64_t> largestFileSizeOf(std::string_view fileSystemName) {
  for (std::string_view fat : {"vfat", "msdos", "fat", "fat32"}) {
    if (fileSystemName == fat) return kFatLargestFile;
  }
  return std::nullopt;
}

std::vector<MountedVolume> mounted() {
  // A later mount on the same point hides the earlier one; keep what is visible.
  std::vector<MountEntry> visible;
  for (const auto& entry : readMountTable()) {
    if (!isUserVisible(entry)) continue;
    std::erase_if(visible, [&](const MountEntry& e) { return e.mountPoint == entry.mountPoint; });
    visible.push_back(entry);
  }
  std::vector<MountedVolume> volumes;
  volumes.reserve(visible.size());
  for (const auto& entry : visible) volumes.push_back(describe(entry));
  return volumes;
}

std::optional<MountedVolume> volumeHolding(const std::filesystem::path& path) {
  if (auto entry = entryHolding(readMountTable(), normalised(path))) return describe(*entry);
  return std::nullopt;
}

std::filesystem::path volumesFolder() {
#ifdef __APPLE__
  return "/Volumes";
#else
  const std::string user = userName();
  std::error_code error;
  if (!user.empty()) {
    for (const char* base : {"/run/media", "/media"}) {
      const auto candidate = std::filesystem::path(base) / user;
      if (std::filesystem::is_directory(candidate, error)) return candidate;
    }
  }
  return "/media";
#endif
}

std::vector<MountEntry> parseMountInfo(std::string_view text) {
  std::vector<MountEntry> table;
  while (!text.empty()) {
    const auto end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);

    // id parent major:minor root mount-point options [optional...] - type source super-options
    std::vector<std::string_view> fields;
    std::size_t start = 0;
    while (start < line.size()) {
      const auto space = line.find(' ', start);
      const auto stop = space == std::string_view::npos ? line.size() : space;
      if (stop > start) fields.push_back(line.substr(start, stop - start));
      start = stop + 1;
    }
    const auto separator = std::find(fields.begin(), fields.end(), "-");
    if (fields.size() < 6 || separator == fields.end() || separator - fields.begin() < 6 ||
        fields.end() - separator < 3) {
      continue;
    }
    std::string type(separator[1]);
    // FUSE mounts name their driver after a dot: "fuse.sshfs".
    if (type.rfind("fuse.", 0) == 0 && type.size() > 5) type = type.substr(5);
    table.push_back(
        MountEntry{unescapeMountPath(fields[4]), type, unescapeMountPath(separator[2])});
  }
  return table;
}

std::optional<MountEntry> entryHolding(const std::vector<MountEntry>& table,
                                       const std::filesystem::path& path) {
  std::optional<MountEntry> best;
  std::size_t bestDepth = 0;
  for (const auto& entry : table) {
    if (!isUnder(path, entry.mountPoint)) continue;
    const auto depth =
        static_cast<std::size_t>(std::distance(entry.mountPoint.begin(), entry.mountPoint.end()));
    // Later lines win ties: they are mounted on top of the earlier ones.
    if (!best || depth >= bestDepth) {
      best = entry;
      bestDepth = depth;
    }
  }
  return best;
}

}  // namespace VolumeInfo

}  // namespace corvane
