// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace keel {

// What standard error is connected to.
enum class CrashOutput : std::uint8_t {
  lines,    // whatever takes lines
  journal,  // the journal's stream, where a line begins with its priority
};

// From now on a signal that reports a fault (SEGV, BUS, ILL, FPE, ABRT, SYS) writes a report to
// what is standard error now: the signal and the thread, the banner of the crash annotation, the
// build id, and a backtrace. Then the process ends of that signal. Nothing else of its memory is
// shown, since there may be a password in it.
//
// A handler that such a signal has already, a sanitizer's for example, stays. Called once, before
// any other thread exists. Each thread that a crash is to be reported of for sure has a CrashStack.
void installCrashReport(CrashOutput output);

}  // namespace keel
