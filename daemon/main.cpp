// SPDX-License-Identifier: Apache-2.0
#include <signal.h>

#include <string>

#include "daemon/startup.h"
#include "platform/dispatch/signal_source.h"
#include "platform/dispatch/system.h"
#include "platform/logging/logger.h"
#include "platform/product/crash_annotation.h"
#include "platform/product/product.h"

int main(int, char** arguments) {
  using namespace keel;
  requireRoot(arguments[0]);
  // Before any thread exists: they all inherit the mask, and only blocked signals reach their sources.
  blockSignal(SIGHUP);
  blockSignal(SIGTERM);
  setCrashBanner(std::string(TBCopyCalderBuildVersion().view()).c_str());
  startDaemonLogging();
  makeLockDirectory(kLockDirectory);
  openListeners();
  installSignalHandling();
  _loggerForCategory("runtime").debug("up and running");
  dispatchMain();
}
