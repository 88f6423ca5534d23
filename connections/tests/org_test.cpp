#include "connections/org.hpp"
#include "connections/production_write.hpp"

#include <unordered_set>

#include <gtest/gtest.h>

namespace corvane {
namespace {

Org withInstance(const std::string& instanceUrl) {
  Org org;
  org.username = "a@example.com";
  org.instanceUrl = instanceUrl;
  return org;
}

TEST(OrgType, FirstRuleThatHoldsDecidesTheKind) {
  Org scratchHub = withInstance("https://x.my.salesforce.com");
  scratchHub.isScratch = true;
  scratchHub.isDevHub = true;
  EXPECT_EQ(scratchHub.type(), OrgType::scratch) << "the scratch flag wins over Dev Hub";

  Org hub = withInstance("https://x.sandbox.my.salesforce.com");
  hub.isDevHub = true;
  EXPECT_EQ(hub.type(), OrgType::devHub);

  Org flagged = withInstance("https://x.my.salesforce.com");
  flagged.isSandbox = true;
  EXPECT_EQ(flagged.type(), OrgType::sandbox);

  EXPECT_EQ(withInstance("https://acme--uat.SANDBOX.my.salesforce.com").type(), OrgType::sandbox);

  Org viaLogin = withInstance("https://acme.my.salesforce.com");
  viaLogin.loginUrl = "https://TEST.salesforce.com";
  viaLogin.isSandbox = false;
  EXPECT_EQ(viaLogin.type(), OrgType::sandbox) << "the sandbox login server marks a sandbox";

  EXPECT_EQ(withInstance("https://x.scratch.my.salesforce.com").type(), OrgType::scratch);
  EXPECT_EQ(withInstance("https://acme.develop.my.salesforce.com").type(), OrgType::developer);
  EXPECT_EQ(withInstance("https://acme-dev-ed.my.salesforce.com").type(), OrgType::developer);
}

TEST(OrgType, ProductionOnlyWhenSomethingPositiveSaysSo) {
  Org plain = withInstance("https://acme.my.salesforce.com");
  EXPECT_EQ(plain.type(), OrgType::other) << "no flags, no edition";

  Org notSandbox = plain;
  notSandbox.isSandbox = false;
  EXPECT_EQ(notSandbox.type(), OrgType::production);

  Org withEdition = plain;
  withEdition.edition = "Enterprise Edition";
  EXPECT_EQ(withEdition.type(), OrgType::production);

  Org noInstance = notSandbox;
  noInstance.instanceUrl = "";
  EXPECT_EQ(noInstance.type(), OrgType::other) << "an empty instance URL is not production";
  noInstance.instanceUrl.reset();
  EXPECT_EQ(noInstance.type(), OrgType::other);
}

OrgConnection connectionOf(const std::string& status, bool checkedAlone = false) {
  Org org = withInstance("https://acme.my.salesforce.com");
  org.connectedStatusRaw = status;
  if (checkedAlone) org.checkedAlone = true;
  return org.connection();
}

TEST(OrgConnection, StatusTextsMapToStates) {
  EXPECT_EQ(connectionOf("Connected"), OrgConnection::connected);
  EXPECT_EQ(connectionOf("connected"), OrgConnection::unknown) << "case matters for Connected";
  EXPECT_EQ(connectionOf("Unable to refresh session: ETIMEDOUT"), OrgConnection::unreachable)
      << "a network failure is not a login failure, even when it mentions the session";
  EXPECT_EQ(connectionOf("getaddrinfo ENOTFOUND acme.my.salesforce.com"),
            OrgConnection::unreachable);
  EXPECT_EQ(connectionOf("Down for Maintenance"), OrgConnection::unreachable);
  EXPECT_EQ(connectionOf("expired access/refresh token"), OrgConnection::needsLogin);
  EXPECT_EQ(connectionOf("INVALID_SESSION_ID"), OrgConnection::needsLogin);
  EXPECT_EQ(connectionOf("Inactive User"), OrgConnection::needsLogin);
  EXPECT_EQ(connectionOf("Something new"), OrgConnection::unknown);
}

TEST(OrgConnection, RefreshTokenErrorFromTheListIsOnlyBelievedWhenCheckedAlone) {
  EXPECT_EQ(connectionOf("RefreshTokenAuthError"), OrgConnection::checking);
  EXPECT_EQ(connectionOf("  refreshtokenautherror\n"), OrgConnection::checking);
  EXPECT_EQ(connectionOf("RefreshTokenAuthError", true), OrgConnection::needsLogin);
}

TEST(OrgConnection, ScratchOrgWithoutStatusUsesItsScratchStatusUnlessExpired) {
  Org scratch = withInstance("https://x.scratch.my.salesforce.com");
  EXPECT_EQ(scratch.connection(), OrgConnection::unknown);
  scratch.isScratch = true;
  scratch.scratchStatus = "active";
  EXPECT_EQ(scratch.connection(), OrgConnection::connected);
  scratch.scratchStatus = "Deleted";
  EXPECT_EQ(scratch.connection(), OrgConnection::unknown);
  scratch.scratchStatus = "Active";
  scratch.isExpiredFlag = true;
  EXPECT_EQ(scratch.connection(), OrgConnection::unknown);
}

TEST(Org, HostAndInstanceTexts) {
  EXPECT_EQ(withInstance("https://acme.my.salesforce.com/").host(), "acme.my.salesforce.com");
  EXPECT_EQ(withInstance("http://127.0.0.1:18778/").host(), "127.0.0.1");
  EXPECT_EQ(withInstance("https://user@[::1]:8443/x?y#z").host(), "::1");
  EXPECT_EQ(withInstance("na42.salesforce.com").host(), "na42.salesforce.com") << "not a URL";
  EXPECT_EQ(withInstance("https://").host(), "https://") << "no host";
  EXPECT_EQ(withInstance("https://bad host/").host(), "https://bad host/");
  EXPECT_EQ(Org{}.host(), "");

  Org org;
  EXPECT_EQ(org.instanceDisplay(), std::nullopt);
  org.instanceName = "";
  org.createdOrgInstance = "CS42";
  EXPECT_EQ(org.instanceDisplay(), "CS42");
  org.instanceName = "NA42";
  EXPECT_EQ(org.instanceDisplay(), "NA42");
}

Org fullRecord() {
  Org org;
  org.username = "admin@sample.org";
  org.alias = "sample";
  org.orgId = "00D000000000001EAA";
  org.instanceUrl = "https://acme.my.salesforce.com";
  org.loginUrl = "https://login.salesforce.com";
  org.name = "Acme";
  org.edition = "Enterprise Edition";
  org.instanceName = "NA42";
  org.createdOrgInstance = "CS1";
  org.connectedStatusRaw = "Connected";
  org.checkedAlone = true;
  org.scratchStatus = "Active";
  org.isExpiredFlag = false;
  org.isDevHub = true;
  org.isDefaultUsername = true;
  org.isSandbox = false;
  org.isScratch = false;
  org.lastUsed = IsoTime::parseFractional("2026-11-22T10:32:09.851Z");
  org.expirationDate = IsoTime::parseDay("2026-12-01");
  return org;
}

TEST(OrgJSON, RoundTripsEveryFieldUnderItsOwnName) {
  const Org org = fullRecord();
  const nlohmann::json json = org.toJSON();
  EXPECT_EQ(json.size(), 19u);
  EXPECT_EQ(json["edition"], "Enterprise Edition");
  EXPECT_EQ(json["connectedStatusRaw"], "Connected");
  EXPECT_EQ(json["lastUsed"], "2026-11-22T10:32:09.851Z");
  EXPECT_EQ(Org::fromJSON(json), org);
  EXPECT_EQ(nlohmann::json(org).get<Org>(), org);

  Org minimal;
  minimal.username = "x@y.z";
  EXPECT_EQ(Org::fromJSON(nlohmann::json::parse(minimal.toJSON().dump())), minimal);
}

TEST(OrgJSON, WrongTypesAreAbsentAndAMissingUsernameIsNoRecord) {
  const auto json = nlohmann::json::parse(R"({"username":"u@x.org","alias":7,"isDevHub":"yes",
      "isSandbox":null,"lastUsed":12345,"expirationDate":"05/01/2024","checkedAlone":[true]})");
  const auto org = Org::fromJSON(json);
  ASSERT_TRUE(org);
  EXPECT_EQ(org->alias, std::nullopt);
  EXPECT_FALSE(org->isDevHub);
  EXPECT_EQ(org->isSandbox, std::nullopt);
  EXPECT_EQ(org->lastUsed, std::nullopt);
  EXPECT_EQ(org->expirationDate, std::nullopt);
  EXPECT_EQ(org->checkedAlone, std::nullopt);

