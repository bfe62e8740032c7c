// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

// What is wrong with a command line, in words for the person who typed it.

namespace keel {

// Checks of an option's value, decimal or as C writes numbers ("0x10").
CLI::Validator wholeNumber(std::int64_t least,
                           std::int64_t most = std::numeric_limits<std::int64_t>::max());
CLI::Validator unsignedNumber();
// A finite number from 0 on.
CLI::Validator seconds();

struct CommandLineFault {
  std::string message;
  std::string command;  // whose --help tells more: "keelctl auth password"
};

// Explains why `app` did not take `arguments`. It names the first word that has no place, and what
// that was probably meant to be; else what is missing or has a wrong value.
CommandLineFault explained(const CLI::App& app, const CLI::ParseError& fault,
                           const std::vector<std::string>& arguments);

}  // namespace keel
