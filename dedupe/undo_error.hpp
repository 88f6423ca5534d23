// The failures of undoing merges and deletes. Each sentence is built here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/user_facing_error.hpp"

namespace corvane {

class UndoError : public UserFacingError {
 public:
  enum class Kind {
    nothingJournaled,  // the snapshot's apply left nothing to undo
    unknownGroup,      // --group names a group the apply did not change
    refused,           // some groups cannot be undone; details() says why, one per record
    unreadableReply,   // a reply from Salesforce could not be read
    outcomeUnknown,    // a call got no reply: it may or may not have gone through
    notUndone,         // Salesforce refused some of the changes
    stoppedPartWay,    // a stop request ended the run between groups or batches
    signedOut,         // Salesforce ended the session part-way
  };

  static UndoError nothingJournaled(const std::filesystem::path& snapshot);
  static UndoError unknownGroup(std::int64_t group, const std::vector<std::int64_t>& known);
  static UndoError refused(std::vector<std::string> reasons);
  static UndoError unreadableReply();
  static UndoError outcomeUnknown(const std::string& reason);
  static UndoError notUndone(std::size_t failures);
  static UndoError stoppedPartWay(std::size_t undone, std::size_t left);
  static UndoError signedOut();

  // The reasons a group is refused, one record each. group: its name
  // ("Group 2", or "Group 2 of the apply of ..." when several applies hold it).
  static std::string keeperChanged(const std::string& group, const std::string& object,
                                   const std::string& keeper, const std::string& stamp);
  // The apply stopped before it noted the kept record's SystemModstamp.
  static std::string keeperUnchecked(const std::string& group, const std::string& object,
                                     const std::string& keeper);
  // A field an update wrote holds neither what it wrote nor what was there before.
  static std::string updateChanged(const std::string& group, const std::string& object,
                                   const std::string& record, const std::string& field,
                                   const std::string& now);
  static std::string loserPurged(const std::string& group, const std::string& object,
                                 const std::string& loser);

  Kind kind() const { return kind_; }
  const std::vector<std::string>& details() const { return details_; }

 private:
  UndoError(Kind kind, const std::string& sentence) : UserFacingError(sentence), kind_(kind) {}
  Kind kind_;
  std::vector<std::string> details_;
};

}  // namespace corvane
