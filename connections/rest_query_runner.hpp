// Runs one SOQL query over REST and hands it on page by page as CSV rows.
//
// Each page is handed to commit before the next one is requested, so that a
// stopped run keeps every page it committed. Blocking; one query at a time.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "connections/rest_page.hpp"
#include "connections/dedupe_transport.hpp"

namespace corvane {

// A page that could not be read stops the object; pages committed before stay.
class PageUnreadable : public std::runtime_error {
 public:
  explicit PageUnreadable(const std::string& reason);
  const std::string& reason() const { return reason_; }

 private:
  std::string reason_;
};

class RestQueryRunner {
 public:
  enum class Operation {
    query,     // live records only ("/query")
    queryAll,  // with deleted and archived records ("/queryAll")
  };

  struct Outcome {
    std::int64_t records = 0;
    int pages = 0;
    // Paging stopped because free space fell under the floor; the query is not done.
    bool stoppedForSpace = false;
    // Where to resume when stoppedForSpace: the next page's path.
    std::string next;
  };

  using FreeSpace = std::function<std::optional<std::int64_t>(const std::filesystem::path&)>;

  RestQueryRunner(DedupeTransport& transport, std::int64_t freeSpaceFloor, FreeSpace freeSpace)
      : transport_(transport), freeSpaceFloor_(freeSpaceFloor), freeSpace_(std::move(freeSpace)) {}

  // Runs soql (or, when from is not empty, resumes at that nextRecordsUrl) and
  // calls commit with each page's rows in order. Before each page is requested,
  // the free space of diskAt is checked against the floor; an unknown free space
  // does not stop the run. Throws PageUnreadable for a page that is not a page of
  // records; transport failures and commit's own exceptions pass through.
  Outcome fetchPages(const std::string& soql, Operation operation,
                     const std::vector<std::string>& columns, const std::vector<std::string>& types,
                     const std::string& from, const std::filesystem::path& diskAt,
                     const std::function<void(const RestPage::Result&)>& commit);

 private:
  bool spaceIsShort(const std::filesystem::path& diskAt) const;

  DedupeTransport& transport_;
  std::int64_t freeSpaceFloor_;
  FreeSpace freeSpace_;
};

}  // namespace corvane
