// The bodies of files: text, CSV, JSON, and binary-looking PDF, PNG and DOCX
// bytes (including NUL bytes), from a hundred bytes to about a hundred kilobytes.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "tools/orgsim/generate/random_source.hpp"

namespace corvane::orgsim {

struct FileKind {
  std::string_view extension;    // "pdf"
  std::string_view fileType;     // what ContentVersion.FileType says: "PDF"
  std::string_view contentType;  // the MIME type
  bool binary;
};

namespace FileBodies {

std::span<const FileKind> kinds();
const FileKind& pick(RandomSource& random);

// A body of that kind; `random` decides its size and bytes.
std::string make(const FileKind& kind, RandomSource& random);

// A file name people would give it, without the extension ("Q3 forecast (final)").
std::string title(RandomSource& random);

}  // namespace FileBodies

}  // namespace corvane::orgsim
