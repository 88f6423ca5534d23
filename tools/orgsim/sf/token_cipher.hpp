// Encrypts access tokens at rest the way the Salesforce CLI does, so that a login
// written by the stand-in can be read by the real CLI and the other way round.
//
// The key is 32 hexadecimal characters kept in ~/.sfdx/key.json (0600); its
// characters themselves are the 32 bytes of an AES-256-GCM key. A stored value
// is 12 random hexadecimal characters (whose characters are the 12-byte nonce),
// the cipher text in hexadecimal, ":", and the 16-byte tag in hexadecimal.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvane::sfstandin::TokenCipher {

// A fresh key: 32 lower-case hexadecimal characters from the system's random source.
std::string newKey();

// Encrypts `plain` with a fresh nonce. `key` must be 32 characters.
std::string encrypt(std::string_view key, std::string_view plain);

// Decrypts a stored value; none when it is not in the stored form or fails authentication
// (a different key, a changed byte).
std::optional<std::string> decrypt(std::string_view key, std::string_view stored);

}  // namespace corvane::sfstandin::TokenCipher
