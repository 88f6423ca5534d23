#include "tools/orgsim/sf/token_cipher.hpp"

#include <gtest/gtest.h>

namespace corvane::sfstandin {
namespace {

constexpr const char* kToken = "00D000000000001!AQ4AQFakeTokenForLocalOrg123";

// A value the real Salesforce CLI (2.150.6) wrote into a login file, with the key it
// wrote into key.json: the stand-in must read logins the real CLI made.
TEST(TokenCipher, DecryptsWhatTheRealCliWrote) {
  const char* key = "460869ab28377b4d4f864889cc4c43e9";
  const char* stored =
      "b262dc93bc420f485e122f0918a50c5f396c3061f20d78c3d8265e92c38696cea932986a2e21cedf7444d0b8"
      "77f89a7eed9b:c05c11d6a397bcf95438b9c0256a3b24";
  EXPECT_EQ(TokenCipher::decrypt(key, stored), kToken);
}

TEST(TokenCipher, RoundTripsWithAFreshNonceEachTime) {
  std::string key = TokenCipher::newKey();
  ASSERT_EQ(key.size(), 32u);
  std::string first = TokenCipher::encrypt(key, kToken);
  std::string second = TokenCipher::encrypt(key, kToken);
  EXPECT_NE(first, second);
  EXPECT_EQ(first.find(kToken), std::string::npos);
  EXPECT_EQ(TokenCipher::decrypt(key, first), kToken);
  EXPECT_EQ(TokenCipher::decrypt(key, second), kToken);
}

TEST(TokenCipher, RefusesAnotherKeyAChangedByteOrAMalformedValue) {
  std::string key = TokenCipher::newKey();
  std::string stored = TokenCipher::encrypt(key, kToken);

  EXPECT_EQ(TokenCipher::decrypt(TokenCipher::newKey(), stored), std::nullopt);

  std::string flipped = stored;
  flipped[20] = flipped[20] == '0' ? '1' : '0';
  EXPECT_EQ(TokenCipher::decrypt(key, flipped), std::nullopt);

  EXPECT_EQ(TokenCipher::decrypt(key, stored.substr(0, stored.find(':'))), std::nullopt);
  EXPECT_EQ(TokenCipher::decrypt(key, "short:00"), std::nullopt);
  EXPECT_EQ(TokenCipher::decrypt(key, kToken), std::nullopt);
  EXPECT_EQ(TokenCipher::decrypt("too-short-key", stored), std::nullopt);
}

}  // namespace
}  // namespace corvane::sfstandin
