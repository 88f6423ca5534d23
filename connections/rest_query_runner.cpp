#include "connections/rest_query_runner.hpp"

namespace corvane {

PageUnreadable::PageUnreadable(const std::string& reason)
    : std::runtime_error("A page of this object could not be read: " + reason), reason_(reason) {}

bool RestQueryRunner::spaceIsShort(const std::filesystem::path& diskAt) const {
  if (!freeSpace_) return false;
  std::optional<std::int64_t> free = freeSpace_(diskAt);
  return free && *free < freeSpaceFloor_;
}

RestQueryRunner::Outcome RestQueryRunner::fetchPages(
    const std::string& soql, Operation operation, const std::vector<std::string>& columns,
    const std::vector<std::string>& types, const std::string& from,
    const std::filesystem::path& diskAt,
    const std::function<void(const RestPage::Result&)>& commit) {
  Outcome outcome;
  std::string path = from;
  bool first = from.empty();
  while (true) {
    if (spaceIsShort(diskAt)) {
      outcome.stoppedForSpace = true;
      outcome.next = first ? std::string() : path;
      return outcome;
    }
    std::string body;
    if (first) {
      body = transport_.send("GET", operation == Operation::queryAll ? "/queryAll" : "/query",
                             {{"q", soql}}, std::nullopt);
    } else {
      // A nextRecordsUrl is a whole path under /services/ and is followed as it stands.
      body = transport_.send("GET", path, {}, std::nullopt);
    }
    RestPage::Result page;
    try {
      page = RestPage::read(body, columns, types);
    } catch (const PageError& error) {
      throw PageUnreadable(error.what());
    }
    commit(page);
    outcome.records += page.records;
    ++outcome.pages;
    if (page.next.empty()) return outcome;
    path = page.next;
    first = false;
  }
}

}  // namespace corvane
