// Which record's value the kept record takes, field by field, when duplicates
// are merged ("survivorship").
//
// A rule picks among the values of one field across a group's records, given
// in order of preference: the kept record first, then the others as the
// keeper rule ranks them. Blank values never win, so a rule never empties a
// field; when every value is blank, nothing is picked.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

// Raw texts "keeper", "mostRecent", "nonEmpty", "longest", "mostCommon".
enum class ValueRule {
  keeper,      // the kept record's value; a blank one filled from the first other record
               // (in group order) that has one
  mostRecent,  // from the record modified last
  nonEmpty,    // the kept record's value, else the first filled one in keeper-rule order
  longest,     // the longest value (in characters)
  mostCommon,  // the value most records hold
};

std::string_view rawValue(ValueRule rule);
std::optional<ValueRule> valueRuleFromRaw(std::string_view raw);

// The rule for all fields and the rules named for single fields.
struct KeepValues {
  ValueRule all = ValueRule::keeper;
  std::map<std::string, ValueRule> fields;  // field API name as the user wrote it

  // The rule for a field (names compared without regard to case).
  ValueRule ruleFor(std::string_view field) const;
  bool operator==(const KeepValues&) const = default;

  // Adds one choice: "RULE" for all fields or "FIELD=RULE". False when the
  // rule's text is not one of the rules (nothing is changed then).
  bool add(std::string_view choice);
};

namespace ValueRules {

// One record's value of a field.
struct Candidate {
  std::string_view value;
  std::string_view modified;  // the record's last-modified time (ISO 8601)
};

// The position of the winning value among candidates, ordered as the file
// header says (candidates[0] is the kept record); none when every value is
// blank. Ties go to the earlier candidate.
std::optional<std::size_t> pick(ValueRule rule, const std::vector<Candidate>& candidates);

}  // namespace ValueRules

}  // namespace corvane
