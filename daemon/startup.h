// SPDX-License-Identifier: Apache-2.0
#pragma once

// The steps of the daemon's start, in the order in which main takes them. Each ends the process
// with the exit code named when it cannot do its part.

namespace keel {

inline constexpr int kExitNotRoot = 1;
inline constexpr int kExitNoLockDirectory = 2;
inline constexpr int kExitNoListener = 3;
inline constexpr int kExitNoThread = 4;

// Ends with kExitNotRoot and a message on standard error unless the real user is root.
void requireRoot(const char* programName);

// Has SIGHUP and SIGTERM wait for their sources from now on, in every thread that is started later:
// neither ends the process any more, and none is lost. Before any thread exists.
void holdSignals();

// Has the kernel keep the status of each child until it is asked for, even if whoever started this
// process ignored SIGCHLD: an ignored SIGCHLD is inherited, and children then vanish unseen. Before
// any thread exists.
void keepChildStatus();

// Has the kernel write no core of this process, wherever it crashes: in the middle of an attempt it
// has a password in its memory. Root's debuggers still may look. Programs that it starts are free
// of this.
void forbidCores();

// Has a crash written to where the log goes: banner, build id and backtrace
// (platform/product/crash_report.h). Before any thread exists.
void reportCrashes();

// Starts logging to the journal or standard error; the environment variable KEELD_LOG sets the
// levels. Ends with kExitNoThread and a message on standard error when the logging thread cannot be
// started.
void startDaemonLogging();

// Says so in the log when this system does not tell sessions apart, to which every proof is bound.
// `ownSession` is where the kernel shows this process's own.
void complainAboutMissingSessions(const char* ownSession = "/proc/self/sessionid");

// Starts the I/O thread and the first thread of each pool: a machine that gives no more threads
// later makes keeld slower, and no more. Ends with kExitNoThread when one cannot be started.
void startThreads();

// Has the I/O thread run before the clients that it serves: its turns are short, and everybody
// waits for them.
void preferIoThread();

// Makes `path`, mode 0755; what exists there already is left as it is. Ends with
// kExitNoLockDirectory.
void makeLockDirectory(const char* path);

// Makes and enables the jobs of the product's modules, before any client can come. Whatever comes
// of it, the start goes on.
void loadModules();

// Makes the listeners and resumes each before the next is made. Ends with kExitNoListener when a
// service's socket cannot be had.
void openListeners();

// Logs that this version of keeld runs. Before installSignalHandling(), so that no message of the
// end comes before it.
void announce();

// Has SIGHUP do nothing and SIGTERM end the process in good order, also one that came during the
// start.
void installSignalHandling();

}  // namespace keel
