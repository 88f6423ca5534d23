// The backup engine's way to Salesforce: everything the duplicate engine's
// transport does, plus streaming a body straight into a file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "connections/dedupe_transport.hpp"

namespace corvane {

class BackupTransport : public DedupeTransport {
 public:
  // Streams the body of a GET of path (a file or attachment body) into file,
  // replacing it, and returns the byte count. Throws like the other calls.
  virtual std::int64_t download(const std::string& path, const std::filesystem::path& file) = 0;
};

}  // namespace corvane
