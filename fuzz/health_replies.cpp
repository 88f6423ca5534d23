// Any bytes as DNS TXT records (one per line) through the SPF and DKIM verdicts,
// and as JSON through the limits, audit-trail, status and release-update readers.
// None may crash or throw: a reply of the wrong shape reads as nothing.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "health/audit_trail.hpp"
#include "health/email_domains.hpp"
#include "health/instance_status.hpp"
#include "health/limits_report.hpp"
#include "health/release_updates.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace corvane;
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  TXTAnswer answer{TXTAnswer::Status::found, {}, {}};
  std::size_t at = 0;
  while (at <= text.size()) {
    std::size_t end = text.find('\n', at);
    if (end == std::string_view::npos) end = text.size();
    answer.texts.emplace_back(text.substr(at, end - at));
    at = end + 1;
  }
  auto checks = std::vector<DomainCheck>{EmailDomains::spf("example.test", answer),
                                         EmailDomains::dkim("example.test", "s1", answer)};
  EmailDomains::table(checks);
  EmailDomains::toJSON(checks).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);

  auto json = nlohmann::json::parse(text, nullptr, false);
  if (json.is_discarded()) return 0;
  LimitsReport::table(LimitsReport::read(json));
  AuditTrail::csv(AuditTrail::entries(json));
  if (auto status = StatusService::parse(json)) StatusService::table(*status);
  if (json.is_array()) {
    ReleaseUpdates::table(ReleaseUpdates::read(json.get<std::vector<nlohmann::json>>()));
  }
  return 0;
}
