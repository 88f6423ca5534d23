// Running SOQL against the store: names checked against the catalog, the query
// turned into SQL over the object tables, and rows written out as Salesforce
// writes them (REST JSON records, Bulk API CSV lines, aggregate results).
//
// Nothing is held per record: results stream from SQLite row by row. A compiled
// query is immutable and may be shared between threads; each execution needs its
// own database connection.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/orgsim/database.hpp"
#include "tools/orgsim/org_store.hpp"
#include "tools/orgsim/schema.hpp"
#include "tools/orgsim/soql.hpp"

namespace corvane::orgsim {

enum class QueryScope {
  Live,  // /query: rows in the Recycle Bin and archived activities are left out
  All,   // /queryAll: everything
};

enum class QueryApi { Rest, Bulk };

// One column of the output.
struct OutputColumn {
  enum class Kind { Value, BodyUrl, Compound, Aggregate };
  Kind kind = Kind::Value;
  std::string header;  // canonical dotted name: "Owner.Name"; aggregates: alias or exprN
  std::vector<std::string> relationshipPath;  // canonical: {"Owner"}
  std::string name;                           // the last part: "Name"
  const FieldDef* field = nullptr;            // null for COUNT() and counting aggregates
  int sqlColumn = -1;
  std::vector<std::pair<std::string, int>> components;  // Compound: key, sql column
  std::string bodyObject;                               // BodyUrl: the object whose body it is
  std::string function;                                 // Aggregate: COUNT, SUM, ...
};

// A relationship object in the output ("Owner": {...}).
struct OutputRelationship {
  std::vector<std::string> path;  // canonical: {"Account", "Owner"}
  int idSqlColumn = -1;           // the related record's id (null: no related record)
  std::string type;               // the related object, or empty when it follows from the id
};

class CompiledQuery {
 public:
  const ObjectDef& object() const { return *object_; }
  const Query& query() const { return query_; }
  bool isCountAll() const { return query_.isCountAll(); }
  bool isAggregate() const { return aggregate_; }
  const std::vector<OutputColumn>& columns() const { return columns_; }
  // True when rows can be paged by rowid without materialising an order.
  bool pagesByRowId() const { return query_.orderBy.empty() && !query_.offset && !aggregate_; }

  // Every matching row, in the query's order, with LIMIT and OFFSET applied.
  void scan(Database& db, const std::function<bool(Statement& row)>& sink) const;
  // The number of matching rows (LIMIT and OFFSET applied).
  std::int64_t count(Database& db) const;
  // Rows after `afterRowId` in rowid order (only when pagesByRowId()); sink gets the
  // row and its rowid. Returns the last rowid delivered.
  std::int64_t scanAfter(Database& db, std::int64_t afterRowId, std::int64_t maxRows,
                         const std::function<void(Statement& row)>& sink) const;
  // The rowids of all matching rows in order (LIMIT/OFFSET applied).
  std::vector<std::int64_t> rowIds(Database& db) const;
  // The rows with these rowids, in the given order.
  void fetch(Database& db, const std::vector<std::int64_t>& rowIds, std::size_t from,
             std::size_t count, const std::function<void(Statement& row)>& sink) const;

  // Appends one REST JSON record for the current row.
  void appendJson(std::string& out, const Statement& row, const std::string& apiVersion) const;
  // Appends the Bulk CSV header line / one CSV line (LF-terminated).
  void appendCsvHeader(std::string& out) const;
  void appendCsv(std::string& out, const Statement& row) const;
  // Runs an aggregate query and appends its records (comma-separated JSON objects);
  // returns how many.
  std::int64_t appendAggregateJson(Database& db, std::string& out) const;

 private:
  friend class QueryCompiler;
  const ObjectDef* object_ = nullptr;
  Query query_;
  bool aggregate_ = false;
  std::string selectList_;           // the output columns as SQL
  std::string from_;                 // FROM table AS t0 and joins
  std::string where_;                // the WHERE condition (never empty)
  std::vector<std::string> params_;  // bound in order into where_
  std::string orderBy_;              // "" or "ORDER BY ..."
  std::string groupBy_;
  std::string limit_;  // "" or "LIMIT n OFFSET m"
  std::vector<OutputColumn> columns_;
  std::vector<OutputRelationship> relationships_;
  int idColumn_ = 0;  // t0.Id in the select list
  // The JSON shape of a record: node 0 is the record itself; each relationship
  // object is a node whose entries are columns or further nodes, in first-seen order.
  struct RenderEntry {
    bool isColumn = true;
    int index = 0;  // into columns_ or nodes_
  };
  struct RenderNode {
    std::string name;       // the relationship name ("Owner"); empty for the record
    int relationship = -1;  // into relationships_
    std::vector<RenderEntry> entries;
  };
  std::vector<RenderNode> nodes_;

  void appendJsonNode(std::string& out, const Statement& row, const std::string& apiVersion,
                      int node, const std::string& type, std::string_view id) const;

  void bindParams(Statement& statement, int first = 1) const;
};

namespace QueryEngine {

// Checks the query against the catalog and compiles it. `now` is the org's clock
// (relative date literals). Throws SoqlError with Salesforce's codes: INVALID_TYPE,
// INVALID_FIELD, MALFORMED_QUERY, INVALID_QUERY_FILTER_OPERATOR,
// NUMBER_OUTSIDE_VALID_RANGE.
std::shared_ptr<const CompiledQuery> compile(std::string_view soql, QueryScope scope, QueryApi api,
                                             SystemTime now);

// Why Bulk API query jobs refuse this compiled query (the job's errorMessage), or
// none when they accept it.
std::optional<std::string> bulkRefusal(const CompiledQuery& query);

// Refuses a query that selects a field named in `refused` ("Object.Field" entries
// separated by commas, any letter case) with INVALID_FIELD, as Salesforce does for
// a field its describe lists but its query will not read for this user. Call
// after compile().
void refuseFields(const CompiledQuery& query, std::string_view refused);

// A JSON string literal (with quotes) for text.
void appendJsonString(std::string& out, std::string_view text);

}  // namespace QueryEngine

}  // namespace corvane::orgsim
