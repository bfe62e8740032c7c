// SPDX-License-Identifier: Apache-2.0
#include <systemd/sd-daemon.h>

#include "daemon/readiness.h"

namespace keel {

void tellReady() {
  ::sd_notify(/*unset_environment=*/0, "READY=1");
}

void tellStopping() {
  ::sd_notify(/*unset_environment=*/0, "STOPPING=1");
}

}  // namespace keel
