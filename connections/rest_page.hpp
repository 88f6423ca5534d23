// One page of a REST query reply turned into the backup's CSV rows.
//
// The text of every value is kept as Salesforce sent it, with two rewrites that
// make a REST copy and a Bulk API copy of the same record byte-identical:
// date-times ending in "+0000" end in "Z", and numbers written with an exponent
// are written out in plain digits. Every field is quoted.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "connections/json_literal.hpp"

namespace corvane {

// A reply that is not a page of records. what() names "a page of records".
class PageError : public std::runtime_error {
 public:
  explicit PageError(const std::string& reason);
};

namespace RestPage {

struct Result {
  std::string csv;   // one line per record, no header
  std::string next;  // the page's nextRecordsUrl; empty on the last page
  int records = 0;
  bool operator==(const Result&) const = default;
};

// Reads a query reply: an object with "records" (array) and optionally
// "nextRecordsUrl". columns are field names, relationship fields dotted
// ("Owner.Name"); types[i] is the field type of columns[i] ("datetime", ...),
// and may be shorter than columns. Throws PageError on anything else.
Result read(std::string_view data, const std::vector<std::string>& columns,
            const std::vector<std::string>& types);

// The CSV text (before quoting) of one value of a field of this type.
std::string text(const JSONLiteral& value, std::string_view type);

// "1.5E+3" -> "1500", "-2.5e-3" -> "-0.0025"; a text without an exponent, or one
// this rule cannot read, comes back unchanged.
std::string bulkNumber(std::string_view text);

// Appends one quoted CSV field: enclosed in double quotes, quotes doubled.
void appendQuoted(std::string& out, std::string_view field);

}  // namespace RestPage

}  // namespace corvane
