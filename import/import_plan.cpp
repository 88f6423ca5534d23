#include "import/import_plan.hpp"

#include <fmt/format.h>

#include <algorithm>

namespace corvane {

namespace {

bool sameText(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

const ImportField* fieldNamed(const std::string& name, const std::vector<ImportField>& fields) {
  for (const auto& field : fields) {
    if (sameText(field.name, name)) return &field;
  }
  return nullptr;
}

}  // namespace

std::optional<ImportOperation> ImportOperation::parse(std::string_view text) {
  if (text == "insert") return ImportOperation{Kind::insert, {}};
  if (text == "update") return ImportOperation{Kind::update, {}};
  if (text == "delete") return ImportOperation{Kind::remove, {}};
  if (text.starts_with("upsert:") && text.size() > 7) {
    return ImportOperation{Kind::upsert, std::string(text.substr(7))};
  }
  return std::nullopt;
}

std::string ImportOperation::name() const {
  return kind == Kind::upsert ? "upsert:" + externalIdField : verb();
}

std::string ImportOperation::verb() const {
  switch (kind) {
    case Kind::insert:
      return "insert";
    case Kind::update:
      return "update";
    case Kind::upsert:
      return "upsert";
    case Kind::remove:
      return "delete";
  }
  return "insert";
}

std::string PlanIssue::sentence(const std::string& object, const ImportOperation& operation) const {
  switch (kind) {
    case Kind::missingRequired:
      return fmt::format(
          "{} requires the field {}, but no column fills it. Add the column, or "
          "map one to it with --map \"Header={}\".",
          object, field, field);
    case Kind::missingKey:
      return fmt::format(
          "To {} records every row needs its {}, but no column holds it. Add the "
          "column, or map one to it with --map \"Header={}\".",
          operation.verb(), field, field);
    case Kind::badExternalId:
      return fmt::format(
          "{} is not a field of {} that can find records (an external id or a "
          "unique field). Name one in --operation upsert:FIELD.",
          field, object);
    case Kind::notWritable:
      return fmt::format(
          "The column \u201c{}\u201d is left out: {} cannot be set on {} by an "
          "{}.",
          header, field, object, operation.verb());
  }
  return field;
}

std::string RowProblem::sentence() const {
  return fmt::format("Row {}, column \u201c{}\u201d ({}): {}", row + 2, header, field,
                     problem.sentence());
}

ImportPlan ImportPlan::build(const ImportGrid& grid, const ImportMapping& mapping,
                             const std::vector<ImportField>& fields,
                             const ImportOperation& operation, const CoercionOptions& options) {
  using Op = ImportOperation::Kind;
  ImportPlan plan;
  plan.operation = operation;
  plan.rowCount = grid.rows.size();

  // The key that names existing records: Id, or the upsert's external id.
  std::string keyField = operation.kind == Op::upsert ? operation.externalIdField : "Id";
  if (operation.kind != Op::insert) {
    const ImportField* key = fieldNamed(keyField, fields);
    if (operation.kind == Op::upsert && (key == nullptr || !(key->externalId || key->idLookup))) {
      plan.issues.push_back({PlanIssue::Kind::badExternalId, keyField, {}});
    } else if (key != nullptr) {
      keyField = key->name;
    }
  }

  std::vector<const ImportField*> chosen;
  std::size_t keyIndex = SIZE_MAX;
  for (std::size_t column = 0; column < mapping.columns.size(); ++column) {
    const ColumnMapping& entry = mapping.columns[column];
    if (!entry.field) continue;
    const ImportField* field = fieldNamed(*entry.field, fields);
    if (field == nullptr) continue;
    bool isKey = operation.kind != Op::insert && sameText(field->name, keyField);
    bool writable = false;
    switch (operation.kind) {
      case Op::insert:
        writable = field->createable;
        break;
      case Op::update:
        writable = isKey || field->updateable;
        break;
      case Op::upsert:
        writable = isKey || field->createable || field->updateable;
        break;
      case Op::remove:
        writable = isKey;
        break;
    }
    if (!writable) {
      if (operation.kind != Op::remove) {
        plan.issues.push_back({PlanIssue::Kind::notWritable, field->name, entry.header});
      }
      continue;
    }
    if (isKey) keyIndex = chosen.size();
    chosen.push_back(field);
    plan.fields.push_back(field->name);
    plan.columns.push_back(column);
  }
  if (operation.kind != Op::insert && keyIndex == SIZE_MAX &&
      (plan.issues.empty() || plan.issues.front().kind != PlanIssue::Kind::badExternalId)) {
    plan.issues.push_back({PlanIssue::Kind::missingKey, keyField, {}});
  }
  std::vector<bool> required(chosen.size(), false);
  if (operation.kind == Op::insert) {
    for (const auto& field : fields) {
      if (!field.requiredOnInsert()) continue;
      auto found = std::find(chosen.begin(), chosen.end(), &field);
      if (found == chosen.end()) {
        plan.issues.push_back({PlanIssue::Kind::missingRequired, field.name, {}});
      } else {
        required[static_cast<std::size_t>(found - chosen.begin())] = true;
      }
    }
  }
  if (keyIndex != SIZE_MAX) required[keyIndex] = true;

  plan.values.resize(plan.rowCount * chosen.size());
  plan.rowHasProblem.assign(plan.rowCount, false);
  for (std::size_t row = 0; row < plan.rowCount; ++row) {
    for (std::size_t index = 0; index < chosen.size(); ++index) {
      std::size_t column = plan.columns[index];
      Coerced coerced = ValueCoercion::coerce(
          grid.cell(static_cast<std::ptrdiff_t>(row), static_cast<std::ptrdiff_t>(column)),
          *chosen[index], options);
      if (!coerced.problem && coerced.value.empty() && required[index]) {
        coerced.problem = CoercionProblem{CoercionProblem::Kind::required, {}, 0, {}};
      }
      if (coerced.problem) {
        plan.rowHasProblem[row] = true;
        plan.problems.push_back({row, column, mapping.columns[column].header, chosen[index]->name,
                                 std::move(*coerced.problem)});
        continue;
      }
      plan.values[row * chosen.size() + index] = std::move(coerced.value);
    }
  }
  return plan;
}

bool ImportPlan::blocked() const {
  return std::any_of(issues.begin(), issues.end(), [](const PlanIssue& i) { return i.blocks(); });
}

std::size_t ImportPlan::readyRows() const {
  if (blocked()) return 0;
  return static_cast<std::size_t>(std::count(rowHasProblem.begin(), rowHasProblem.end(), false));
}

}  // namespace corvane
