// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "daemon/readiness.h"
#include "daemon/startup.h"
#include "platform/product/crash_annotation.h"
#include "platform/product/product.h"
#include "runtime/dispatch/system.h"
#include "runtime/logging/logger.h"

int main(int, char** arguments) {
  using namespace keel;
  requireRoot(arguments[0]);
  blockSignals();
  keepChildStatus();
  forbidCores();
  setCrashBanner(std::string(TBCopyCalderBuildVersion().view()).c_str());
  reportCrashes();
  startDaemonLogging();
  warnIfNoAuditSessions();
  makeLockDirectory(kLockDirectory);
  limitHeap();
  startThreads();
  preferIoThread();
  loadModules();
  reserveNames();
  openListeners();
  logStarted();
  installSignalHandling();
  _loggerForCategory("runtime").debug("up and running");
  notifyReady();
  dispatchMain();
}
