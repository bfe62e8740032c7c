// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

// Explains errors in a command line to the person who typed it.

namespace keel {

// Validators of an option's value, decimal or in C notation ("0x10").
CLI::Validator wholeNumber(std::int64_t least,
                           std::int64_t most = std::numeric_limits<std::int64_t>::max());
CLI::Validator unsignedNumber();
// Accepts a finite number of at least 0.
CLI::Validator seconds();

struct CommandLineFault {
  std::string message;
  std::string command;  // the command to call with --help: "keelctl auth password"
};

// Explains why `app` rejected `arguments`: names the first unexpected word and the word that was
// probably meant, else the missing argument or the invalid value.
CommandLineFault explained(const CLI::App& app, const CLI::ParseError& fault,
                           const std::vector<std::string>& arguments);

}  // namespace keel
