// Rows read back out of earlier runs' CSV files.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "backup/backup_store.hpp"

namespace corvane::BackupRows {

// A row as field name -> value.
using Row = std::map<std::string, std::string>;

// For each wanted id, its row from the newest usable run older than `before`
// whose folder holds it: the object's CSV in each such run folder is scanned,
// newest first, until every id is found. A run folder counts only when its run
// is usable and the object's CSV can be scanned (a missing or unreadable file
// is passed over, never an error). Ids found nowhere are absent from the result.
std::map<std::string, Row> lastKnown(BackupStore& store, const std::string& object,
                                     const std::set<std::string>& ids, std::int64_t before);

}  // namespace corvane::BackupRows
