// Finds the duplicate groups of a snapshot: an exact pass joins records equal
// on every match field, then sorted-neighbourhood passes (by value, by value
// reversed, by sound or without +tags) compare each record with the next
// `window` records and join the pairs that pass; groups grown too large
// through chains of weak links are cut by GroupSplitter.
//
// Records are named by their position in the loaded columns (0..n-1) while
// matching and by their rid in the outcome. A blank value (empty, or filler
// when filler counts as blank) on either side fails a pair: such records are
// only ever grouped on fields that are filled.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "dedupe/flat_column.hpp"
#include "dedupe/match_kind.hpp"
#include "dedupe/match_settings.hpp"

namespace corvane {

class RecordStore;

namespace Matcher {

// The score of a pair that passed through at least one close comparison:
// only a pair equal on every field scores 1.0.
inline constexpr double closeCap = 0.9998;

// A phone number matches another that ends with it when it has at least this
// many digits (a local number without its area code).
inline constexpr int phoneSuffixDigits = 7;

// How many edits two e-mail addresses may differ by: 1 when strict or
// normal, 2 when loose.
int emailEditBound(Strictness strictness);

struct Pass {
  std::size_t fieldIndex = 0;
  std::string title;
  // The blocking key of a value; empty function: the value itself.
  std::function<std::string(std::string_view)> derive;
};

// The close passes in their order, for the close fields listed in closeIdx.
// taggedEmail holds one flag per field: whether its column has +tags.
std::vector<Pass> buildPassList(const std::vector<MatchField>& fields,
                                const std::vector<std::size_t>& closeIdx,
                                const std::vector<bool>& taggedEmail);

// The field score of two differing values of a close field; none when the
// pair fails on this field. taggedEmail: the column has +tags.
std::optional<double> uncappedCloseScore(std::string_view a, std::string_view b, MatchKind kind,
                                         Strictness strictness, bool taggedEmail = false);

// The pair's score (lowest field score, capped below 1.0 when any field was
// close) or none when a field fails. Blank values fail.
std::optional<double> pairScore(std::uint32_t a, std::uint32_t b,
                                const std::vector<MatchField>& fields,
                                const std::vector<FlatColumn>& columns, Strictness strictness,
                                const std::vector<bool>& taggedExactEmail);

// The number of members whose values are not all equal to another member's.
int distinctValues(const std::vector<std::uint32_t>& members,
                   const std::vector<MatchField>& fields, const std::vector<FlatColumn>& columns);

// A short form of a name: the same number of words, each word equal to the
// other's or a prefix of it of two letters or more ("ed smith", "edward
// smith"), with at least one word of two letters or more equal in both when
// there are several words. allowInitials lets one letter stand for a word.
// The words may come in another order ("smith ed"): lists that put the
// surname first are common, and on the FEBRL data this rule alone brings
// back a tenth of the true pairs at normal.
bool nameAbbreviationMatch(std::string_view a, std::string_view b, bool allowInitials);

using Progress = std::function<void(const std::string&)>;
using ShouldCancel = std::function<bool()>;

// Matching over values already loaded: columns hold the normalised values
// (one column per field, blank = empty), rids the rid of each position.
// stats may come in with the reading counts filled in.
MatchOutcome findDuplicates(const std::vector<MatchField>& fields, std::vector<FlatColumn> columns,
                            const std::vector<Rid>& rids, const MatchSettings& settings,
                            MatchStats stats, const Progress& progress,
                            const ShouldCancel& shouldCancel);

// Reads the snapshot's normalised values (leaving out the excluded rids and
// counting blank and filler values) and matches them.
MatchOutcome findDuplicates(RecordStore& store, const MatchSettings& settings,
                            const std::set<Rid>& excluding, const Progress& progress,
                            const ShouldCancel& shouldCancel);

}  // namespace Matcher
}  // namespace corvane
