// Which record of a duplicate group stays, and why.
//
// A keeper rule walks the group's records in order and keeps the best so far,
// so that on a tie the record that comes first stays. Timestamps are the ISO
// 8601 texts the platform returns and compare correctly as text.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dedupe/record_store.hpp"

namespace corvane {

// Raw texts "oldest", "newest", "mostComplete", "recentlyUpdated"; in this
// order in lists.
enum class KeeperRule { oldest, newest, mostComplete, recentlyUpdated };

inline constexpr std::array<KeeperRule, 4> allKeeperRules = {
    KeeperRule::oldest, KeeperRule::newest, KeeperRule::mostComplete, KeeperRule::recentlyUpdated};

std::string_view rawValue(KeeperRule rule);
std::optional<KeeperRule> keeperRuleFromRaw(std::string_view raw);

namespace KeeperRules {

// The sentence that describes a rule where the user chooses one.
std::string_view label(KeeperRule rule);

// The position in records of the record the rule keeps; none when records is
// empty.
//   oldest:          smallest `created`; a blank one counts as "9999", so a
//                    record without a date never wins while another has one.
//   newest:          largest `created` (a blank one never wins over a date).
//   mostComplete:    largest `filledCount`.
//   recentlyUpdated: largest `modified` (a blank one never wins over a date).
std::optional<std::size_t> keeperIndex(const std::vector<SnapshotRecord>& records, KeeperRule rule);

// The positions of all records, best first under the rule; equal records
// keep their order (so the first is keeperIndex's).
std::vector<std::size_t> ranked(const std::vector<SnapshotRecord>& records, KeeperRule rule);

// The record the rule keeps, pointing into records; nullptr when it is empty.
const SnapshotRecord* keeper(const std::vector<SnapshotRecord>& records, KeeperRule rule);

// "Kept because it was created first (2024-03-01)" and the like.
std::string why(const SnapshotRecord& keeper, KeeperRule rule, std::size_t groupSize);

// The date part of a stored ISO 8601 text ("2024-03-01T10:00:00.000+0000"
// gives "2024-03-01"); "no date" for a blank one.
std::string displayDate(std::string_view iso);

}  // namespace KeeperRules
}  // namespace corvane
