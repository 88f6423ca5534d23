// Picks out deletions large enough that a person should look at them.
//
// A count is unusual when an object lost 1000 or more records in one run, or
// at least 100 that are at least 5% of what the backup held for it. Objects
// whose rows vanish together with another record (sharing rows, field history,
// feeds, file versions) never raise the alarm on their own.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "backup/backup_store.hpp"
#include "backup/deleted_count.hpp"

namespace corvane::DeletionAlarm {

inline constexpr std::int64_t atAnySize = 1000;
inline constexpr std::int64_t atLeast = 100;
inline constexpr double share = 0.05;

bool isUnusual(const DeletedCount& count);

// "ContentVersion", "ContentDocumentLink", and names ending in "Share",
// "History" or "Feed".
bool goesWithAnother(std::string_view object);

// One run's deletions grouped by object, in object order. `stillHeld` answers
// the live records the store holds for an object now (after the run marked
// the deletions); heldBefore is that plus the object's deletions. A deletion
// whose how is "missing" counts as missing, every other one as deleted.
std::vector<DeletedCount> counts(const std::vector<BackupStore::Deletion>& deletions,
                                 const std::function<std::int64_t(const std::string&)>& stillHeld);

// The counts that are unusual, leaving out objects that go with another.
std::vector<DeletedCount> unusual(const std::vector<DeletedCount>& counts);

}  // namespace corvane::DeletionAlarm
