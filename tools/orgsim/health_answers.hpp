// The sample org's answers for the org-health tools: the status service of its
// instance (in the shape of Salesforce's instance status API), the Tooling API's
// ReleaseUpdate records, and the Metadata API's describeMetadata, listMetadata,
// retrieve and checkRetrieveStatus calls over SOAP.
//
// The status service answers outside /services, without an org session. When the
// setting "statusToken" is set it asks for that personal access token as a bearer
// token (401 without it), as Salesforce's newer status service does. Incidents,
// maintenances and the overall status can be set through POST /_admin/status.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "tools/orgsim/org_store.hpp"

namespace corvane::orgsim::HealthAnswers {

struct Answer {
  int status = 200;
  std::string body;
  std::string contentType = "application/json";
};

// GET /v1/instances/{key}/status. `authorization` is the request's header.
Answer instanceStatus(OrgStore& store, std::string_view key, std::string_view authorization);

// POST /_admin/status {"token"?, "status"?, "incidents"?, "maintenances"?}: stores
// what is given ("token": "" removes the token) and returns the whole setting.
nlohmann::json adminStatus(OrgStore& store, const nlohmann::json& body);

// The answer to a Tooling API query on ReleaseUpdate; none for queries on other objects.
std::optional<std::string> releaseUpdatesQuery(std::string_view soql, SystemTime now);

// A Metadata API call (the SOAP envelope's body); none when the operation is not one
// of the four answered. The answer is a whole SOAP envelope.
std::optional<std::string> metadataCall(OrgStore& store, std::string_view operation,
                                        std::string_view envelope);

}  // namespace corvane::orgsim::HealthAnswers
