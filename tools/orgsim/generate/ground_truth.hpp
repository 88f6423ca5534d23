// ground-truth.csv: which records are the same real-world company or person.
//
// One line per record that belongs to a duplicate cluster: "object,id,entity",
// under that header. Records not listed are the only record of their entity.
// Lines are written as the records are, so the file never needs the whole org in
// memory; it is flushed and closed by finish().
#pragma once

#include <cstdio>
#include <filesystem>
#include <string_view>

namespace corvane::orgsim {

class GroundTruth {
 public:
  static constexpr std::string_view kFileName = "ground-truth.csv";

  // Creates (or empties) the file. Throws GenerateError(CannotWrite).
  explicit GroundTruth(const std::filesystem::path& file);
  ~GroundTruth();
  GroundTruth(const GroundTruth&) = delete;
  GroundTruth& operator=(const GroundTruth&) = delete;

  void add(std::string_view object, std::string_view id, std::string_view entity);
  // Flushes and closes; throws GenerateError(CannotWrite) when the disk refused.
  void finish();

 private:
  std::filesystem::path path_;
  std::FILE* file_ = nullptr;
};

}  // namespace corvane::orgsim
