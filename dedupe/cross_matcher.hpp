// Finds the records of one object that already exist as records of another
// object of the same org: Leads that are already Contacts. Only pairs across
// the two sides are compared, never two records of the same side.
//
// Each side's match fields are read by what they hold: the person-name
// fields joined into one name (first names first), the company-name fields
// into one company, every e-mail field and every phone field on its own;
// fields of kind text take no part. A pair is reported when
//   - an e-mail address agrees (an address identifies a person), or
//   - the name agrees, and so does the company or a phone number.
// Agreeing means equal, or close at the strictness by the same rules as the
// duplicate matcher's (Matcher::uncappedCloseScore) when the first side's
// field is a close one. A blank (or filler) value neither agrees nor
// disagrees.
//
// Candidates come from sorted lists of the second side's keys (the value,
// the value reversed, the sound of the name, the address without its +tag):
// each record of the first side is compared with the records whose keys equal
// its own and with `window` neighbours on either side. Pure functions.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dedupe/flat_column.hpp"
#include "dedupe/match_kind.hpp"
#include "dedupe/match_settings.hpp"

namespace corvane::CrossMatcher {

// What a field tells about the person, in the order reasons list them.
enum class Role { email, name, company, phone };

// "e-mail", "name", "company", "phone": the words of the reasons.
std::string_view label(Role role);
// "email", "name", "company", "phone": the JSON keys.
std::string_view key(Role role);
// The role of a match field's kind; none for text.
std::optional<Role> roleOf(MatchKind kind);

// One side's values by role, one entry per record, normalised, blank when
// unknown (empty or filler).
struct Side {
  FlatColumn name;
  FlatColumn company;
  std::vector<FlatColumn> emails;
  std::vector<FlatColumn> phones;
  bool hasName = false;
  bool hasCompany = false;
  bool closeName = false;     // compared within the strictness, not only equal
  bool closeCompany = false;
  bool closeEmail = false;
  bool closePhone = false;
  bool taggedEmail = false;   // some address has a +tag

  std::size_t size() const;
  // Whether the side has a field of this role.
  bool has(Role role) const;
};

// One role's verdict on a pair.
struct Agreement {
  Role role = Role::email;
  double score = 1.0;  // 1.0: the same; below: close
  bool operator==(const Agreement&) const = default;
};

// A pair that passed. a and b are positions in the two sides.
struct Pair {
  std::uint32_t a = 0;
  std::uint32_t b = 0;
  // The lowest score among the agreements the pair passed on, below 1.0 (at
  // most Matcher::closeCap) when any of them was close.
  double score = 1.0;
  std::vector<Agreement> agreements;  // every role that agrees, in role order
  std::vector<Role> differences;      // every role filled on both sides that does not
  bool operator==(const Pair&) const = default;
};

// The verdict on one pair; none when it does not pass.
std::optional<Pair> compare(const Side& first, std::uint32_t a, const Side& second,
                            std::uint32_t b, Strictness strictness);

// "E-mail the same, name very close, company different."
std::string why(const Pair& pair);

struct Outcome {
  std::vector<Pair> pairs;  // by position in the first side, then best score first
  std::int64_t comparisons = 0;
  bool cancelled = false;
};

using Progress = std::function<void(const std::string& text, std::int64_t done, std::int64_t total)>;
using ShouldCancel = std::function<bool()>;

// Every pair of first × second that passes. otherLabel names the second
// side's records in progress texts ("Contacts").
Outcome find(const Side& first, const Side& second, const MatchSettings& settings,
             const std::string& otherLabel, const Progress& progress,
             const ShouldCancel& shouldCancel);

}  // namespace corvane::CrossMatcher
