#include "import/sobject_collections.hpp"

#include "connections/sobject_collection.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace corvane {

namespace {

bool sameText(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

enum class Literal { string, number, boolean };

Literal literalOf(const std::string& name, const std::vector<ImportField>& fields) {
  for (const auto& field : fields) {
    if (!sameText(field.name, name)) continue;
    const std::string& type = field.type;
    if (type == "boolean") return Literal::boolean;
    if (type == "int" || type == "double" || type == "currency" || type == "percent" ||
        type == "long") {
      return Literal::number;
    }
    return Literal::string;
  }
  return Literal::string;
}

void appendString(std::string& out, const std::string& text) {
  out += nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// The plan's column that names the record: Id, or the upsert's external id.
std::optional<std::size_t> keyColumn(const ImportPlan& plan) {
  std::string key =
      plan.operation.kind == ImportOperation::Kind::upsert ? plan.operation.externalIdField : "Id";
  for (std::size_t index = 0; index < plan.fields.size(); ++index) {
    if (sameText(plan.fields[index], key)) return index;
  }
  return std::nullopt;
}

}  // namespace

namespace SObjectCollections {

Request request(const ImportPlan& plan, const std::vector<ImportField>& fields,
                const std::string& object, const std::vector<std::size_t>& rows) {
  using Kind = ImportOperation::Kind;
  Request request;
  std::optional<std::size_t> key = keyColumn(plan);
  if (plan.operation.kind == Kind::remove) {
    std::string ids;
    for (std::size_t row : rows) {
      if (!ids.empty()) ids += ',';
      if (key) ids += plan.value(row, *key);
    }
    request.method = "DELETE";
    request.path = "composite/sobjects";
    request.query = {{"ids", ids}, {"allOrNone", "false"}};
    return request;
  }
  std::vector<Literal> literals;
  for (const auto& name : plan.fields) literals.push_back(literalOf(name, fields));
  std::string body = "{\"allOrNone\":false,\"records\":[";
  std::string attributes = "{\"attributes\":{\"type\":";
  appendString(attributes, object);
  attributes += '}';
  for (std::size_t at = 0; at < rows.size(); ++at) {
    if (at > 0) body += ',';
    body += attributes;
    for (std::size_t index = 0; index < plan.fields.size(); ++index) {
      const std::string& value = plan.value(rows[at], index);
      if (value.empty()) continue;
      body += ',';
      bool isId = plan.operation.kind == Kind::update && key && index == *key;
      appendString(body, isId ? std::string("id") : plan.fields[index]);
      body += ':';
      if (literals[index] == Literal::string) {
        appendString(body, value);
      } else {
        body += value;
      }
    }
    body += '}';
  }
  body += "]}";
  request.body = std::move(body);
  switch (plan.operation.kind) {
    case Kind::insert:
      request.method = "POST";
      request.path = "composite/sobjects";
      break;
    case Kind::update:
      request.method = "PATCH";
      request.path = "composite/sobjects";
      break;
    case Kind::upsert:
      request.method = "PATCH";
      request.path = "composite/sobjects/" + object + "/" +
                     (key ? plan.fields[*key] : plan.operation.externalIdField);
      break;
    case Kind::remove:
      break;
  }
  return request;
}

std::vector<RowOutcome> outcomes(const std::string& body, const std::vector<std::size_t>& rows,
                                 const ImportOperation& operation) {
  const auto results = SObjectCollection::results(body, rows.size());
  std::vector<RowOutcome> list;
  list.reserve(rows.size());
  for (std::size_t at = 0; at < rows.size(); ++at) {
    const auto& result = results[at];
    RowOutcome outcome{rows[at], result.success, result.id, result.message, false};
    if (result.message == "Salesforce sent no result for this record.")
      outcome.message = "Salesforce sent no result for this row.";
    if (result.success) {
      if (operation.kind == ImportOperation::Kind::insert) {
        outcome.created = true;
      } else if (operation.kind == ImportOperation::Kind::upsert) {
        outcome.created = result.created;
      }
    }
    list.push_back(std::move(outcome));
  }
  return list;
}

}  // namespace SObjectCollections

}  // namespace corvane
