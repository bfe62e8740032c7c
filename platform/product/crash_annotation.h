// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

namespace keel {

// What a crash report shows of this process: a record in the executable's section
// "keel_crash_info", so that a debugger or a reader of core files finds the message without symbols
// of ours.
struct CrashAnnotation {
  std::uint64_t version;
  const char* message;
};

inline constexpr std::size_t kCrashMessageBytes = 256;

// The process's record; its version is 5, its message null until setCrashBanner().
const CrashAnnotation& crashAnnotation();

// Points the record at the process-wide buffer of kCrashMessageBytes, then fills it with "* Calder
// Version VERSION *", cut at 255 characters. Called once.
void setCrashBanner(const char* version);

}  // namespace keel
