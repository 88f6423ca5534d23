// What an import will send: the grid's rows coerced, by the mapping, into the
// values of the fields the operation writes, and every problem found on the
// way, with its row and column, before anything reaches the org.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "import/import_fields.hpp"
#include "workbook/import_grid.hpp"
#include "import/import_mapping.hpp"
#include "import/value_coercion.hpp"

namespace corvane {

struct ImportOperation {
  enum class Kind { insert, update, upsert, remove };

  Kind kind = Kind::insert;
  std::string externalIdField;  // upsert only

  // "insert", "update", "upsert:Field__c" or "delete"; none for anything else.
  static std::optional<ImportOperation> parse(std::string_view text);
  // The text parse() reads.
  std::string name() const;
  // "insert", "update", "upsert", "delete": the verb of a summary line.
  std::string verb() const;

  bool operator==(const ImportOperation&) const = default;
};

// A problem of the whole file, such as a missing column.
struct PlanIssue {
  enum class Kind {
    missingRequired,  // field: a required field no column fills (blocks)
    missingKey,       // field: the Id or external id column is missing (blocks)
    badExternalId,    // field: not a field that can match records (blocks)
    notWritable,      // field, header: the column is left out
  };

  Kind kind;
  std::string field;
  std::string header;

  bool blocks() const { return kind != Kind::notWritable; }
  std::string sentence(const std::string& object, const ImportOperation& operation) const;

  bool operator==(const PlanIssue&) const = default;
};

// A problem of one cell.
struct RowProblem {
  std::size_t row = 0;     // index of the grid's data row; the sheet's row is row + 2
  std::size_t column = 0;  // index of the grid's column
  std::string header;
  std::string field;
  CoercionProblem problem;

  // "Row 7, column “Close Date” (CloseDate): ..."
  std::string sentence() const;

  bool operator==(const RowProblem&) const = default;
};

struct ImportPlan {
  ImportOperation operation;
  std::vector<std::string> fields;   // the fields sent, in column order
  std::vector<std::size_t> columns;  // the grid column of each field
  std::size_t rowCount = 0;
  // rowCount x fields.size() values, row by row; an empty value is not sent.
  std::vector<std::string> values;
  std::vector<bool> rowHasProblem;
  std::vector<RowProblem> problems;
  std::vector<PlanIssue> issues;

  // Coerces every mapped cell; never throws for bad cells.
  static ImportPlan build(const ImportGrid& grid, const ImportMapping& mapping,
                          const std::vector<ImportField>& fields, const ImportOperation& operation,
                          const CoercionOptions& options);

  const std::string& value(std::size_t row, std::size_t field) const {
    return values[row * fields.size() + field];
  }
  bool blocked() const;
  std::size_t readyRows() const;
};

}  // namespace corvane
