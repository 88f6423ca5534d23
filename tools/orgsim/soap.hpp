// The SOAP partner API's envelopes: reading merge() and undelete() calls and
// writing their answers and faults, as the partner WSDL shapes them.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/orgsim/org_records.hpp"

namespace corvane::orgsim::Soap {

struct Call {
  std::string sessionId;  // from SessionHeader; empty when absent
  std::string operation;  // local name of the Body's first element: "merge", "undelete", ...
  std::vector<MergeRequest> merges;
  std::vector<std::string> undeleteIds;
};

// Reads an envelope (namespace prefixes are ignored; elements are matched by local
// name). None when the text is not a SOAP envelope.
std::optional<Call> parse(std::string_view xml);

std::string mergeResponse(const std::vector<MergeOutcome>& results);
std::string undeleteResponse(const std::vector<SaveResult>& results);
// A SOAP fault: faultcode "sf:<code>" (or a soapenv code when `code` holds a ':').
std::string fault(const std::string& code, const std::string& message);

// Text with &, <, >, " and ' written as entities.
std::string escape(std::string_view text);

}  // namespace corvane::orgsim::Soap
