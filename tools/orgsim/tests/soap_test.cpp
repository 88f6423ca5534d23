#include "tools/orgsim/soap.hpp"

#include <gtest/gtest.h>

namespace corvane::orgsim {
namespace {

TEST(SoapTest, ReadsMergeRequestsWhateverThePrefixes) {
  auto call = Soap::parse(R"(<?xml version="1.0"?>
<e:Envelope xmlns:e="http://schemas.xmlsoap.org/soap/envelope/" xmlns:p="urn:partner.soap.sforce.com"
    xmlns:o="urn:sobject.partner.soap.sforce.com" xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance">
  <e:Header><p:SessionHeader><p:sessionId> 00D!abc </p:sessionId></p:SessionHeader></e:Header>
  <e:Body><p:merge>
    <p:request>
      <p:masterRecord><o:type>Lead</o:type><o:Id>00Q000000000001AAA</o:Id>
        <o:Company>A &amp; B &lt;Ltd&gt;</o:Company><o:Title xsi:nil="true"/>
        <o:fieldsToNull>Phone</o:fieldsToNull></p:masterRecord>
      <p:recordToMergeIds>00Q000000000002AAA</p:recordToMergeIds>
      <p:recordToMergeIds>00Q000000000003AAA</p:recordToMergeIds>
    </p:request>
    <p:request><p:masterRecord><o:type>Lead</o:type><o:Id>x</o:Id></p:masterRecord></p:request>
  </p:merge></e:Body></e:Envelope>)");
  ASSERT_TRUE(call);
  EXPECT_EQ(call->sessionId, "00D!abc");
  EXPECT_EQ(call->operation, "merge");
  ASSERT_EQ(call->merges.size(), 2u);
  const MergeRequest& first = call->merges[0];
  EXPECT_EQ(first.objectName, "Lead");
  EXPECT_EQ(first.masterId, "00Q000000000001AAA");
  EXPECT_EQ(first.loserIds.size(), 2u);
  ASSERT_EQ(first.fieldValues.size(), 3u);
  EXPECT_EQ(first.fieldValues[0],
            (std::pair<std::string, std::optional<std::string>>{"Company", "A & B <Ltd>"}));
  EXPECT_FALSE(first.fieldValues[1].second.has_value());
  EXPECT_EQ(first.fieldValues[2].first, "Phone");
  EXPECT_FALSE(first.fieldValues[2].second.has_value());

  EXPECT_FALSE(Soap::parse("not xml"));
  EXPECT_FALSE(Soap::parse("<Envelope><Body/></Envelope>"));
}

TEST(SoapTest, WritesResultsAndFaultsAsThePartnerApiDoes) {
  MergeOutcome failed;
  failed.id = "001";
  failed.errors.push_back({"UNABLE_TO_LOCK_ROW", "unable to obtain <exclusive> access", {"Id"}});
  std::string body = Soap::mergeResponse({failed});
  EXPECT_NE(body.find("<mergeResponse><result><errors><fields>Id</fields><message>unable to "
                      "obtain &lt;exclusive&gt; access</message><statusCode>UNABLE_TO_LOCK_ROW"
                      "</statusCode></errors><id>001</id><success>false</success></result>"),
            std::string::npos)
      << body;
  EXPECT_NE(Soap::parse(body), std::nullopt);  // well-formed

  std::string fault = Soap::fault("INVALID_SESSION_ID", "Invalid Session ID found");
  EXPECT_NE(fault.find("<faultcode>sf:INVALID_SESSION_ID</faultcode><faultstring>"
                       "INVALID_SESSION_ID: Invalid Session ID found</faultstring>"),
            std::string::npos);
  EXPECT_NE(fault.find("<sf:exceptionCode>INVALID_SESSION_ID</sf:exceptionCode>"),
            std::string::npos);
  EXPECT_NE(Soap::fault("soapenv:Client", "bad").find("<faultcode>soapenv:Client</faultcode>"),
            std::string::npos);
}

}  // namespace
}  // namespace corvane::orgsim
