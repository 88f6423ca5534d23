#include "tools/orgsim/generate/ground_truth.hpp"

#include <cerrno>
#include <cstring>
#include <string>

#include <unistd.h>

#include "tools/orgsim/generate/generator.hpp"

namespace corvane::orgsim {

namespace {

[[noreturn]] void fail(const std::filesystem::path& path, int error) {
  throw GenerateError(GenerateError::Kind::CannotWrite,
                      path.string() + ": " + std::strerror(error));
}

}  // namespace

GroundTruth::GroundTruth(const std::filesystem::path& file) : path_(file) {
  file_ = std::fopen(file.c_str(), "wb");
  if (file_ == nullptr) fail(path_, errno);
  std::fputs("object,id,entity\n", file_);
}

GroundTruth::~GroundTruth() {
  if (file_ != nullptr) std::fclose(file_);
}

void GroundTruth::add(std::string_view object, std::string_view id, std::string_view entity) {
  // Object names, ids and entity names hold no commas, quotes or line breaks.
  std::string line;
  line.reserve(object.size() + id.size() + entity.size() + 3);
  line.append(object).append(",").append(id).append(",").append(entity).append("\n");
  if (std::fwrite(line.data(), 1, line.size(), file_) != line.size()) fail(path_, errno);
}

void GroundTruth::finish() {
  if (file_ == nullptr) return;
  bool ok = std::fflush(file_) == 0 && ::fsync(fileno(file_)) == 0;
  int error = errno;
  ok = std::fclose(file_) == 0 && ok;
  file_ = nullptr;
  if (!ok) fail(path_, error);
}

}  // namespace corvane::orgsim
