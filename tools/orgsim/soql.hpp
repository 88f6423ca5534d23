// The SOQL the sample org understands: a parser from text to a query tree.
//
// Covers what Corvane and the Salesforce CLI send: field lists with relationship
// paths, COUNT() and simple aggregates with one GROUP BY field, WHERE with
// comparisons, LIKE, IN / NOT IN (lists and semi-joins), AND / OR / NOT and
// parentheses, date, date-time and relative date literals, ORDER BY with
// ASC / DESC and NULLS FIRST / LAST, LIMIT and OFFSET. Names are checked later,
// against the catalog (query_engine.hpp); this file only reads the shape.
//
// A query that cannot be read throws SoqlError with Salesforce's error code and
// message form, including the "ERROR at Row:1:Column:N" position line.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::orgsim {

// A query Salesforce would refuse: errorCode is MALFORMED_QUERY, INVALID_FIELD,
// INVALID_TYPE, ...; message is the text Salesforce would put beside it.
class SoqlError : public std::runtime_error {
 public:
  SoqlError(std::string errorCode, std::string message)
      : std::runtime_error(message),
        errorCode_(std::move(errorCode)),
        message_(std::move(message)) {}
  const std::string& errorCode() const { return errorCode_; }
  const std::string& message() const { return message_; }

  // Salesforce's form for an error at a place in the query text:
  // "\n<query>\n<spaces>^\nERROR at Row:1:Column:<n>\n<what>". `offset` counts from 0.
  static SoqlError at(std::string errorCode, std::string_view query, std::size_t offset,
                      const std::string& what);

 private:
  std::string errorCode_;
  std::string message_;
};

struct FieldPath {
  std::vector<std::string> parts;  // as written: {"Owner", "Name"}
  std::size_t offset = 0;          // where it starts in the query text
  std::string text() const;        // "Owner.Name"
};

struct SelectItem {
  enum class Kind { Field, CountAll, Aggregate };
  Kind kind = Kind::Field;
  FieldPath path;
  std::string function;  // upper case: COUNT, COUNT_DISTINCT, MIN, MAX, SUM, AVG
  std::string alias;
  std::size_t offset = 0;
};

struct Literal {
  enum class Kind { String, Number, Boolean, Null, Date, DateTime, Relative };
  Kind kind = Kind::Null;
  std::string text;  // the string's value, the number's text, "true", the date text
  // Relative dates: the name (TODAY, YESTERDAY, TOMORROW, LAST_N_DAYS, NEXT_N_DAYS,
  // THIS_MONTH, LAST_MONTH, THIS_YEAR) and its N.
  std::int64_t n = 0;
  std::size_t offset = 0;
};

struct Query;

struct Condition {
  enum class Kind { And, Or, Not, Compare, In, Like, SemiJoin };
  Kind kind = Kind::Compare;
  std::vector<std::unique_ptr<Condition>> children;  // And, Or (2+), Not (1)
  FieldPath field;
  std::string op;                   // Compare: "=", "!=", "<", "<=", ">", ">="
  bool negated = false;             // NOT IN, NOT LIKE
  std::vector<Literal> values;      // Compare / Like: one; In: the list
  std::unique_ptr<Query> subquery;  // SemiJoin
  std::size_t offset = 0;
};

struct OrderItem {
  FieldPath path;
  bool descending = false;
  std::optional<bool> nullsFirst;
};

struct Query {
  std::string text;  // the whole query as given
  std::vector<SelectItem> select;
  std::string from;
  std::size_t fromOffset = 0;
  std::unique_ptr<Condition> where;
  std::optional<FieldPath> groupBy;
  std::vector<OrderItem> orderBy;
  std::optional<std::int64_t> limit;
  std::optional<std::int64_t> offset;
  std::size_t offsetClauseOffset = 0;

  bool isCountAll() const {
    return select.size() == 1 && select[0].kind == SelectItem::Kind::CountAll;
  }
  bool hasAggregates() const;
};

namespace Soql {

// Reads one query. Throws SoqlError (MALFORMED_QUERY) when it cannot be read.
Query parse(std::string_view text);

}  // namespace Soql

}  // namespace corvane::orgsim
