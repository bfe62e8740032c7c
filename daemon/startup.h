// SPDX-License-Identifier: Apache-2.0
#pragma once

// The steps of the daemon's start-up, in main's order. Each ends the process with the stated exit
// code on failure.

namespace keel {

inline constexpr int kExitNotRoot = 1;
inline constexpr int kExitNoLockDirectory = 2;
inline constexpr int kExitNoListener = 3;
inline constexpr int kExitNoThread = 4;

// Ends with kExitNotRoot and a message on standard error unless the real user is root.
void requireRoot(const char* programName);

// Blocks SIGHUP and SIGTERM, in every thread started later too: they stay pending for their signal
// sources, neither ends the process, and none is lost. Before any thread exists.
void blockSignals();

// Resets SIGCHLD to its default, so that the kernel keeps each child's exit status until it is
// reaped: an ignored SIGCHLD is inherited, and children are then reaped automatically. Before any
// thread exists.
void keepChildStatus();

// Disables core dumps of this process, whose memory holds a password during an attempt. Root can
// still attach a debugger. Programs started by keeld are not affected.
void forbidCores();

// Reports crashes to the log's destination: banner, build id and backtrace
// (platform/product/crash_report.h). Before any thread exists.
void reportCrashes();

// Starts logging to the journal or standard error; the environment variable KEELD_LOG sets the
// levels. Ends with kExitNoThread and a message on standard error if the logging thread cannot be
// started.
void startDaemonLogging();

// Logs a warning if the kernel has no audit sessions, to which every proof is bound. `ownSession`
// is the kernel's file with this process's session.
void warnIfNoAuditSessions(const char* ownSession = "/proc/self/sessionid");

// Has memory that clients made the daemon take go back to the system soon.
void limitHeap();

// Starts the I/O thread and the first thread of each pool: if the system refuses more threads
// later, keeld is only slower. Ends with kExitNoThread if one cannot be started.
void startThreads();

// Raises the I/O thread's priority above its clients': its turns are short, and every client waits
// for them.
void preferIoThread();

// Creates `path` with mode 0755; leaves anything that already exists there unchanged. Ends with
// kExitNoLockDirectory.
void makeLockDirectory(const char* path);

// Creates and enables the jobs of the product's modules, before any client can connect. A failure
// does not stop the start.
void loadModules();

// Reads which names are reserved for which users (name_files.h), before any client can connect.
// Problems are logged and do not stop the start.
void reserveNames();

// Creates the listeners and resumes each before creating the next. Ends with kExitNoListener if a
// service's socket cannot be had.
void openListeners();

// Logs that this version of keeld runs. Before installSignalHandling(), so that no shutdown message
// precedes it.
void logStarted();

// Ignores SIGHUP and shuts down cleanly on SIGTERM, including one that arrived during the start.
void installSignalHandling();

}  // namespace keel
