// Asks Salesforce which deleted records are still in its Recycle Bin, and
// puts records back from it.
//
// Ids go in batches of at most batchSize per object. Which ids are still in
// the bin comes from queryAll (a deleted record still in the bin answers with
// IsDeleted = true; one put back answers IsDeleted = false; one that left the
// bin does not answer at all). Putting back uses the SOAP partner `undelete`
// call, only for the ids found in the bin. Ids are compared on their first 15
// characters, so 15- and 18-character forms match. Blocking; not thread-safe.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "connections/dedupe_transport.hpp"
#include "platform/user_facing_error.hpp"

namespace corvane {

// Salesforce's answer to a Recycle Bin check could not be read.
class RecycleBinError : public UserFacingError {
 public:
  enum class Kind { notAList };
  static RecycleBinError notAList();
  Kind kind() const { return kind_; }

 private:
  RecycleBinError(Kind kind, const std::string& sentence)
      : UserFacingError(sentence), kind_(kind) {}
  Kind kind_;
};

class RecycleBin {
 public:
  static constexpr std::size_t batchSize = 200;

  // A deletion the backup recorded (from BackupStore::Deletion).
  struct Deleted {
    std::string object;
    std::string id;
    std::string deletedAt;
    std::string how;
    bool operator==(const Deleted&) const = default;
  };

  struct Outcome {
    enum class Kind { refused, putBack, alreadyBack, notInTheBin };
    std::string object;
    std::string id;
    Kind kind = Kind::notInTheBin;
    std::string reason;  // refused only: Salesforce's words
    bool operator==(const Outcome&) const = default;
  };

  // One result of the undelete call, in the order the ids were sent.
  struct Result {
    bool success = false;
    std::string reason;
    bool operator==(const Result&) const = default;
  };

  explicit RecycleBin(DedupeTransport& transport, std::string apiVersion = "62.0")
      : transport_(transport), apiVersion_(std::move(apiVersion)) {}

  // Per id, in the order given: notInTheBin, alreadyBack, or putBack meaning
  // "still in the bin and could be put back". An id that is not a record id
  // is refused. Throws RecycleBinError when an answer is not a list of records;
  // transport failures pass through.
  std::vector<Outcome> check(const std::string& object, const std::vector<std::string>& ids);

  // Puts back the ids still in the bin; the others keep their check outcome.
  std::vector<Outcome> putBack(const std::string& object, const std::vector<std::string>& ids);

  // Outcomes in text: "putBack", "alreadyBack", "notInTheBin", "refused(reason)".
  static std::string toText(const Outcome& outcome);

  // The results of an undelete reply; a SOAP fault gives one failed result
  // per id with the fault's words. Throws RecycleBinError on anything else.
  static std::vector<Result> parseUndelete(std::string_view xml, std::size_t ids);

  static std::string undeleteEnvelope(const std::vector<std::string>& ids);

 private:
  DedupeTransport& transport_;
  std::string apiVersion_;
};

}  // namespace corvane
