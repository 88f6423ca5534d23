#include "platform/file_error.hpp"

#include <cerrno>
#include <system_error>

namespace corvane {

namespace {

// What to do when a file cannot be opened depends on why.
std::string openAdvice(int osError) {
  switch (osError) {
    case ENOENT:
    case ENOTDIR:
      return " Check the name, and that the file or its folder exists.";
    case EACCES:
    case EPERM:
    case EROFS:
      return " Check that you may use this file and its folder.";
    default:
      return " Check that the folder exists and that you may write to it.";
  }
}

std::string sentence(FileError::Kind kind, const std::string& path, const std::string& reason,
                     int osError) {
  using Kind = FileError::Kind;
  const std::string because = reason.empty() ? "." : " (" + reason + ").";
  switch (kind) {
    case Kind::open:
      return "Corvane could not open " + path + because + openAdvice(osError);
    case Kind::read:
      return "Corvane could not read " + path + because +
             " The file was left as it is. Check that its disk is connected.";
    case Kind::write:
      return "Corvane could not write to " + path + because +
             " Check that the disk is connected and has free space, then try again.";
    case Kind::sync:
      return "Corvane could not save " + path + " safely to disk" + because +
             " Check that the disk is connected, then try again.";
    case Kind::truncate:
      return "Corvane could not shorten " + path + because +
             " Check that the disk is connected and that you may write to it.";
    case Kind::replace:
      return "Corvane could not save the new version of " + path + because +
             " The previous version is unchanged.";
    case Kind::moveAside:
      return "Corvane could not move the unreadable file " + path + " out of the way" + because +
             " The file is unchanged and nothing was written over it.";
    case Kind::createFolder:
      return "Corvane could not create the folder " + path + because +
             " Check that the disk is connected and that you may write there.";
    case Kind::inspect:
      return "Corvane could not examine " + path + because + " Check that its disk is connected.";
    case Kind::lock:
      return "Corvane could not lock " + path + because +
             " The disk may not support locks; choose a folder on another disk.";
  }
  return "Corvane could not use " + path + because;
}

}  // namespace

FileError::FileError(Kind kind, std::filesystem::path path, int osError)
    : std::runtime_error(sentence(
          kind, path.string(),
          osError == 0 ? std::string() : std::generic_category().message(osError), osError)),
      kind_(kind),
      path_(std::move(path)),
      osError_(osError) {}

std::string FileError::reason() const {
  return osError_ == 0 ? std::string() : std::generic_category().message(osError_);
}

std::string FileError::description() const { return what(); }

}  // namespace corvane
