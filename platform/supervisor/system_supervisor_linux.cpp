// SPDX-License-Identifier: Apache-2.0
#include <systemd/sd-daemon.h>

#include "platform/product/product.h"
#include "platform/supervisor/budgeted_system_manager.h"
#include "platform/supervisor/embedded_supervisor.h"
#include "platform/supervisor/systemd_supervisor.h"
#include "runtime/dispatch/system.h"
#include "runtime/dispatch/worker_pool.h"
#include "runtime/transport/service_socket.h"

namespace keel {

namespace {

Supervisor* makeSupervisor() {
  if (sd_booted() > 0)
    return new SystemdSupervisor(std::make_unique<BudgetedSystemManager>(connectSystemManager()),
                                 UnitStore());
  return new EmbeddedSupervisor({.serviceDirectory = kServiceDirectory,
                                 .reactor = ioReactor(),
                                 .workers = globalQueue(),
                                 .records = std::make_shared<JobRecords>(kServiceDirectory)});
}

}  // namespace

// Never destroyed: its jobs use it until the process exits.
Supervisor& systemSupervisor() {
  static Supervisor* const supervisor = makeSupervisor();
  return *supervisor;
}

}  // namespace keel
