#include "tools/orgsim/sf/token_cipher.hpp"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <vector>

namespace corvane::sfstandin::TokenCipher {

namespace {

constexpr std::size_t kKeyLength = 32;
constexpr std::size_t kNonceLength = 12;
constexpr std::size_t kTagLength = 16;

struct ContextDeleter {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_CIPHER_CTX, ContextDeleter>;

const unsigned char* bytes(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

std::string toHex(const unsigned char* data, std::size_t length) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(length * 2);
  for (std::size_t i = 0; i < length; ++i) {
    hex.push_back(kDigits[data[i] >> 4]);
    hex.push_back(kDigits[data[i] & 0x0f]);
  }
  return hex;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::optional<std::vector<unsigned char>> fromHex(std::string_view hex) {
  if (hex.size() % 2 != 0) return std::nullopt;
  std::vector<unsigned char> out(hex.size() / 2);
  for (std::size_t i = 0; i < out.size(); ++i) {
    int high = hexValue(hex[2 * i]);
    int low = hexValue(hex[2 * i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    out[i] = static_cast<unsigned char>(high * 16 + low);
  }
  return out;
}

std::string randomHex(std::size_t byteCount) {
  std::vector<unsigned char> raw(byteCount);
  if (RAND_bytes(raw.data(), static_cast<int>(raw.size())) != 1) {
    throw std::runtime_error("the system's random source failed");
  }
  return toHex(raw.data(), raw.size());
}

}  // namespace

std::string newKey() { return randomHex(kKeyLength / 2); }

std::string encrypt(std::string_view key, std::string_view plain) {
  if (key.size() != kKeyLength) throw std::invalid_argument("token key must be 32 characters");
  std::string nonce = randomHex(kNonceLength / 2);
  Context context(EVP_CIPHER_CTX_new());
  std::vector<unsigned char> cipher(plain.size() + kTagLength);
  std::array<unsigned char, kTagLength> tag{};
  int written = 0;
  int finalWritten = 0;
  bool ok =
      context &&
      EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, nullptr, nullptr) == 1 &&
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_IVLEN, kNonceLength, nullptr) == 1 &&
      EVP_EncryptInit_ex(context.get(), nullptr, nullptr, bytes(key), bytes(nonce)) == 1 &&
      EVP_EncryptUpdate(context.get(), cipher.data(), &written, bytes(plain),
                        static_cast<int>(plain.size())) == 1 &&
      EVP_EncryptFinal_ex(context.get(), cipher.data() + written, &finalWritten) == 1 &&
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, kTagLength, tag.data()) == 1;
  if (!ok) throw std::runtime_error("token encryption failed");
  return nonce + toHex(cipher.data(), static_cast<std::size_t>(written + finalWritten)) + ":" +
         toHex(tag.data(), tag.size());
}

std::optional<std::string> decrypt(std::string_view key, std::string_view stored) {
  if (key.size() != kKeyLength) return std::nullopt;
  std::size_t colon = stored.find(':');
  if (colon == std::string_view::npos || colon < kNonceLength) return std::nullopt;
  std::string_view nonce = stored.substr(0, kNonceLength);
  auto cipher = fromHex(stored.substr(kNonceLength, colon - kNonceLength));
  auto tag = fromHex(stored.substr(colon + 1));
  if (!cipher || !tag || tag->size() != kTagLength) return std::nullopt;

  Context context(EVP_CIPHER_CTX_new());
  std::string plain(cipher->size() + kTagLength, '\0');
  auto* out = reinterpret_cast<unsigned char*>(plain.data());
  int written = 0;
  int finalWritten = 0;
  bool ok =
      context &&
      EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, nullptr, nullptr) == 1 &&
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_IVLEN, kNonceLength, nullptr) == 1 &&
      EVP_DecryptInit_ex(context.get(), nullptr, nullptr, bytes(key), bytes(nonce)) == 1 &&
      EVP_DecryptUpdate(context.get(), out, &written, cipher->data(),
                        static_cast<int>(cipher->size())) == 1 &&
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, kTagLength, tag->data()) == 1 &&
      EVP_DecryptFinal_ex(context.get(), out + written, &finalWritten) == 1;
  if (!ok) return std::nullopt;
  plain.resize(static_cast<std::size_t>(written + finalWritten));
  return plain;
}

}  // namespace corvane::sfstandin::TokenCipher
