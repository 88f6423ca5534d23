#include "tools/orgsim/sf/org_http.hpp"

#include <gtest/gtest.h>

namespace corvane::sfstandin {
namespace {

// Plain http carries the token in clear: only this machine's addresses may have it.
TEST(OrgHttp, OnlyThisMachinesAddressesCountAsLoopback) {
  for (const char* url : {"http://127.0.0.1:8080", "http://127.0.0.1", "http://127.9.8.7:1/x",
                          "http://localhost:3000/", "http://[::1]:8443/services"}) {
    EXPECT_TRUE(isLoopbackUrl(url)) << url;
  }
  for (const char* url :
       {"http://127.0.0.1.example.com", "http://localhost.example.com:80", "http://10.0.0.1",
        "http://example.com/127.0.0.1", "127.0.0.1:80", "http://127.0.0", "http://user@example.com",
        "http://127.0.0.1@example.com"}) {
    EXPECT_FALSE(isLoopbackUrl(url)) << url;
  }
}

TEST(OrgHttp, ReadsSalesforceAndOAuthErrorBodies) {
  auto rest = parseOrgError(
      R"([{"message":"Session expired or invalid","errorCode":"INVALID_SESSION_ID"}])");
  ASSERT_TRUE(rest);
  EXPECT_EQ(rest->errorCode, "INVALID_SESSION_ID");
  EXPECT_EQ(rest->message, "Session expired or invalid");

  auto oauth = parseOrgError(
      R"({"error":"invalid_token","error_description":"expired access/refresh token"})");
  ASSERT_TRUE(oauth);
  EXPECT_EQ(oauth->errorCode, "invalid_token");
  EXPECT_EQ(oauth->message, "expired access/refresh token");

  EXPECT_FALSE(parseOrgError("<html>Bad Gateway</html>"));
  EXPECT_FALSE(parseOrgError("[]"));
  EXPECT_FALSE(parseOrgError(R"([42])"));
}

}  // namespace
}  // namespace corvane::sfstandin
