// May this program write to the backup folder, and the sentences about it and
// about the backup disk.
//
// The probe writes a small file in the deepest existing folder of the backup
// path on a worker of its own, so that a permission prompt that blocks cannot
// hold the caller past its deadline. It never creates the backup folder.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace corvane {

enum class FolderAccess { writable, refused, didNotAnswer };

namespace FolderWriteProbe {

inline constexpr const char* fileName = ".corvane-access-check";
inline constexpr double tickDeadline = 20;     // seconds, a scheduled run
inline constexpr double windowDeadline = 120;  // seconds, from a window

// Writes fileName in folder with the current UTC time
// ("%04d-%02d-%02dT%02d:%02d:%02dZ"). writable on success; refused otherwise.
FolderAccess touch(const std::filesystem::path& folder);

// The deepest folder on url's path that exists (url itself when it does);
// the root when nothing else does.
std::filesystem::path deepestThatExists(const std::filesystem::path& url);

// touch(deepestThatExists(url)) on a worker; didNotAnswer when it has not
// answered within deadlineSeconds (its late answer is dropped).
FolderAccess write(const std::filesystem::path& url, double deadlineSeconds);

}  // namespace FolderWriteProbe

// The place in these sentences is the disk's name when there is one, else
// "this folder".
namespace BackupAccessText {

inline constexpr const char* noticeCode = "folderPermissionNeeded";

std::string needsPermission(const std::string& org, const std::optional<std::string>& disk);
std::string windowNeedsPermission(const std::optional<std::string>& disk);
std::string accessAllowed(const std::optional<std::string>& disk);
std::string accessRefused(const std::optional<std::string>& disk);
std::string accessDidNotAnswer(const std::optional<std::string>& disk);

}  // namespace BackupAccessText

namespace BackupEjectText {

std::string ejected(const std::string& name);
// Without a reason (empty), the sentence says the system did not say why.
std::string refused(const std::string& name, const std::string& because);
std::string refusedWhileRunning(const std::string& name);

// Further notices about the backup disk.
std::string scheduledRunWriting(const std::string& name);
std::string readingForCompleteCopy(const std::string& name);
std::string beingEjected(const std::string& name);
std::string keptOn(const std::string& name);
std::string connectedAgain(const std::string& name);
std::string notConnected(const std::string& name);

}  // namespace BackupEjectText

}  // namespace corvane
