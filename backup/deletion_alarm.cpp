#include "backup/deletion_alarm.hpp"

#include <map>

namespace corvane::DeletionAlarm {

bool isUnusual(const DeletedCount& count) {
  const std::int64_t total = count.deleted + count.missing;
  if (total >= atAnySize) return true;
  if (total < atLeast || count.heldBefore <= 0) return false;
  // total / heldBefore >= share, kept in integers: 20 * total >= heldBefore.
  return total * 20 >= count.heldBefore;
}

bool goesWithAnother(std::string_view object) {
  if (object == "ContentVersion" || object == "ContentDocumentLink") return true;
  for (std::string_view ending : {"Share", "History", "Feed"}) {
    if (object.size() >= ending.size() && object.substr(object.size() - ending.size()) == ending)
      return true;
  }
  return false;
}

std::vector<DeletedCount> counts(const std::vector<BackupStore::Deletion>& deletions,
                                 const std::function<std::int64_t(const std::string&)>& stillHeld) {
  std::map<std::string, DeletedCount> byObject;
  for (const auto& deletion : deletions) {
    DeletedCount& count = byObject[deletion.object];
    count.object = deletion.object;
    if (deletion.how == "missing")
      ++count.missing;
    else
      ++count.deleted;
  }
  std::vector<DeletedCount> result;
  result.reserve(byObject.size());
  for (auto& [object, count] : byObject) {
    count.heldBefore = stillHeld(object) + count.deleted + count.missing;
    result.push_back(count);
  }
  return result;
}

std::vector<DeletedCount> unusual(const std::vector<DeletedCount>& counts) {
  std::vector<DeletedCount> result;
  for (const auto& count : counts) {
    if (!goesWithAnother(count.object) && isUnusual(count)) result.push_back(count);
  }
  return result;
}

}  // namespace corvane::DeletionAlarm
