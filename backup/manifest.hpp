// manifest.json: what one run did, written at the end of every run (a stopped
// one too), after the object CSVs and before "READ ME.txt" and last-run.json.
// Keys are written in a fixed order so that people and scripts can read it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "backup/run_kind.hpp"

namespace corvane {

struct Manifest {
  static constexpr int format = 1;
  static constexpr const char* filesFolder = "../Files";
  static constexpr const char* note =
      "Values are exactly as Salesforce sent them. The documents and attachments themselves are "
      "in the Files folder one level up, beside the dated folders, because the same document "
      "belongs to every backup that lists it.";

  struct ObjectDeletions {
    std::string name;
    std::int64_t deleted = 0;
    std::int64_t missing = 0;
    std::int64_t heldBefore = 0;
    bool unusual = false;
    bool operator==(const ObjectDeletions&) const = default;
  };
  // An object and why something about it failed or was left out.
  struct ObjectReason {
    std::string name;
    std::string reason;
    bool operator==(const ObjectReason&) const = default;
  };
  // A document given up on: its id, its name in the Files folder, and why.
  struct FailedFile {
    std::string id;
    std::string name;
    std::string reason;
    bool operator==(const FailedFile&) const = default;
  };
  struct Files {
    std::vector<FailedFile> failed;  // every body given up on, this run or earlier
    std::string salesforceTimeAtStart;  // ISO 8601, the org's clock
    std::int64_t waiting = 0;
    std::int64_t leftOut = 0;
    std::int64_t leftOutThisRun = 0;
    std::int64_t downloadedThisRun = 0;
    bool operator==(const Files&) const = default;
  };
  struct RetentionOutcome {
    std::vector<std::string> removed;
    std::int64_t bytesFreed = 0;
    std::vector<std::string> couldNotRemove;
    bool operator==(const RetentionOutcome&) const = default;
  };

  RunKind kind = RunKind::full;
  std::string username;
  std::string startedAt;
  std::string finishedAt;
  std::string result;
  std::string message;
  std::vector<std::string> objects;
  std::int64_t deletionCount = 0;
  std::vector<ObjectDeletions> deletionsByObject;
  std::vector<ObjectReason> idChecksFailed;
  Files files;
  std::vector<ObjectReason> objectsLeftOut;
  RetentionOutcome retention;

  static constexpr const char* fileName = "manifest.json";

  // The JSON text, keys in their fixed order, pretty-printed.
  std::string json() const;
  // Replaces manifest.json in the dated folder atomically. Throws FileError.
  void write(const std::filesystem::path& datedFolder) const;

  // None when the text is not a manifest this program wrote.
  static std::optional<Manifest> parse(std::string_view text);
  // None when the file is missing or cannot be read, never an error.
  static std::optional<Manifest> read(const std::filesystem::path& datedFolder);

  bool operator==(const Manifest&) const = default;
};

}  // namespace corvane
