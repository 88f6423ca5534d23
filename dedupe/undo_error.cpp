#include "dedupe/undo_error.hpp"

namespace corvane {

namespace {

std::string plural(std::size_t count, const std::string& one, const std::string& many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

}  // namespace

UndoError UndoError::nothingJournaled(const std::filesystem::path& snapshot) {
  return UndoError(Kind::nothingJournaled,
                   "Nothing to undo: no merge or delete was applied from " + snapshot.string() +
                       ". Undo works on the snapshot an apply was run from.");
}

UndoError UndoError::unknownGroup(std::int64_t group, const std::vector<std::int64_t>& known) {
  std::string list;
  for (std::int64_t id : known) list += (list.empty() ? "" : ", ") + std::to_string(id);
  return UndoError(Kind::unknownGroup,
                   "Group " + std::to_string(group) +
                       " was not changed by an apply from this snapshot. The groups that were: " +
                       (list.empty() ? "none" : list) + ".");
}

UndoError UndoError::refused(std::vector<std::string> reasons) {
  UndoError error(Kind::refused,
                  "Nothing was undone: " + plural(reasons.size(), "group", "groups") +
                      " cannot be put back (listed above). Leave them out with --group to undo "
                      "the others.");
  error.details_ = std::move(reasons);
  return error;
}

UndoError UndoError::unreadableReply() {
  return UndoError(Kind::unreadableReply,
                   "Salesforce returned a response that could not be read while undoing. Run the "
                   "same command again: what was already put back is checked first.");
}

UndoError UndoError::outcomeUnknown(const std::string& reason) {
  std::string text = reason;
  while (!text.empty() && (text.back() == ' ' || text.back() == '.')) text.pop_back();
  return UndoError(Kind::outcomeUnknown,
                   "The undo stopped because a call to Salesforce got no answer (" + text +
                       "), so it may or may not have gone through. Run the same command again: "
                       "it checks the org first and does nothing twice.");
}

UndoError UndoError::notUndone(std::size_t failures) {
  return UndoError(Kind::notUndone,
                   "Salesforce refused " + plural(failures, "change", "changes") +
                       " of the undo (listed above). Fix what it says, then run the same command "
                       "again.");
}

UndoError UndoError::stoppedPartWay(std::size_t undone, std::size_t left) {
  return UndoError(Kind::stoppedPartWay,
                   "Stopped as you asked: " + plural(undone, "group was", "groups were") +
                       " put back, " + plural(left, "was", "were") +
                       " not. Run the same command again to finish.");
}

UndoError UndoError::signedOut() {
  return UndoError(Kind::signedOut,
                   "Salesforce signed you out during the undo. Log in again, then run the same "
                   "command: what was already put back is not done twice.");
}

std::string UndoError::keeperChanged(const std::string& group, const std::string& object,
                                     const std::string& keeper, const std::string& stamp) {
  return group + ": the kept " + object + " " + keeper +
         " was changed in Salesforce after the merge (at " + stamp +
         "). Putting its old values back would overwrite that change; use --force to do it "
         "anyway.";
}

std::string UndoError::updateChanged(const std::string& group, const std::string& object,
                                     const std::string& record, const std::string& field,
                                     const std::string& now) {
  return group + ": " + field + " of the " + object + " " + record +
         " was changed in Salesforce after the apply wrote it (it now holds \"" + now +
         "\"). Setting it back would overwrite that change; use --force to do it anyway.";
}

std::string UndoError::keeperUnchecked(const std::string& group, const std::string& object,
                                       const std::string& keeper) {
  return group + ": the apply stopped before it noted when the kept " + object + " " + keeper +
         " was last changed, so changes made to it since cannot be told apart. Check it in "
         "Salesforce, then use --force to set its old values back.";
}

std::string UndoError::loserPurged(const std::string& group, const std::string& object,
                                   const std::string& loser) {
  return group + ": the merged " + object + " " + loser +
         " is no longer in the Recycle Bin (emptied, or kept past its 15 days), so it cannot be "
         "brought back.";
}

}  // namespace corvane
