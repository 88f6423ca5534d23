// The metadata commands of the `sf` stand-in, over the org's Metadata API (SOAP):
//   org list metadata-types  -> describeMetadata
//   org list metadata        -> listMetadata
//   project retrieve start   -> retrieve, then checkRetrieveStatus until done; the
//                               zip is unpacked into the project's force-app/main/default
// Each returns the command's "result" in the real CLI's shape and throws CliFailure.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/orgsim/sf/org_http.hpp"

namespace corvane::sfstandin::MetadataCommands {

struct Connection {
  const OrgHttp& http;
  std::string accessToken;  // goes into the SOAP SessionHeader, as the real CLI sends it
  std::string apiVersion;
};

nlohmann::json listTypes(const Connection& connection);
nlohmann::json listComponents(const Connection& connection, const std::string& type);
// components: "Type:Name" or "Type" (every component of the type). projectRoot must
// hold sfdx-project.json.
nlohmann::json retrieve(const Connection& connection, const std::vector<std::string>& components,
                        const std::filesystem::path& projectRoot);

}  // namespace corvane::sfstandin::MetadataCommands
