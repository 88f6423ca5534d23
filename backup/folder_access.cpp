#include "backup/folder_access.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <memory>
#include <mutex>
#include <thread>

namespace corvane {

namespace fs = std::filesystem;

namespace FolderWriteProbe {

FolderAccess touch(const fs::path& folder) {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char stamp[64];
  std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d:%02d:%02dZ", utc.tm_year + 1900,
                utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
  const std::string path = (folder / fileName).string();
  // O_NOFOLLOW: a link planted under this name is never written through.
  const int descriptor =
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor < 0) return FolderAccess::refused;
  const std::string text = std::string(stamp) + "\n";
  const bool written =
      ::write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  const bool closed = ::close(descriptor) == 0;
  return written && closed ? FolderAccess::writable : FolderAccess::refused;
}

fs::path deepestThatExists(const fs::path& url) {
  fs::path path = url.lexically_normal();
  while (!path.empty()) {
    std::error_code error;
    if (fs::is_directory(path, error)) return path;
    if (!path.has_relative_path()) break;
    fs::path parent = path.parent_path();
    if (parent == path) break;
    path = parent;
  }
  return path.empty() ? fs::path("/") : path.root_path();
}

FolderAccess write(const fs::path& url, double deadlineSeconds) {
  // Shared with the worker, which may outlive this call.
  struct Holder {
    std::mutex mutex;  // guards answer
    std::condition_variable answered;
    std::optional<FolderAccess> answer;
  };
  auto holder = std::make_shared<Holder>();
  const fs::path folder = deepestThatExists(url);
  std::thread([holder, folder] {
    FolderAccess access = touch(folder);
    std::lock_guard lock(holder->mutex);
    holder->answer = access;
    holder->answered.notify_all();
  }).detach();

  std::unique_lock lock(holder->mutex);
  const auto deadline = std::chrono::duration<double>(deadlineSeconds < 0 ? 0 : deadlineSeconds);
  holder->answered.wait_for(lock, deadline, [&] { return holder->answer.has_value(); });
  return holder->answer.value_or(FolderAccess::didNotAnswer);
}

}  // namespace FolderWriteProbe

namespace BackupAccessText {

namespace {
std::string place(const std::optional<std::string>& disk) {
  return disk && !disk->empty() ? *disk : "this folder";
}
}  // namespace

std::string needsPermission(const std::string& org, const std::optional<std::string>& disk) {
  const std::string where =
      disk && !disk->empty() ? *disk : std::string("the folder these backups are kept in");
  return "Backups of " + org + " did not run because macOS has not given Corvane " +
         "permission to write to " + where + ". Open Data Backup for " + org + " and press Allow " +
         "Access. macOS asks you once, and backups start again after that.";
}

std::string windowNeedsPermission(const std::optional<std::string>& disk) {
  return "macOS has not given Corvane permission to write to " + place(disk) + ". Backups you " +
         "start yourself will ask, but a scheduled backup runs with nobody at the Mac and " +
         "cannot answer. Press Allow Access to be asked now.";
}

std::string accessAllowed(const std::optional<std::string>& disk) {
  return "Corvane can write to " + place(disk) + ". Scheduled backups can run while nobody is " +
         "at the Mac.";
}

std::string accessRefused(const std::optional<std::string>& disk) {
  return "macOS refused Corvane permission to write to " + place(disk) + ". Open System " +
         "Settings, then Privacy and Security, and allow Corvane to reach files and " +
         "folders \u2014 or choose a different folder for this backup.";
}

std::string accessDidNotAnswer(const std::optional<std::string>& disk) {
  return "macOS did not answer about writing to " + place(disk) +
         ". If a permission dialog appeared, " + "answer it and try again.";
}

}  // namespace BackupAccessText

namespace BackupEjectText {

std::string ejected(const std::string& name) {
  return name + " has been ejected. You can unplug it now. Backups of this org wait until it is " +
         "plugged in again \u2014 nothing will be written anywhere else.";
}

std::string refused(const std::string& name, const std::string& because) {
  if (!because.empty()) return name + " could not be ejected. macOS said: " + because;
  return name + " could not be ejected. macOS did not say why. Close anything that is " +
         "reading the disk and try again, or use the Finder.";
}

std::string refusedWhileRunning(const std::string& name) {
  return "A backup is being written to " + name + " right now, so it cannot be ejected. Wait " +
         "for it to finish, or press Stop, and then try again.";
}

std::string scheduledRunWriting(const std::string& name) {
  return "A scheduled backup of this org is running now and writing to " + name +
         ", so it cannot be " + "ejected. It will finish on its own; try again then.";
}

std::string readingForCompleteCopy(const std::string& name) {
  return "Corvane is reading " + name + " to save a complete copy, so it cannot be ejected yet. " +
         "The copy finishes on its own; try again then.";
}

std::string beingEjected(const std::string& name) {
  return name + " is being ejected, so a backup cannot start now. Wait for it to finish, and " +
         "plug the disk back in when you want another backup.";
}

std::string keptOn(const std::string& name) {
  return "This backup is kept on " + name + ". You can eject it before unplugging it.";
}

std::string connectedAgain(const std::string& name) {
  return name + " is connected again. Backups of this org can run as usual.";
}

std::string notConnected(const std::string& name) {
  return "The disk this backup is kept on, " + name + ", is not connected. Backups of this org " +
         "wait until it is plugged in again, and nothing is written anywhere else in the " +
         "meantime. The backups already on it are untouched.";
}

}  // namespace BackupEjectText

}  // namespace corvane
