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
    DigestAlgorithm::sha256, DigestAlgorithm::md5};  // the preferred first

// As challenges and answers call it: "MD5", "SHA-256".
std::string_view nameOf(DigestAlgorithm algorithm);
// How many letters a digest has: 32, 64.
std::size_t hexLettersOf(DigestAlgorithm algorithm);

// The digest, in lower-case hexadecimal letters, of the parts with ":" between them. Nothing where
// the system's cryptography does not offer the algorithm, as it may refuse MD5.
std::optional<Secret> digestOf(DigestAlgorithm algorithm,
                               std::initializer_list<std::string_view> parts);

// Whether digestOf() works.
bool isOffered(DigestAlgorithm algorithm);

// In a time that depends on their sizes alone.
bool areEqual(std::string_view left, std::string_view right);

}  // namespace keel
