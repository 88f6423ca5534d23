// Query result records as a table: one column per item of the select list, in
// its order, relationship fields flattened to dotted names ("Owner.Name"), and
// every cell as the text the result grid shows.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "connections/json_literal.hpp"

namespace corvane::ResultTable {

struct Column {
  std::string name;               // the header: "Owner.Name", "expr0", an alias
  std::vector<std::string> path;  // the keys to follow in a record, matched in any case
  bool operator==(const Column&) const = default;
};

// The columns of a SELECT query's select list: a field path gives its dotted
// name; an aggregate gives its alias, else "expr0", "expr1"... as Salesforce
// numbers them; toLabel(), FORMAT() and convertCurrency() keep their field's
// name; a subquery gives its relationship name (the cell holds its records as
// JSON). Empty when the columns cannot be told from the text (not a SELECT
// query, or FIELDS(...)): then use columns(record).
std::vector<Column> columns(std::string_view soql);

// The columns of one record, in its own order, relationships flattened.
std::vector<Column> columns(const JSONLiteral& record);

// Whether the select list is COUNT() alone: the answer is the total size, with no records.
bool isCountOnly(std::string_view soql);

// The columns renamed with the keys' own spelling in the first of records
// where the whole path is present ("owner.name" becomes "Owner.Name"); a
// column that no record resolves keeps its name.
std::vector<Column> withRecordNames(std::vector<Column> columns,
                                    const std::vector<JSONLiteral>& records);

// The cell texts of a record: strings as they are, numbers exactly as sent,
// true/false, empty for null or a missing value, and other objects (an
// address, a subquery's records) as compact JSON without "attributes".
std::vector<std::string> cells(const JSONLiteral& record, const std::vector<Column>& columns);

}  // namespace corvane::ResultTable
