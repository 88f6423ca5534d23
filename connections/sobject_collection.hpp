// sObject Collections ("composite/sobjects"): up to 200 records created,
// updated or deleted in one call. Sent with allOrNone=false, every record
// succeeds or fails on its own and the reply lists one result per record, in
// the order sent. Shared by every engine that writes records.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace corvane::SObjectCollection {

// At most this many records go in one request.
inline constexpr std::size_t maxRecords = 200;

// One record's result.
struct SaveResult {
  bool success = false;
  std::string id;          // the record written, when Salesforce named it
  std::string statusCode;  // the first error's code, such as "REQUIRED_FIELD_MISSING"
  std::string message;     // "CODE: message; ..." for a failure
  bool created = false;    // as the reply says (upserts); false when it says nothing
  bool operator==(const SaveResult&) const = default;
};

// Salesforce's errors array in words: "CODE: message" joined by "; ".
std::string failureText(const nlohmann::json& errors);

// The results of a reply to count records. A result that is missing or not an
// object is a failure that says so; a failure without errors says that too.
std::vector<SaveResult> results(std::string_view body, std::size_t count);

}  // namespace corvane::SObjectCollection
