// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/digest_hash.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <array>

#include "runtime/foundation/check.h"

namespace keel {

namespace {

struct Freeing {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// Returns null if it is not offered. Cached, since the lookup is the expensive part.
const EVP_MD* fetched(DigestAlgorithm algorithm) {
  static const EVP_MD* const md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
  static const EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA2-256", nullptr);
  return algorithm == DigestAlgorithm::md5 ? md5 : sha256;
}

}  // namespace

std::string_view nameOf(DigestAlgorithm algorithm) {
  return algorithm == DigestAlgorithm::md5 ? "MD5" : "SHA-256";
}

std::size_t hexLettersOf(DigestAlgorithm algorithm) {
  return algorithm == DigestAlgorithm::md5 ? 32 : 64;
}

std::optional<Secret> digestOf(DigestAlgorithm algorithm,
                               std::initializer_list<std::string_view> parts) {
  const EVP_MD* const method = fetched(algorithm);
  // Freeing it wipes its memory.
  const std::unique_ptr<EVP_MD_CTX, Freeing> context(EVP_MD_CTX_new());
  if (method == nullptr || !context || EVP_DigestInit_ex2(context.get(), method, nullptr) != 1)
    return std::nullopt;
  std::string_view separator;
  for (const std::string_view part : parts) {
    if (EVP_DigestUpdate(context.get(), separator.data(), separator.size()) != 1)
      return std::nullopt;
    if (EVP_DigestUpdate(context.get(), part.data(), part.size()) != 1) return std::nullopt;
    separator = ":";
  }
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
  unsigned size = 0;
  if (EVP_DigestFinal_ex(context.get(), digest.data(), &size) != 1) return std::nullopt;
  KEEL_CHECK(size * 2 == hexLettersOf(algorithm));
  Secret letters(hexLettersOf(algorithm));
  for (std::size_t i = 0; i < letters.bytes().size(); ++i) {
    letters.bytes()[i] =
        static_cast<std::byte>("0123456789abcdef"[(digest[i / 2] >> (i % 2 == 0 ? 4 : 0)) & 15]);
  }
  OPENSSL_cleanse(digest.data(), digest.size());
  return letters;
}

bool isOffered(DigestAlgorithm algorithm) {
  return fetched(algorithm) != nullptr;
}

bool areEqual(std::string_view left, std::string_view right) {
  return left.size() == right.size() && CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

}  // namespace keel
