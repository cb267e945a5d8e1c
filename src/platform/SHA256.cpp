#include "platform/SHA256.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "platform/Error.h"

namespace tarn {

std::array<uint8_t, 32> sha256(ByteView bytes) {
  std::array<uint8_t, 32> digest{};
  if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sha256(), nullptr) != 1) {
    throw Error("OpenSSL", -1, "SHA-256 is not available");
  }
  return digest;
}

std::array<uint8_t, 32> hmacSHA256(ByteView key, ByteView text) {
  std::array<uint8_t, 32> digest{};
  if (!HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), text.data(), text.size(), digest.data(), nullptr)) {
    throw Error("OpenSSL", -1, "HMAC with SHA-256 is not available");
  }
  return digest;
}

}  // namespace tarn
