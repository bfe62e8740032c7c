// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <expected>
#include <optional>
#include <string>

#include "runtime/foundation/secret.h"

// Where keelctl gets passwords from: never from its arguments or environment, which others can see.

namespace keel {

inline constexpr std::size_t kLongestPasswordBytes = 1024;

enum class Prompting { once, twice };

// The first line that comes from `descriptor`, or, without one, that is typed on the terminal
// behind `prompt`, unseen; asked for twice where a mistake would go unnoticed. Fails with a text
// for people: there is no terminal, both differ, it is too long, or no UTF-8.
std::expected<Secret, std::string> readPassword(const std::string& prompt,
                                                std::optional<int> descriptor, Prompting prompting);

}  // namespace keel
