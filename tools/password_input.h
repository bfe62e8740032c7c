// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <expected>
#include <optional>
#include <string>

#include "runtime/foundation/secret.h"

// Reads passwords: never from keelctl's arguments or environment, which others can see.

namespace keel {

inline constexpr std::size_t kLongestPasswordBytes = 1024;

enum class Prompting { once, twice };

// Reads the first line from `descriptor`, or without one from the terminal, after `prompt` and
// without echo; prompts twice where a typo would go unnoticed. Fails with a text for people: there
// is no terminal, the two differ, the password is too long or not UTF-8.
std::expected<Secret, std::string> readPassword(const std::string& prompt,
                                                std::optional<int> descriptor, Prompting prompting);

}  // namespace keel
