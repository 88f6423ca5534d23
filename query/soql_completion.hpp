// Completion for the SOQL editor: where the cursor stands in a query, what the
// user is typing, and the ranked candidates drawn from the org's objects and
// the FROM object's fields.
//
// Nothing is kept between calls: every call rescans the whole text, so the
// editor may call on every keystroke and caret move. Nothing here fails or
// throws on any text; a cursor past the end counts as the end.
//
// The text is UTF-8; cursors and ranges are user-perceived character offsets.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "query/sobject_describe.hpp"
#include "query/soql_scan.hpp"

namespace corvane {

// One entry of the completion list.
struct Completion {
  // The order matters: ranking favours the first two.
  enum class Kind { object, field, relationship, keyword, function, picklistValue };

  std::string text;     // inserted in place of the replaced range
  std::string display;  // shown in the list; ranking compares against it
  std::string detail;   // the grey hint beside it
  Kind kind = Kind::keyword;

  // Identifies the entry in a list: its kind and its text.
  std::string id() const;
  bool operator==(const Completion&) const = default;
};

// "object", "field", "relationship", "keyword", "function", "picklistValue".
std::string_view kindName(Completion::Kind kind);

namespace SoqlCompletion {

// The cursor's place in the query.
struct Context {
  enum class Kind { selectList, fromObject, condition, grouping, none };
  Kind kind = Kind::none;
  std::optional<std::string> object;  // the FROM object, for selectList, condition, grouping

  static Context selectList(std::optional<std::string> object) {
    return {Kind::selectList, std::move(object)};
  }
  static Context fromObject() { return {Kind::fromObject, std::nullopt}; }
  static Context condition(std::optional<std::string> object) {
    return {Kind::condition, std::move(object)};
  }
  static Context grouping(std::optional<std::string> object) {
    return {Kind::grouping, std::move(object)};
  }
  static Context none() { return {Kind::none, std::nullopt}; }
  bool operator==(const Context&) const = default;
};

// The token before the cursor: back to the nearest blank, line break, tab,
// ",", "(" or ")". A dot belongs to the token ("Account.Na").
struct Token {
  std::string text;
  CharRange range;
  bool operator==(const Token&) const = default;
};

// Where a comparison value is being typed: after an operator ("=", "!=", "<",
// "<=", ">", ">=", "<>", LIKE), after the "(" or a "," of an IN, NOT IN,
// INCLUDES or EXCLUDES list, or inside a literal there.
struct ValuePosition {
  std::string field;  // the compared field as written ("Industry", "Owner.Name")
  // The value to replace: from its start (the opening quote of a literal) to
  // the cursor, or past the closing quote when the cursor is inside a closed literal.
  CharRange range;
  std::string typed;    // the value typed so far, without its opening quote
  bool quoted = false;  // the cursor is inside a single-quoted literal
  bool operator==(const ValuePosition&) const = default;
};

// The candidates to show and the range of the text that accepting one replaces.
struct Suggestions {
  std::vector<Completion> completions;
  CharRange replace;
};

// The fields of a related object, for completing relationship paths such as
// "Owner.Na"; returns an empty list when unknown.
using RelatedFields = std::function<std::vector<SObjectField>(const std::string& objectName)>;

// The vocabularies, in their fixed order.
const std::vector<std::string_view>& clauseKeywords();
const std::vector<std::string_view>& operators();
const std::vector<std::string_view>& functions();
// The keywords that decide the context, in the order they are tried.
const std::vector<std::string_view>& contextKeywords();
// The date literals offered in a value position (the date entries of functions()).
const std::vector<std::string_view>& dateLiterals();

Context context(std::string_view text, std::size_t cursor);
Token currentToken(std::string_view text, std::size_t cursor);
std::optional<ValuePosition> valuePosition(std::string_view text, std::size_t cursor);

// Whether the characters of `needle` occur, in order, in `haystack`.
bool isSubsequence(std::string_view needle, std::string_view haystack);

// At most `limit` candidates that match token, best first; equal scores keep
// the candidates' order.
std::vector<Completion> rank(const std::vector<Completion>& candidates, std::string_view token,
                             std::size_t limit);

// The ranked completions at the cursor.
std::vector<Completion> suggestions(std::string_view text, std::size_t cursor,
                                    const std::vector<SObjectSummary>& objects,
                                    const std::vector<SObjectField>& fields, std::size_t limit);

// The same, with the range that an accepted completion replaces (the token,
// or the whole value in a value position), and relationship paths completed
// from relatedFields when given.
Suggestions complete(std::string_view text, std::size_t cursor,
                     const std::vector<SObjectSummary>& objects,
                     const std::vector<SObjectField>& fields, std::size_t limit,
                     const RelatedFields& relatedFields = {});

// The relationship names before the last dot of the token at the cursor
// ("Account.Owner.Na" gives Account, Owner); empty when the token has no dot.
std::vector<std::string> relationshipPath(std::string_view text, std::size_t cursor);

}  // namespace SoqlCompletion

}  // namespace corvane

template <>
struct std::hash<corvane::Completion> {
  std::size_t operator()(const corvane::Completion& completion) const noexcept {
    return std::hash<std::string>()(completion.id());
  }
};
