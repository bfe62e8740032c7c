// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string_view>

#include "runtime/foundation/secret.h"

namespace keel {

enum class DigestAlgorithm : std::uint8_t { md5, sha256 };

inline constexpr DigestAlgorithm kDigestAlgorithms[] = {
    DigestAlgorithm::sha256, DigestAlgorithm::md5};  // in order of preference

// Returns the name used in challenges and answers: "MD5", "SHA-256".
std::string_view nameOf(DigestAlgorithm algorithm);
// Returns the length of a digest in hexadecimal digits: 32, 64.
std::size_t hexLettersOf(DigestAlgorithm algorithm);

// Returns the digest, in lower-case hexadecimal digits, of the parts joined by ":". Returns nothing
// if the system's cryptography does not offer the algorithm; it may refuse MD5.
std::optional<Secret> digestOf(DigestAlgorithm algorithm,
                               std::initializer_list<std::string_view> parts);

// Returns true if digestOf() supports the algorithm.
bool isOffered(DigestAlgorithm algorithm);

// Compares in time that depends only on the sizes.
bool areEqual(std::string_view left, std::string_view right);

}  // namespace keel
