// The describe data that completion needs, kept on disk per login so that
// completing on every keystroke does not ask Salesforce each time.
//
// Files live in <folder>/<login>/ (the folder is normally "Describe Cache" in
// the application-support folder): "objects.json" for the org's object list
// and "fields <Object>.json" per object, each {"fetchedAt": ISO 8601, "data":
// [...]}, written atomically with mode 0600 in a 0700 folder. Names are built
// from the lower-cased username and the object name with every character
// outside [A-Za-z0-9_.@-] escaped, so text from an org never becomes a path as
// it is. An entry older than maxAge, or unreadable, is fetched again; an entry
// is only ever replaced whole. Not thread-safe: one user per login at a time.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/iso_time.hpp"
#include "query/sobject_describe.hpp"

namespace corvane {

class DescribeCache {
 public:
  // Where describe replies come from (REST "sobjects" and "sobjects/X/describe").
  struct Source {
    std::function<nlohmann::json()> globalDescribe;
    // Returns null when the org has no such object.
    std::function<nlohmann::json(const std::string& object)> describe;
  };

  // A working day: long enough to type many queries, short enough that a new
  // field shows up the next morning.
  static constexpr std::chrono::hours standardMaxAge{12};

  DescribeCache(
      std::filesystem::path folder, const std::string& username, Source source,
      std::chrono::seconds maxAge = standardMaxAge,
      std::function<SystemTime()> now = [] { return std::chrono::system_clock::now(); });

  // Fetch again instead of reading the files (each entry once per instance).
  void setRefresh(bool refresh) { refresh_ = refresh; }

  std::vector<SObjectSummary> objects();
  // The object's fields; empty for an object that the org does not have.
  std::vector<SObjectField> fields(const std::string& object);

  // The file name for a piece of org text: characters outside [A-Za-z0-9_.@-]
  // become "%XX", and a leading "." is escaped too.
  static std::string safeName(std::string_view text);

  const std::filesystem::path& folder() const { return folder_; }

 private:
  // The cached "data" when fresh; else fetches, stores and returns it.
  nlohmann::json load(const std::filesystem::path& file,
                      const std::function<nlohmann::json()>& fetch);

  std::filesystem::path folder_;
  Source source_;
  std::chrono::seconds maxAge_;
  std::function<SystemTime()> now_;
  bool refresh_ = false;
  std::vector<std::filesystem::path> refreshed_;  // entries already fetched anew
};

}  // namespace corvane
