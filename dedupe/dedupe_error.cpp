#include "dedupe/dedupe_error.hpp"

#include <fmt/format.h>

namespace corvane {

DedupeError DedupeError::unknownRecord(const std::string& id) {
  return {Kind::unknownRecord,
          "The record " + id +
              " is not in this snapshot, so nothing was marked. Check the Id, or download a "
              "fresh copy if the record is new."};
}

DedupeError DedupeError::badMatchChoice(const std::string& choice) {
  return DedupeError(
      Kind::badMatchChoice,
      "\"" + choice + "\" is not a match field. Write FIELD, FIELD:kind or FIELD:kind:mode, where "
                    "kind is text, personName, companyName, email or phone and mode is exact or close.");
}

DedupeError DedupeError::unknownField(const std::string& object, const std::string& field) {
  return DedupeError(Kind::unknownField, object + " has no field named \"" + field +
                                             "\". Check the field's API name and try again.");
}

DedupeError DedupeError::noMatchFields() {
  return DedupeError(Kind::noMatchFields,
                     "Choose at least one field to compare with --match, such as --match "
                     "Name,Email.");
}

DedupeError DedupeError::notASnapshot(const std::filesystem::path& path) {
  return DedupeError(Kind::notASnapshot,
                     "\"" + path.string() + "\" is not a duplicate snapshot. List the "
                                            "snapshots with: corvane dedupe snapshots LOGIN");
}

DedupeError DedupeError::otherLogin(const std::string& downloadedBy, const std::string& login) {
  return DedupeError(
      Kind::otherLogin, "This download was started by " + downloadedBy + ", not " + login +
                            ". A paused download continues only under the login that started "
                            "it; nothing was changed. Start a new download instead.");
}

DedupeError DedupeError::noLogin() {
  return DedupeError(Kind::noLogin,
                     "This snapshot does not say which login made it. Name one with "
                     "--login to continue it.");
}

DedupeError DedupeError::badKeeperRule(const std::string& text) {
  return DedupeError(Kind::badKeeperRule,
                     "\"" + text + "\" is not a keeper rule. Use oldest, newest, "
                                   "mostComplete or recentlyUpdated.");
}

DedupeError DedupeError::badAction(const std::string& text) {
  return DedupeError(Kind::badAction,
                     "\"" + text + "\" is not an action. Use merge, deleteLosers, "
                                   "fillGaps, tag:FIELD or exportOnly.");
}

DedupeError DedupeError::badValueRule(const std::string& text) {
  return DedupeError(Kind::badValueRule,
                     "\"" + text +
                         "\" is not a rule for the kept values. Use keeper, "
                         "mostRecent, nonEmpty, longest or mostCommon, for every field "
                         "or as FIELD=RULE.");
}

DedupeError DedupeError::unknownValueField(const std::string& field,
                                           const std::vector<std::string>& known) {
  std::string list;
  for (const std::string& name : known) list += (list.empty() ? "" : ", ") + name;
  return DedupeError(Kind::unknownValueField,
                     "The snapshot has no field " + field +
                         ", so no rule can choose its value. Its fields are " + list + ".");
}

DedupeError DedupeError::decisionsNeedRemoval(const std::string& action) {
  return DedupeError(Kind::decisionsNeedRemoval,
                     "A decision workbook says which records to remove, and the action " + action +
                         " removes none. Use --action merge, --action deleteLosers or --action "
                         "tag:FIELD with --decisions.");
}

DedupeError DedupeError::signedOutPartWay(std::size_t done, std::size_t notDone) {
  return DedupeError(
      Kind::signedOutPartWay,
      fmt::format("Salesforce signed you out part-way: {} change{} {} made, {} {} not. Log in "
                  "again, then download a fresh copy and apply again to finish.",
                  done, done == 1 ? "" : "s", done == 1 ? "was" : "were", notDone,
                  notDone == 1 ? "was" : "were"));
}

DedupeError DedupeError::stoppedPartWay(std::size_t done, std::size_t notDone) {
  return DedupeError(
      Kind::stoppedPartWay,
      fmt::format("Stopped as you asked: {} change{} {} made, {} {} not. Download a fresh copy "
                  "and apply again to finish.",
                  done, done == 1 ? "" : "s", done == 1 ? "was" : "were", notDone,
                  notDone == 1 ? "was" : "were"));
}

DedupeError DedupeError::notApplied(std::size_t failed, std::size_t unknown) {
  return DedupeError(
      Kind::notApplied,
      fmt::format("{} change{} failed and {} may or may not have gone through; each is listed "
                  "above. Check those records in Salesforce, then download a fresh copy before "
                  "trying again.",
                  failed, failed == 1 ? "" : "s", unknown));
}

DedupeError DedupeError::noGroups() {
  return {Kind::noGroups,
          "No duplicate groups were found in this snapshot, so no workbook was written. Try "
          "--strictness loose, or download again with other match fields."};
}

DedupeError DedupeError::problems(std::size_t count, const std::filesystem::path& workbook) {
  return {Kind::problems,
          fmt::format("The workbook {} has {} problem{}, listed above; nothing was changed. "
                      "Correct {} in the workbook, save it and read it again.",
                      workbook.filename().string(), count, count == 1 ? "" : "s",
                      count == 1 ? "it" : "them")};
}

DedupeError DedupeError::problems(std::vector<std::string> problems,
                                  const std::filesystem::path& workbook) {
  DedupeError error = DedupeError::problems(problems.size(), workbook);
  error.details_ = std::move(problems);
  return error;
}

DedupeError DedupeError::stopped() {
  return {Kind::stopped, "Stopped as you asked; nothing was written."};
}

}  // namespace corvane
