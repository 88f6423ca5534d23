#include "health/email_domains.hpp"

#include <gtest/gtest.h>

namespace corvane {
namespace {

using Verdict = DomainCheck::Verdict;
using Status = TXTAnswer::Status;

TXTAnswer found(std::vector<std::string> texts) { return {Status::found, std::move(texts), {}}; }

TEST(EmailDomains, SPFVerdicts) {
  auto pass = EmailDomains::spf(
      "acme.test",
      found({"google-site-verification=x", "v=spf1 mx +include:_spf.salesforce.com -all"}));
  EXPECT_EQ(pass.verdict, Verdict::pass);
  EXPECT_EQ(pass.records, std::vector<std::string>{"v=spf1 mx +include:_spf.salesforce.com -all"});

  auto missing = EmailDomains::spf("acme.test", found({"v=spf10 nonsense", "hello"}));
  EXPECT_EQ(missing.verdict, Verdict::missing);
  EXPECT_NE(missing.advice.find("v=spf1 include:_spf.salesforce.com ~all"), std::string::npos);
  EXPECT_EQ(EmailDomains::spf("acme.test", {Status::noRecord, {}, {}}).verdict, Verdict::missing);

  auto two = EmailDomains::spf("acme.test", found({"v=spf1 include:_spf.salesforce.com ~all",
                                                   "V=SPF1 include:_spf.google.com ~all"}));
  EXPECT_EQ(two.verdict, Verdict::invalid);
  EXPECT_NE(two.advice.find("2 SPF records"), std::string::npos) << two.advice;

  // A neighbouring domain, or a failing qualifier, does not count as including Salesforce.
  for (const char* record : {"v=spf1 include:_spf.salesforce.com.evil.test ~all",
                             "v=spf1 -include:_spf.salesforce.com ~all", "v=spf1"}) {
    EXPECT_EQ(EmailDomains::spf("acme.test", found({record})).verdict, Verdict::incomplete)
        << record;
  }

  auto unknown =
      EmailDomains::spf("acme.test", {Status::failed, {}, "Timeout while contacting DNS servers"});
  EXPECT_EQ(unknown.verdict, Verdict::unknown);
  EXPECT_NE(unknown.advice.find("Timeout"), std::string::npos);
}

TEST(EmailDomains, DKIMVerdicts) {
  auto pass = EmailDomains::dkim("acme.test", "sf1", found({"v=DKIM1; k=rsa; p=MIGfMA0GCSq"}));
  EXPECT_EQ(pass.name, "sf1._domainkey.acme.test");
  EXPECT_EQ(pass.verdict, Verdict::pass);
  EXPECT_EQ(EmailDomains::dkim("acme.test", "sf1", {Status::noRecord, {}, {}}).verdict,
            Verdict::missing);
  EXPECT_EQ(EmailDomains::dkim("acme.test", "sf1", found({"v=DKIM1; k=rsa; p="})).verdict,
            Verdict::invalid);
  EXPECT_EQ(EmailDomains::dkim("acme.test", "sf1", found({"v=DKIM1; k=rsa"})).verdict,
            Verdict::invalid);
  EXPECT_EQ(EmailDomains::dkim("acme.test", "sf1", found({"p=AAA", "p=BBB"})).verdict,
            Verdict::invalid);
}

}  // namespace
}  // namespace corvane
