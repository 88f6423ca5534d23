// The queries a user ran and the ones they saved, per login, in a small
// SQLite file ("Query History.sqlite" in the application-support folder,
// 0600).
//
// Every run is recorded with its outcome (rows, or the error sentence);
// saved queries are named, one per name and login (saving under a taken name
// replaces it). Searching matches any part of the text, without regard to
// case. Thread-safe: one connection behind one mutex; calls touch the disk,
// so screens make them off the interface thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/iso_time.hpp"

namespace corvane {

class SQLiteDB;

class QueryHistory {
 public:
  struct Entry {
    std::int64_t id = 0;
    std::string username;  // lower-cased
    std::string soql;
    SystemTime ranAt{};
    std::int64_t rows = 0;
    std::int64_t milliseconds = 0;
    std::string error;  // empty when the query succeeded
    bool operator==(const Entry&) const = default;
  };

  struct Saved {
    std::string username;  // lower-cased
    std::string name;
    std::string soql;
    SystemTime savedAt{};
    bool operator==(const Saved&) const = default;
  };

  // The most entries kept per login; older ones go when a new one comes.
  static constexpr int maximumEntries = 5000;

  // Opens (or creates) the file. Throws SQLiteError.
  explicit QueryHistory(const std::filesystem::path& file);
  ~QueryHistory();
  QueryHistory(const QueryHistory&) = delete;
  QueryHistory& operator=(const QueryHistory&) = delete;

  // The standard file in the application-support folder.
  static std::filesystem::path standardFile();

  std::int64_t record(const Entry& entry);
  // The login's runs, newest first, whose text holds `search` (all when empty).
  std::vector<Entry> entries(const std::string& username, const std::string& search = {},
                             int limit = 500);
  void forget(std::int64_t id);

  void save(const Saved& saved);
  // The login's saved queries by name.
  std::vector<Saved> saved(const std::string& username);
  void removeSaved(const std::string& username, const std::string& name);

 private:
  std::mutex mutex_;  // guards db_
  std::shared_ptr<SQLiteDB> db_;
};

}  // namespace corvane
