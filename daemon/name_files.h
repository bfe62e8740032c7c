// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "notify/name_reservations.h"

namespace keel {

inline constexpr const char* kNamesFolder = "/etc/keeld/names.d";
inline constexpr std::string_view kNamesSuffix = ".conf";

// Larger files are refused. Room for tens of thousands of rules.
inline constexpr std::size_t kNamesFileBytes = 1u << 20;

struct NamesRead {
  NameReservations reservations;
  // Each names the file and line, what is wrong there, and what to do.
  std::vector<std::string> problems;
};

// Reads the rules in the files of `folder` that end in kNamesSuffix and do not begin with a dot, in
// the order of their names. A missing folder means no rules. A file is refused as a whole if it is
// not a regular file, is too large, or is writable by anybody but root and this process's user; so
// are all files if the folder is.
NamesRead readNameReservations(const std::string& folder = kNamesFolder);

}  // namespace keel
