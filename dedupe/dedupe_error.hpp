// The failures of the duplicate tasks that are not the transport's or the
// store's own: bad choices, a file that is not a snapshot, a login that may
// not continue a download, changes left undone, a task stopped part-way.
// Each sentence is built here, once.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/user_facing_error.hpp"

namespace corvane {

class DedupeError : public UserFacingError {
 public:
  enum class Kind {
    badMatchChoice,
    unknownField,
    noMatchFields,
    notASnapshot,
    otherLogin,
    noLogin,
    unknownRecord,
    badKeeperRule,
    badAction,
    badValueRule,
    decisionsNeedRemoval,
    unknownValueField,
    signedOutPartWay,
    notApplied,
    stoppedPartWay,
    noGroups,
    problems,
    stopped,
  };
  static DedupeError badMatchChoice(const std::string& choice);
  static DedupeError unknownField(const std::string& object, const std::string& field);
  static DedupeError noMatchFields();
  static DedupeError notASnapshot(const std::filesystem::path& path);
  static DedupeError otherLogin(const std::string& downloadedBy, const std::string& login);
  static DedupeError noLogin();
  static DedupeError unknownRecord(const std::string& id);
  static DedupeError badKeeperRule(const std::string& text);
  static DedupeError badAction(const std::string& text);
  // A --keep-values choice that names no rule, or a field the snapshot lacks.
  static DedupeError badValueRule(const std::string& text);
  static DedupeError unknownValueField(const std::string& field,
                                       const std::vector<std::string>& known);
  // A decision workbook given with an action that removes no record.
  static DedupeError decisionsNeedRemoval(const std::string& action);
  // done: changes made before the sign-out; notDone: changes not attempted.
  static DedupeError signedOutPartWay(std::size_t done, std::size_t notDone);
  // A stop request ended the changes part-way.
  static DedupeError stoppedPartWay(std::size_t done, std::size_t notDone);
  // Some changes failed or have an unknown outcome (each listed beforehand).
  static DedupeError notApplied(std::size_t failed, std::size_t unknown);
  // A match found no group, so no workbook was written.
  static DedupeError noGroups();
  // A decision workbook read back with count problems (each listed beforehand).
  static DedupeError problems(std::size_t count, const std::filesystem::path& workbook);
  // The same, carrying the problems for a caller that has not listed them.
  static DedupeError problems(std::vector<std::string> problems,
                              const std::filesystem::path& workbook);
  // The caller asked the task to stop before it had anything to give.
  static DedupeError stopped();
  Kind kind() const { return kind_; }
  // problems: each problem's sentence, when the error carries them.
  const std::vector<std::string>& details() const { return details_; }

 private:
  DedupeError(Kind kind, const std::string& sentence) : UserFacingError(sentence), kind_(kind) {}
  Kind kind_;
  std::vector<std::string> details_;
};

}  // namespace corvane
