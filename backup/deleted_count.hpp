// One object's deletions found by one run.
#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

namespace corvane {

struct DeletedCount {
  std::string object;
  std::int64_t deleted = 0;     // records found deleted
  std::int64_t missing = 0;     // records no longer found, without a deletion record
  std::int64_t heldBefore = 0;  // live records the backup held before the run

  bool operator==(const DeletedCount&) const = default;
};

// JSON keys are the field names.
void to_json(nlohmann::json& json, const DeletedCount& count);
// Throws nlohmann::json::exception when a key is missing or of the wrong type.
void from_json(const nlohmann::json& json, DeletedCount& count);

}  // namespace corvane
