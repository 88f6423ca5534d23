// The entry point for matching one snapshot against a snapshot of another
// object of the same org: which Leads are already Contacts.
//
// The company of a record of the second snapshot comes from its
// company-name match fields, or, when it has none, from an extra field
// holding the account's name ("Account.Name"). Only pairs across the two
// snapshots are reported; Salesforce cannot merge records of different
// objects, so what to do with them (delete or tag the first record) is the
// caller's to offer. The call blocks and prints nothing.
#pragma once

#include <cstdint>
#include <filesystem>
#include <stop_token>
#include <string>
#include <vector>

#include "dedupe/cross_matcher.hpp"
#include "dedupe/dedupe_task.hpp"
#include "dedupe/match_settings.hpp"
#include "dedupe/record_store.hpp"
#include "dedupe/snapshot_info.hpp"
#include "platform/user_facing_error.hpp"

namespace corvane {

// Why two snapshots cannot be matched against each other.
class CrossMatchError : public UserFacingError {
 public:
  enum class Kind { otherOrg, sameObject, nothingInCommon };
  // The snapshots come from two orgs: their Ids name nothing in common.
  static CrossMatchError otherOrg(const std::string& orgId, const std::string& otherOrgId);
  // Both hold the same object: a duplicate match, not a match against.
  static CrossMatchError sameObject(const std::string& objectLabel);
  // No field of one side tells the same thing (name, company, e-mail,
  // phone) as a field of the other.
  static CrossMatchError nothingInCommon(const std::string& label, const std::string& otherLabel);
  Kind kind() const { return kind_; }

 private:
  CrossMatchError(Kind kind, const std::string& sentence) : UserFacingError(sentence), kind_(kind) {}
  Kind kind_;
};

namespace CrossMatchTask {

// A record of the first snapshot that is already a record of the second.
struct Pair {
  SnapshotRecord record;  // of the first snapshot (the Lead)
  SnapshotRecord match;   // of the second (the Contact)
  double score = 1.0;
  std::vector<CrossMatcher::Agreement> agreements;
  std::vector<CrossMatcher::Role> differences;
  std::string why;  // "E-mail the same, name very close."
};

struct Outcome {
  SnapshotInfo snapshot;  // the first
  SnapshotInfo against;   // the second
  // The roles both sides have, compared; and the second snapshot's field
  // that gave its company when that came from an extra field (else empty).
  std::vector<CrossMatcher::Role> compared;
  std::string companyFrom;
  std::vector<Pair> pairs;  // by record of the first snapshot, best match first
  std::int64_t recordsMatched = 0;  // records of the first snapshot in a pair
  std::int64_t comparisons = 0;
};

// The extra field that holds the name of a Contact's account.
inline constexpr std::string_view accountNameField = "Account.Name";

// Matches snapshot against against. Reports reading, then each sorting step
// and the comparing (phase matching: text, done and total records). Throws
// DedupeError::notASnapshot, CrossMatchError, and DedupeError::stopped on a
// stop request; writes nothing.
Outcome run(const std::filesystem::path& snapshot, const std::filesystem::path& against,
            const MatchSettings& settings, std::stop_token stop,
            const DedupeProgressHandler& onProgress = {});

// The side of an open snapshot as the cross matcher reads it, with the rid
// of each position. companyFrom: set to the extra field used for the company.
CrossMatcher::Side readSide(RecordStore& store, const MatchSettings& settings,
                            std::vector<Rid>& rids, std::string* companyFrom = nullptr);

}  // namespace CrossMatchTask
}  // namespace corvane
