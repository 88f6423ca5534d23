// The one entry point through which both faces run a SOQL query.
//
// QueryTask::run asks Salesforce for the query's first page, follows every
// nextRecordsUrl, and hands each page to the caller as it arrives: as records
// (without their "attributes" decoration) or as a table of cell texts with
// one column per item of the select list. It blocks until the last page, a
// stop, or a failure, so callers run it on a worker thread; it prints nothing.
// Only the calling thread touches the handlers.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "connections/json_literal.hpp"
#include "connections/org.hpp"
#include "connections/salesforce_api.hpp"
#include "platform/user_facing_error.hpp"
#include "query/result_table.hpp"

namespace corvane {

// Where Salesforce placed a fault in the query text, as its "ERROR at
// Row:R:Column:C" line says: both counted from 1, the column in characters.
struct QueryErrorPosition {
  int row = 1;
  int column = 1;
  bool operator==(const QueryErrorPosition&) const = default;
};

// A query that could not be run or read to its end. The description is the
// sentence of the REST client (Salesforce's own words for a refused query).
class QueryError : public UserFacingError {
 public:
  enum class Kind {
    refused,     // Salesforce answered with an error (a bad query, a missing permission)
    noSession,   // no usable session from the Salesforce CLI
    connection,  // no answer, a broken connection or an insecure address
    unreadable,  // a page that could not be read
  };

  static QueryError from(const SalesforceAPI::APIError& error);

  Kind kind() const { return kind_; }
  int status() const { return status_; }                   // refused only
  const std::string& message() const { return message_; }  // Salesforce's message, for refused
  std::optional<QueryErrorPosition> position() const { return position_; }

  // The position named by a Salesforce error message, if it names one.
  static std::optional<QueryErrorPosition> positionIn(std::string_view message);

 private:
  QueryError(Kind kind, int status, std::string message, const std::string& description);
  Kind kind_;
  int status_ = 0;
  std::string message_;
  std::optional<QueryErrorPosition> position_;
};

// How far a query has come: progress as data.
struct QueryProgress {
  enum class Phase { asking, reading, finished };
  Phase phase = Phase::asking;
  std::int64_t rows = 0;       // rows received so far
  std::int64_t totalSize = 0;  // Salesforce's count of the whole result; 0 until the first page
  std::int64_t pages = 0;      // pages received so far
  bool operator==(const QueryProgress&) const = default;
};

// One page as it arrives.
struct QueryRows {
  // The table's columns (table shape): fixed from the first page with records on.
  std::vector<ResultTable::Column> columns;
  std::vector<JSONLiteral> records;             // records shape: without "attributes"
  std::vector<std::vector<std::string>> cells;  // table shape: one text per column
};

// What a finished (or stopped) query came to.
struct QueryOutcome {
  std::vector<ResultTable::Column> columns;  // table shape: the final columns
  std::int64_t rows = 0;                     // rows handed over
  std::int64_t totalSize = 0;                // Salesforce's count of the whole result
  bool stopped = false;                      // the stop token or the page handler ended it early
  bool countOnly = false;                    // SELECT COUNT(): one row holding the count
};

namespace QueryTask {

enum class Shape { records, table };

struct Request {
  std::string soql;
  Shape shape = Shape::table;
};

// Takes one page; returns false to stop reading (the reader has gone away).
using RowsHandler = std::function<bool(QueryRows&& rows)>;
using ProgressHandler = std::function<void(const QueryProgress& progress)>;

// Runs the query for org. A stop request is honoured between pages (the page
// in flight is finished and handed over first). In table shape a COUNT()
// query, which has no records, gives one row "COUNT()" holding the count.
// Throws QueryError.
QueryOutcome run(SalesforceAPI::Client& api, const Org& org, const Request& request,
                 std::stop_token stop, const RowsHandler& onRows,
                 const ProgressHandler& onProgress = {});

// The record without its "attributes" members, at every level.
JSONLiteral withoutAttributes(JSONLiteral record);

}  // namespace QueryTask

}  // namespace corvane
