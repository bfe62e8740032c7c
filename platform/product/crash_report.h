// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace keel {

// The kind of standard error.
enum class CrashOutput : std::uint8_t {
  lines,    // anything that takes lines
  journal,  // the journal's stream, where each line begins with its priority
};

// Installs handlers for the fault signals (SEGV, BUS, ILL, FPE, ABRT, SYS) that write a report to
// the current standard error: signal and thread, the banner of the crash annotation, the build id,
// and a backtrace. The process then dies of that signal. The report shows no other memory, which
// may hold a password.
//
// Leaves existing handlers, a sanitizer's for example, in place. Called once, before any other
// thread exists. A thread needs a CrashStack to report stack exhaustion.
void installCrashReport(CrashOutput output);

}  // namespace keel
