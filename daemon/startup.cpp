// SPDX-License-Identifier: Apache-2.0
#include "daemon/startup.h"

#include <fmt/format.h>
#include <malloc.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "daemon/name_files.h"
#include "daemon/readiness.h"
#include "daemon/services.h"
#include "modules/module_manager.h"
#include "notify/notification_service.h"
#include "platform/product/build_id.h"
#include "platform/product/crash_report.h"
#include "platform/product/product.h"
#include "runtime/dispatch/signal_source.h"
#include "runtime/dispatch/system.h"
#include "runtime/dispatch/thread_priority.h"
#include "runtime/dispatch/worker_pool.h"
#include "runtime/foundation/check.h"
#include "runtime/foundation/crash_stack.h"
#include "runtime/logging/log_system.h"
#include "runtime/logging/logger.h"
#include "runtime/logging/standard_error_output.h"
#include "runtime/transport/admissions.h"
#include "runtime/transport/foreign_descriptors.h"
#include "runtime/xpc/listener.h"

namespace keel {

namespace {

// Time limit for flushing the last messages to the journal before the process exits.
constexpr std::chrono::milliseconds kLogPatience{500};

// State of the whole process; never destroyed, since other threads still use it during exit().
struct Process {
  Services<xpc::Listener> services;
  std::unique_ptr<SignalSource> hangup;
  std::unique_ptr<SignalSource> terminate;
  std::unique_ptr<CrashStack> mainStack;
  std::unique_ptr<CrashStack> ioStack;  // set by the I/O thread
};

Process& process() {
  static Process& kept = *new Process;
  return kept;
}

Logger& logger() {
  static Logger& runtime = _loggerForCategory("runtime");
  return runtime;
}

Logger& startupLogger() {
  static Logger& startup = _loggerForCategory("startup");
  return startup;
}

[[noreturn]] void endProcess(int exitCode) {
  flushLog(kLogPatience);
  std::exit(exitCode);
}

void requireThread(const char* thread, const std::error_code& problem) {
  if (!problem) return;
  logger().error("cannot start {}: {}; raise the limit on tasks or memory", thread,
                 problem.message());
  endProcess(kExitNoThread);
}

std::shared_ptr<xpc::Listener> makeListener(const char* serviceName) {
  auto listener =
      xpc::Listener::initWithMachServiceName(serviceName, xpc::TransportContext::ofIoThread());
  if (!listener) {
    logger().error("cannot serve {}: {}", serviceName, listener.error());
    endProcess(kExitNoListener);
  }
  return std::move(*listener);
}

void shutDown() {
  logger().standard("signal handler: received SIGTERM, shutting down");
  process().services.close();
  notifyStopping();
  endProcess(0);
}

bool isPending(int signal) {
  sigset_t pending;
  return ::sigpending(&pending) == 0 && ::sigismember(&pending, signal) == 1;
}

// A blocked signal stays pending even if it is ignored, but setting SIG_IGN discards an already
// pending one, which is therefore sent again. So this is done once, and early.
void holdSignal(int signal) {
  blockSignal(signal);
  const bool pending = isPending(signal);
  ::signal(signal, SIG_IGN);
  if (pending) ::kill(::getpid(), signal);
}

std::unique_ptr<SignalSource> resumedSource(int signal, Block handler) {
  auto source = SignalSource::create(signal);
  if (source) {
    source->setEventHandler(std::move(handler));
    source->resume();
  }
  return source;
}

}  // namespace

void requireRoot(const char* programName) {
  if (::getuid() == 0) return;
  std::fprintf(stderr, "%s must be executed as root.\nSee the man pages for %s, su, and sudo.\n",
               programName, programName);
  std::exit(kExitNotRoot);
}

void blockSignals() {
  holdSignal(SIGHUP);
  holdSignal(SIGTERM);
}

void keepChildStatus() {
  ::signal(SIGCHLD, SIG_DFL);
}

void forbidCores() {
  KEEL_CHECK(::prctl(PR_SET_DUMPABLE, 0) == 0);
}

void reportCrashes() {
  const bool isJournal = isJournalStream(STDERR_FILENO, std::getenv("JOURNAL_STREAM"));
  installCrashReport(isJournal ? CrashOutput::journal : CrashOutput::lines);
  process().mainStack = std::make_unique<CrashStack>();
}

void startDaemonLogging() {
  const char* setting = std::getenv("KEELD_LOG");
  std::string invalidEntries;
  try {
    invalidEntries = startLogging(defaultOutput(), setting != nullptr ? setting : "");
  } catch (const std::system_error& problem) {
    std::fprintf(stderr, "keeld: cannot start the logging thread: %s\n",
                 problem.code().message().c_str());
    std::exit(kExitNoThread);
  }
  if (!invalidEntries.empty()) logger().error("KEELD_LOG: not understood: {}", invalidEntries);
}

void warnIfNoAuditSessions(const char* ownSession) {
  if (::access(ownSession, F_OK) == 0) return;
  logger().error(
      "this kernel has no audit sessions: all processes are in session -1, and a proof by one "
      "of them "
      "counts for all; use a kernel with CONFIG_AUDIT");
}

void limitHeap() {
  // Fixed, else it grows with what is freed: large values go back to the system at once.
  constexpr int kMapFromBytes = 256 << 10;
  // One for nearly every thread otherwise, each with free memory of its own after a burst.
  constexpr int kArenas = 4;
  ::mallopt(M_MMAP_THRESHOLD, kMapFromBytes);
  ::mallopt(M_ARENA_MAX, kArenas);
}

void startThreads() {
  try {
    ioReactor();
  } catch (const std::system_error& problem) {
    requireThread("the I/O thread", problem.code());
  }
  ioReactor().post([] { process().ioStack = std::make_unique<CrashStack>(); });
  requireThread("a worker thread", globalQueue().start());
  requireThread("a thread for checks", checkQueue().start());
  requireThread("a thread that closes descriptors", xpc::startClosing());
}

void preferIoThread() {
  ioReactor().post([] {
    if (const std::error_code problem = raiseThreadPriority()) {
      logger().debug("the I/O thread keeps an ordinary priority: {}", problem.message());
    }
  });
}

void makeLockDirectory(const char* path) {
  if (::mkdir(path, 0755) == 0) return;
  const int problem = errno;
  if (problem == EEXIST) return;
  logger().error("Failed to create the lock dir at {} errno = {}", path, problem);
  endProcess(kExitNoLockDirectory);
}

void loadModules() {
  // Modules may have sockets, too.
  xpc::raiseDescriptorLimit();
  KLNModuleManager::defaultManager()->loadAllModules();
}

void reserveNames() {
  NamesRead read = readNameReservations();
  for (const std::string& problem : read.problems) startupLogger().error("{}", problem);
  if (const std::size_t count = read.reservations.count(); count > 0)
    startupLogger().debug("{} rules reserve names", count);
  // Runs before the listeners accept the first client.
  ioReactor().post([reservations = std::move(read.reservations)]() mutable {
    KLNNotificationService::defaultService()->setReservations(std::move(reservations));
  });
}

void openListeners() {
  process().services.open(makeListener);
}

void logStarted() {
  _loggerForCategory("daemon").standard("keeld {} is running (build id {})",
                                        TBCopyCalderBuildVersion(), buildId());
}

void installSignalHandling() {
  process().hangup = resumedSource(SIGHUP, [] {});
  process().terminate = resumedSource(SIGTERM, shutDown);
}

}  // namespace keel
