// The requests and replies of sObject Collections ("composite/sobjects"), the
// REST resource that creates, updates, upserts or deletes up to 200 records in
// one call. Sent with allOrNone=false, every record succeeds or fails on its
// own, and the reply lists one result per record in the order sent.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "connections/dedupe_transport.hpp"
#include "import/import_fields.hpp"
#include "import/import_journal.hpp"
#include "import/import_plan.hpp"

namespace corvane {

namespace SObjectCollections {

// At most this many records go in one request.
inline constexpr std::size_t kMaxRecords = 200;  // SObjectCollection::maxRecords

struct Request {
  std::string method;  // "POST", "PATCH" or "DELETE"
  std::string path;    // relative to the REST root
  QueryItems query;
  std::optional<std::string> body;
};

// The request that applies plan.operation to these grid rows of the plan.
// Values go out by the field's type: booleans and numbers as JSON literals
// (the number's text exactly as coerced), everything else as strings; an empty
// value is left out. fields is the object's describe (for the types).
Request request(const ImportPlan& plan, const std::vector<ImportField>& fields,
                const std::string& object, const std::vector<std::size_t>& rows);

// Reads the reply: one outcome per row, in the order of rows. A result that
// is missing or unreadable is a failure that says so; an upsert's "created"
// is kept, and for inserts every success counts as created.
std::vector<RowOutcome> outcomes(const std::string& body, const std::vector<std::size_t>& rows,
                                 const ImportOperation& operation);

}  // namespace SObjectCollections

}  // namespace corvane
