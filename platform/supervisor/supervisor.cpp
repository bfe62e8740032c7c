// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/supervisor.h"

namespace keel {

Supervisor::~Supervisor() = default;

}  // namespace keel
