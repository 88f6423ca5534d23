// Fills a new state folder with a whole sample org.
//
// generateOrg() makes DIR a complete state folder the server can serve: every
// catalog object filled with consistent records (references point at records
// that exist, owners are the org's users, CreatedDate <= LastModifiedDate <=
// SystemModstamp spread over the two years before the org's clock, a few records
// in the Recycle Bin, file bodies with their checksums), and DIR/ground-truth.csv
// listing which Accounts, Contacts and Leads are the same real-world company or
// person ("object,id,entity", one line per record that belongs to a cluster).
//
// The same seed (and the same `now`) gives byte-identical records and ground
// truth. Rows are streamed to the database in transactions as they are made, so
// memory stays flat at millions of rows per object.
//
// The folder is built beside DIR under a temporary name and moved into place
// only when complete: a failed or stopped run leaves DIR as it was. DIR must not
// exist yet, or be an empty folder.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace corvane::orgsim {

struct GenerateOptions {
  std::filesystem::path out;
  std::uint64_t seed = 1;
  // "tiny" (tens of rows per object), "demo" (thousands) or "large" (hundreds of
  // thousands).
  std::string scale = "demo";
  // Rows per object, overriding the scale ("Account" -> 2000000).
  std::map<std::string, std::int64_t> sizes;
  // Called now and then while an object is written, and once when it is done.
  std::function<void(std::string_view object, std::int64_t done, std::int64_t total)> progress;
  // The org's clock at generation: record dates are spread over the two years
  // before it, and the org's clock is set to it. None: the real time now.
  std::optional<std::chrono::system_clock::time_point> now;
  // Asked between batches of rows; returning true stops the run (GenerateError
  // Stopped), leaving nothing behind.
  std::function<bool()> shouldStop;
};

class GenerateError : public std::runtime_error {
 public:
  enum class Kind {
    UnknownScale,   // value: the scale given
    UnknownObject,  // value: the object name given in a size
    BadSize,        // value: "Object=N: why"
    FolderInUse,    // value: the folder
    CannotWrite,    // value: "path: reason"
    Store,          // value: the store's own sentence
    Stopped,        // value: empty
  };

  GenerateError(Kind kind, std::string value);
  Kind kind() const { return kind_; }
  const std::string& value() const { return value_; }
  // The sentence shown to a person (also what what() returns).
  std::string description() const;

 private:
  Kind kind_;
  std::string value_;
};

// The rows per object that a scale and the given overrides come to, for every
// object the generator fills. Throws GenerateError (UnknownScale, UnknownObject,
// BadSize).
std::map<std::string, std::int64_t> plannedSizes(const GenerateOptions& options);

// Builds the org. Throws GenerateError; on any failure DIR is left untouched.
void generateOrg(const GenerateOptions& options);

}  // namespace corvane::orgsim
