// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

namespace keel {

// The process's crash report record, in the executable's section "keel_crash_info", so that
// debuggers and core file readers find the message without our symbols.
struct CrashAnnotation {
  std::uint64_t version;
  const char* message;
};

inline constexpr std::size_t kCrashMessageBytes = 256;

// Returns the process's record; its version is 5, its message null until setCrashBanner().
const CrashAnnotation& crashAnnotation();

// Points the record at the process-wide buffer of kCrashMessageBytes, then fills it with "* Calder
// Version VERSION *", cut at 255 characters. Called once.
void setCrashBanner(const char* version);

}  // namespace keel
