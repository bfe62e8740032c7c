// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "daemon/readiness.h"
#include "daemon/startup.h"
#include "platform/dispatch/system.h"
#include "platform/logging/logger.h"
#include "platform/product/crash_annotation.h"
#include "platform/product/product.h"

int main(int, char** arguments) {
  using namespace keel;
  requireRoot(arguments[0]);
  holdSignals();
  forbidCores();
  setCrashBanner(std::string(TBCopyCalderBuildVersion().view()).c_str());
  startDaemonLogging();
  complainAboutMissingSessions();
  makeLockDirectory(kLockDirectory);
  preferIoThread();
  loadModules();
  openListeners();
  installSignalHandling();
  _loggerForCategory("runtime").debug("up and running");
  tellReady();
  dispatchMain();
}