  EXPECT_EQ(Org::fromJSON(nlohmann::json::parse(R"({"username":5})")), std::nullopt);
  EXPECT_EQ(Org::fromJSON(nlohmann::json::array()), std::nullopt);
  EXPECT_THROW(nlohmann::json::object().get<Org>(), std::invalid_argument);
}

TEST(Org, EqualityAndHashingCoverEveryField) {
  const Org org = fullRecord();
  Org unchecked = org;
  unchecked.checkedAlone.reset();
  EXPECT_NE(unchecked, org);
  std::unordered_set<Org> set{org, org, unchecked};
  EXPECT_EQ(set.size(), 2u);
}

TEST(Org, AWriteToProductionIsConfirmedByTheOrgsNameOrElseTheLoginsName) {
  Org org = fullRecord();
  org.name = "  Acme Corp ";
  EXPECT_EQ(ProductionWrite::nameToType(org), "Acme Corp");
  EXPECT_TRUE(ProductionWrite::confirms(org, "Acme Corp\r"));
  EXPECT_FALSE(ProductionWrite::confirms(org, "acme corp"));
  org.name = " ";
  EXPECT_EQ(ProductionWrite::nameToType(org), "sample");
  EXPECT_FALSE(ProductionWrite::confirms(org, ""));
  const std::string refusal = ProductionWriteRefused::nameDidNotMatch(org).what();
  EXPECT_NE(refusal.find("\"sample\""), std::string::npos) << refusal;
}

TEST(Org, ScreenTexts) {
  Org org = fullRecord();
  EXPECT_EQ(org.displayName(), "sample");
  org.alias = "";
  EXPECT_EQ(org.displayName(), "admin@sample.org");

  org.alias = "acme";
  org.connectedStatusRaw = "RefreshTokenAuthError";
  org.checkedAlone = true;
  EXPECT_NE(org.statusDetail().find("sf org login web --alias acme"), std::string::npos);

  const SystemTime now = *IsoTime::parsePlain("2026-11-29T23:00:00Z");
  EXPECT_EQ(org.expiryLabel(now), "Expires in 2 days (2026-12-01)");
  EXPECT_EQ(org.expiryLabel(*IsoTime::parsePlain("2026-12-01T08:00:00Z")),
            "Expires today (2026-12-01)");
  EXPECT_EQ(org.expiryLabel(*IsoTime::parsePlain("2026-12-02T00:00:00Z")), "Expired on 2026-12-01");
  org.isExpiredFlag = true;
  EXPECT_EQ(org.expiryLabel(now), "Expired on 2026-12-01");
  org.expirationDate.reset();
  EXPECT_EQ(org.expiryLabel(now), "Expired");
  org.isExpiredFlag.reset();
  EXPECT_EQ(org.expiryLabel(now), "");
}

}  // namespace
}  // namespace corvane
