// The describe resources, rendered from the catalog in Salesforce's JSON shape.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "tools/orgsim/schema.hpp"

namespace corvane::orgsim::Describe {

// GET /sobjects/: {"encoding", "maxBatchSize", "sobjects": [...]}.
nlohmann::ordered_json global(const std::string& apiVersion);
// One entry of the global describe (also "objectDescribe" of GET /sobjects/{Obj}).
nlohmann::ordered_json summary(const ObjectDef& object, const std::string& apiVersion);
// GET /sobjects/{Obj}/describe.
nlohmann::ordered_json full(const ObjectDef& object, const std::string& apiVersion);

}  // namespace corvane::orgsim::Describe
