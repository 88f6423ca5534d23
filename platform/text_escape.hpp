// Escaping text into the quoted literals of JSON and SOQL.
//
// Both languages share the backslash escapes for quote, backslash and the
// usual control characters; they differ in the rest:
// - json: other control characters become \u00XX; a single quote stays as it is.
// - soql: a single quote is escaped too; other control characters pass through.
// - soqlLike: as soql, and the LIKE wildcards % and _ are escaped so that they
//   match only themselves.
#pragma once

#include <string>
#include <string_view>

namespace corvane::TextEscape {

enum class Target { json, soql, soqlLike };

// Appends `text` escaped for `target`, without the surrounding quotes.
void appendEscaped(std::string& out, std::string_view text, Target target);

// "text" as a JSON string, quotes included.
void appendJSONString(std::string& out, std::string_view text);

// 'text' as a SOQL string literal, quotes included.
std::string soqlLiteral(std::string_view text, bool forLike = false);

}  // namespace corvane::TextEscape
