// The one error type for the platform's file operations: what was being done
// (the kind), to which path, and the operating system's reason.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

namespace corvane {

class FileError : public std::runtime_error {
 public:
  enum class Kind {
    open,          // the file could not be opened or created
    read,          // reading failed
    write,         // writing failed (disk full, disk gone, ...)
    sync,          // the data could not be made durable
    truncate,      // the file could not be cut to a length
    replace,       // the new version could not take the old one's place
    moveAside,     // an unreadable file could not be moved out of the way
    createFolder,  // a folder could not be created
    inspect,       // the file or its volume could not be examined
    lock,          // the lock call failed for a reason other than "held elsewhere"
  };

  // osError is an errno value; 0 when the operating system gave no reason.
  FileError(Kind kind, std::filesystem::path path, int osError);

  Kind kind() const { return kind_; }
  const std::filesystem::path& path() const { return path_; }
  int osError() const { return osError_; }
  // The operating system's own words for osError ("No space left on device").
  std::string reason() const;
  // The sentence a user reads: what failed, on which file, what is unchanged
  // and what to do.
  std::string description() const;

 private:
  Kind kind_;
  std::filesystem::path path_;
  int osError_;
};

}  // namespace corvane
