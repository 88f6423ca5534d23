// E-mail domain checks for mail that Salesforce sends on a company's behalf:
// SPF (a TXT record "v=spf1 ..." at the domain that includes Salesforce's SPF
// domain) and DKIM (a TXT record at selector._domainkey.domain with a key).
//
// Each check ends in a verdict and one sentence saying what to publish. The
// verdicts are pure functions of the DNS answer, so they are tested without DNS.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "health/txt_resolver.hpp"

namespace corvane {

struct DomainCheck {
  enum class Verdict {
    pass,        // published as it should be
    missing,     // nothing is published
    invalid,     // published, but receivers will not accept it as it is
    incomplete,  // valid, but it does not cover Salesforce
    unknown,     // the DNS server gave no usable answer
  };
  std::string domain;
  std::string kind;  // "SPF" or "DKIM"
  std::string name;  // the DNS name asked
  Verdict verdict = Verdict::unknown;
  std::vector<std::string> records;  // the relevant TXT records found
  std::string advice;                // what to publish, or why nothing needs doing

  bool operator==(const DomainCheck&) const = default;
};

namespace EmailDomains {

// Salesforce's SPF domain, to be included in the SPF record.
inline constexpr const char* kSalesforceSPF = "_spf.salesforce.com";

std::string verdictName(DomainCheck::Verdict verdict);

// The SPF verdict on the TXT answer for the domain.
DomainCheck spf(const std::string& domain, const TXTAnswer& answer);
// The DKIM verdict on the TXT answer for selector._domainkey.domain.
DomainCheck dkim(const std::string& domain, const std::string& selector, const TXTAnswer& answer);

// SPF for each domain, then DKIM for each selector of each domain.
std::vector<DomainCheck> check(const TXTResolver& resolver, const std::vector<std::string>& domains,
                               const std::vector<std::string>& selectors);

std::string table(const std::vector<DomainCheck>& checks);
nlohmann::json toJSON(const std::vector<DomainCheck>& checks);

}  // namespace EmailDomains

}  // namespace corvane
